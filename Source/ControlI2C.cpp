// The I2C family: device management, configuration, master and slave transfers, pin-event
// transfers and the user-data area.
#include "ControlI2C.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "family.h"
#include "libusb_driver.h"
#include "usb_driver.h"

using namespace corvel;

namespace {

constexpr std::initializer_list<int32_t> kI2cTypes = {KD_DEVTYPE_I2C};
constexpr int32_t kMinClock = 1000;
constexpr int32_t kMaxClock = 5000000;
constexpr int32_t kUserDataSize = 2048;
constexpr int32_t kSlaveRemainMaxChannel = 2;
constexpr int kSlaveReadTimeoutMs = 100;
constexpr int kMasterFetchTimeoutMs = 500;
constexpr int kEventFetchTimeoutMs = 1000;
constexpr int kUserDataReadTimeoutMs = 1000;

int i2c_lock_created = 0;

// Fixed buffers: requests are assembled in one send-side buffer, data answers land in one receive
// buffer. The transfers take no lock (callers serialise them), as the rest of the family.
std::array<uint8_t, kSendBufferSize> request_buffer;
std::array<uint8_t, kReceiveBufferSize> receive_buffer;

Payload request() {
    return Payload(request_buffer);
}

// Device type, then the connection test: what every function checks first.
int32_t check_device(int32_t DevType, int32_t DevIndex) {
    if (DevType != KD_DEVTYPE_I2C) return KD_ERR_DEVICE_NOT_AVAILABLE;
    return DeviceIsConnected(DevIndex) ? KD_SUCCESS : KD_ERR_DEVICE_NOT_OPEN;
}

// Type, connection, pointer(s), channel: the order every transfer checks in.
int32_t check_transfer(int32_t DevType, int32_t DevIndex, int32_t I2CIndex,
                       std::initializer_list<const void*> ptrs) {
    if (const int32_t r = check_device(DevType, DevIndex); r != 0) return r;
    for (const void* p : ptrs)
        if (p == nullptr) return KD_ERR_PARAMETER_NULL;
    if (I2CIndex > kMaxChannelIndex) return KD_ERR_DATA_FORMAT;
    return KD_SUCCESS;
}

// Asks the adapter for the data a successful read collected, then takes Len + 7 bytes whose first
// seven (a reply header) are skipped unexamined. Fewer bytes than asked still succeed and copy only
// what came; the "no data" code cannot result here, callers rely on 0.
int32_t fetch_read_data(int32_t DevIndex, uint8_t* out, uint16_t Len, int timeout_ms) {
    USB_SendStatus(DevIndex, S_MSG{MSG_KD_REQUEST_IIC_ADDR_DATAS_REC, 0, MSG_NO_STATE, 0, nullptr});
    const int32_t n = LibUSBReadData(static_cast<uint32_t>(DevIndex), kPipeBulkIn,
                                     reinterpret_cast<char*>(receive_buffer.data()), Len + 7, timeout_ms);
    if (n < static_cast<int32_t>(kDataHeaderSize)) return KD_ERR_USB_READ_FAIL;
    const auto got = std::min<std::size_t>(static_cast<std::size_t>(n) - kDataHeaderSize, Len);
    if (got > 0) std::memcpy(out, receive_buffer.data() + kDataHeaderSize, got);
    return KD_SUCCESS;
}

bool read_too_long(uint16_t Len) {
    return Len > kReceiveDataMax;
}

// Slave address, sub-address (always 4 bytes) and channel: how every master request starts.
Payload addressed(uint16_t Addr, uint32_t SubAddr, int32_t I2CIndex) {
    return request().be16(Addr).be32(SubAddr).u8(static_cast<uint32_t>(I2CIndex));
}

// A read-type request: its status must be the read's OK, then the collected data is fetched. The
// status wait is the usual one, or one attempt with the caller's time-out for pin events.
int32_t read_transfer(int32_t DevIndex, int32_t code, const Payload& p, uint8_t* out, uint16_t Len,
                      int fetch_timeout_ms, std::optional<int> status_timeout_ms = std::nullopt) {
    const int32_t r = status_timeout_ms ? request_status_timeout(DevIndex, code, p.view(),
                                                                 MSG_I2C_READ_DATA_OK, *status_timeout_ms)
                                        : request_status(DevIndex, code, p.view(), MSG_I2C_READ_DATA_OK);
    return r != 0 ? r : fetch_read_data(DevIndex, out, Len, fetch_timeout_ms);
}

// Cuts a user-data count at the end of the area, and to 0 when the offset lies past it.
int32_t clamp_user_data(int32_t OffsetAddr, int32_t DataNum) {
    int64_t n = DataNum;
    if (int64_t{OffsetAddr} + n > kUserDataSize) n = int64_t{kUserDataSize} - OffsetAddr;
    return n < 0 ? 0 : static_cast<int32_t>(std::min<int64_t>(n, INT32_MAX));
}

}  // namespace

