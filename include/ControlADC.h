/* ADC family: device management, board information, sampling set-up and sample blocks.
 *
 * Every function returns 0 on success and a negative code of CorvelBoard.h on failure. The family
 * accepts device types 1 (KD_DEVTYPE_I2C) and 2 (KD_DEVTYPE_SPI). The checks run in a fixed order
 * before anything is sent: device type (-15), connection (-13; the adapter must have been opened),
 * pointers (-1), then ranges (-4).
 *
 * The channel mask of the last KAI_InitADC is kept once per process, not per adapter, and sizes
 * every later KAI_ReadDatas, on any adapter. It is stored before the request goes out, so it changes
 * even when the initialisation then fails. Before any initialisation no channel is enabled and a
 * read asks for no bytes.
 *
 * Thread safety: no function takes a lock; callers that share one adapter between threads serialise
 * these calls themselves. Scan, open and close take the lock as the board functions do. */
#ifndef CONTROL_ADC_H
#define CONTROL_ADC_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* Board information. */
typedef struct _KAI_BOARD_INFO {
    uint8_t ProductName[32];
    uint8_t FirmwareVersion[4];
    uint8_t HardwareVersion[4];
    uint8_t SerialNumber[12];
} KAI_BOARD_INFO, *PKAI_BOARD_INFO;

/* Device management. KAI_OpenDevice creates the process-wide lock (once per process) first. */
CORVEL_API int32_t KAI_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t KAI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t KAI_CloseDevice(int32_t DevType, int32_t DevIndex);
/* Opens the board again, then asks for its product information. */
CORVEL_API int32_t KAI_ReadBoardInfo(int32_t DevIndex, PKAI_BOARD_INFO pInfo);

/* Starts sampling the channels of the mask Channel (bit n for channel n) every Period units of the
 * adapter's time. -10 when the adapter refuses. */
CORVEL_API int32_t KAI_InitADC(int32_t DevType, int32_t DevIndex, uint8_t Channel, uint16_t Period);

/* Reads DataNum sampling instants (1 to 10240; -4 otherwise) into pData, which holds DataNum values
 * per enabled channel: instant by instant, one 16-bit value per enabled channel in ascending
 * channel order, each in the byte order the adapter sends it (least significant byte first). Waits
 * up to 10 s for the adapter to finish sampling; -6 when fewer bytes came (pData may hold part). */
CORVEL_API int32_t KAI_ReadDatas(int32_t DevType, int32_t DevIndex, uint16_t DataNum, uint16_t* pData);

CORVEL_EXTERN_C_END

#endif /* CONTROL_ADC_H */
