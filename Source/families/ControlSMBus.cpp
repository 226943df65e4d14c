// The SMBus family: SMBus transactions on I2C channels 0 and 1 of the I2C-type adapter. Each
// function packs its arguments into one request and returns the status byte of the one reply frame
// (smbus_exchange.h); data replies land in the caller's buffers, bounded by what the protocol
// carries. No pointer is checked and no lock is taken (intended).
#include "ControlSMBus.h"

#include "ControlI2C.h"
#include "smbus_exchange.h"

using namespace corvel;
using smbus::channel;
using smbus::check;
using smbus::into;
using smbus::transact;
namespace limits = corvel::proto::smbus;

// ---- Device management: the I2C family's own functions ------------------------------------------

int32_t SMBus_ScanDevice(uint8_t NeedInit) {
    return KII_ScanDevice(NeedInit);
}

int32_t SMBus_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved) {
    return KII_OpenDevice(DevType, DevIndex, Reserved);
}

int32_t SMBus_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return KII_CloseDevice(DevType, DevIndex);
}

// ---- Transactions -------------------------------------------------------------------------------

int32_t SMBus_HardInit(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint32_t ClockSpeed,
                       uint8_t OwnAddr) {
    return smbus::hard_init(DevType, DevIndex, SMBUSIndex, ClockSpeed, OwnAddr, MSG_KD_SMBUS_HARDINIT);
}

// The address byte's bit 0 is the R/W bit the command carries.
int32_t SMBus_QuickCommand(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_QUICKCOMMAND);
    channel(request, SMBUSIndex).u8(SlaveAddr);
    return transact(DevIndex, request);
}

int32_t SMBus_WriteByte(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                        uint8_t Data, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_WRITEBYTE);
    channel(request, SMBUSIndex).u8(SlaveAddr).u8(Data).u8(PEC);
    return transact(DevIndex, request);
}

int32_t SMBus_ReadByte(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                       uint8_t* pData, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_READBYTE);
    channel(request, SMBUSIndex).u8(SlaveAddr).u8(PEC);
    return transact(DevIndex, request, into(pData, 1));
}

int32_t SMBus_WriteByteProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                                uint8_t CommandCode, uint8_t Data, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_WRITEBYTEPROTOCOL);
    channel(request, SMBUSIndex).u8(SlaveAddr).u8(CommandCode).u8(Data).u8(PEC);
    return transact(DevIndex, request);
}

int32_t SMBus_WriteWordProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                                uint8_t CommandCode, uint16_t Data, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_WRITEWORDPROTOCOL);
    channel(request, SMBUSIndex).u8(SlaveAddr).u8(CommandCode).be16(Data).u8(PEC);
    return transact(DevIndex, request);
}

int32_t SMBus_ReadByteProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                               uint8_t CommandCode, uint8_t* pData, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_READBYTEPROTOCOL);
    channel(request, SMBUSIndex).u8(SlaveAddr).u8(CommandCode).u8(PEC);
    return transact(DevIndex, request, into(pData, 1));
}

// The word's two bytes are stored as the bus carried them (low byte first).
int32_t SMBus_ReadWordProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                               uint8_t CommandCode, uint16_t* pData, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_READWORDPROTOCOL);
    channel(request, SMBUSIndex).u8(SlaveAddr).u8(CommandCode).u8(PEC);
    return transact(DevIndex, request, into(pData, limits::kWordSize));
}

int32_t SMBus_ProcessCall(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                          uint8_t CommandCode, uint16_t WriteData, uint16_t* pReadData, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_PROCESSCALL);
    channel(request, SMBUSIndex).u8(SlaveAddr).u8(CommandCode).be16(WriteData).u8(PEC);
    return transact(DevIndex, request, into(pReadData, limits::kWordSize));
}

// The PEC flag goes before the data bytes here (intended). ByteCount is not limited: up to 255 data
// bytes go out, and the adapter judges the count.
int32_t SMBus_BlockWrite(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                         uint8_t CommandCode, uint8_t* pData, uint8_t ByteCount, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_BLOCKWRITE);
    channel(request, SMBUSIndex).u8(SlaveAddr).u8(CommandCode).u8(ByteCount).u8(PEC).bytes(pData, ByteCount);
    return transact(DevIndex, request);
}

int32_t SMBus_BlockRead(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                        uint8_t CommandCode, uint8_t* pData, uint8_t* pByteCount, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_BLOCKREAD);
    channel(request, SMBUSIndex).u8(SlaveAddr).u8(CommandCode).u8(PEC);
    return transact(DevIndex, request, into(pData, limits::kBlockMax), pByteCount);
}

// As the block write, PEC before the data; the block that comes back is read as the block read's.
int32_t SMBus_BlockProcessCall(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                               uint8_t CommandCode, uint8_t* pWriteData, uint8_t WriteByteCount,
                               uint8_t* pReadData, uint8_t* pReadByteCount, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_SMBUS_BLOCKPROCESSCALL);
    channel(request, SMBUSIndex)
        .u8(SlaveAddr)
        .u8(CommandCode)
        .u8(WriteByteCount)
        .u8(PEC)
        .bytes(pWriteData, WriteByteCount);
    return transact(DevIndex, request, into(pReadData, limits::kBlockMax), pReadByteCount);
}

int32_t SMBus_GetAlert(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t* pAlertFlag) {
    return smbus::get_alert(DevType, DevIndex, SMBUSIndex, MSG_KD_SMBUS_GETALERT, pAlertFlag);
}
