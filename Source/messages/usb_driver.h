// The message layer: request frames out, reply frames, status bytes and raw data in. The families
// and the board functions reach the adapter only through what is declared here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "CorvelMsg.h"
#include "corvel/protocol.hpp"

inline constexpr int kSendTimeoutMs = 5000;
inline constexpr int kZeroLengthTimeoutMs = 500;
inline constexpr int kPacketTimeoutMs = 5000;
inline constexpr int kExactReadTimeoutMs = 1000;
inline constexpr int kStatusTimeoutMs = 3000;
inline constexpr int kSendStatusTimeoutMs = 500;
inline constexpr int kCommandTimeoutMs = 500;

// Sends msg as one frame: 0 on success, 1 when the write did not move the whole frame. A payload
// that a Request built in place (lParam at the payload area of the calling thread's send buffer) is
// not copied again; any other lParam is copied behind the header.
uint8_t USB_SendMsg(int32_t dev, S_MSG* msg);

// Receives one 512-byte reply packet; copies at most `capacity` payload bytes (and never more than
// the packet holds) into msg->lParam. 0 on success; 1 (and msg->message = 0) when no full packet came.
uint8_t USB_GetMsg(int32_t dev, S_MSG* msg, std::size_t capacity = corvel::proto::kPacketPayloadMax);

// Receives exactly msg->size + 7 bytes (1000 ms); the header then overwrites message, status and
// size. Copies at most what arrived (and announced) and `capacity` bytes. A reply longer than one
// packet (up to 102793 payload bytes) is received whole: only a caller that passes a larger
// capacity than the default takes more than 505 bytes of it.
uint8_t USB_GetMsgWithSize(int32_t dev, S_MSG* msg, std::size_t capacity = corvel::proto::kPacketPayloadMax);

// Receives a 7-byte header and then exactly the announced payload (1000 ms each).
uint8_t USB_GetMsgEx(int32_t dev, S_MSG* msg, std::size_t capacity = corvel::proto::kLongReplyBufferSize);

// Receives one reply frame of any length up to 512 bytes (one read of `timeout_ms`, with the raw
// layer's retries), as the SMBus and PMBus replies come: at least the 7-byte header must arrive.
// The payload copy is bounded by the announced size, by what arrived and by `capacity`, and
// msg->size is then the number of payload bytes stored. 0 on success; 1 (and msg->message = 0,
// msg->size untouched) when too little came.
uint8_t USB_GetReplyFrame(int32_t dev, S_MSG* msg, std::size_t capacity, int timeout_ms);

// Reads one status byte (3000 ms, with retries); MSG_NO_STATE when none came.
MSG_STATE USB_GetStatus(int32_t dev);
// Reads one status byte with one attempt on the current board handle and the caller's time-out.
MSG_STATE USB_GetStatusWithTimeOut(int32_t dev, int TimeOut);

// Sends a frame of at most 505 payload bytes (500 ms): 0, -4 for a bad message, else the write result.
int32_t USB_SendStatus(int32_t dev, S_MSG msg);

// How a data read waits: the raw layer's retrying read on the adapter's own handle, or one attempt
// on the current board handle (the handle of the adapter last used) with the caller's time-out.
enum class ReadMode { Retrying, Fast };

// Reads a data answer of `len` payload bytes behind a 7-byte reply header, which is skipped
// unexamined: asks for len + 7 bytes (at most the 10240-byte receive buffer) and copies what came
// after the header, at most `len` bytes, to `out`. Returns the number of payload bytes copied, or
// -1 when not even the header arrived.
int32_t USB_ReadAfterHeader(int32_t dev, uint8_t* out, std::size_t len, int timeout_ms,
                            ReadMode mode = ReadMode::Retrying);

// Reads exactly what the adapter sends, at most `len` bytes, straight into the caller's buffer (no
// header): the byte count, or the raw layer's negative result.
int32_t USB_ReadRaw(int32_t dev, uint8_t* out, int32_t len, int timeout_ms,
                    ReadMode mode = ReadMode::Retrying);

// The interrupt command channel: an 8-byte request out (500 ms), an 8-byte answer in (500 ms, with
// the raw layer's retries). Each returns the byte count moved or a negative result.
int32_t USB_SendCommand(int32_t dev, std::span<const uint8_t, corvel::proto::kCommandSize> request);
int32_t USB_ReadCommandAnswer(int32_t dev, uint8_t* answer);

// A request frame built in place: the payload is written straight into the calling thread's send
// buffer behind the header, and send() hands that buffer down without another copy. One request at
// a time per thread (a second one would write over the first one's payload).
class Request {
  public:
    explicit Request(int32_t code, uint8_t pack_number = 0);
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    corvel::proto::Writer& payload() { return writer_; }
    int32_t code() const { return code_; }
    // 0 when the whole frame went out; 1 when it did not, or when the payload did not fit.
    uint8_t send(int32_t dev);

  private:
    int32_t code_;
    uint8_t pack_number_;
    uint8_t* payload_area_;
    corvel::proto::Writer writer_;
};
