// The message frame: request frames arriving on bulk OUT, reply frames going back on bulk IN.
//
// Request: message code (4 bytes, big-endian), packet number (1 byte), payload size (2 bytes, or 4
// bytes for the codes from 32768 on), payload; a bare status message (no payload) has the 2-byte
// size whatever its code. Reply: answer code (4), status (1), payload size (2), payload.
//
// A request frame is exactly one bulk OUT transfer. The host's write is split into 64-byte packets
// and the transfer ends with a packet shorter than that: a write whose length is not a multiple of
// 64 ends the frame with its last packet, and after a write of a multiple of 64 the host sends a
// zero-length packet to end it. The size field is only a check on the transfer's length: a 16-bit
// field holds the payload size modulo 65536, so a frame longer than that cannot be delimited by
// its header, and the caller's data can never be taken for frames of their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "firmware/bytes.hpp"

namespace corvel::sim::fw {

// A request frame; the payload is valid while the frame is being handled.
struct Frame {
    uint32_t code = 0;
    uint8_t packet = 0;
    std::span<const uint8_t> payload;
};

// Collects the packets of one bulk OUT transfer into a frame.
class FrameAssembler {
  public:
    // What feed() found.
    enum class Result : uint8_t {
        Pending,   // the transfer goes on (or nothing was pending): no frame yet
        Complete,  // frame() holds the frame until the next feed()
        Rejected,  // the transfer ended as no well-formed frame: longer than the host's send buffer,
                   // shorter than its header, or its size field disagrees with its length.
                   // rejected_code() holds its code (0 when it was shorter than a code).
    };

    // The bytes of one write on the bulk OUT endpoint. An empty write ends a pending transfer and
    // is nothing otherwise.
    Result feed(std::span<const uint8_t> bytes);

    const Frame& frame() const { return frame_; }
    uint32_t rejected_code() const { return rejected_code_; }
    void clear();

  private:
    Result finish();

    Bytes buffer_;
    bool overflow_ = false;  // the transfer went past the send buffer; the rest is not kept
    bool complete_ = false;  // buffer_ holds the last complete frame
    Frame frame_;
    uint32_t rejected_code_ = 0;
};

// A reply frame. `pad_to_packet`: zero-filled to one full 512-byte packet, for replies the host
// reads with its one-packet receive (a payload too long for one packet is not padded).
Bytes encode_reply(uint32_t code, uint8_t status, std::span<const uint8_t> payload, bool pad_to_packet);

}  // namespace corvel::sim::fw
