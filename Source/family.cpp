#include "family.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "bytes.h"
#include "lock.h"
#include "usb_driver.h"

namespace corvel {

namespace {
bool accepts(std::initializer_list<int32_t> accepted, int32_t type) {
    return std::find(accepted.begin(), accepted.end(), type) != accepted.end();
}

constexpr int32_t kProductInfoSize = 52;
}  // namespace

// The open never sets the family's flag, so every open calls lock_init, which creates the mutex only
// once per process.
int32_t family_open(std::initializer_list<int32_t> accepted, int32_t DevType, int32_t DevIndex,
                    const int& lock_created) {
    if (!accepts(accepted, DevType)) return KD_ERR_DEVICE_NOT_AVAILABLE;
    if (!lock_created) lock_init(DevIndex);
    return KD_OpenBoard(DevIndex);
}

int32_t family_close(std::initializer_list<int32_t> accepted, int32_t DevType, int32_t DevIndex,
                     int& lock_created) {
    if (!accepts(accepted, DevType)) return KD_ERR_DEVICE_NOT_AVAILABLE;
    lock_created = 0;
    return KD_CloseBoard(DevIndex);
}

// The reply's status byte is not examined.
int32_t read_board_info(int32_t DevIndex, const BoardInfoFields& info, bool info_is_null) {
    if (const int32_t r = KD_OpenBoard(DevIndex); r != 0) return r;
    if (!DeviceIsConnected(DevIndex)) return KD_ERR_DEVICE_NOT_OPEN;
    if (info_is_null) return KD_ERR_PARAMETER_NULL;
    S_MSG request{MSG_KD_REQUEST_PRODUCT_INFO, 0, MSG_NO_STATE, 0, nullptr};
    if (USB_SendMsg(DevIndex, &request) != 0) return KD_ERR_USB_WRITE_FAIL;
    std::array<uint8_t, kPacketPayloadMax> payload{};
    S_MSG answer{0, 0, MSG_NO_STATE, 0, payload.data()};
    if (USB_GetMsg(DevIndex, &answer, kProductInfoSize) != 0) return KD_ERR_USB_READ_FAIL;
    std::memcpy(info.firmware_version, payload.data(), 4);
    std::memcpy(info.hardware_version, payload.data() + 4, 4);
    std::memcpy(info.serial_number, payload.data() + 8, 12);
    std::memcpy(info.product_name, payload.data() + 20, 32);
    return KD_SUCCESS;
}

int32_t send_request(int32_t dev, int32_t code, std::span<const uint8_t> payload) {
    S_MSG msg{code, static_cast<int32_t>(payload.size()), MSG_NO_STATE, 0,
              const_cast<uint8_t*>(payload.data())};
    return USB_SendMsg(dev, &msg) == 0 ? KD_SUCCESS : KD_ERR_USB_WRITE_FAIL;
}

int32_t request_status(int32_t dev, int32_t code, std::span<const uint8_t> payload, MSG_STATE ok) {
    if (send_request(dev, code, payload) != 0) return KD_ERR_USB_WRITE_FAIL;
    return USB_GetStatus(dev) == ok ? KD_SUCCESS : KD_ERR_EXECUTE_CMD;
}

int32_t request_status_timeout(int32_t dev, int32_t code, std::span<const uint8_t> payload, MSG_STATE ok,
                               int timeout_ms) {
    if (send_request(dev, code, payload) != 0) return KD_ERR_USB_WRITE_FAIL;
    return USB_GetStatusWithTimeOut(dev, timeout_ms) == ok ? KD_SUCCESS : KD_ERR_EXECUTE_CMD;
}

// Callers size their storage for the longest payload they build; a field that would not fit is
// dropped rather than written past the storage.
bool Payload::room(std::size_t n) const {
    return n <= buf_.size() - len_;
}

Payload& Payload::u8(uint32_t v) {
    if (room(1)) buf_[len_++] = static_cast<uint8_t>(v);
    return *this;
}

Payload& Payload::be16(uint32_t v) {
    if (room(2)) put_be16(&buf_[len_], v), len_ += 2;
    return *this;
}

Payload& Payload::be32(uint32_t v) {
    if (room(4)) put_be32(&buf_[len_], v), len_ += 4;
    return *this;
}

Payload& Payload::bytes(const uint8_t* p, std::size_t n) {
    if (n > 0 && room(n)) std::memcpy(&buf_[len_], p, n), len_ += n;
    return *this;
}

}  // namespace corvel
