/* SPI family: device management, board information, channel configuration, byte and bit transfers,
 * slave mode, block transfers, the adapter's serial-flash engine and Microwire memories.
 *
 * Every function returns 0 on success and a negative code of CorvelBoard.h on failure (one exception:
 * KSI_SlaveWriteBytes). The family accepts device type 2 (KD_DEVTYPE_SPI) only. The checks run in a
 * fixed order before anything is sent: device type (-15), connection (-13; the adapter must have
 * been opened), pointers (-1), then ranges (-4). Failures on the wire: -5 (the request or the
 * data-request message did not go out), -10 (the adapter's status was not the expected one), -6
 * (the data read brought a count other than the one asked for; the buffer may hold part of it).
 * Channel indices are compared as signed numbers: a negative index passes and its low byte is sent.
 * A read of 0 bytes reads nothing and succeeds once the handshake did. A read count above
 * 2147483647 bytes cannot be asked for in one USB transfer: the request still goes out, but no data
 * read is made and the call returns -6.
 *
 * Thread safety: every exchange holds the process-wide lock of the adapter (for indices below 21)
 * from the request to the end of its data read, so the traffic of two calls never interleaves.
 * Scan, open and close take the lock as the board functions do. */
#ifndef CONTROL_SPI_H
#define CONTROL_SPI_H

#include <stdint.h>

#include "CorvelBoard.h"
#include "CorvelExport.h"

CORVEL_EXTERN_C_BEGIN

/* Channel configuration of KSI_InitSPI. */
typedef struct _KSI_INIT_CONFIG {
    uint8_t ControlMode; /* 0 to 3: the adapter's SPI control mode */
    uint8_t TranBits;    /* bits per transfer unit: 1 to 16 */
    uint8_t MasterMode;  /* 0 slave, 1 master */
    uint8_t CPOL;        /* clock polarity: 0 or 1 */
    uint8_t CPHA;        /* clock phase: 0 or 1 */
    uint8_t LSBFirst;    /* 0 most significant bit first, 1 least significant bit first */
    uint8_t SelPolarity; /* chip-select polarity: 0 or 1 */
    uint32_t ClockSpeed; /* SPI clock in Hz: 1000 to 42000000 */
} KSI_INIT_CONFIG, *PKSI_INIT_CONFIG;

/* Channel configuration of KSI_InitSPIEx: the same fields behind the channel they apply to. The
 * clock is limited to 1000 to 36000000 Hz here; SPIIndex is not checked. */
typedef struct _KSI_INIT_CONFIG_EX {
    uint8_t SPIIndex;
    uint8_t ControlMode;
    uint8_t TranBits;
    uint8_t MasterMode;
    uint8_t CPOL;
    uint8_t CPHA;
    uint8_t LSBFirst;
    uint8_t SelPolarity;
    uint32_t ClockSpeed;
} KSI_INIT_CONFIG_EX, *PKSI_INIT_CONFIG_EX;

/* Board information as the adapter reports it. */
typedef struct _KSI_BOARD_INFO {
    uint8_t ProductName[32];
    uint8_t FirmwareVersion[4];
    uint8_t HardwareVersion[4];
    uint8_t SerialNumber[12];
} KSI_BOARD_INFO, *PKSI_BOARD_INFO;

/* Description of a serial flash for the adapter's flash engine. Each command sequence is a count n
 * in byte 0 and the command bytes in bytes 1 to 7; a count above 7 is sent as it stands, followed by
 * the 7 stored bytes. init_flag stays on the host. */
typedef struct _KSI_FLASH_INIT_CONFIG {
    uint32_t page_size; /* bytes per page */
    uint32_t page_num;  /* number of pages */
    uint8_t write_enable[8];
    uint8_t read_status[8];
    uint8_t chip_erase[8];
    uint8_t write_data[8];
    uint8_t read_data[8];
    uint8_t first_cmd[8];
    uint8_t busy_bit;   /* bit of the status byte that flags busy */
    uint8_t busy_mask;  /* mask applied to the status byte */
    uint8_t addr_bytes; /* address bytes sent after a command */
    uint8_t addr_shift; /* shift that turns a page address into the address bytes */
    uint8_t init_flag;  /* not sent */
} KSI_FLASH_INIT_CONFIG, *PKSI_FLASH_INIT_CONFIG;

/* Microwire control opcodes. */
typedef struct _KSI_MW_CC_CMD {
    int8_t EW_DISABLE;
    int8_t WRITE_ALL;
    int8_t ERASE_ALL;
    int8_t EW_ENABLE;
} KSI_MW_CC_CMD;

