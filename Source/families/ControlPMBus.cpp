// The PMBus family: PMBus transactions on I2C channels 0 and 1 of the I2C-type adapter, over the
// SMBus family's exchange (smbus_exchange.h): the same checks, the same reply frame, the status byte
// as the result, no pointer checks and no lock. What differs is here: the command-code forms, the
// extended commands, the 32-byte limit of the block writes, the group command and the CONTROL line.
#include "ControlPMBus.h"

#include "ControlI2C.h"
#include "smbus_exchange.h"

using namespace corvel;
using smbus::Block;
using smbus::channel;
using smbus::check;
using smbus::Into;
using smbus::run;
using smbus::transact;
using smbus::Word;
namespace pmbus = corvel::proto::pmbus;
namespace limits = corvel::proto::smbus;

// ---- Device management: the I2C family's own functions ------------------------------------------

int32_t PMBus_ScanDevice(uint8_t NeedInit) {
    return KII_ScanDevice(NeedInit);
}

int32_t PMBus_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved) {
    return KII_OpenDevice(DevType, DevIndex, Reserved);
}

int32_t PMBus_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return KII_CloseDevice(DevType, DevIndex);
}

// ---- Transactions -------------------------------------------------------------------------------

int32_t PMBus_HardInit(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint32_t ClockSpeed,
                       uint8_t OwnAddr) {
    return smbus::hard_init(DevType, DevIndex, PMBUSIndex, ClockSpeed, OwnAddr, MSG_KD_PMBUS_HARDINIT);
}

// SMBus Write Byte: with a command code (the command-less form is PMBus_SendByte).
int32_t PMBus_WriteByte(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                        uint8_t CommandCode, uint8_t Data, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_WRITEBYTE, PMBUSIndex, {}, SlaveAddr, CommandCode, Data, PEC);
}

int32_t PMBus_ReadByte(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                       uint8_t CommandCode, uint8_t* pData, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_READBYTE, PMBUSIndex, Into(pData, 1), SlaveAddr, CommandCode,
               PEC);
}

// SMBus Send Byte: the command code is the single data byte.
int32_t PMBus_SendByte(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                       uint8_t CommandCode, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_SENDBYTE, PMBUSIndex, {}, SlaveAddr, CommandCode, PEC);
}

int32_t PMBus_WriteWord(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                        uint8_t CommandCode, uint16_t Data, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_WRITEWORD, PMBUSIndex, {}, SlaveAddr, CommandCode, Word{Data},
               PEC);
}

// The word's two bytes are stored as the bus carried them (low byte first).
int32_t PMBus_ReadWord(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                       uint8_t CommandCode, uint16_t* pData, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_READWORD, PMBUSIndex, Into(pData, limits::kWordSize),
               SlaveAddr, CommandCode, PEC);
}

// The extended forms: the prefix byte goes before the command code.
int32_t PMBus_WriteByteExt(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                           uint8_t CommandCodeExt, uint8_t CommandCode, uint8_t Data, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_WRITEBYTEEXT, PMBUSIndex, {}, SlaveAddr, CommandCodeExt,
               CommandCode, Data, PEC);
}

int32_t PMBus_ReadByteExt(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                          uint8_t CommandCodeExt, uint8_t CommandCode, uint8_t* pData, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_READBYTEEXT, PMBUSIndex, Into(pData, 1), SlaveAddr,
               CommandCodeExt, CommandCode, PEC);
}

int32_t PMBus_WriteWordExt(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                           uint8_t CommandCodeExt, uint8_t CommandCode, uint16_t Data, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_WRITEWORDEXT, PMBUSIndex, {}, SlaveAddr, CommandCodeExt,
               CommandCode, Word{Data}, PEC);
}

int32_t PMBus_ReadWordExt(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                          uint8_t CommandCodeExt, uint8_t CommandCode, uint16_t* pData, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_READWORDEXT, PMBUSIndex, Into(pData, limits::kWordSize),
               SlaveAddr, CommandCodeExt, CommandCode, PEC);
}

// At most 32 data bytes: more is -4 before anything goes out (the SMBus family has no limit).
int32_t PMBus_BlockWrite(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                         uint8_t CommandCode, uint8_t* pData, uint8_t ByteCount, uint8_t PEC) {
    return smbus::run_block(DevType, DevIndex, MSG_KD_PMBUS_BLOCKWRITE, PMBUSIndex, SlaveAddr, CommandCode,
                            Block{pData, ByteCount}, PEC, pmbus::kBlockMax);
}

int32_t PMBus_BlockRead(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                        uint8_t CommandCode, uint8_t* pData, uint8_t* pByteCount, uint8_t PEC) {
    return run(DevType, DevIndex, MSG_KD_PMBUS_BLOCKREAD, PMBUSIndex,
               Into(pData, limits::kBlockMax, pByteCount), SlaveAddr, CommandCode, PEC);
}

int32_t PMBus_BlockProcessCall(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                               uint8_t CommandCode, uint8_t* pWriteData, uint8_t WriteByteCount,
                               uint8_t* pReadData, uint8_t* pReadByteCount, uint8_t PEC) {
    return smbus::run_block(DevType, DevIndex, MSG_KD_PMBUS_BLOCKPROCESSCALL, PMBUSIndex, SlaveAddr,
                            CommandCode, Block{pWriteData, WriteByteCount}, PEC, pmbus::kBlockMax,
                            Into(pReadData, limits::kBlockMax, pReadByteCount));
}

// Channel, entry count and PEC flag, then the entries as given (count, address, command code, data).
// An entry of 0 or more than 32 data bytes is -4 and nothing goes out. The payload is held to the
// group command's 10240-byte buffer: -4 once it passes 10233 bytes (255 entries of 32 bytes stay
// well below, so the limit only guards the buffer).
int32_t PMBus_GroupCmd(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t* pGroupCmdData,
                       uint8_t CmdNum, uint8_t PEC) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_PMBUS_GROUPCMD);
    proto::Writer& out = channel(request, PMBUSIndex).u8(CmdNum).u8(PEC);
    const uint8_t* entry = pGroupCmdData;
    for (int i = 0; i < CmdNum; ++i) {
        const uint8_t n = entry[0];
        if (n == 0 || n > pmbus::kGroupEntryMax) return KD_ERR_DATA_FORMAT;
        out.u8(n).u8(entry[1]).u8(entry[2]);
        for (const uint8_t* data = entry + 3; data < entry + 3 + n; ++data) {
            out.u8(*data);
            if (out.size() > pmbus::kGroupPayloadMax) return KD_ERR_DATA_FORMAT;
        }
        entry += 3 + n;
    }
    return transact(DevIndex, request);
}

int32_t PMBus_GetAlert(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t* pAlertFlag) {
    return smbus::get_alert(DevType, DevIndex, PMBUSIndex, MSG_KD_PMBUS_GETALERT, pAlertFlag);
}

// Returns 0 once a reply came, whatever its status byte (intended), -6 when none did.
int32_t PMBus_SetControl(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t Value) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_PMBUS_SETCONTROL);
    channel(request, PMBUSIndex).u8(Value);
    const int32_t r = transact(DevIndex, request);
    return r < 0 ? r : KD_SUCCESS;
}
