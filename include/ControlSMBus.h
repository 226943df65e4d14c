/* SMBus family: SMBus transactions on the I2C channels 0 and 1 of an adapter of type 1
 * (KD_DEVTYPE_I2C), from Quick Command to Block Process Call, and the SMBALERT# line.
 *
 * The adapter performs each transaction, the packet error code (PEC) included when the PEC flag is
 * nonzero; the library packs the arguments, sends one message and reads one reply. SlaveAddr is the
 * address byte as the adapter takes it (the I2C family's 8-bit form: the 7-bit address shifted left
 * by one; bit 0 is the R/W bit, which only SMBus_QuickCommand uses).
 *
 * Results: -15 for a device type other than 1, -13 when the adapter was not opened, -1 from
 * SMBus_HardInit for a channel above 1 or a clock outside 10000 to 400000 Hz (intended: -1, not
 * -4), -5 when the request did not go out, -6 when no reply (or one shorter than its 7-byte header)
 * came. Otherwise the adapter's status byte for the transaction is returned as a positive number:
 * 0 success, 1 address not acknowledged, 2 a byte not acknowledged, 3 PEC error, 4 channel not
 * initialised, 5 block count out of range, 6 malformed request (the virtual adapter's meanings;
 * see docs/virtual-adapter.md). SMBus_GetAlert returns 0 and stores its status byte instead.
 *
 * Replies: a byte read stores 1 byte; a word read stores the 2 bytes in the order the bus carried
 * them (low byte first), so *pData holds the word's value on a little-endian host; a block read
 * stores the block's data bytes (without the count byte) and their number in the byte count. The
 * data buffers must hold 32 bytes (the largest SMBus block): a reply announcing more is cut to 32
 * and never copied beyond what arrived. When the reply read fails, the byte count receives the
 * size of the request's own payload (intended: the message record is reused for the reply).
 *
 * No pointer argument is checked: none may be NULL. No length is checked: ByteCount and
 * WriteByteCount are bytes, so a block carries at most 255 data bytes.
 *
 * Thread safety: no function takes a lock, so the request and its reply are not protected against
 * another thread's traffic to the same adapter (intended). Callers that share an adapter between
 * threads serialise their calls themselves. */
#ifndef CONTROL_SMBUS_H
#define CONTROL_SMBUS_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* Device management: the I2C family's scan, open and close (KII_ScanDevice, KII_OpenDevice,
 * KII_CloseDevice) under a second name. */
CORVEL_API int32_t SMBus_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t SMBus_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t SMBus_CloseDevice(int32_t DevType, int32_t DevIndex);

/* Sets the channel up as an SMBus master; call it after the open and before any transaction. */
CORVEL_API int32_t SMBus_HardInit(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint32_t ClockSpeed,
                                  uint8_t OwnAddr);
CORVEL_API int32_t SMBus_QuickCommand(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex,
                                      uint8_t SlaveAddr);
/* Send Byte and Receive Byte: one data byte, no command code. */
CORVEL_API int32_t SMBus_WriteByte(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                                   uint8_t Data, uint8_t PEC);
CORVEL_API int32_t SMBus_ReadByte(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                                  uint8_t* pData, uint8_t PEC);
/* Write Byte/Word and Read Byte/Word: a command code, then the data. */
CORVEL_API int32_t SMBus_WriteByteProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex,
                                           uint8_t SlaveAddr, uint8_t CommandCode, uint8_t Data, uint8_t PEC);
CORVEL_API int32_t SMBus_WriteWordProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex,
                                           uint8_t SlaveAddr, uint8_t CommandCode, uint16_t Data,
                                           uint8_t PEC);
CORVEL_API int32_t SMBus_ReadByteProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex,
                                          uint8_t SlaveAddr, uint8_t CommandCode, uint8_t* pData,
                                          uint8_t PEC);
CORVEL_API int32_t SMBus_ReadWordProtocol(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex,
                                          uint8_t SlaveAddr, uint8_t CommandCode, uint16_t* pData,
                                          uint8_t PEC);
/* Process Call: a word out, a word back. */
CORVEL_API int32_t SMBus_ProcessCall(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                                     uint8_t CommandCode, uint16_t WriteData, uint16_t* pReadData,
                                     uint8_t PEC);
/* Block Write, Block Read and Block Process Call. In the request the PEC flag goes before the data
 * bytes (intended; everywhere else it is the last byte). */
CORVEL_API int32_t SMBus_BlockWrite(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                                    uint8_t CommandCode, uint8_t* pData, uint8_t ByteCount, uint8_t PEC);
CORVEL_API int32_t SMBus_BlockRead(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t SlaveAddr,
                                   uint8_t CommandCode, uint8_t* pData, uint8_t* pByteCount, uint8_t PEC);
CORVEL_API int32_t SMBus_BlockProcessCall(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex,
                                          uint8_t SlaveAddr, uint8_t CommandCode, uint8_t* pWriteData,
                                          uint8_t WriteByteCount, uint8_t* pReadData, uint8_t* pReadByteCount,
                                          uint8_t PEC);
/* Stores the adapter's answer for the channel's SMBALERT# line in *pAlertFlag (1 while a device
 * holds it asserted, 0 otherwise) and returns 0. */
CORVEL_API int32_t SMBus_GetAlert(int32_t DevType, int32_t DevIndex, int32_t SMBUSIndex, uint8_t* pAlertFlag);

CORVEL_EXTERN_C_END

#endif /* CONTROL_SMBUS_H */
