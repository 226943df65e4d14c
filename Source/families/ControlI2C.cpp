// The I2C family: device management, configuration, master and slave transfers, pin-event
// transfers and the user-data area. The shared shapes come from the family kit (family.h); what is
// here is the family's limits, its payload layouts and its own oddities. The transfers take no lock
// (callers serialise them), as the rest of the family.
#include "ControlI2C.h"

#include <algorithm>
#include <array>

#include "family.h"

using namespace corvel;
namespace i2c = corvel::proto::i2c;

namespace {

// Only device type 1: the I2C family, unlike most others, refuses the SPI-type adapter. Intended.
constexpr std::array<int32_t, 1> kI2cTypes = {KD_DEVTYPE_I2C};
constexpr Family kI2c{kI2cTypes};

constexpr int kSlaveReadTimeoutMs = 100;
constexpr int kMasterFetchTimeoutMs = 500;
constexpr int kEventFetchTimeoutMs = 1000;
constexpr int kUserDataReadTimeoutMs = 1000;

// Type, connection, pointers, then the channel index against the family's limit: the checks every
// transfer makes before it sends.
template <typename... Ptr>
int32_t check_transfer(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, const Ptr*... pointers) {
    return Check(kI2c, DevType, DevIndex).not_null(pointers...).channel(I2CIndex, i2c::kMaxChannel);
}

// The same for a transfer that reads: its answer must also fit the 10240-byte receive buffer behind
// its reply header.
template <typename... Ptr>
int32_t check_read(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t Len,
                   const Ptr*... pointers) {
    return Check(kI2c, DevType, DevIndex)
        .not_null(pointers...)
        .channel(I2CIndex, i2c::kMaxChannel)
        .require(Len <= proto::kReceiveDataMax, KD_ERR_DATA_FORMAT);
}

// Slave address, sub-address (always 4 bytes) and channel: how every master request starts.
proto::Writer& addressed(Request& r, uint16_t Addr, uint32_t SubAddr, int32_t I2CIndex) {
    return r.payload().be16(Addr).be32(SubAddr).u8(static_cast<uint32_t>(I2CIndex));
}

// A read-type request: its status must be the read's OK; then the adapter is asked for the data it
// collected (whether that request went out is not examined: intended) and Len + 7 bytes are read,
// the first seven (a reply header) skipped. Fewer bytes than asked still succeed and copy only what
// came; the "no data" code cannot result here, callers rely on 0. The status wait is the usual one,
// or one attempt with the caller's time-out for pin events.
int32_t read_transfer(int32_t DevIndex, Request& request, uint8_t* out, uint16_t Len, int fetch_timeout_ms,
                      std::optional<int> status_timeout_ms = std::nullopt) {
    if (const int32_t r =
            request_fetch(DevIndex, request, MSG_I2C_READ_DATA_OK, MSG_KD_REQUEST_IIC_ADDR_DATAS_REC,
                          FetchSend::Unchecked, status_timeout_ms);
        r != 0)
        return r;
    return read_data(DevIndex, out, Len, fetch_timeout_ms);
}

// Cuts a user-data count at the end of the area, and to 0 when the offset lies past it.
int32_t clamp_user_data(int32_t OffsetAddr, int32_t DataNum) {
    int64_t n = DataNum;
    if (int64_t{OffsetAddr} + n > i2c::kUserDataSize) n = int64_t{i2c::kUserDataSize} - OffsetAddr;
    return n < 0 ? 0 : static_cast<int32_t>(std::min<int64_t>(n, INT32_MAX));
}

}  // namespace

int32_t KII_ScanDevice(uint8_t NeedInit) {
    return family_scan(NeedInit);
}

int32_t KII_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t /*Reserved*/) {
    return family_open(kI2c, DevType, DevIndex);
}

int32_t KII_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return family_close(kI2c, DevType, DevIndex);
}

int32_t KII_ReadBoardInfo(int32_t DevIndex, PKII_BOARD_INFO pInfo) {
    return read_board_info(DevIndex, pInfo);
}

// The channel index is not limited here; the transfers limit it.
int32_t KII_InitI2C(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, PKII_INIT_CONFIG pInitConfig) {
    if (const int32_t r = Check(kI2c, DevType, DevIndex).not_null(pInitConfig); r != 0) return r;
    const KII_INIT_CONFIG& c = *pInitConfig;
    if (const int32_t r = Check::ranges()
                              .require(c.ControlMode <= 2, KD_ERR_DATA_FORMAT)
                              .require(c.ClockSpeed >= i2c::kMinClockHz && c.ClockSpeed <= i2c::kMaxClockHz &&
                                           c.SubAddrWidth <= i2c::kMaxSubAddrWidth,
                                       KD_ERR_DATA_FORMAT)
                              .require(c.AddrType == 7 || c.AddrType == 10, KD_ERR_DATA_FORMAT);
        r != 0)
        return r;
    Request request(MSG_KD_REQUEST_SET_IIC_INFORMATION);
    request.payload()
        .u8(c.ControlMode)
        .be32(c.ClockSpeed)
        .u8(c.SubAddrWidth ? 1 : 2)
        .u8(c.SubAddrWidth)
        .u8(c.AddrType)
        .u8(static_cast<uint32_t>(I2CIndex))
        .be16(c.Addr)
        .u8(c.MasterMode);
    return request_status(DevIndex, request, MSG_I2C_NINT_OK);
}

