/* CAN family, buffered interface: one read thread per channel collects the frames of the current
 * CAN device into a queue per channel (10000 frames; when full, the oldest is overwritten), and
 * frames are transmitted in batches. Channels are numbered 1 and 2.
 *
 * The current CAN device is the one a VCI_ call (ControlCAN.h) or the text interface last worked
 * on; the interface serves one device at a time. The functions return counts, never error codes.
 *
 * Thread safety: CAN_ReadBuffer, CAN_Transmit and the read threads take the process-wide lock of
 * the current device (for indices below 21); CAN_GetReceiveNum and CAN_ClearBuffer take no lock, so
 * call them while the channel's read thread is stopped, or accept a count that is already stale. */
#ifndef CONTROL_CAN_BUFFERED_H
#define CONTROL_CAN_BUFFERED_H

#include <stdint.h>

#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* A received frame. */
typedef struct _CanRxMsg {
    uint32_t StdId; /* standard identifier (IDE 0) */
    uint32_t ExtId; /* extended identifier (IDE 4) */
    uint8_t IDE;    /* 0 standard, 4 extended */
    uint8_t RTR;    /* 0 data, 2 remote */
    uint8_t DLC;    /* data length as the adapter gave it */
    uint8_t Data[8];
    uint8_t FMI;       /* index of the acceptance filter that matched (0 here) */
    uint8_t Channel;   /* 1 or 2 */
    uint32_t CAN_Time; /* receive time stamp */
} CanRxMsg, CAN_ElemType;

/* A frame to transmit. */
typedef struct _CanTxMsg {
    uint32_t StdId; /* standard identifier (IDE 0) */
    uint32_t ExtId; /* extended identifier (IDE 4) */
    uint8_t IDE;    /* 0 standard, 4 extended */
    uint8_t RTR;    /* 0 data, 2 remote */
    uint8_t DLC;    /* data length, 0 to 8 */
    uint8_t Data[8];
    uint8_t Channel; /* 1 or 2 */
} CanTxMsg;

/* Empties the channel's queue and starts its read thread (stopping one still running on it first):
 * 1, or 0 when the thread could not be created or the channel is neither 1 nor 2. The thread ends
 * itself when the device is gone or a read fails for another reason than "no data". */
CORVEL_API int32_t CAN_StartThreadRead(int32_t Channel);
/* Stops the channel's read thread and waits for it to end: 1. Queued frames stay readable. */
CORVEL_API int32_t CAN_StopThreadRead(int32_t Channel);
/* Takes up to Len frames from the channel's queue: the number taken (0 for another channel or a
 * null buffer). */
CORVEL_API int32_t CAN_ReadBuffer(int32_t Channel, CanRxMsg* pBuffer, uint32_t Len);
/* Sends Len frames, in batches of up to 102793 packed bytes; Mode 1 uses the alternative write
 * message. Returns the number of frames sent: on a refused batch, those of the batches before (0
 * for a null pointer or a count below 1). */
CORVEL_API int32_t CAN_Transmit(CanTxMsg* pFrames, int32_t Len, int32_t Mode);
/* The number of frames waiting in the channel's queue (0 for another channel). Takes no lock. */
CORVEL_API int32_t CAN_GetReceiveNum(int32_t Channel);
/* Empties the channel's queue: 1. Takes no lock. */
CORVEL_API int32_t CAN_ClearBuffer(int32_t Channel);

CORVEL_EXTERN_C_END

#endif /* CONTROL_CAN_BUFFERED_H */
