// The CAN driver routines: the adapter's CAN messages built from and decoded into the one
// process-wide channel record CAN_Data, shared by the ControlCAN-style interface, the buffered
// interface (whose read threads and exported functions live in can_driver.cpp) and the text
// interface. Internal: the routines are not exported.
//
// Every routine writes the shared record: callers hold the board lock of CAN_Data.deviceNumber
// around them. Routines return 0, or -2 (too many staged frames), -5 (the request did not go out),
// -6 (short or wrong reply), -7 (no data), -10 (the adapter refused); several also leave a text in
// the reply buffer p_getDataBuff, always bounded by getDataBuffSize.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "ControlCAN.h"
#include "ControlCANBuffered.h"
#include "CorvelMsg.h"
#include "corvel/protocol.hpp"

typedef uint8_t FunctionalState;

// The channel's controller configuration, register form (SJW, BS1, BS2 0-based).
struct CAN_InitTypeDef {
    uint16_t CAN_Prescaler;
    uint8_t CAN_Mode;
    uint8_t CAN_SJW;
    uint8_t CAN_BS1;
    uint8_t CAN_BS2;
    FunctionalState CAN_TTCM;
    FunctionalState CAN_ABOM;
    FunctionalState CAN_AWUM;
    FunctionalState CAN_NART;
    FunctionalState CAN_RFLM;
    FunctionalState CAN_TXFP;
};

// One 32-bit filter bank in the controller's register form.
struct CAN_FilterInitTypeDef {
    uint16_t CAN_FilterIdHigh;
    uint16_t CAN_FilterIdLow;
    uint16_t CAN_FilterMaskIdHigh;
    uint16_t CAN_FilterMaskIdLow;
    uint16_t CAN_FilterFIFOAssignment;
    uint8_t CAN_FilterNumber;
    uint8_t CAN_FilterMode;
    uint8_t CAN_FilterScale;
    FunctionalState CAN_FilterActivation;
};

// A row of a bit-timing table: register form for the 36 MHz CAN clock,
// bit rate = 36 MHz / (PreScale x (3 + BS1 + BS2)).
struct tCAN_BaudRate {
    uint8_t SJW;
    uint8_t BS1;
    uint8_t BS2;
    uint16_t PreScale;
};

struct CAN_DATA {
    uint32_t subAddr;
    uint8_t SerialNumber;
    uint8_t* p_sendDataBuff;
    uint8_t* p_getDataBuff;  // replies and texts; getDataBuffSize bytes
    int32_t dataLenght;      // staged transmit frames not yet packed
    // The device the routines talk to. Atomic because the buffered read threads read it to choose
    // the lock they then take.
    std::atomic<int32_t> deviceNumber;
    uint8_t CAN_Channel;  // 1 or 2
    int32_t DataIndex;    // the next staged frame to pack
    uint8_t CAN_Relay;
    CAN_InitTypeDef CAN_InitStructure;
    CAN_FilterInitTypeDef CAN_FilterInitStructure;
    CanRxMsg RxMessage[corvel::proto::can::kStagedFramesMax];
    CanTxMsg TxMessage[corvel::proto::can::kStagedFramesMax];
    S_MSG msg;  // the reply header of the last exchange; size is what was actually copied
    std::size_t getDataBuffSize;
};

extern CAN_DATA CAN_Data;

namespace corvel::can_io {

// Points the record's buffers at a call's own buffers for as long as it lives, and back at nothing
// afterwards, so that no text is ever written through a pointer to a buffer that is gone.
class RecordBuffers {
  public:
    RecordBuffers(CAN_DATA& data, std::span<uint8_t> send, std::span<uint8_t> get);
    ~RecordBuffers();
    RecordBuffers(const RecordBuffers&) = delete;
    RecordBuffers& operator=(const RecordBuffers&) = delete;

  private:
    CAN_DATA& data_;
};

// The reply header fields of a raw answer.
void decode_header(std::span<const uint8_t> raw, S_MSG& msg);

}  // namespace corvel::can_io

// Row of the bit-timing tables for a bit rate in bit/s; a rate not in the map gives row 0.
int CAN_GetBaudRateNum(uint32_t BaudRate);

int32_t CAN_Init(CAN_DATA* data);
int32_t CAN_FilterInit(CAN_DATA* data);
int32_t CAN_WriteData(CAN_DATA* data);
int32_t CAN_WriteDataEx(CAN_DATA* data);
int32_t CAN_ReadData(CAN_DATA* data);
int32_t CAN_GetErrorCode(CAN_DATA* data);
int32_t CAN_GetStatusCode(CAN_DATA* data);
int32_t CAN_Reset(int32_t DevIndex, uint8_t Channel);

// Encodes one staged frame into `out` (at most `space` bytes): its length, or 0 when it does not
// fit. The length goes out capped at 8; a remote frame goes with length 0 and no data.
int CopyCanData(uint8_t* out, const CanTxMsg* frame, std::size_t space);
// The length one staged frame takes when encoded.
std::size_t CanEncodedSize(const CanTxMsg& frame);

// Decode one received frame record from `in`: the bytes it used, or 0 when the record is cut short
// (nothing is read past the span).
std::size_t CanDataTran(std::span<const uint8_t> in, VCI_CAN_OBJ* out);
std::size_t CanDataTran(std::span<const uint8_t> in, CanRxMsg* out);
