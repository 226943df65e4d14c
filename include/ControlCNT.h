/* Counter family: device management and up to four pulse counters: configure, preset, read,
 * start and stop.
 *
 * Every function returns 0 on success and a negative code of CorvelBoard.h on failure: -15 for a
 * device type other than 1 (KD_DEVTYPE_I2C) and 2 (KD_DEVTYPE_SPI), -13 when the adapter was not
 * opened, -5 when the request did not go out, -10 when the adapter did not answer "done", -6 when a
 * read brought no answer. Channel is a mask of counters, bit n for counter n; only the low four
 * bits are used. Counter values are packed: one entry per selected counter, in ascending counter
 * order. No function checks its pointer argument: the pointers must not be NULL.
 *
 * Thread safety: no function takes a lock, and CNT_OpenDevice does not create the process-wide
 * lock. Callers that share one adapter between threads serialise these calls themselves. */
#ifndef CONTROL_CNT_H
#define CONTROL_CNT_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* Counter configuration, forwarded to the adapter as given. On this adapter: CounterMode 0 counts
 * up, 1 down; CounterPolarity 0 counts rising edges, 1 falling, 2 both; CounterBitWide is the
 * counter's width in bits, 16 or 32. */
typedef struct _CNT_INIT_CONFIG {
    uint8_t CounterMode;
    uint8_t CounterPolarity;
    uint8_t CounterBitWide;
} CNT_INIT_CONFIG, *PCNT_INIT_CONFIG;

/* Device management. CNT_OpenDevice goes straight to the board open. */
CORVEL_API int32_t CNT_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t CNT_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t CNT_CloseDevice(int32_t DevType, int32_t DevIndex);

CORVEL_API int32_t CNT_InitCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel,
                                   PCNT_INIT_CONFIG pInitConfig);
/* Presets the selected counters to the packed values of pCounterValue. */
CORVEL_API int32_t CNT_SetCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel,
                                  uint32_t* pCounterValue);
/* Reads the selected counters into pCounterValue, packed. With no counter selected nothing is
 * written. */
CORVEL_API int32_t CNT_GetCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel,
                                  uint32_t* pCounterValue);
CORVEL_API int32_t CNT_StartCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel);
CORVEL_API int32_t CNT_StopCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel);

CORVEL_EXTERN_C_END

#endif /* CONTROL_CNT_H */