int32_t KII_ScanDevice(uint8_t NeedInit) {
    return KD_EnumBoard(NeedInit);
}

// Only device type 1: the I2C family, unlike most others, refuses the SPI-type adapter. Intended.
int32_t KII_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t /*Reserved*/) {
    return family_open(kI2cTypes, DevType, DevIndex, i2c_lock_created);
}

int32_t KII_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return family_close(kI2cTypes, DevType, DevIndex, i2c_lock_created);
}

int32_t KII_ReadBoardInfo(int32_t DevIndex, PKII_BOARD_INFO pInfo) {
    KII_BOARD_INFO ignored{};
    KII_BOARD_INFO& info = pInfo ? *pInfo : ignored;
    return read_board_info(DevIndex,
                           {info.ProductName, info.FirmwareVersion, info.HardwareVersion, info.SerialNumber},
                           pInfo == nullptr);
}

// The channel index is not limited here; the transfers limit it.
int32_t KII_InitI2C(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, PKII_INIT_CONFIG pInitConfig) {
    if (const int32_t r = check_device(DevType, DevIndex); r != 0) return r;
    if (pInitConfig == nullptr) return KD_ERR_PARAMETER_NULL;
    const KII_INIT_CONFIG& c = *pInitConfig;
    if (c.ControlMode > 2) return KD_ERR_DATA_FORMAT;
    if (c.ClockSpeed < kMinClock || c.ClockSpeed > kMaxClock || c.SubAddrWidth > 4) return KD_ERR_DATA_FORMAT;
    if (c.AddrType != 7 && c.AddrType != 10) return KD_ERR_DATA_FORMAT;
    std::array<uint8_t, 12> storage{};
    Payload p(storage);
    p.u8(c.ControlMode)
        .be32(c.ClockSpeed)
        .u8(c.SubAddrWidth ? 1 : 2)
        .u8(c.SubAddrWidth)
        .u8(c.AddrType)
        .u8(static_cast<uint32_t>(I2CIndex))
        .be16(c.Addr)
        .u8(c.MasterMode);
    return request_status(DevIndex, MSG_KD_REQUEST_SET_IIC_INFORMATION, p.view(), MSG_I2C_NINT_OK);
}

// Seven of the fields go out, each as a zero byte and its low byte: values above 255 lose their
// high byte. Intended; the channel index is not part of the request.
int32_t KII_TimeConfig(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, PKII_TIME_CONFIG pTimeConfig) {
    if (const int32_t r = check_device(DevType, DevIndex); r != 0) return r;
    if (pTimeConfig == nullptr) return KD_ERR_PARAMETER_NULL;
    if (I2CIndex > kMaxChannelIndex) return KD_ERR_DATA_FORMAT;
    const KII_TIME_CONFIG& t = *pTimeConfig;
    std::array<uint8_t, 14> storage{};
    Payload p(storage);
    for (uint16_t v : {t.tSU_STA, t.tHD_STA, t.tLOW, t.tHIGH, t.tSU_DAT, t.tSU_STO, t.tBuf})
        p.u8(0).u8(v & 0xFF);
    return request_status(DevIndex, MSG_KD_REQUEST_SOFT_SET_IIC_TIME_ONE_INFORMATION, p.view(),
                          MSG_I2C_NINT_OK);
}

// Not supported by this adapter: always -15, without checks or traffic.
int32_t KII_PullupConfig(int32_t, int32_t, int32_t, uint32_t) {
    return KD_ERR_DEVICE_NOT_AVAILABLE;
}

