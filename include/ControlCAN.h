/* CAN family, ControlCAN-compatible interface: the VCI_ functions and records that applications
 * written against the ControlCAN adapter interface use, with the same names, signatures, record
 * layouts and return conventions.
 *
 * Conventions: DevType is 3 (VCI_USBCAN1, one channel) or 4 (VCI_USBCAN2, two channels); any other
 * type is rejected. DevIndex is the adapter's index in the board list, 0 to 29: every function that
 * keeps per-device state fails for a larger index (VCI_Receive with 0xFFFFFFFF); CANIndex is 0 for
 * the first channel and 1 for the second. With DevType 3 the first channel is used whatever
 * CANIndex says. Functions return 1 (STATUS_OK) on success and 0 (STATUS_ERR) on failure unless
 * their comment says otherwise; the reason of a failure is left in the channel's error record, read
 * and cleared with VCI_ReadErrInfo.
 *
 * Reception: VCI_StartCAN starts a background thread per channel that polls the adapter every
 * 10 ms and appends the frames it gets to the channel's receive queue (10000 frames; when full, the
 * oldest frame is overwritten). VCI_Receive takes frames out; the registered callback announces
 * them.
 *
 * Thread safety: the functions that exchange messages with the adapter, the read threads and the
 * queue operations take the process-wide lock of the adapter (for device indices below 21, as the
 * board functions do), so initialisation, transmission and polling never interleave on the wire.
 * Above index 20 nothing is locked and callers serialise themselves. */
#ifndef CONTROL_CAN_H
#define CONTROL_CAN_H

#include <stdint.h>

#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* The ControlCAN type names, for applications written with them. Define
 * CORVEL_CONTROLCAN_NO_TYPEDEFS when another header of the application already declares them. */
#ifndef CORVEL_CONTROLCAN_NO_TYPEDEFS
typedef uint32_t DWORD;
typedef uint32_t ULONG;
typedef int32_t INT;
typedef uint32_t UINT;
typedef uint16_t USHORT;
typedef uint8_t BYTE;
typedef uint8_t UCHAR;
typedef char CHAR;
typedef void* PVOID;
#endif

/* Device types. */
#define VCI_USBCAN1 3
#define VCI_USBCAN2 4

/* Return values. */
#define STATUS_OK 1
#define STATUS_ERR 0

/* Bits of VCI_ERR_INFO.ErrCode. The CAN controller bits (0x0001 to 0x0020) are ORed in by
 * VCI_ReadCANStatus; the others replace the whole code. */
#define ERR_CAN_OVERFLOW 0x0001   /* receive buffer nearly full (BufferSize below 2) */
#define ERR_CAN_ERRALARM 0x0002   /* error warning */
#define ERR_CAN_PASSIVE 0x0004    /* error passive; Passive_ErrData filled */
#define ERR_CAN_LOSE 0x0008       /* arbitration lost; ArLost_ErrData filled */
#define ERR_CAN_BUSERR 0x0010     /* last error code not zero */
#define ERR_CAN_BUSOFF 0x0020     /* bus-off */
#define ERR_DEVICEOPEN 0x0200     /* the device could not be opened */
#define ERR_DEVICENOTEXIST 0x1000 /* bad device type, or the device is not connected */
#define ERR_CMDFAILED 0x4000      /* the adapter rejected a command, or a thread failed */

/* A CAN frame, received or to transmit. */
typedef struct _VCI_CAN_OBJ {
    uint32_t ID;        /* identifier, 11-bit standard or 29-bit extended, right-aligned */
    uint32_t TimeStamp; /* receive time stamp from the adapter */
    uint8_t TimeFlag;   /* 1 when TimeStamp is valid */
    uint8_t SendType;   /* transmit: 0 normal, 1 normal after re-initialisation, 2 and 3
                         * self-test (loop-back), 5 the alternative write message; others as 0 */
    uint8_t RemoteFlag; /* 1 = remote frame */
    uint8_t ExternFlag; /* 1 = extended (29-bit) identifier */
    uint8_t DataLen;    /* number of data bytes, 0 to 8 */
    uint8_t Data[8];
    uint8_t Reserved[3];
} VCI_CAN_OBJ, *PVCI_CAN_OBJ, VCI_CAN_ElemType;