/* Microwire operation opcodes. */
typedef struct _KSI_MW_OP_CMD {
    int8_t CONTROL;
    int8_t WRITE;
    int8_t READ;
    int8_t ERASE;
} KSI_MW_OP_CMD;

/* Description of a Microwire memory (16-bit words). */
typedef struct _KSI_MW_INIT_CONFIG {
    int8_t MW_START; /* start-bit value */
    int8_t ORG;      /* memory organisation */
    int32_t SIZE;    /* memory size */
    int8_t MWIndex;  /* Microwire channel: at most 32 */
    int16_t MWAddr;  /* address width or setting; only its low byte is sent */
    KSI_MW_CC_CMD CC_CMD;
    KSI_MW_OP_CMD OP_CMD;
} KSI_MW_INIT_CONFIG, *PKSI_MW_INIT_CONFIG;

/* Device management. KSI_OpenDevice creates the process-wide lock (once per process) before it
 * opens the board. */
CORVEL_API int32_t KSI_ScanDevice(uint8_t NeedInit);
CORVEL_API int32_t KSI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t Reserved);
CORVEL_API int32_t KSI_CloseDevice(int32_t DevType, int32_t DevIndex);
/* Opens the board again, then asks for its product information. Takes no device type. */
CORVEL_API int32_t KSI_ReadBoardInfo(int32_t DevIndex, PKSI_BOARD_INFO pInfo);

/* Configuration. */
CORVEL_API int32_t KSI_InitSPI(int32_t DevType, int32_t DevIndex, PKSI_INIT_CONFIG pInitConfig);
CORVEL_API int32_t KSI_InitSPIEx(int32_t DevType, int32_t DevIndex, PKSI_INIT_CONFIG_EX pInitConfig);

/* Byte transfers, each as one message and one data read, with the chip select of SPIIndex held for
 * the whole transfer. Writes and write-reads take channels 0 to 15, KSI_ReadBytes 0 to 4 only.
 * A write-read clocks the write bytes out, then ReadLen bytes in.
 * KSI_WriteReadBytes and KSI_WriteReadBytesEx print the line "ReadLen: <ReadLen>\r\n" on standard
 * output before they read the data (twice when ReadLen is 256); applications rely on it.
 * KSI_WriteReadBytesEx sends at most 102790 write bytes (more are cut silently); its ReadLen is not
 * limited (but see the read count above), and pReadData must hold ReadLen bytes. */
CORVEL_API int32_t KSI_WriteBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pData,
                                  uint16_t Len);
CORVEL_API int32_t KSI_ReadBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pData,
                                 uint16_t Len);
CORVEL_API int32_t KSI_WriteReadBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex,
                                      uint8_t* pWriteData, uint16_t WriteLen, uint8_t* pReadData,
                                      uint16_t ReadLen);
CORVEL_API int32_t KSI_WriteReadBytesEx(int32_t DevType, int32_t DevIndex, int32_t SPIIndex,
                                        uint8_t* pWriteData, uint32_t WriteLen, uint8_t* pReadData,
                                        uint32_t ReadLen);

/* Bit transfers on channels 0 to 4. Bits are NUL-terminated strings of the characters '0' and '1',
 * first bit first; any other character within the string is -4 and nothing is sent. At most 822336
 * bits are written (a longer string is cut) and at most 822400 read (a larger count is lowered).
 * pReadBitStr must hold ReadBitsNum characters and the terminating NUL. A negative ReadBitsNum is
 * taken as 0: the request asks for no bits, nothing is read and pReadBitStr receives the empty
 * string. On -6 pReadBitStr holds the raw bytes that came, not text. */
CORVEL_API int32_t KSI_WriteBits(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pWriteBitStr);
CORVEL_API int32_t KSI_ReadBits(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pReadBitStr,
                                int32_t ReadBitsNum);
CORVEL_API int32_t KSI_WriteReadBits(int32_t DevType, int32_t DevIndex, int32_t SPIIndex,
                                     uint8_t* pWriteBitStr, uint8_t* pReadBitStr, int32_t ReadBitsNum);

/* Slave mode. KSI_SlaveModeSet and KSI_SlaveCmdTableSet have no effect and return 0 at once, for any
 * arguments. KSI_SlaveReadBytes makes one read attempt of WaitTime ms for what an external master
 * clocked in (pReadData must hold 10240 bytes); it returns 0 whenever the request went out and
 * reports the read's result through *pBytesNum (when not null): the byte count, or a negative
 * value when nothing came in time. WaitTime goes to libusb as it stands: on USB hardware 0 means no
 * time limit, and the call returns only when data come (the virtual adapter does not wait then).
 * KSI_SlaveWriteBytes hands the adapter WriteBytesNum bytes (at least 1, else -1) to clock out;
 * when the request cannot be sent it returns 1, not -5, and so it does for more than 102801 bytes,
 * which do not fit one request. */
