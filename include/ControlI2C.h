/* I2C family: device management, board information, channel configuration, master transfers,
 * slave mode, pin-event transfers and the adapter's user-data area.
 *
 * Every function returns 0 (or a count) on success and a negative code of CorvelBoard.h on failure.
 * The family accepts device type 1 (KD_DEVTYPE_I2C) only. Addresses are sent as given: the
 * adapter's firmware reads them in the 8-bit form (0xA0 addresses the part at 7-bit 0x50).
 *
 * Thread safety: the transfers take no lock. Callers that share one adapter between threads
 * serialise these calls themselves. Scan, open and close take the process-wide lock. */
#ifndef CONTROL_I2C_H
#define CONTROL_I2C_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* Channel configuration. */
typedef struct _KII_INIT_CONFIG {
    uint8_t MasterMode;   /* master or slave operation; passed to the adapter unchecked */
    uint8_t ControlMode;  /* 0, 1 or 2 */
    uint8_t AddrType;     /* slave-address width in bits: 7 or 10 */
    uint8_t SubAddrWidth; /* register-address bytes sent before data: 0 to 4 */
    uint16_t Addr;        /* the channel's own address in slave mode */
    uint32_t ClockSpeed;  /* bus clock in Hz: 1000 to 5000000 */
} KII_INIT_CONFIG, *PKII_INIT_CONFIG;

/* Bus timing of the adapter's software-driven I2C, in the adapter's timing unit. Only tSU_STA,
 * tHD_STA, tLOW, tHIGH, tSU_DAT, tSU_STO and tBuf reach the adapter, and only their low byte. */
typedef struct _KII_TIME_CONFIG {
    uint16_t tHD_STA;
    uint16_t tSU_STA;
    uint16_t tLOW;
    uint16_t tHIGH;
    uint16_t tSU_DAT;
    uint16_t tSU_STO;
    uint16_t tDH;
    uint16_t tDH_DAT;
    uint16_t tAA;
    uint16_t tR;
    uint16_t tF;
    uint16_t tBuf;
    uint32_t tACK;
    uint16_t tStart;
    uint16_t tStop;
} KII_TIME_CONFIG, *PKII_TIME_CONFIG;

/* Board information as the adapter reports it. */
typedef struct _KII_BOARD_INFO {
    uint8_t ProductName[32];
    uint8_t FirmwareVersion[4];
    uint8_t HardwareVersion[4];
    uint8_t SerialNumber[12];
} KII_BOARD_INFO, *PKII_BOARD_INFO;

/* Device management. */
CORVEL_API int32_t KII_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t KII_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t KII_CloseDevice(int32_t DevType, int32_t DevIndex);
/* Opens the board again, then asks for its product information. */
CORVEL_API int32_t KII_ReadBoardInfo(int32_t DevIndex, PKII_BOARD_INFO pInfo);

/* Configuration. KII_PullupConfig is not supported by this adapter and always returns -15. */
CORVEL_API int32_t KII_InitI2C(int32_t DevType, int32_t DevIndex, int32_t I2CIndex,
                               PKII_INIT_CONFIG pInitConfig);
CORVEL_API int32_t KII_TimeConfig(int32_t DevType, int32_t DevIndex, int32_t I2CIndex,
                                  PKII_TIME_CONFIG pTimeConfig);
CORVEL_API int32_t KII_PullupConfig(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint32_t pullup);

/* Master transfers on channel I2CIndex (0 to 20). The sub-address is always sent as 4 bytes; the
 * adapter puts the low SubAddrWidth bytes on the bus. Reads may be at most 10233 bytes long; a read
 * that receives fewer bytes than asked for still succeeds and copies only what came. */
CORVEL_API int32_t KII_WriteBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t Addr,
                                  uint32_t SubAddr, uint8_t* pWriteData, uint16_t Len);
CORVEL_API int32_t KII_ReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t Addr,
                                 uint32_t SubAddr, uint8_t* pReadData, uint16_t Len);
CORVEL_API int32_t KII_WriteReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t SlaveAddr,
                                      uint32_t WriteSubAddr, uint8_t* pWriteData, uint16_t WriteLen,
                                      uint32_t ReadSubAddr, uint8_t* pReadData, uint16_t ReadLen,
                                      uint16_t IntervalTime);

/* Slave mode. KII_SlaveReadBytes copies up to 10233 bytes into pReadData and sets *pLen to their
 * number. KII_SlaveWriteRemain accepts channels 0 to 2 only. */
CORVEL_API int32_t KII_SlaveWriteBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex,
                                       uint8_t* pWriteData, uint16_t Len);
CORVEL_API int32_t KII_SlaveReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint8_t* pReadData,
                                      uint16_t* pLen);
CORVEL_API int32_t KII_SlaveWriteRemain(int32_t DevType, int32_t DevIndex, int32_t I2CIndex,
                                        uint16_t* pRemainBytes);

/* Transfers that the adapter starts when an event occurs on one of its pins; the status wait uses
 * TimeOutMs. KII_ClearPinEvent is not supported and always returns -7. */
CORVEL_API int32_t KII_PinEventReadBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex,
                                         uint16_t EventPin, uint16_t EventType, uint16_t SlaveAddr,
                                         uint32_t SubAddr, uint8_t* pReadData, uint16_t Len,
                                         int32_t TimeOutMs);
CORVEL_API int32_t KII_PinEventWriteBytes(int32_t DevType, int32_t DevIndex, int32_t I2CIndex,
                                          uint16_t EventPin, uint16_t EventType, uint16_t SlaveAddr,
                                          uint32_t SubAddr, uint8_t* pWriteData, uint16_t Len,
                                          int32_t TimeOutMs);
CORVEL_API int32_t KII_ClearPinEvent(int32_t DevType, int32_t DevIndex, int32_t I2CIndex, uint16_t EventPins);

/* The adapter's 2048-byte non-volatile user-data area. A count reaching past the end is cut to the
 * end (and to 0 when the offset is past it). */
CORVEL_API int32_t KII_WriteUserData(int32_t DevType, int32_t DevIndex, int32_t OffsetAddr, uint8_t* pData,
                                     int32_t DataNum);
CORVEL_API int32_t KII_ReadUserData(int32_t DevType, int32_t DevIndex, int32_t OffsetAddr, uint8_t* pData,
                                    int32_t DataNum);

CORVEL_EXTERN_C_END

#endif /* CONTROL_I2C_H */
