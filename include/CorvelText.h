/* The text command interface: the adapter driven with character strings, for scripting front ends.
 *
 * Every function takes an input text `in` and an output text buffer `out` and returns a signed
 * code: 0 on success (KDIF_USB_EnumBoard: the number of adapters), a negative code on failure.
 * The text written into `out` is informative and exact to the byte (front ends match on it, odd
 * spellings such as "faild" and "too more" included); decide on the code.
 *
 * Input: fields separated by "|". Empty fields vanish ("1||2" is two fields, a leading or trailing
 * "|" is ignored, "" and "|||" hold no field at all). A field is not trimmed. Numbers are read as
 * strtol reads them with base 0: "0x10" and "020" are both 16, a sign is taken, reading stops at
 * the first character that does not fit, and a field without digits is 0. Values are cut to the
 * width of what receives them (a byte keeps the low 8 bits).
 *
 * Input length: each function copies `in` into a buffer of its own (512 characters for the
 * functions that take only parameters; the sizes of the others are given below). An input that does
 * not fit is rejected as a whole with the function's "too many fields" code and text; nothing is
 * sent. The SelectDevice functions and KDIF_ADC_Init split the caller's own text in place instead
 * (it is cut at the first "|"), so they take any length.
 *
 * Output: the library does not know the size of `out`; provide room for the longest result: 64
 * characters for messages, five characters per byte for byte lists (KDIF_I2C_ReadData of n bytes:
 * 5n), seven per sample for ADC reads, one per bit for SPI bit reads.
 *
 * Codes: -1 NULL `in` or `out` (nothing is written); -2 too many fields (or too long an input);
 * -3 no field, or too few; -4 a value out of range; -5 a request did not go out; -6 no answer or a
 * wrong one; -7 the adapter had no data; -8 opening or closing failed; -10 the adapter refused;
 * -11 the device to select is not open.
 *
 * Devices: each family (I2C, SPI, GPIO, ADC) has a current device, 0 at start, chosen with its
 * SelectDevice function; USART always uses device 0. Open the adapter first (KDIF_OpenDevice).
 *
 * State: each family keeps one process-wide record. Values set by one call stay in effect for
 * later calls that do not set them (the slave address of the last I2C transfer, the SPI
 * configuration that decides whether bit transfers are allowed).
 *
 * Thread safety: the functions of one family share static buffers. The I2C functions hold the
 * board lock for the whole call and so run one at a time; callers of the other families serialise
 * their calls themselves. */
#ifndef CORVEL_TEXT_H
#define CORVEL_TEXT_H

#include <stdint.h>

#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* ---- Adapters -------------------------------------------------------------------------------- */

/* `in`: the largest number of adapters the caller can take, at most 100 (above: -4, `out` left
 * as it was). Scans the buses and writes one "1,INDEX" entry per adapter joined by "|" ("1,0|1,1"
 * for two); returns their number (0 with `out` empty when there is none). */
CORVEL_API int32_t KDIF_USB_EnumBoard(char* in, char* out);
/* `in`: the device index. "Open device N success!" and 0, or "Open device faild! " and -8.
 * "No input data!" (-3) without a field, "Data input is too more!" (-2) with two or more. */
CORVEL_API int32_t KDIF_OpenDevice(char* in, char* out);
/* As KDIF_OpenDevice: "Close device N success!" and 0, or "Close device faild! " and -8. */
CORVEL_API int32_t KDIF_CloseDevice(char* in, char* out);

/* ---- Current device of a family -----------------------------------------------------------
 * `in`: one device index (values above 99 are taken as 99). "Select device N success!" and 0
 * when that adapter is open; otherwise the family's device becomes 0 and the answer is
 * "Device N isn't exist or isn't opened!" and -11. "please input data!" (-3) without a field,
 * "input data is too more!" (-2) with two or more. */
CORVEL_API int32_t KDIF_I2C_SelectDevice(char* in, char* out);
CORVEL_API int32_t KDIF_SPI_SelectDevice(char* in, char* out);
CORVEL_API int32_t KDIF_GPIO_SelectDevice(char* in, char* out);
CORVEL_API int32_t KDIF_ADC_SelectDevice(char* in, char* out);

