// The ADC driver layer of the text interface: the process-wide record ADC_Data and its routines.
// Internal: nothing here is exported.
#pragma once

#include <cstdint>

#include "CorvelMsg.h"

struct ADC_INIT_INFO {
    uint8_t Mode;          // not set by the text commands
    uint8_t Channel;       // channel mask: bit k selects channel k
    uint32_t SampleNums;   // not set by the text commands
    uint32_t SampleCycle;  // sampling period, in the adapter's unit
};

struct ADC_DATA {
    uint8_t SerialNumber;
    uint8_t* p_sendDataBuff;
    uint8_t* p_getDataBuff;
    uint32_t dataLenght;
    int32_t deviceNumber;  // the current ADC device
    ADC_INIT_INFO adcInitInfo;
    S_MSG msg;
};

extern ADC_DATA ADC_Data;

// The number of set bits.
uint32_t BitCount(uint32_t data);

// 0, -5 not sent, -10 refused.
int ADC_Init(ADC_DATA* data);
// Reads exactly msg.size raw bytes into p_getDataBuff (10000 ms): 0 with msg.status
// MSG_ADC_READ_DATA_OK, or -6 with MSG_ADC_READ_DATA_ERROR.
int ADC_Read(ADC_DATA* data);
// Does nothing: 0.
int ADC_Control(ADC_DATA* data);
