/* SDI-12 family: commands to SDI-12 sensors on the adapter's two SDI-12 ports (0 and 1), and the
 * sensors' response lines, optionally with their CRC verified.
 *
 * The family accepts device types 1 (KD_DEVTYPE_I2C) and 2 (KD_DEVTYPE_SPI). Results: 0 on
 * success; -15 for another device type, -13 when the adapter was not opened, -4 for a port above 1,
 * -1 for a NULL pointer, -5 when the request did not go out; see each function for the rest.
 *
 * Thread safety: both functions hold the process-wide lock (for indices below 21) across their
 * request and its answer, so a command and its response are not interleaved with another thread's
 * traffic. Scan, open and close take the lock as the board functions do.
 *
 * The CRC arithmetic (the SDI-12 CRC-16 and its three-character form) is internal. Its self-test is
 * not exported: it runs in the project's own tests, and aborts by assertion when it fails, which an
 * application has no use for. */
#ifndef CONTROL_SDI_H
#define CONTROL_SDI_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* Device management. SDI_OpenDevice creates the process-wide lock (once per process) first. */
CORVEL_API int32_t SDI_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t SDI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t SDI_CloseDevice(int32_t DevType, int32_t DevIndex);

/* Sets an SDI-12 port up: 0, or -10 when the adapter did not answer "done". */
CORVEL_API int32_t SDI_InitSDI(int32_t DevType, int32_t DevIndex, uint8_t SDIIndex);

/* Sends one command (pCommand: NUL-terminated, up to and including its first "!", which it must
 * contain; at most 511 characters, else -4) and stores the sensor's response line in pRespond,
 * NUL-terminated just after its carriage return and line feed. The characters go out with SDI-12's
 * even parity in bit 7.
 *
 * pRespond must hold 512 bytes: the adapter's reply is taken up to 511 bytes, and pRespond receives
 * the reply and a terminator. Results beyond those above: -5 when the reply did not come (intended:
 * the send's code, not -6), -10 when the adapter reported a failure (no sensor answered) or sent
 * less than 2 bytes, -7 when the reply holds no carriage return and line feed. With CheckCRC
 * nonzero the line's three CRC characters are checked against its text: -15 when they do not match
 * (intended: the code whose text is "Device Not Available"). */
CORVEL_API int32_t SDI_SendCmd(int32_t DevType, int32_t DevIndex, uint8_t SDIIndex, uint8_t* pCommand,
                               uint8_t* pRespond, uint8_t CheckCRC);

CORVEL_EXTERN_C_END

#endif /* CONTROL_SDI_H */
