// The SPI driver layer of the text interface: the process-wide record SPI_Data and the routines
// that turn it into one exchange with the adapter. Internal: nothing here is exported.
//
// Routines send to deviceNumber with packet number leaveDataPack and return 0, -2 (too long),
// -5 (the request did not go out; SPI_WriteData says -6), -10 (the adapter refused) or, for the
// raw data read, a nonzero value when fewer bytes than asked came.
#pragma once

#include <cstdint>

#include "CorvelMsg.h"

struct SPI_INIT_INFO {
    uint8_t ControlMode;  // 2: software-driven SPI, which the bit transfers need
    uint8_t TranBits;
    uint8_t MasterMode;
    uint8_t ClockPolarity;
    uint8_t ClockPhase;
    uint8_t LSBFirst;
    uint8_t SelPolarity;
    uint32_t ClockSpeed;
};

// Software-SPI timing, in the adapter's time unit; no text command fills it.
struct SPI_TIME {
    uint16_t tSetup;
    uint16_t tHold;
    uint16_t tClockLow;
    uint16_t tClockHigh;
};

struct SPI_DATA {
    uint8_t SerialNumber;
    uint8_t* p_sendDataBuff;
    uint8_t* p_getDataBuff;
    uint32_t dataLenght;  // bytes (bits for the bit reads) of the operation
    uint8_t leaveDataPack;
    uint8_t channelNum;
    int32_t deviceNumber;  // the current SPI device
    SPI_INIT_INFO spiInitInfo;
    SPI_TIME spiTime;
    S_MSG msg;
};

extern SPI_DATA SPI_Data;

int SPI_Init(SPI_DATA* data);
int SPI_WriteData(SPI_DATA* data);
int SPI_WriteDataBin(SPI_DATA* data);
int SPI_RequestReadData(SPI_DATA* data);
int SPI_RequestReadBits(SPI_DATA* data);
int SPI_WriteReadData(SPI_DATA* data);
int SPI_WriteReadBits(SPI_DATA* data);
// Reads msg.size raw bytes into p_getDataBuff (500 ms): 0 when all came, else nonzero; msg.size is
// then the number of bytes that came.
int SPI_ReadData(SPI_DATA* data);
