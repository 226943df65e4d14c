// Board enumeration, open/close and the interrupt command channel.
#include <array>

#include "CorvelBoard.h"
#include "bytes.h"
#include "libusb_driver.h"
#include "lock.h"
#include "usb_list.h"

namespace {
constexpr int kCommandSize = 8;
constexpr int kCommandTimeoutMs = 500;
constexpr int kCommandReads = 10;
}  // namespace

// A nonzero needInit re-reads the buses on every call; 0 reads them only the first time.
int32_t KD_EnumBoard(int32_t needInit) {
    lock(0);
    if (needInit || !usb_init_flag) {
        usb_init();
        usb_find_busses();
        usb_find_devices();
        usb_init_flag = 1;
    }
    const int32_t n = scan_dev();
    unlock(0);
    return n;
}

int32_t KD_OpenBoard(int32_t nBoardID) {
    if (!usb_init_flag) KD_EnumBoard(1);
    lock(nBoardID);
    const bool ok = open_dev(nBoardID);
    unlock(nBoardID);
    return ok ? KD_SUCCESS : KD_ERR_OPEN_DEVICE;
}

int32_t KD_CloseBoard(int32_t nBoardID) {
    lock(nBoardID);
    const bool ok = close_dev(nBoardID);
    unlock(nBoardID);
    return ok ? KD_SUCCESS : KD_ERR_CLOSE_DEVICE;
}

// Each read goes through the raw layer's own retries as well, so a silent adapter costs up to ten
// times that loop. A success on the tenth and last read returns 8 rather than 0: intended, callers
// treat any nonzero value as no answer.
int32_t KD_ExecuteCommand(KD_CMD_ENUM kd_cmd, int32_t Parameter, int32_t dev, uint8_t* cmdResult) {
    if (cmdResult == nullptr) return KD_ERR_PARAMETER_NULL;
    std::array<uint8_t, kCommandSize> request{};
    corvel::put_be32(request.data(), static_cast<uint32_t>(kd_cmd));
    corvel::put_be32(request.data() + 4, static_cast<uint32_t>(Parameter));
    const auto id = static_cast<uint32_t>(dev);
    if (LibUSBWriteData(id, kPipeIntOut, reinterpret_cast<char*>(request.data()), kCommandSize,
                        kCommandTimeoutMs) != kCommandSize)
        return 2;
    int retry = 0;
    int32_t r = 0;
    do {
        ++retry;
        r = LibUSBReadData(id, kPipeIntIn, reinterpret_cast<char*>(cmdResult), kCommandSize,
                           kCommandTimeoutMs);
    } while (r != kCommandSize && retry < kCommandReads);
    return retry > kCommandReads - 1 ? r : KD_SUCCESS;
}