/* ---- I2C -------------------------------------------------------------------------------------
 * Slave addresses are in the 8-bit form (0xA0 is the 7-bit address 0x50). Every command answers
 * "please input data!" (-3) for an input without a field. */

/* "controlMode|speed|subAddrMode|subAddrWidth|slaveAddrMode|channel" (fields after the sixth are
 * ignored). Sends the configuration up to six times until the adapter takes it:
 * "I2C Adapter initialize success!" and 0, or "I2C Adapter initialize faild!" and -10; -5 when a
 * repeated request does not go out. Fewer than six fields: "input data error!", -3; 63 or more:
 * "input data error!", -2. */
CORVEL_API int32_t KDIF_I2C_Init(char* in, char* out);
/* "slaveAddr|subAddr|channel|byte|byte...": writes the bytes (input up to 514099 characters, at
 * most 102797 bytes; the count travels as 16 bits, so only the first (count mod 65536) bytes are
 * sent, as the adapter has always taken it). 0 on success, -10 with "Write data error!" when refused, -5 when
 * the request did not go out. `out` gets the command's reply text, which keeps "Write data error!"
 * after a failure until the process ends: decide on the code. Fewer than three fields: -3 with
 * `out` untouched; 102801 fields or more: "input data error!", -2. */
CORVEL_API int32_t KDIF_I2C_WriteData(char* in, char* out);
/* "slaveAddr|subAddr|channel|count" (exactly four fields; input up to 199 characters): the bytes
 * read as "0x12|0x34|0x56" and 0. The data come in replies of up to 506 bytes; a read of 506
 * bytes or more ends with one more receive that times out (the adapter sends nothing more), and
 * what was collected counts. An empty answer: "data size is 0!" and 0. A failure before any data
 * came: "data send error!" and its code (-6, -7 when the adapter had no data, -10). When the
 * adapter refuses the read request itself (-10, or -5 unsent), `out` gets what the previous read
 * left in the command's buffer (empty at first). Five or more fields: "input data error!", -2;
 * fewer than four: -3 with `out` untouched. */
CORVEL_API int32_t KDIF_I2C_ReadData(char* in, char* out);
/* "tSU_STA|tHD_STA|tLOW|tHIGH|tSU_DAT|tSU_STO|tBuf" (note: the repeated-start set-up time comes
 * first): only the low 8 bits of each value reach the adapter. 0 with an empty `out`, -10 when
 * refused, -6 when the request did not go out. Fewer than seven fields: "input data error!", -3;
 * 63 or more: "input data is too more!", -2. */
CORVEL_API int32_t KDIF_I2C_SoftTimeSet(char* in, char* out);

/* ---- SPI -------------------------------------------------------------------------------------
 * Channels select the chip-select line. The bit commands need the software-driven mode
 * (ControlMode 2 in the last KDIF_SPI_Init): otherwise "SPI is not soft control mode!", -4, and
 * nothing is sent. A command given too few fields for a number it reads answers
 * "Data input is too less!", -3. */

/* "ControlMode|ClockPolarity|ClockPhase|MasterMode|TranBits|LSBFirst|SelPolarity|ClockSpeed"
 * (exactly eight fields): 0, or "status N" with the adapter's status and its code. Fewer:
 * "Data input too less!", -3; more: "Data input too much!", -2. */
CORVEL_API int32_t KDIF_SPI_Init(char* in, char* out);
/* "byte|byte|...|channel": the channel comes last. 0, or "spi send data error!" and -6 (not sent)
 * or -10. More than 102800 bytes: "Data input is too more!", -2. */
CORVEL_API int32_t KDIF_SPI_WriteData(char* in, char* out);
/* "count|channel": the bytes read as "0x%02X" joined by "|" and 0. The count is taken as 16
 * bits. Failures: "request read data error!" with the request's code, "data read error!" and -6. */
CORVEL_API int32_t KDIF_SPI_ReadData(char* in, char* out);
/* "byte|...|count|channel": writes the bytes, then reads `count` bytes in the same select.
 * Failures: the driver's text and code, "data send error! N" and -6 for the read. */