/* Channel configuration of VCI_InitCAN: SJA1000-style bus timing and acceptance filter. */
typedef struct _INIT_CONFIG {
    uint32_t AccCode; /* acceptance code */
    uint32_t AccMask; /* acceptance mask: bit 1 = don't care */
    uint32_t Reserved;
    uint8_t Filter;  /* 0 = no filtering */
    uint8_t Timing0; /* bus-timing bytes: a pair of the baud-rate table (5 to 1000 kbit/s);
                      * an unknown pair gives 1000 kbit/s */
    uint8_t Timing1;
    uint8_t Mode; /* 0 normal, 1 listen-only, 2 self-test */
} VCI_INIT_CONFIG, *PVCI_INIT_CONFIG;

/* Channel configuration of VCI_InitCANEx: the controller's bit timing in time quanta of the
 * 36 MHz CAN clock (bit rate = 36 MHz / (CAN_BRP x (1 + CAN_BS1 + CAN_BS2))). */
typedef struct _INIT_CONFIG_EX {
    uint32_t CAN_BRP;  /* prescaler, 1 to 1024 (taken mod 1025; 0 gives 1) */
    uint8_t CAN_SJW;   /* 1 to 4 */
    uint8_t CAN_BS1;   /* 1 to 16 */
    uint8_t CAN_BS2;   /* 1 to 8 */
    uint8_t CAN_Mode;  /* 0 normal, 1 loop-back, 2 silent, 3 silent loop-back */
    uint8_t CAN_ABOM;  /* automatic bus-off recovery */
    uint8_t CAN_NART;  /* no automatic retransmission */
    uint8_t CAN_RFLM;  /* receive FIFO locked when full */
    uint8_t CAN_TXFP;  /* transmit in request order */
    uint8_t CAN_RELAY; /* passed through to the adapter */
    uint32_t Reserved;
} VCI_INIT_CONFIG_EX, *PVCI_INIT_CONFIG_EX;

/* Board information of VCI_ReadBoardInfo (fixed values; see the function). */
typedef struct _VCI_BOARD_INFO {
    uint16_t hw_Version;
    uint16_t fw_Version;
    uint16_t dr_Version;
    uint16_t in_Version;
    uint16_t irq_Num;
    uint8_t can_Num;
    char str_Serial_Num[20];
    char str_hw_Type[40];
    uint16_t Reserved[4];
} VCI_BOARD_INFO, *PVCI_BOARD_INFO;

/* Board information as the adapter reports it (VCI_ReadBoardInfoEx). */
typedef struct _VCI_BOARD_INFO_EX {
    uint8_t ProductName[32];
    uint8_t FirmwareVersion[4];
    uint8_t HardwareVersion[4];
    uint8_t SerialNumber[12];
} VCI_BOARD_INFO_EX, *PVCI_BOARD_INFO_EX;

/* The adapter's CAN controller registers (VCI_ReadCANStatus). */
typedef struct _VCI_CAN_STATUS {
    uint8_t ErrInterrupt;
    uint8_t regMode;
    uint8_t regStatus;
    uint8_t regALCapture;
    uint8_t regECCapture;
    uint8_t regEWLimit;
    uint8_t regRECounter; /* receive error counter */
    uint8_t regTECounter; /* transmit error counter */
    uint32_t regESR;      /* error status register: bit 0 warning, 1 passive, 2 bus-off,
                           * bits 4-6 last error code */
    uint32_t regTSR;      /* transmit status register */
    uint32_t BufferSize;
    uint32_t Reserved;
} VCI_CAN_STATUS, *PVCI_CAN_STATUS;

/* A channel's accumulated errors (VCI_ReadErrInfo). */
typedef struct _ERR_INFO {
    uint32_t ErrCode;           /* bit set, ERR_ above */
    uint8_t Passive_ErrData[3]; /* with ERR_CAN_PASSIVE: the three mailboxes' transmit states */
    uint8_t ArLost_ErrData;     /* with ERR_CAN_LOSE: the last error code */
} VCI_ERR_INFO, *PVCI_ERR_INFO;

