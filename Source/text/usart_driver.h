// The USART driver layer of the text interface: the process-wide record USART_Data and its
// routines. Internal: nothing here is exported.
#pragma once

#include <cstdint>

#include "CorvelMsg.h"

// The line settings, in the values the adapter's configuration takes (0 stop bits: 1, 0 word
// length: 8 bits, 0 parity: none; mode 4 receive, 8 transmit).
struct USART_InitTypeDef {
    uint32_t USART_BaudRate;
    uint16_t USART_WordLength;
    uint16_t USART_StopBits;
    uint16_t USART_Parity;
    uint16_t USART_Mode;
    uint16_t USART_HardwareFlowControl;  // not set by the text commands, not sent
};

struct USART_DATA {
    uint8_t* p_sendDataBuff;
    uint8_t* p_getDataBuff;
    uint16_t dataLenght;    // bytes in this packet
    uint8_t leaveDataPack;  // packets still to follow, sent as the packet number
    int32_t deviceNumber;   // always 0 through the text commands
    uint8_t USART_Channel;
    S_MSG msg;
    USART_InitTypeDef USART_InitData;
};

extern USART_DATA USART_Data;

// 0, -5 not sent, -10 refused.
int USART_Init(USART_DATA* data);
// 0, -5, -10; 1 without sending for a packet over 512 bytes.
int USART_WriteData(USART_DATA* data);
// 0 with msg.size the bytes received into p_getDataBuff (a 512-byte buffer); -7 nothing waiting;
// -5 or the receive's failure otherwise.
int USART_ReadData(USART_DATA* data);
