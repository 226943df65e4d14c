/* EasyScale family: the single-wire protocol with which power-management chips (LED drivers,
 * converters) take an 8-bit device address and a data byte holding a request-for-acknowledge bit,
 * a 2-bit register sub-address and a 5-bit value, each bit coded by the ratio of its high and low
 * times. The adapter drives the line with the timings the host sets.
 *
 * KEI_InitES and KEI_Transmit return 0 on success, -5 when a request did not go out, -10 when the
 * adapter's status was not "done". Unlike the other families they check neither the device type,
 * nor the connection, nor their pointers (intended): the pointers must not be NULL, and the adapter
 * must have been opened. KEI_OpenDevice and KEI_CloseDevice ignore DevType; the open does not
 * create the process-wide lock.
 *
 * Thread safety: no function takes a lock; callers that share an adapter between threads serialise
 * their calls themselves. */
#ifndef EASYSCALE_H
#define EASYSCALE_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* The line's timings, in the adapter's time unit (microseconds on the virtual adapter): shutdown
 * time, detect delay, detect time and detection window, start time, end-of-stream time,
 * acknowledge valid time and acknowledge time, then the high and low times of a 1 bit and of a 0
 * bit. */
typedef struct _KEI_ES_TIMING {
    uint16_t TShutDown;
    uint16_t ESDelay;
    uint16_t ESDetect;
    uint16_t ESWin;
    uint16_t TStart;
    uint16_t TEos;
    uint16_t TValACK;
    uint16_t TACKN;
    uint16_t HighBit_THigh;
    uint16_t HighBit_TLow;
    uint16_t LowBit_THigh;
    uint16_t LowBit_TLow;
} KEI_ES_TIMING, *PKEI_ES_TIMING;

/* One command: the mode byte (forwarded to the adapter), the device address, and the data byte's
 * fields: request for acknowledge, register sub-address and value. */
typedef struct _KEI_ES_OBJ {
    uint8_t ESMode;
    uint8_t DevAddr;
    uint8_t RFA : 1;
    uint8_t SubAddr : 2;
    uint8_t Data : 5;
} KEI_ES_OBJ, *PKEI_ES_OBJ;

CORVEL_API int32_t KEI_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t KEI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t KEI_CloseDevice(int32_t DevType, int32_t DevIndex);

/* Sets the line of channel ESChannel up: its idle level InitPinValue and its timings. */
CORVEL_API int32_t KEI_InitES(int32_t DevType, int32_t DevIndex, int32_t ESChannel, int32_t InitPinValue,
                              PKEI_ES_TIMING pESTiming);
/* Sends the Len commands of pESData in order, one message each, stopping at the first that fails;
 * the commands before it stay sent. Len 0 (or less) sends nothing and returns 0. */
CORVEL_API int32_t KEI_Transmit(int32_t DevType, int32_t DevIndex, int32_t ESChannel, PKEI_ES_OBJ pESData,
                                int32_t Len);

CORVEL_EXTERN_C_END

#endif /* EASYSCALE_H */
