// The I2C driver layer of the text interface: the process-wide record I2C_Data and the routines
// that turn it into one exchange with the adapter. Internal: nothing here is exported.
//
// Every routine takes the record, sends to its deviceNumber with packet number 0 and returns 0,
// -5 (the request did not go out), -6 (no answer; also the timing request not sent), -7 (the
// adapter had no data) or -10 (the adapter refused). Callers hold the board lock of deviceNumber.
#pragma once

#include <cstddef>
#include <cstdint>

#include "CorvelMsg.h"

struct I2C_INIT_INFO {
    uint8_t controlMode;
    uint32_t speed;  // bus clock, Hz
    uint8_t subAddrMode;
    uint8_t subAddrWidth;
    uint8_t slaveAddrMode;
    uint16_t slaveAddr;  // 8-bit form; set by the transfers, kept for later ones
    uint8_t channel;
};

struct IIC_TIME {
    uint16_t tHD_STA;
    uint16_t tSU_STA;
    uint16_t tLOW;
    uint16_t tHIGH;
    uint16_t tSU_DAT;
    uint16_t tSU_STO;
    uint16_t tDH;
    uint16_t tDH_DAT;
    uint16_t tAA;
    uint16_t tR;
    uint16_t tF;
    uint16_t tBuf;
    uint32_t tACK;
    uint16_t tStart;
    uint16_t tStop;
};

// The master state machine's advanced settings; no text command fills them.
struct I2C_ADV_SET {
    uint8_t MST_TRX_S;
    uint8_t MST_TRX_S_R;
    uint8_t MST_TRX_SLAW_ACK;
    uint8_t MST_TRX_SLAW_NACK;
    uint8_t MST_TRX_Data_ACK;
    uint8_t MST_TRX_Data_NACK;
    uint8_t MST_TRX_ALI;
    uint8_t MST_REC_S;
    uint8_t MST_REC_S_R;
    uint8_t MST_REC_NACK_ALI;
    uint8_t MST_REC_SLAR_ACK;
    uint8_t MST_REC_SLAR_NACK;
    uint8_t MST_REC_Data_ACK;
    uint8_t MST_REC_Data_NACK;
};

struct I2C_DATA {
    uint32_t subAddr;
    uint8_t SerialNumber;     // sequence number of the status-log exchanges
    uint8_t* p_sendDataBuff;  // the data to write
    uint8_t* p_getDataBuff;   // reply text, or received data
    uint16_t dataLenght;      // bytes to write or to read (the name's spelling is the record's own)
    uint8_t leaveDataPack;
    int32_t deviceNumber;  // the current I2C device
    I2C_INIT_INFO i2cInitInfo;
    IIC_TIME i2cTime;
    I2C_ADV_SET i2cAdvSetData;
    S_MSG msg;
};

extern I2C_DATA I2C_Data;

int I2C_Init(I2C_DATA* data);
int I2C_SoftTimeSet(I2C_DATA* data);
int I2C_WriteData(I2C_DATA* data);
int I2C_RequestReadData(I2C_DATA* data);
// Receives one data reply of msg.size expected bytes into p_getDataBuff, which must hold `capacity`
// bytes; msg.size is then the number of bytes stored.
int I2C_ReadData(I2C_DATA* data, std::size_t capacity);
// The status log, guarded by a CRC-16: 0, or 2 after three attempts without a good answer.
// p_getDataBuff must hold a 512-byte reply.
int I2C_GetLogData(I2C_DATA* data);
