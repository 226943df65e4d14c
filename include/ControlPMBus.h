/* PMBus family: PMBus transactions (power-management commands over SMBus) on the I2C channels 0
 * and 1 of an adapter of type 1, with the extended command space, group commands and the CONTROL
 * line.
 *
 * The exchange, the checks and the results are those of the SMBus family (ControlSMBus.h): -15,
 * -13, -1 from PMBus_HardInit, -5, -6, otherwise the adapter's status byte as a positive number;
 * the same reply bounds (32-byte data buffers, words low byte first), no pointer checks and no
 * lock. What differs:
 *   - PMBus_BlockWrite and PMBus_BlockProcessCall return -4 for more than 32 data bytes, before
 *     anything is sent;
 *   - PMBus_GroupCmd returns -4 for an entry of 0 or more than 32 data bytes, before anything is
 *     sent;
 *   - PMBus_SetControl returns 0 once a reply came, whatever its status (intended), -6 otherwise.
 * CommandCodeExt is the extension prefix sent before CommandCode: 0xFE for the manufacturer's
 * extended commands, 0xFF for PMBus's own. */
#ifndef CONTROL_PMBUS_H
#define CONTROL_PMBUS_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* Device management: the I2C family's scan, open and close. */
CORVEL_API int32_t PMBus_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t PMBus_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t PMBus_CloseDevice(int32_t DevType, int32_t DevIndex);

CORVEL_API int32_t PMBus_HardInit(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint32_t ClockSpeed,
                                  uint8_t OwnAddr);
/* Write Byte (with a command code) and Send Byte (the command code alone). */
CORVEL_API int32_t PMBus_WriteByte(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                                   uint8_t CommandCode, uint8_t Data, uint8_t PEC);
CORVEL_API int32_t PMBus_ReadByte(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                                  uint8_t CommandCode, uint8_t* pData, uint8_t PEC);
CORVEL_API int32_t PMBus_SendByte(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                                  uint8_t CommandCode, uint8_t PEC);
CORVEL_API int32_t PMBus_WriteWord(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                                   uint8_t CommandCode, uint16_t Data, uint8_t PEC);
CORVEL_API int32_t PMBus_ReadWord(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                                  uint8_t CommandCode, uint16_t* pData, uint8_t PEC);
/* The same behind an extension prefix. */
CORVEL_API int32_t PMBus_WriteByteExt(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex,
                                      uint8_t SlaveAddr, uint8_t CommandCodeExt, uint8_t CommandCode,
                                      uint8_t Data, uint8_t PEC);
CORVEL_API int32_t PMBus_ReadByteExt(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                                     uint8_t CommandCodeExt, uint8_t CommandCode, uint8_t* pData,
                                     uint8_t PEC);
CORVEL_API int32_t PMBus_WriteWordExt(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex,
                                      uint8_t SlaveAddr, uint8_t CommandCodeExt, uint8_t CommandCode,
                                      uint16_t Data, uint8_t PEC);
CORVEL_API int32_t PMBus_ReadWordExt(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                                     uint8_t CommandCodeExt, uint8_t CommandCode, uint16_t* pData,
                                     uint8_t PEC);
CORVEL_API int32_t PMBus_BlockWrite(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                                    uint8_t CommandCode, uint8_t* pData, uint8_t ByteCount, uint8_t PEC);
CORVEL_API int32_t PMBus_BlockRead(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t SlaveAddr,
                                   uint8_t CommandCode, uint8_t* pData, uint8_t* pByteCount, uint8_t PEC);
CORVEL_API int32_t PMBus_BlockProcessCall(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex,
                                          uint8_t SlaveAddr, uint8_t CommandCode, uint8_t* pWriteData,
                                          uint8_t WriteByteCount, uint8_t* pReadData, uint8_t* pReadByteCount,
                                          uint8_t PEC);
/* One group command: CmdNum entries back to back in pGroupCmdData, each a data byte count n (1 to
 * 32), the slave address, the command code and n data bytes. The adapter sends them in one
 * transaction, each entry after a repeated START, and the devices act together at the STOP. */
CORVEL_API int32_t PMBus_GroupCmd(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex,
                                  uint8_t* pGroupCmdData, uint8_t CmdNum, uint8_t PEC);
/* As SMBus_GetAlert. */
CORVEL_API int32_t PMBus_GetAlert(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t* pAlertFlag);
/* Drives the channel's CONTROL line: 0 low, anything else high. */
CORVEL_API int32_t PMBus_SetControl(int32_t DevType, int32_t DevIndex, int32_t PMBUSIndex, uint8_t Value);

CORVEL_EXTERN_C_END

#endif /* CONTROL_PMBUS_H */