// A transfer goes as one frame, never split.
int32_t KII_WriteBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t Addr, uint32_t SubAddr,
                       uint8_t* pWriteData, uint16_t Len) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, {pWriteData}); r != 0) return r;
    auto p = addressed(Addr, SubAddr, I2CIndex).bytes(pWriteData, Len);
    return request_status(DevIndex, MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, p.view(), MSG_I2C_WRITE_DATA_OK);
}

int32_t KII_ReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t Addr, uint32_t SubAddr,
                      uint8_t* pReadData, uint16_t Len) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, {pReadData}); r != 0) return r;
    if (read_too_long(Len)) return KD_ERR_DATA_FORMAT;
    return read_transfer(DevIndex, MSG_KD_REQUEST_IIC_DATAS_READ,
                         addressed(Addr, SubAddr, I2CIndex).be16(Len), pReadData, Len, kMasterFetchTimeoutMs);
}

int32_t KII_WriteReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t SlaveAddr,
                           uint32_t WriteSubAddr, uint8_t* pWriteData, uint16_t WriteLen,
                           uint32_t ReadSubAddr, uint8_t* pReadData, uint16_t ReadLen,
                           uint16_t IntervalTime) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, {pWriteData, pReadData}); r != 0)
        return r;
    if (read_too_long(ReadLen)) return KD_ERR_DATA_FORMAT;
    auto p = addressed(SlaveAddr, WriteSubAddr, I2CIndex)
                 .be32(ReadSubAddr)
                 .be16(IntervalTime)
                 .be16(ReadLen)
                 .bytes(pWriteData, WriteLen);
    return read_transfer(DevIndex, MSG_KD_REQUEST_WRITE_READ, p, pReadData, ReadLen, kMasterFetchTimeoutMs);
}

int32_t KII_SlaveWriteBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint8_t* pWriteData,
                            uint16_t Len) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, {pWriteData}); r != 0) return r;
    auto p = request().u8(static_cast<uint32_t>(I2CIndex)).bytes(pWriteData, Len);
    return request_status(DevIndex, MSG_KD_SLAVE_WRITE, p.view(), MSG_I2C_WRITE_DATA_OK);
}

// One read attempt of 100 ms on the current board handle. *pLen is written only on success.
int32_t KII_SlaveReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint8_t* pReadData,
                           uint16_t* pLen) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, {pLen, pReadData}); r != 0) return r;
    if (send_request(DevIndex, MSG_KD_SLAVE_READ, request().u8(static_cast<uint32_t>(I2CIndex)).view()) != 0)
        return KD_ERR_USB_WRITE_FAIL;
    const int32_t n = LibUSBReadDataFast(static_cast<uint32_t>(DevIndex), kPipeBulkIn,
                                         reinterpret_cast<char*>(receive_buffer.data()),
                                         static_cast<int32_t>(receive_buffer.size()), kSlaveReadTimeoutMs);
    if (n == static_cast<int32_t>(kDataHeaderSize)) return KD_ERR_NO_DATA;
    if (n < static_cast<int32_t>(kDataHeaderSize)) return KD_ERR_USB_READ_FAIL;
    const auto got =
        std::min<std::size_t>(static_cast<std::size_t>(n), receive_buffer.size()) - kDataHeaderSize;
    *pLen = static_cast<uint16_t>(got);
    std::memcpy(pReadData, receive_buffer.data() + kDataHeaderSize, got);
    return KD_SUCCESS;
}

// The channel limit here is 2, not 20: intended.
int32_t KII_SlaveWriteRemain(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t* pRemainBytes) {
    if (const int32_t r = check_device(DevType, DevIndex); r != 0) return r;
    if (pRemainBytes == nullptr) return KD_ERR_PARAMETER_NULL;
    if (I2CIndex > kSlaveRemainMaxChannel) return KD_ERR_DATA_FORMAT;
    if (send_request(DevIndex, MSG_KD_SLAVE_WRITE_REMAIN,
                     request().u8(static_cast<uint32_t>(I2CIndex)).view()) != 0)
        return KD_ERR_USB_WRITE_FAIL;
    std::array<uint8_t, 2> count{};
    S_MSG answer{0, 2, MSG_NO_STATE, 0, count.data()};
    if (USB_GetMsgWithSize(DevIndex, &answer, count.size()) != 0) return KD_ERR_USB_READ_FAIL;
    if (answer.status != MSG_MSG_DATA_TRAN_OK) return KD_ERR_EXECUTE_CMD;
    *pRemainBytes = static_cast<uint16_t>(count[0] * 256 + count[1]);
    return KD_SUCCESS;
}

