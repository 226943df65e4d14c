// The GPIO driver layer of the text interface: the process-wide record GPIO_Data and its routines.
// Internal: nothing here is exported. Init and write go out without waiting for an answer.
#pragma once

#include <cstdint>

#include "CorvelMsg.h"

struct GPIO_DATA {
    uint8_t SerialNumber;
    uint8_t* p_sendDataBuff;
    uint8_t* p_getDataBuff;
    uint32_t dataLenght;
    int32_t deviceNumber;  // the current GPIO device
    uint32_t mask;         // the pins concerned
    uint32_t data;         // pin values or modes; after a read, the levels
    S_MSG msg;
};

extern GPIO_DATA GPIO_Data;

// 0, or -5 when the request did not go out.
int GPIO_Init(GPIO_DATA* data);
int GPIO_WriteData(GPIO_DATA* data);
// 0 with `data` set to the levels; -5 not sent; -6 no answer or not MSG_GPIO_READ_DATA_OK.
// p_getDataBuff must hold 64 bytes (the levels are its first four).
int GPIO_ReadData(GPIO_DATA* data);
