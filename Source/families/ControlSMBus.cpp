// The SMBus family: SMBus transactions on I2C channels 0 and 1 of the I2C-type adapter. Each
// function packs its arguments into one request and returns the status byte of the one reply frame
// (smbus_exchange.h); data replies land in the caller's buffers, bounded by what the protocol
// carries. No pointer is checked and no lock is taken (intended).
#include "ControlSMBus.h"

#include "ControlI2C.h"
#include "smbus_exchange.h"

using namespace corvel;
using smbus::Block;
using smbus::Into;
using smbus::run;
using smbus::Word;
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
    return run(DevType, DevIndex, MSG_KD_SMBUS_QUICKCOMMAND, SMBUSIndex, {}, SlaveAddr);
}

int32_t SMBus_WriteByte(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                        uint8_t Data, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_SMBUS_WRITEBYTE, SMBUSIndex, {}, SlaveAddr, Data, PEC);
}

int32_t SMBus_ReadByte(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                       uint8_t* pData, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_SMBUS_READBYTE, SMBUSIndex, Into(pData, 1), SlaveAddr, PEC);
}

int32_t SMBus_WriteByteProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                                uint8_t CommandCode, uint8_t Data, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_SMBUS_WRITEBYTEPROTOCOL, SMBUSIndex, {}, SlaveAddr, CommandCode,
               Data, PEC);
}

int32_t SMBus_WriteWordProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                                uint8_t CommandCode, uint16_t Data, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_SMBUS_WRITEWORDPROTOCOL, SMBUSIndex, {}, SlaveAddr, CommandCode,
               Word{Data}, PEC);
}

int32_t SMBus_ReadByteProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                               uint8_t CommandCode, uint8_t* pData, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_SMBUS_READBYTEPROTOCOL, SMBUSIndex, Into(pData, 1), SlaveAddr,
               CommandCode, PEC);
}

// The word's two bytes are stored as the bus carried them (low byte first).
int32_t SMBus_ReadWordProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                               uint8_t CommandCode, uint16_t* pData, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_SMBUS_READWORDPROTOCOL, SMBUSIndex, Into(pData, limits::kWordSize),
               SlaveAddr, CommandCode, PEC);
}

int32_t SMBus_ProcessCall(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                          uint8_t CommandCode, uint16_t WriteData, uint16_t* pReadData, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_SMBUS_PROCESSCALL, SMBUSIndex, Into(pReadData, limits::kWordSize),
               SlaveAddr, CommandCode, Word{WriteData}, PEC);
}

// ByteCount is not limited here: up to 255 data bytes go out, and the adapter judges the count.
int32_t SMBus_BlockWrite(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                         uint8_t CommandCode, uint8_t* pData, uint8_t ByteCount, uint8_t PEC) {
    return smbus::run_block(DevType, DevIndex, MSG_KD_SMBUS_BLOCKWRITE, SMBUSIndex, SlaveAddr, CommandCode,
                            Block{pData, ByteCount}, PEC, std::nullopt);
}

int32_t SMBus_BlockRead(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                        uint8_t CommandCode, uint8_t* pData, uint8_t* pByteCount, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_SMBUS_BLOCKREAD, SMBUSIndex,
               Into(pData, limits::kBlockMax, pByteCount), SlaveAddr, CommandCode, PEC);
}

// As the block write; the block that comes back is read as the block read's.
int32_t SMBus_BlockProcessCall(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                               uint8_t CommandCode, uint8_t* pWriteData, uint8_t WriteByteCount,
                               uint8_t* pReadData, uint8_t* pReadByteCount, uint8_t PEC) {
    return smbus::run_block(DevType, DevIndex, MSG_KD_SMBUS_BLOCKPROCESSCALL, SMBUSIndex, SlaveAddr,
                            CommandCode, Block{pWriteData, WriteByteCount}, PEC, std::nullopt,
                            Into(pReadData, limits::kBlockMax, pReadByteCount));
}

int32_t SMBus_GetAlert(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t* pAlertFlag) {
    return smbus::get_alert(DevType, DevIndex, SMBUSIndex, MSG_KD_SMBUS_GETALERT, pAlertFlag);
}
