// The message frame: request frames arriving on bulk OUT, reply frames going back on bulk IN.
//
// Request: message code (4 bytes, big-endian), packet number (1 byte), payload length (2 bytes,
// or 4 bytes when the code is above 32767), payload. Reply: answer code (4), status (1), payload
// length (2), payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "firmware/bytes.hpp"

namespace corvel::sim::fw {

inline constexpr std::size_t kMaxFrame = 102800;  // the host's send buffer: no frame is longer
inline constexpr std::size_t kPacket = 512;       // one reply packet
inline constexpr std::size_t kReplyHeader = 7;

inline constexpr std::size_t request_header_size(uint32_t code) {
    return code > 32767 ? 9 : 7;
}

struct Frame {
    uint32_t code = 0;
    uint8_t packet = 0;
    Bytes payload;
};

// Rebuilds frames from OUT transfers, which may split a frame anywhere or carry several frames.
class FrameAssembler {
  public:
    using FrameFn = std::function<void(Frame&&)>;
    using RejectFn = std::function<void(uint32_t code)>;

    // Appends `bytes` and hands every frame completed by them to `on_frame`, in order. A header
    // announcing a frame longer than kMaxFrame cannot come from the host: the buffered bytes are
    // dropped and `on_reject` gets the code.
    void feed(std::span<const uint8_t> bytes, const FrameFn& on_frame, const RejectFn& on_reject);

    void clear() { buffer_.clear(); }
    std::size_t buffered() const { return buffer_.size(); }

  private:
    Bytes buffer_;
};

// A reply frame. `pad_to_packet`: zero-filled to one full 512-byte packet, for replies the host
// reads with its one-packet receive (a payload too long for one packet is not padded).
Bytes encode_reply(uint32_t code, uint8_t status, std::span<const uint8_t> payload, bool pad_to_packet);

}  // namespace corvel::sim::fw