// Seven of the fields go out, each as a zero byte and its low byte: values above 255 lose their
// high byte. Intended; the channel index is not part of the request.
int32_t KII_TimeConfig(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, PKII_TIME_CONFIG pTimeConfig) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, pTimeConfig); r != 0) return r;
    const KII_TIME_CONFIG& t = *pTimeConfig;
    Request request(MSG_KD_REQUEST_SOFT_SET_IIC_TIME_ONE_INFORMATION);
    for (uint16_t v : {t.tSU_STA, t.tHD_STA, t.tLOW, t.tHIGH, t.tSU_DAT, t.tSU_STO, t.tBuf})
        request.payload().u8(0).u8(v & 0xFF);
    return request_status(DevIndex, request, MSG_I2C_NINT_OK);
}

// Not supported by this adapter: always -15, without checks or traffic.
int32_t KII_PullupConfig(int32_t, int32_t, int32_t, uint32_t) {
    return KD_ERR_DEVICE_NOT_AVAILABLE;
}

// A transfer goes as one frame, never split.
int32_t KII_WriteBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t Addr, uint32_t SubAddr,
                       uint8_t* pWriteData, uint16_t Len) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, pWriteData); r != 0) return r;
    Request request(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN);
    addressed(request, Addr, SubAddr, I2CIndex).bytes(pWriteData, Len);
    return request_status(DevIndex, request, MSG_I2C_WRITE_DATA_OK);
}

int32_t KII_ReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t Addr, uint32_t SubAddr,
                      uint8_t* pReadData, uint16_t Len) {
    if (const int32_t r = check_read(DevType, DevIndex, I2CIndex, Len, pReadData); r != 0) return r;
    Request request(MSG_KD_REQUEST_IIC_DATAS_READ);
    addressed(request, Addr, SubAddr, I2CIndex).be16(Len);
    return read_transfer(DevIndex, request, pReadData, Len, kMasterFetchTimeoutMs);
}

int32_t KII_WriteReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t SlaveAddr,
                           uint32_t WriteSubAddr, uint8_t* pWriteData, uint16_t WriteLen,
                           uint32_t ReadSubAddr, uint8_t* pReadData, uint16_t ReadLen,
                           uint16_t IntervalTime) {
    if (const int32_t r = check_read(DevType, DevIndex, I2CIndex, ReadLen, pWriteData, pReadData); r != 0)
        return r;
    Request request(MSG_KD_REQUEST_WRITE_READ);
    addressed(request, SlaveAddr, WriteSubAddr, I2CIndex)
        .be32(ReadSubAddr)
        .be16(IntervalTime)
        .be16(ReadLen)
        .bytes(pWriteData, WriteLen);
    return read_transfer(DevIndex, request, pReadData, ReadLen, kMasterFetchTimeoutMs);
}

int32_t KII_SlaveWriteBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint8_t* pWriteData,
                            uint16_t Len) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, pWriteData); r != 0) return r;
    Request request(MSG_KD_SLAVE_WRITE);
    request.payload().u8(static_cast<uint32_t>(I2CIndex)).bytes(pWriteData, Len);
    return request_status(DevIndex, request, MSG_I2C_WRITE_DATA_OK);
}

// One read attempt of 100 ms on the current board handle, for as much as the receive buffer holds.
// A bare reply header means no data (-7). *pLen is written only on success.
int32_t KII_SlaveReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint8_t* pReadData,
                           uint16_t* pLen) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, pLen, pReadData); r != 0) return r;
    Request request(MSG_KD_SLAVE_READ);
    request.payload().u8(static_cast<uint32_t>(I2CIndex));
    if (send(DevIndex, request) != 0) return KD_ERR_USB_WRITE_FAIL;
    const int32_t got =
        USB_ReadAfterHeader(DevIndex, pReadData, proto::kReceiveDataMax, kSlaveReadTimeoutMs, ReadMode::Fast);
    if (got == 0) return KD_ERR_NO_DATA;
    if (got < 0) return KD_ERR_USB_READ_FAIL;
    *pLen = static_cast<uint16_t>(got);
    return KD_SUCCESS;
}

