/* 1-Wire family: the adapter as a 1-Wire bus master on one of its GPIO pins, with every slot timing
 * set by the host. The K1W_ functions manage the device; the KD_OW_ functions configure the pin and
 * its timings and perform the primitive bus actions. Reset and presence, ROM commands and search
 * are composed by the caller from these primitives.
 *
 * The family accepts device types 1 (KD_DEVTYPE_I2C) and 2 (KD_DEVTYPE_SPI). Every KD_OW_ function
 * returns 0 on success; -15 for another device type, -13 when the adapter was not opened, -5 when
 * the request did not go out, -10 when a command's status was not "done", -6 when a read's reply
 * did not come or carried another status (then *pData is left unchanged). No pointer is checked:
 * none may be NULL.
 *
 * Thread safety: the KD_OW_ functions take no lock; callers that share an adapter between threads
 * serialise their calls themselves. */
#ifndef CONTROL_1WIRE_H
#define CONTROL_1WIRE_H

#include <stdint.h>

#include "ControlGPIO.h" /* KGI_BOARD_INFO */
#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* The slot timings A to J of 1-Wire and five further timings of the adapter, in the adapter's time
 * unit (microseconds on the virtual adapter). Only the low byte of each reaches the adapter, so a
 * timing is limited to 0 to 255 (intended). */
typedef struct _KD_1WIRE_TIMING_CONFIG {
    uint16_t tA;
    uint16_t tB;
    uint16_t tC;
    uint16_t tD;
    uint16_t tE;
    uint16_t tF;
    uint16_t tG;
    uint16_t tH;
    uint16_t tI;
    uint16_t tJ;
    uint16_t tR1;
    uint16_t tR2;
    uint16_t tR3;
    uint16_t tR4;
    uint16_t tR5;
} KD_1WIRE_TIMING_CONFIG;

/* The bus pin (GPIO port and pin number) and its timings. */
typedef struct _KD_1WIRE_INIT_CONFIG {
    uint8_t port;
    uint8_t pin;
    KD_1WIRE_TIMING_CONFIG timing;
} KD_1WIRE_INIT_CONFIG;

/* Device management. K1W_OpenDevice creates the process-wide lock (once per process) first. */
CORVEL_API int32_t K1W_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t K1W_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t K1W_CloseDevice(int32_t DevType, int32_t DevIndex);
/* Opens the board again, then asks for its product information. */
CORVEL_API int32_t K1W_ReadBoardInfo(int32_t DevIndex, PKGI_BOARD_INFO pInfo);

CORVEL_API int32_t KD_OW_Init(int32_t DevType, int32_t DevIndex, KD_1WIRE_INIT_CONFIG* OWConfig);
/* Drives the line: 0 low, 1 released (pulled up). */
CORVEL_API int32_t KD_OW_Set_Pin(int32_t DevType, int32_t DevIndex, uint8_t bt);
/* Reads the line's level into *pData. */
CORVEL_API int32_t KD_OW_Read_Pin(int32_t DevType, int32_t DevIndex, uint8_t* pData);
/* One write slot. */
CORVEL_API int32_t KD_OW_Write_Bit(int32_t DevType, int32_t DevIndex, uint8_t bt);
/* Eight write slots, least significant bit first. */
CORVEL_API int32_t KD_OW_Write_Byte(int32_t DevType, int32_t DevIndex, uint8_t data);
/* Eight read slots, least significant bit first, into *pData. */
CORVEL_API int32_t KD_OW_Read_Byte(int32_t DevType, int32_t DevIndex, uint8_t* pData);
/* Switch the pin to drive the line, or to listen to it. */
CORVEL_API int32_t KD_OW_output_TX(int32_t DevType, int32_t DevIndex);
CORVEL_API int32_t KD_OW_input_RX(int32_t DevType, int32_t DevIndex);

CORVEL_EXTERN_C_END

#endif /* CONTROL_1WIRE_H */
