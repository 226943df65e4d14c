/* PWM family: device management, the configuration of up to eight pulse-width-modulated outputs,
 * start and stop, and duty-cycle and frequency changes while they run.
 *
 * Every function returns 0 on success and a negative code of CorvelBoard.h on failure: -15 for a
 * device type other than 1 (KD_DEVTYPE_I2C) and 2 (KD_DEVTYPE_SPI), -13 when the adapter was not
 * opened, -1 for a null configuration, -4 for a value out of range, -5 when the request did not go
 * out, -10 when the adapter did not answer "done". Channel masks: bit n for output n.
 *
 * Thread safety: every command takes the process-wide lock (for indices below 21) around its
 * request and, separately, around the adapter's answer. The lock is free in between, so another
 * thread's transfer on the same adapter may come between a request and its answer: callers that
 * share one adapter between threads serialise these calls themselves. */
#ifndef CONTROL_PWM_H
#define CONTROL_PWM_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* Configuration of the masked outputs. */
typedef struct _KPI_INIT_CONFIG {
    uint8_t PWM_ChannelMask; /* outputs to configure, bit n for output n */
    uint8_t PWM_Mode;        /* 0 to 3; mode 3 skips the polarity and pulse checks */
    uint8_t PWM_Pulse;       /* duty cycle in percent: 0 to 100 */
    uint8_t PWM_Polarity;    /* 0 or 1 */
    uint32_t PWM_Frequency;  /* Hz: 1 to 20000000 */
} KPI_INIT_CONFIG, *PKPI_INIT_CONFIG;

/* Device management. KPI_OpenDevice creates the process-wide lock (once per process) first. */
CORVEL_API int32_t KPI_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t KPI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t KPI_CloseDevice(int32_t DevType, int32_t DevIndex);

CORVEL_API int32_t KPI_InitPWM(int32_t DevType, int32_t DevIndex, PKPI_INIT_CONFIG pInitConfig);
CORVEL_API int32_t KPI_StartPWM(int32_t DevType, int32_t DevIndex, uint8_t ChannelMask);
CORVEL_API int32_t KPI_StopPWM(int32_t DevType, int32_t DevIndex, uint8_t ChannelMask);
/* pPulse and Frequency hold eight values, one per output, whatever the mask selects; the adapter
 * applies those of the masked outputs. Neither the pointers nor the values are checked: the
 * pointers must not be NULL. */
CORVEL_API int32_t KPI_SetPWMPulse(int32_t DevType, int32_t DevIndex, uint8_t ChannelMask, uint8_t* pPulse);
CORVEL_API int32_t KPI_SetPWMPeriod(int32_t DevType, int32_t DevIndex, uint8_t ChannelMask,
                                    uint32_t* Frequency);

CORVEL_EXTERN_C_END

#endif /* CONTROL_PWM_H */