// The channel limit here is 2, not 20: intended.
int32_t KII_SlaveWriteRemain(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t* pRemainBytes) {
    if (const int32_t r = Check(kI2c, DevType, DevIndex)
                              .not_null(pRemainBytes)
                              .channel(I2CIndex, i2c::kSlaveRemainMaxChannel);
        r != 0)
        return r;
    Request request(MSG_KD_SLAVE_WRITE_REMAIN);
    request.payload().u8(static_cast<uint32_t>(I2CIndex));
    std::array<uint8_t, 2> count{};
    if (const int32_t r = request_reply(DevIndex, request, Reply::Exact, count, MSG_MSG_DATA_TRAN_OK); r != 0)
        return r;
    *pRemainBytes = proto::Reader(count).be16();
    return KD_SUCCESS;
}

// The wait for the event uses the caller's time-out; the data fetch then waits 1000 ms.
int32_t KII_PinEventReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t EventPin,
                              uint16_t EventType, uint16_t SlaveAddr, uint32_t SubAddr, uint8_t* pReadData,
                              uint16_t Len, int32_t TimeOutMs) {
    if (const int32_t r = check_read(DevType, DevIndex, I2CIndex, Len, pReadData); r != 0) return r;
    Request request(MSG_KD_EVENT_READ);
    addressed(request, SlaveAddr, SubAddr, I2CIndex)
        .be16(Len)
        .be16(EventPin)
        .be16(EventType)
        .be32(static_cast<uint32_t>(TimeOutMs));
    return read_transfer(DevIndex, request, pReadData, Len, kEventFetchTimeoutMs, TimeOutMs);
}

int32_t KII_PinEventWriteBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t EventPin,
                               uint16_t EventType, uint16_t SlaveAddr, uint32_t SubAddr, uint8_t* pWriteData,
                               uint16_t Len, int32_t TimeOutMs) {
    if (const int32_t r = check_transfer(DevType, DevIndex, I2CIndex, pWriteData); r != 0) return r;
    Request request(MSG_KD_EVENT_WRITE);
    addressed(request, SlaveAddr, SubAddr, I2CIndex)
        .be16(EventPin)
        .be16(EventType)
        .be32(static_cast<uint32_t>(TimeOutMs))
        .bytes(pWriteData, Len);
    return request_status(DevIndex, request, MSG_I2C_WRITE_DATA_OK, TimeOutMs);
}

// Not supported: always -7, without checks or traffic.
int32_t KII_ClearPinEvent(int32_t, int32_t, int32_t, uint16_t) {
    return KD_ERR_NO_DATA;
}

// The count is clamped before the null check: intended. A negative offset escapes the clamp; a
// count that cannot go in one frame is out of range.
int32_t KII_WriteUserData(int32_t DevType, int32_t DevIndex, int32_t OffsetAddr, uint8_t* pData,
                          int32_t DataNum) {
    if (const int32_t r = Check(kI2c, DevType, DevIndex); r != 0) return r;
    DataNum = clamp_user_data(OffsetAddr, DataNum);
    if (const int32_t r = Check::ranges().not_null(pData).require(
            static_cast<std::size_t>(DataNum) + 4 <= proto::kSendBufferSize - proto::kShortHeaderSize,
            KD_ERR_DATA_FORMAT);
        r != 0)
        return r;
    Request request(MSG_KD_WRITE_USER_DATA);
    request.payload().be32(static_cast<uint32_t>(OffsetAddr)).bytes(pData, static_cast<std::size_t>(DataNum));
    return request_status(DevIndex, request, MSG_MSG_EXECUT_OK);
}

// The raw bytes go straight into the caller's buffer. A count other than asked is -10, not -6:
// intended, unlike the other reads.
int32_t KII_ReadUserData(int32_t DevType, int32_t DevIndex, int32_t OffsetAddr, uint8_t* pData,
                         int32_t DataNum) {
    if (const int32_t r = Check(kI2c, DevType, DevIndex); r != 0) return r;
    DataNum = clamp_user_data(OffsetAddr, DataNum);
    if (pData == nullptr) return KD_ERR_PARAMETER_NULL;
    Request request(MSG_KD_READ_USER_DATA);
    request.payload().be32(static_cast<uint32_t>(OffsetAddr)).be32(static_cast<uint32_t>(DataNum));
    if (send(DevIndex, request) != 0) return KD_ERR_USB_WRITE_FAIL;
    return USB_ReadRaw(DevIndex, pData, DataNum, kUserDataReadTimeoutMs) == DataNum ? KD_SUCCESS
                                                                                    : KD_ERR_EXECUTE_CMD;
}