/* One acceptance filter bank (VCI_SetFilter). */
typedef struct _VCI_FILTER_CONFIG {
    uint8_t Enable;      /* bank active */
    uint8_t FilterIndex; /* bank within the channel (taken mod 14) */
    uint8_t FilterMode;  /* 0 identifier and mask, 1 identifier list */
    uint8_t ExtFrame;    /* 1 = extended identifier */
    uint32_t ID_Std_Ext;
    uint32_t ID_IDE;
    uint32_t ID_RTR;
    uint32_t MASK_Std_Ext; /* mask bit 1 = must match */
    uint32_t MASK_IDE;
    uint32_t MASK_RTR;
    uint32_t Reserved;
} VCI_FILTER_CONFIG, *PVCI_FILTER_CONFIG;

/* Called on a read thread, without the lock, after a poll left frames waiting: Len is the number
 * of frames waiting in the channel's queue (not the number of new ones). It may call VCI_Receive. */
typedef void (*PVCI_RECEIVE_CALLBACK)(uint32_t DevIndex, uint32_t CANIndex, uint32_t Len);

/* ---- Devices ---- */

/* Scans the buses: the number of adapters found. Takes the lock as the board scan does. */
CORVEL_API uint32_t VCI_ScanDevice(uint8_t Reserved);
/* Opens the adapter; clears its receive callback and both receive queues. Failure: 0x1000 for a
 * bad type, 0x0200 when the adapter could not be opened. */
CORVEL_API uint32_t VCI_OpenDevice(uint32_t DevType, uint32_t DevIndex, uint32_t Reserved);
/* Stops both channels' read threads, then closes the adapter (0x4000 when it could not be closed).
 * The receive queues keep their frames. */
CORVEL_API uint32_t VCI_CloseDevice(uint32_t DevType, uint32_t DevIndex);

/* ---- Channels ---- */

/* Initialises a channel from Timing0/Timing1 (looked up in the baud-rate table) and programs the
 * channel's first filter bank (0 or 14) from AccCode/AccMask. Sends no automatic retransmission,
 * a locked receive FIFO and transmission in request order. Mode 1 is the controller's silent
 * mode, 2 its silent loop-back mode. Returns 0 without an error code when the adapter is not
 * connected; 0x4000 when the adapter rejects the channel or the filter. Holds the lock. */
CORVEL_API uint32_t VCI_InitCAN(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex,
                                PVCI_INIT_CONFIG pInitConfig);
/* Initialises a channel from explicit bit timing; the filter is left as it is. Holds the lock. */
CORVEL_API uint32_t VCI_InitCANEx(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex,
                                  PVCI_INIT_CONFIG_EX pInitConfig);
/* Starts the channel's read thread; sends nothing to the adapter. A thread still running on the
 * channel is stopped first. 0x4000 when the thread could not be created. The thread ends itself
 * when a request does not go out, after three read time-outs in a row, on a reply shorter than its
 * header and when the adapter is gone.
 * Caution: a receive reply whose status is not 45 leaves the lock held, and the thread's next poll
 * then waits for it forever (the adapter's interface has always behaved so): from then on every
 * function that takes the lock hangs, VCI_ResetCAN and VCI_CloseDevice included. The adapter does
 * not answer so in normal operation. */
CORVEL_API uint32_t VCI_StartCAN(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex);
/* Stops the channel's read thread (sets its exit flag, waits 10 ms, joins it). 1 when the adapter
 * is connected and the thread was stopped. On device 0 a channel whose thread was never started
 * gives 0; on the other devices it gives 1. */
CORVEL_API uint32_t VCI_ResetCAN(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex);

/* Fills the record with fixed values without asking the adapter: can_Num 1 for type 3 and 2
 * otherwise, hw_Version 0x0200, fw_Version 0x0193, dr_Version 0x0200, in_Version 0x0173,
 * str_hw_Type "CANalyst-II", str_Serial_Num "00070428" and 0x10 0x02 0x29 0x00. The values are
 * those ControlCAN applications expect of their adapter. */