CORVEL_API int32_t KDIF_SPI_WriteReadData(char* in, char* out);
/* "bits|channel" with bits a string of "0" and "1" sent first character first. Another character:
 * "In put data error!", -4; three or more fields: "Data input is too more!", -2. */
CORVEL_API int32_t KDIF_SPI_WriteBits(char* in, char* out);
/* "count|channel": the bits read, one "0" or "1" per bit, most significant bit of each byte
 * first. "data size is 0!" and 0 when nothing came, "data send error!" and the code after a
 * failed read. */
CORVEL_API int32_t KDIF_SPI_ReadBits(char* in, char* out);
/* "bits|count|channel": writes the bits, then reads `count` bits, printed as KDIF_SPI_ReadBits
 * prints them. A write of more than 512 packed bytes: "spi write read data error!", -2. */
CORVEL_API int32_t KDIF_SPI_WriteReadBits(char* in, char* out);

/* ---- GPIO ------------------------------------------------------------------------------------
 * Pins are a 32-bit mask, bit n for pin n. Input up to 63 characters (longer:
 * "input data is too more!", -2). */

/* "mask|data": sets the pins' modes; sent without waiting for an answer: 0, or -5 when the request
 * did not go out. Without the data field: "please input data!", -3; four or more fields: -2. */
CORVEL_API int32_t KDIF_GPIO_Init(char* in, char* out);
/* "mask|data": drives the masked pins; as KDIF_GPIO_Init, but three or more fields are -2. */
CORVEL_API int32_t KDIF_GPIO_WriteData(char* in, char* out);
/* "mask": the pin levels as "0x%08X" and 0; -5 (not sent), -6 (no or wrong answer), `out` then
 * holding the levels of the last successful read. */
CORVEL_API int32_t KDIF_GPIO_ReadData(char* in, char* out);

/* ---- ADC ------------------------------------------------------------------------------------- */

/* "channelMask|samplePeriod", split in place. 0 with `out` untouched, or "adc init error!" and
 * the code. A zero mask: "please select channels!", -4; without the period: "please input data!",
 * -3; three or more fields: "input data is too more!", -2. */
CORVEL_API int32_t KDIF_ADC_Init(char* in, char* out);
/* `in` is one number (not split): the samples to read per selected channel. The samples as
 * "0x%04X" of their 12 bits joined by "|", channel by channel within each instant, and 0 (also when
 * a later packet failed after some data came). A zero total: "number of requests to read data size
 * is 0", -4; more than 4096 samples in all: "number of requests to read data size is too large",
 * -4, nothing sent. Nothing received: "data read error!", -6, or "data size is 0!", -7. */
CORVEL_API int32_t KDIF_ADC_ReadData(char* in, char* out);

/* ---- USART (always device 0) ----------------------------------------------------------------- */

/* "channel|baudRate|stopBits|wordLength|parity|mode" (note: stop bits before word length; the
 * values as the adapter's line settings take them, 0 being 1 stop bit, 8 data bits, no parity;
 * mode 4 receive, 8 transmit, 12 both). Only the low byte of the stop bits, word length and parity
 * is sent. 0, -10 refused, -5 not sent, with nothing written on success or refusal. Fewer than six
 * fields: "input data error!", -3; eight or more: "input data error!", -2; none:
 * "please input data!", -3. */
CORVEL_API int32_t KDIF_USART_Init(char* in, char* out);
/* "byte|byte|...": sends the bytes (at most 20480; input up to 102499 characters) in packets of
 * 510, each numbered with the count of packets still to follow. 0, or the failing packet's code
 * with the command's reply text. 20481 fields or more: "input data error!", -2. */
CORVEL_API int32_t KDIF_USART_WriteData(char* in, char* out);
/* `in` is ignored and may be NULL. The bytes the adapter received since the last read, at most
 * 505, as "0x%02X" joined by "|" and 0 ("0x00" when the answer was empty). On failure "no data"
 * with -7 when nothing was waiting, -5 when a request did not go out, 1 when the answer with the
 * bytes did not come. A NULL `out` is -1. */
CORVEL_API int32_t KDIF_USART_ReadData(char* in, char* out);

CORVEL_EXTERN_C_END

#endif /* CORVEL_TEXT_H */
