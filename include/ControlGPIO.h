/* GPIO family: device management, board information, pin direction and drive, pin levels, and the
 * adapter's I2C sniffer switch.
 *
 * Every function returns 0 on success and a negative code of CorvelBoard.h on failure. The family
 * accepts device types 1 (KD_DEVTYPE_I2C) and 2 (KD_DEVTYPE_SPI). The checks run in a fixed order
 * before anything is sent: device type (-15), connection (-13; the adapter must have been opened),
 * then pointers (-1).
 *
 * Pin masks: bit n stands for pin n. The base functions take 16 pins, the Ex functions 24 (the top
 * byte of an Ex mask is not sent). PinMode is a 32-bit word sent to the adapter as it is: a 2-bit
 * field per pin, pin n in bits 2(n mod 16) and 2(n mod 16)+1. 3 is an input, 1 a push-pull output,
 * 2 an open-drain output with pull-up, 0 an input with pull-up. The presets below fill every field.
 *
 * The configuration and write functions and the sniffer switch are fire-and-forget: they return 0
 * once the request went out (-5 if it did not), without waiting for the adapter. The reads return
 * the levels of pins 0 to 15 only, even with a wider mask, and -6 when the answer did not come or
 * carried another status than "read done".
 *
 * Thread safety: only KGI_I2C_Sniffer_ReadDatas takes the process-wide lock (for indices below 21).
 * A read shares the adapter's answer channel, so callers that share one adapter between threads
 * serialise these calls themselves. Scan, open and close take the lock as the board functions do. */
#ifndef CONTROL_GPIO_H
#define CONTROL_GPIO_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* Pin-mode presets. */
#define KGI_PIN_MODE_INPUT 0xFFFFFFFFu
#define KGI_PIN_MODE_OUTPUT 0x55555555u
#define KGI_PIN_MODE_OPEN_DRAIN 0xAAAAAAAAu

/* Board information (the 1-Wire family uses this record too). */
typedef struct _KGI_BOARD_INFO {
    uint8_t ProductName[32];
    uint8_t FirmwareVersion[4];
    uint8_t HardwareVersion[4];
    uint8_t SerialNumber[12];
} KGI_BOARD_INFO, *PKGI_BOARD_INFO;

/* Device management. KGI_OpenDevice creates the process-wide lock (once per process) first. */
CORVEL_API int32_t KGI_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t KGI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t KGI_CloseDevice(int32_t DevType, int32_t DevIndex);
/* Opens the board again, then asks for its product information. */
CORVEL_API int32_t KGI_ReadBoardInfo(int32_t DevIndex, PKGI_BOARD_INFO pInfo);

/* Direction and drive of the masked pins. */
CORVEL_API int32_t KGI_InitGPIO(int32_t DevType, int32_t DevIndex, uint16_t PinMask, uint32_t PinMode);
CORVEL_API int32_t KGI_InitGPIOEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask, uint32_t PinMode);

/* Output levels of the masked pins: bit n of Data for pin n. KGI_WriteDatasEx sends only the low
 * 16 bits of Data. */
CORVEL_API int32_t KGI_WriteDatas(int32_t DevType, int32_t DevIndex, uint16_t PinMask, uint16_t Data);
CORVEL_API int32_t KGI_WriteDatasEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask, uint32_t Data);

/* Levels of the masked pins into *pData: bit n for pin n, pins 0 to 15 only. */
CORVEL_API int32_t KGI_ReadDatas(int32_t DevType, int32_t DevIndex, uint16_t PinMask, uint16_t* pData);
CORVEL_API int32_t KGI_ReadDatasEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask, uint16_t* pData);

/* Conveniences, each one call of the function above it with a fixed value: set (Data 0xFFFF) or
 * reset (Data 0) the pins, or make them inputs, outputs or open-drain outputs. */
CORVEL_API int32_t KGI_SetPins(int32_t DevType, int32_t DevIndex, uint16_t Pins);
CORVEL_API int32_t KGI_ResetPins(int32_t DevType, int32_t DevIndex, uint16_t Pins);
CORVEL_API int32_t KGI_SetInput(int32_t DevType, int32_t DevIndex, uint16_t Pins);
CORVEL_API int32_t KGI_SetOutput(int32_t DevType, int32_t DevIndex, uint16_t Pins);
CORVEL_API int32_t KGI_SetOpenDrain(int32_t DevType, int32_t DevIndex, uint16_t Pins);
CORVEL_API int32_t KGI_SetPinsEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask);
CORVEL_API int32_t KGI_ResetPinsEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask);
CORVEL_API int32_t KGI_SetInputEx(int32_t DevType, int32_t DevIndex, uint32_t Pins);
CORVEL_API int32_t KGI_SetOutputEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask);
CORVEL_API int32_t KGI_SetOpenDrainEx(int32_t DevType, int32_t DevIndex, uint32_t Pins);

/* The I2C sniffer: switches it on (1) or off (0) for an I2C channel of the adapter. */
CORVEL_API int32_t KGI_I2C_Sniffer_Control(int32_t DevType, int32_t DevIndex, uint8_t channel, uint8_t on);
/* Sends the sniffer's read request, under the lock, and returns 0 once it went out. Nothing is read
 * back: pReadData is left untouched and may be NULL. */
CORVEL_API int32_t KGI_I2C_Sniffer_ReadDatas(int32_t DevType, int32_t DevIndex, uint8_t channel,
                                             uint8_t* pReadData);

CORVEL_EXTERN_C_END

#endif /* CONTROL_GPIO_H */