CORVEL_API uint32_t VCI_ReadBoardInfo(uint32_t DevType, uint32_t DevIndex, PVCI_BOARD_INFO pInfo);
/* Opens the adapter as type 4 and asks it for its product information. Returns 1 on success, 0 for
 * a failed exchange, -8 when the open failed, -13 when the adapter is not connected, -1 for a null
 * record (as uint32_t). Holds the lock during the exchange. */
CORVEL_API uint32_t VCI_ReadBoardInfoEx(uint32_t DevIndex, PVCI_BOARD_INFO_EX pInfo);

/* Always 0; nothing is read or written. */
CORVEL_API uint32_t VCI_GetReference(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, uint32_t RefType,
                                     void* pData);
CORVEL_API uint32_t VCI_SetReference(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, uint32_t RefType,
                                     void* pData);

/* ---- Frames ---- */

/* Sends Len frames in as few write messages as fit (102793 packed bytes each) and returns Len, or
 * 0 on any failure (0x4000 when a batch is refused; frames of earlier batches have gone out). The
 * first frame's SendType decides the mode: 1, 2 and 3 re-initialise and restart the channel first
 * (2 and 3 in self-test mode), 0 switches back to normal mode when the channel is not in it, 5 uses
 * the alternative write message. Count 0 sends nothing and returns 0. Holds the lock. */
CORVEL_API uint32_t VCI_Transmit(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, PVCI_CAN_OBJ pSend,
                                 uint32_t Len);
/* Takes up to Len frames from the channel's receive queue: the number taken. Never blocks:
 * WaitTime is not used. 0xFFFFFFFF for DevIndex above 29 or a bad type; 0 (with 0x1000) when the
 * adapter is not connected. Holds the lock. */
CORVEL_API uint32_t VCI_Receive(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, PVCI_CAN_OBJ pReceive,
                                uint32_t Len, int32_t WaitTime);
/* The number of frames waiting in the channel's queue; 0 for a bad type or CANIndex above 1. Holds
 * the lock. */
CORVEL_API uint32_t VCI_GetReceiveNum(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex);
/* Empties the channel's receive queue: 1; 0 for a bad type.
 * Caution: with DevType 3 the lock is left held on return (the adapter's interface has always
 * behaved so). The next call from another thread that takes the lock then waits forever, and a
 * call from the same thread deadlocks: with a one-channel adapter, clear with DevType 4 and
 * CANIndex 0 instead. */
CORVEL_API uint32_t VCI_ClearBuffer(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex);
/* Registers the callback of the adapter's read threads: 1; 0 for DevIndex above 29 or a null
 * callback. Opening the adapter clears it. Holds the lock. */
CORVEL_API uint32_t VCI_RegisterReceiveCallback(uint32_t DevIndex, PVCI_RECEIVE_CALLBACK pReceiveCallBack);
/* Removes the callback: 1; 0 for DevIndex above 29. Holds the lock. */
CORVEL_API uint32_t VCI_LogoutReceiveCallback(uint32_t DevIndex);

/* ---- Status, errors and filters ---- */

/* Reads the channel's controller registers and ORs the errors they show into the channel's error
 * record. Failures are recorded (0x4000) on the first channel of the device whatever CANIndex is.
 * Holds the lock. */
CORVEL_API uint32_t VCI_ReadCANStatus(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex,
                                      PVCI_CAN_STATUS pCANStatus);
/* Copies the channel's error record, then clears it: 1; 0 for a bad type or a null record. Needs no
 * connection and takes no lock (a status read at the same moment may set bits that the clear then
 * loses). */
CORVEL_API uint32_t VCI_ReadErrInfo(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex,
                                    PVCI_ERR_INFO pErrInfo);
/* Programs one filter bank of the channel (banks 0 to 13 belong to the first channel, 14 to 27 to
 * the second). Holds the lock. */
CORVEL_API uint32_t VCI_SetFilter(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex,
                                  PVCI_FILTER_CONFIG pFilter);

CORVEL_EXTERN_C_END

#endif /* CONTROL_CAN_H */
