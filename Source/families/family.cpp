#include "family.h"

#include <algorithm>
#include <array>
#include <climits>

#include "kd_board.h"
#include "lock.h"

namespace corvel {

bool Family::accepts(int32_t type) const {
    return std::find(types.begin(), types.end(), type) != types.end();
}

int32_t family_scan(uint8_t NeedInit) {
    return KD_EnumBoard(NeedInit);
}

// Every open creates the lock (lock_init makes the mutex only once per process), except in the
// families whose open goes straight to the board open.
int32_t family_open(const Family& family, int32_t DevType, int32_t DevIndex) {
    if (!family.accepts(DevType)) return KD_ERR_DEVICE_NOT_AVAILABLE;
    if (family.open_creates_lock) lock_init(DevIndex);
    return KD_OpenBoard(DevIndex);
}

int32_t family_close(const Family& family, int32_t DevType, int32_t DevIndex) {
    if (!family.accepts(DevType)) return KD_ERR_DEVICE_NOT_AVAILABLE;
    return KD_CloseBoard(DevIndex);
}

Check::Check(const Family& family, int32_t DevType, int32_t DevIndex)
    : code_(!family.accepts(DevType)       ? KD_ERR_DEVICE_NOT_AVAILABLE
            : !DeviceIsConnected(DevIndex) ? KD_ERR_DEVICE_NOT_OPEN
                                           : KD_SUCCESS) {}

int32_t send(int32_t dev, Request& request) {
    return request.send(dev) == 0 ? KD_SUCCESS : KD_ERR_USB_WRITE_FAIL;
}

int32_t read_status(int32_t dev, MSG_STATE ok) {
    return USB_GetStatus(dev) == ok ? KD_SUCCESS : KD_ERR_EXECUTE_CMD;
}

int32_t request_status(int32_t dev, Request& request, MSG_STATE ok) {
    if (send(dev, request) != 0) return KD_ERR_USB_WRITE_FAIL;
    return read_status(dev, ok);
}

int32_t request_status(int32_t dev, Request& request, MSG_STATE ok, int timeout_ms) {
    if (send(dev, request) != 0) return KD_ERR_USB_WRITE_FAIL;
    return USB_GetStatusWithTimeOut(dev, timeout_ms) == ok ? KD_SUCCESS : KD_ERR_EXECUTE_CMD;
}

int32_t send_bare(int32_t dev, int32_t code, std::span<const uint8_t> payload) {
    // USB_SendStatus only reads the payload.
    S_MSG msg{code, static_cast<int32_t>(payload.size()), MSG_NO_STATE, 0,
              payload.empty() ? nullptr : const_cast<uint8_t*>(payload.data())};
    return USB_SendStatus(dev, msg) == 0 ? KD_SUCCESS : KD_ERR_USB_WRITE_FAIL;
}

int32_t send_bare(int32_t dev, Request& request) {
    const auto payload = request.payload().view();
    if (!request.payload().ok()) return KD_ERR_USB_WRITE_FAIL;
    return send_bare(dev, request.code(), payload);
}

int32_t request_fetch(int32_t dev, Request& request, MSG_STATE ok, int32_t fetch, FetchSend policy,
                      std::optional<int> status_timeout_ms) {
    const int32_t r = status_timeout_ms ? request_status(dev, request, ok, *status_timeout_ms)
                                        : request_status(dev, request, ok);
    if (r != 0) return r;
    const int32_t sent = send_bare(dev, fetch);
    return policy == FetchSend::Checked ? sent : KD_SUCCESS;
}

int32_t read_exact(int32_t dev, uint8_t* out, std::size_t n, int timeout_ms, ReadMode mode) {
    if (n == 0) return KD_SUCCESS;
    if (n > static_cast<std::size_t>(INT32_MAX)) return KD_ERR_USB_READ_FAIL;
    const auto len = static_cast<int32_t>(n);
    return USB_ReadRaw(dev, out, len, timeout_ms, mode) == len ? KD_SUCCESS : KD_ERR_USB_READ_FAIL;
}

int32_t read_data(int32_t dev, uint8_t* out, std::size_t len, int timeout_ms, ReadMode mode) {
    return USB_ReadAfterHeader(dev, out, len, timeout_ms, mode) < 0 ? KD_ERR_USB_READ_FAIL : KD_SUCCESS;
}

int32_t request_data(int32_t dev, Request& request, uint8_t* out, std::size_t len, int timeout_ms,
                     ReadMode mode) {
    if (send(dev, request) != 0) return KD_ERR_USB_WRITE_FAIL;
    return read_data(dev, out, len, timeout_ms, mode);
}

int32_t request_reply(int32_t dev, Request& request, Reply kind, std::span<uint8_t> out,
                      std::optional<MSG_STATE> ok, S_MSG* answer, int32_t wrong_status) {
    if (send(dev, request) != 0) return KD_ERR_USB_WRITE_FAIL;
    S_MSG reply{0, static_cast<int32_t>(out.size()), MSG_NO_STATE, 0, out.data()};
    uint8_t r = 1;
    switch (kind) {
        case Reply::Packet:
            r = USB_GetMsg(dev, &reply, out.size());
            break;
        case Reply::Exact:
            r = USB_GetMsgWithSize(dev, &reply, out.size());
            break;
        case Reply::Long:
            r = USB_GetMsgEx(dev, &reply, out.size());
            break;
        case Reply::Frame:
            r = USB_GetReplyFrame(dev, &reply, out.size(), proto::smbus::kReplyTimeoutMs);
            break;
    }
    if (answer != nullptr) *answer = reply;
    if (r != 0) return KD_ERR_USB_READ_FAIL;
    if (ok && reply.status != *ok) return wrong_status;
    return KD_SUCCESS;
}

// The reply's status byte is not examined.
int32_t read_board_info(int32_t DevIndex, const BoardInfoFields& info, bool info_is_null) {
    if (const int32_t r = KD_OpenBoard(DevIndex); r != 0) return r;
    if (!DeviceIsConnected(DevIndex)) return KD_ERR_DEVICE_NOT_OPEN;
    if (info_is_null) return KD_ERR_PARAMETER_NULL;
    Request request(MSG_KD_REQUEST_PRODUCT_INFO);
    std::array<uint8_t, proto::kProductInfoSize> record{};
    if (const int32_t r = request_reply(DevIndex, request, Reply::Packet, record); r != 0) return r;
    proto::Reader in(record);
    auto copy = [&](uint8_t* to, std::size_t n) {
        const auto field = in.bytes(n);
        std::copy(field.begin(), field.end(), to);
    };
    copy(info.firmware_version, proto::kFirmwareVersionSize);
    copy(info.hardware_version, proto::kHardwareVersionSize);
    copy(info.serial_number, proto::kBoardSerialSize);
    copy(info.product_name, proto::kProductNameSize);
    return KD_SUCCESS;
}

BoardLock::BoardLock(int32_t DevIndex) : index_(DevIndex) {
    lock(index_);
}

BoardLock::~BoardLock() {
    unlock(index_);
}

}  // namespace corvel
