// The message layer: request frames out, reply frames or status bytes in.
#pragma once

#include <cstddef>
#include <cstdint>

#include "CorvelMsg.h"

inline constexpr std::size_t kSendBufferSize = 102800;  // whole request frame, header included
inline constexpr std::size_t kPacketSize = 512;         // one reply packet
inline constexpr std::size_t kReplyHeaderSize = 7;
inline constexpr std::size_t kPacketPayloadMax = kPacketSize - kReplyHeaderSize;  // 505
inline constexpr std::size_t kLongReplyBufferSize = 102800;
inline constexpr int32_t kLongHeaderFirstCode = 32768;  // codes from here on carry a 32-bit size

inline constexpr int kSendTimeoutMs = 5000;
inline constexpr int kZeroLengthTimeoutMs = 500;
inline constexpr int kPacketTimeoutMs = 5000;
inline constexpr int kExactReadTimeoutMs = 1000;
inline constexpr int kStatusTimeoutMs = 3000;
inline constexpr int kSendStatusTimeoutMs = 500;

// Sends msg as one frame: 0 on success, 1 when the write did not move the whole frame.
uint8_t USB_SendMsg(int32_t dev, S_MSG* msg);

// Receives one 512-byte reply packet; copies at most `capacity` payload bytes (and never more than
// the packet holds) into msg->lParam. 0 on success; 1 (and msg->message = 0) when no full packet came.
uint8_t USB_GetMsg(int32_t dev, S_MSG* msg, std::size_t capacity = kPacketPayloadMax);

// Receives exactly msg->size + 7 bytes (1000 ms); the header then overwrites message, status and
// size. Copies at most what arrived, `capacity` and 505 bytes.
uint8_t USB_GetMsgWithSize(int32_t dev, S_MSG* msg, std::size_t capacity = kPacketPayloadMax);

// Receives a 7-byte header and then exactly the announced payload (1000 ms each).
uint8_t USB_GetMsgEx(int32_t dev, S_MSG* msg, std::size_t capacity = kLongReplyBufferSize);

// Reads one status byte (3000 ms, with retries); MSG_NO_STATE when none came.
MSG_STATE USB_GetStatus(int32_t dev);
// Reads one status byte with one attempt on the current board handle and the caller's time-out.
MSG_STATE USB_GetStatusWithTimeOut(int32_t dev, int TimeOut);

// Sends a frame of at most 505 payload bytes (500 ms): 0, -4 for a bad message, else the write result.
int32_t USB_SendStatus(int32_t dev, S_MSG msg);

// Connection test every family function makes first: enumerates if nothing was enumerated yet,
// then closes and re-opens the adapter's handle under the lock.
bool DeviceIsConnected(int devNum);