// The wait for the event uses the caller's time-out; the data fetch then waits 1000 ms.
int32_t KII_PinEventReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t EventPin,
                              uint16_t EventType, uint16_t SlaveAddr, uint32_t SubAddr, uint8_t* pReadData,
                              uint16_t Len, int32_t TimeOutMs) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, {pReadData}); r != 0) return r;
    if (read_too_long(Len)) return KD_ERR_DATA_FORMAT;
    auto p = addressed(SlaveAddr, SubAddr, I2CIndex)
                 .be16(Len)
                 .be16(EventPin)
                 .be16(EventType)
                 .be32(static_cast<uint32_t>(TimeOutMs));
    return read_transfer(DevIndex, MSG_KD_EVENT_READ, p, pReadData, Len, kEventFetchTimeoutMs, TimeOutMs);
}

int32_t KII_PinEventWriteBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t EventPin,
                               uint16_t EventType, uint16_t SlaveAddr, uint32_t SubAddr, uint8_t* pWriteData,
                               uint16_t Len, int32_t TimeOutMs) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, {pWriteData}); r != 0) return r;
    auto p = addressed(SlaveAddr, SubAddr, I2CIndex)
                 .be16(EventPin)
                 .be16(EventType)
                 .be32(static_cast<uint32_t>(TimeOutMs))
                 .bytes(pWriteData, Len);
    return request_status_timeout(DevIndex, MSG_KD_EVENT_WRITE, p.view(), MSG_I2C_WRITE_DATA_OK, TimeOutMs);
}

// Not supported: always -7, without checks or traffic.
int32_t KII_ClearPinEvent(int32_t, int32_t, int32_t, uint16_t) {
    return KD_ERR_NO_DATA;
}

// The count is clamped before the null check: intended.
int32_t KII_WriteUserData(int32_t DevType, int32_t DevIndex, int32_t OffsetAddr, uint8_t* pData,
                          int32_t DataNum) {
    if (const int32_t r = check_device(DevType, DevIndex); r != 0) return r;
    DataNum = clamp_user_data(OffsetAddr, DataNum);
    if (pData == nullptr) return KD_ERR_PARAMETER_NULL;
    // A negative offset escapes the clamp; a count that cannot go in one frame is out of range.
    if (static_cast<std::size_t>(DataNum) + 4 > kSendBufferSize - kReplyHeaderSize) return KD_ERR_DATA_FORMAT;
    auto p =
        request().be32(static_cast<uint32_t>(OffsetAddr)).bytes(pData, static_cast<std::size_t>(DataNum));
    return request_status(DevIndex, MSG_KD_WRITE_USER_DATA, p.view(), MSG_MSG_EXECUT_OK);
}

// The raw bytes go straight into the caller's buffer. A count other than asked is -10, not -6:
// intended, unlike the other reads.
int32_t KII_ReadUserData(int32_t DevType, int32_t DevIndex, int32_t OffsetAddr, uint8_t* pData,
                         int32_t DataNum) {
    if (const int32_t r = check_device(DevType, DevIndex); r != 0) return r;
    DataNum = clamp_user_data(OffsetAddr, DataNum);
    if (pData == nullptr) return KD_ERR_PARAMETER_NULL;
    std::array<uint8_t, 8> storage{};
    Payload p(storage);
    p.be32(static_cast<uint32_t>(OffsetAddr)).be32(static_cast<uint32_t>(DataNum));
    if (send_request(DevIndex, MSG_KD_READ_USER_DATA, p.view()) != 0) return KD_ERR_USB_WRITE_FAIL;
    const int32_t n = LibUSBReadData(static_cast<uint32_t>(DevIndex), kPipeBulkIn,
                                     reinterpret_cast<char*>(pData), DataNum, kUserDataReadTimeoutMs);
    return n == DataNum ? KD_SUCCESS : KD_ERR_EXECUTE_CMD;
}
