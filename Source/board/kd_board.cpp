// Board enumeration, open/close, the connection test and the interrupt command channel.
#include "kd_board.h"

#include <array>

#include "CorvelBoard.h"
#include "corvel/protocol.hpp"
#include "lock.h"
#include "usb_driver.h"
#include "usb_list.h"

namespace proto = corvel::proto;

namespace {
constexpr int kCommandReads = 10;
}  // namespace

// The public device-type numbers are the wire's.
static_assert(KD_DEVTYPE_I2C == proto::kDevTypeI2c && KD_DEVTYPE_SPI == proto::kDevTypeSpi &&
              KD_DEVTYPE_CAN1 == proto::kDevTypeCan1 && KD_DEVTYPE_CAN2 == proto::kDevTypeCan2);

// A nonzero needInit re-reads the buses on every call; 0 reads them only the first time.
int32_t KD_EnumBoard(int32_t needInit) {
    lock(0);
    if (needInit || !usb_init_flag) {
        read_buses();
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

void ensure_enumerated() {
    if (!usb_init_flag) KD_EnumBoard(1);
}

bool open_board_locked(int32_t devNum) {
    return open_dev(devNum);
}

bool board_is_open(int32_t devNum) {
    return is_open_dev(devNum);
}

bool DeviceIsConnected(int devNum) {
    if (!usb_init_flag) KD_EnumBoard(1);
    lock(devNum);
    const bool s = check_dev(devNum);
    unlock(devNum);
    return s;
}

// Each read goes through the raw layer's own retries as well, so a silent adapter costs up to ten
// times that loop. A success on the tenth and last read returns 8 rather than 0: intended, callers
// treat any nonzero value as no answer. The command is taken as the integer a C caller passed, any
// value included; the request carries it as it is.
int32_t KD_ExecuteCommand(KD_CMD_ENUM kd_cmd, int32_t Parameter, int32_t dev, uint8_t* cmdResult) {
    if (cmdResult == nullptr) return KD_ERR_PARAMETER_NULL;
    std::array<uint8_t, proto::kCommandSize> request{};
    proto::Writer(request).be32(static_cast<uint32_t>(kd_cmd)).be32(static_cast<uint32_t>(Parameter));
    if (USB_SendCommand(dev, request) != static_cast<int32_t>(proto::kCommandSize)) return 2;
    int retry = 0;
    int32_t r = 0;
    do {
        ++retry;
        r = USB_ReadCommandAnswer(dev, cmdResult);
    } while (r != static_cast<int32_t>(proto::kCommandSize) && retry < kCommandReads);
    return retry > kCommandReads - 1 ? r : KD_SUCCESS;
}
