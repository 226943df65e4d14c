/* Board-level functions shared by every family: enumeration, open/close, the interrupt command
 * channel, the common return codes and their texts. */
#ifndef CORVEL_BOARD_H
#define CORVEL_BOARD_H

#include <stdint.h>

#include "CorvelExport.h"
#include "CorvelMsg.h"

CORVEL_EXTERN_C_BEGIN

/* Return codes of the binary-record families. KDI_GetErrorString gives the text of each. */
#define KD_SUCCESS 0
#define KD_ERR_PARAMETER_NULL (-1)      /* a required pointer argument is null */
#define KD_ERR_INPUT_DATA_TOO_MUCH (-2) /* input longer than the operation allows */
#define KD_ERR_INPUT_DATA_TOO_LESS (-3) /* input shorter than the operation needs */
#define KD_ERR_DATA_FORMAT (-4)         /* an argument is out of range */
#define KD_ERR_USB_WRITE_FAIL (-5)      /* sending the request frame failed */
#define KD_ERR_USB_READ_FAIL (-6)       /* reading the reply failed or it was too short */
#define KD_ERR_NO_DATA (-7)             /* the reply carried fewer data than asked for */
#define KD_ERR_OPEN_DEVICE (-8)         /* the board could not be opened */
#define KD_ERR_CLOSE_DEVICE (-9)        /* the board could not be closed */
#define KD_ERR_EXECUTE_CMD (-10)        /* the adapter answered with a status other than OK */
#define KD_ERR_SELECT_DEVICE (-11)
#define KD_ERR_DEVICE_OPENED (-12)
#define KD_ERR_DEVICE_NOT_OPEN (-13) /* the connection test failed */
#define KD_ERR_BUFFER_OVERFLOW (-14)
#define KD_ERR_DEVICE_NOT_AVAILABLE (-15) /* the device type is not one the family accepts */
#define KD_ERR_LOAD_LIBRARY (-16)
#define KD_ERR_CMD_FAILED (-17)
#define KD_ERR_OUT_OF_MEMORY (-18)

/* Device types (adapter personalities) that the families accept. */
#define KD_DEVTYPE_I2C 1
#define KD_DEVTYPE_SPI 2
#define KD_DEVTYPE_CAN1 3
#define KD_DEVTYPE_CAN2 4

/* Commands of the interrupt command channel (8-byte request, 8-byte answer). In C++ the enumeration
 * has the fixed underlying type int32_t, so that any integer a C caller passes (the ABI is the same
 * 32-bit int) is a valid value of it. */
#ifdef __cplusplus
typedef enum _KD_CMD_ENUM : int32_t {
#else
typedef enum _KD_CMD_ENUM {
#endif
    KD_CMD_NONE = 0,
    KD_CMD_GET_CORVEL_VN = 2816,     /* ask the adapter for its version */
    KD_CMD_CAN_GET_DATA_FLAG = 2817, /* ask the CAN firmware whether received data is waiting */
} KD_CMD_ENUM;

/* Reads the USB buses (always when needInit is nonzero, else only the first time) and returns the
 * number of adapters seen by this scan. An adapter keeps its index while its serial stays the same.
 * Thread safety: takes the process-wide lock. */
CORVEL_API int32_t KD_EnumBoard(int32_t needInit);

/* Opens adapter nBoardID (enumerating first if nothing was enumerated yet): 0, or -8.
 * Thread safety: takes the process-wide lock for indices below 21. */
CORVEL_API int32_t KD_OpenBoard(int32_t nBoardID);

/* Closes adapter nBoardID and removes it from the device list: 0, or -9. Its index stays unused
 * until a later scan. Thread safety: takes the process-wide lock for indices below 21. */
CORVEL_API int32_t KD_CloseBoard(int32_t nBoardID);

/* Sends an 8-byte board command and copies the adapter's 8-byte answer into cmdResult.
 * Returns 0 on success, 2 when the request could not be written, otherwise the last read result
 * (a success on the tenth and last read returns 8; callers treat any nonzero value as no answer),
 * or -1 when cmdResult is null. Thread safety: takes no lock. */
CORVEL_API int32_t KD_ExecuteCommand(KD_CMD_ENUM kd_cmd, int32_t Parameter, int32_t dev, uint8_t* cmdResult);

/* Writes the English text for ErrorValue, NUL-terminated, into pErrorString, which must hold at
 * least 32 bytes. Codes without a text of their own give "Unknow runtime error". */
CORVEL_API void KDI_GetErrorString(int32_t ErrorValue, char* pErrorString);

/* Removes every adapter from the device list (the library itself never calls it). */
CORVEL_API void list_clear(void);

CORVEL_EXTERN_C_END

#endif /* CORVEL_BOARD_H */