CORVEL_API int32_t KSI_SlaveModeSet(int32_t DevType, int32_t DevIndex, uint8_t SlaveMode, uint16_t CmdBytes,
                                    uint16_t DataBytes);
CORVEL_API int32_t KSI_SlaveCmdTableSet(int32_t DevType, int32_t DevIndex, uint8_t* pCmds, uint16_t CmdLen,
                                        uint8_t* pData, uint16_t DataLen);
CORVEL_API int32_t KSI_SlaveReadBytes(int32_t DevType, int32_t DevIndex, uint8_t* pReadData,
                                      int32_t* pBytesNum, int32_t WaitTime);
CORVEL_API int32_t KSI_SlaveWriteBytes(int32_t DevType, int32_t DevIndex, uint8_t* pWriteData,
                                       int32_t WriteBytesNum);

/* Block transfers on channels 0 to 4: the adapter repeats a transfer of a fixed size BlockNum times
 * (at least 1) with IntervalTime between blocks. The write buffer holds the blocks back to back,
 * the read buffer receives them back to back. Totals above 102784 bytes (block write), 102800
 * (block read) or 102782 (written part of the block write-read) are -4, checked before the
 * pointers; the totals are formed without overflow. The read total of the block write-read is not
 * limited (but see the read count above). All blocks must arrive within the single 5000 ms read. */
CORVEL_API int32_t KSI_BlockWriteBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex,
                                       uint8_t* pWriteData, uint16_t BlockSize, uint16_t BlockNum,
                                       uint32_t IntervalTime);
CORVEL_API int32_t KSI_BlockReadBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex, uint8_t* pReadData,
                                      uint16_t BlockSize, uint16_t BlockNum, uint32_t IntervalTime);
CORVEL_API int32_t KSI_BlockWriteReadBytes(int32_t DevType, int32_t DevIndex, int32_t SPIIndex,
                                           uint8_t* pWriteData, uint16_t WriteBlockSize, uint8_t* pReadData,
                                           uint16_t ReadBlockSize, uint16_t BlockNum, uint32_t IntervalTime);

/* The adapter's serial-flash engine: describe the chip once, then write and read by page address.
 * The adapter issues the commands and polls the busy bit. A flash read waits 2000 ms for its data. */
CORVEL_API int32_t KSI_FlashInit(int32_t DevType, int32_t DevIndex, PKSI_FLASH_INIT_CONFIG pFlashInitConfig);
CORVEL_API int32_t KSI_FlashWriteBytes(int32_t DevType, int32_t DevIndex, int32_t PageAddr,
                                       uint8_t* pWriteData, uint16_t WriteLen);
CORVEL_API int32_t KSI_FlashReadBytes(int32_t DevType, int32_t DevIndex, int32_t PageAddr, uint8_t* pReadData,
                                      uint16_t ReadLen);

/* Microwire memories of 16-bit words, sent and received most significant byte first. The init takes
 * channels up to 32, the transfers up to 15. Len counts words.
 * KSI_MW_WriteBytes sends at most 51395 words in one request; more cannot go out (-5, nothing sent).
 * KSI_MW_ReadBytes asks for 2 x Len bytes and fills 2 x Len words of pReadData: the words read,
 * then Len zero words, so pReadData must hold 2 x Len words. It returns 0 only when the count
 * received equals Len (the word count); an adapter that sends all 2 x Len bytes therefore gets -6
 * with the words in place. Applications rely on both. pReadData is left as it was when the call
 * fails before the data read (-5, -10). */
CORVEL_API int32_t KSI_MW_Init(int32_t DevType, int32_t DevIndex, PKSI_MW_INIT_CONFIG pInitConfig);
CORVEL_API int32_t KSI_MW_WriteBytes(int32_t DevType, int32_t DevIndex, int32_t MWIndex, uint32_t MemAddr,
                                     uint16_t* pWriteData, uint16_t Len);
CORVEL_API int32_t KSI_MW_ReadBytes(int32_t DevType, int32_t DevIndex, int32_t MWIndex, uint32_t MemAddr,
                                    uint16_t* pReadData, uint16_t Len);

CORVEL_EXTERN_C_END

#endif /* CONTROL_SPI_H */
