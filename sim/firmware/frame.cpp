#include "firmware/frame.hpp"

#include <algorithm>

namespace corvel::sim::fw {

void FrameAssembler::feed(std::span<const uint8_t> bytes, const FrameFn& on_frame,
                          const RejectFn& on_reject) {
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    std::size_t start = 0;
    while (buffer_.size() - start >= 4) {
        const uint8_t* p = buffer_.data() + start;
        const uint32_t code = get_be32(p);
        const std::size_t header = request_header_size(code);
        if (buffer_.size() - start < header) break;
        const uint64_t length = header == 9 ? get_be32(p + 5) : get_be16(p + 5);
        if (header + length > kMaxFrame) {
            buffer_.clear();
            on_reject(code);
            return;
        }
        const std::size_t total = header + static_cast<std::size_t>(length);
        if (buffer_.size() - start < total) break;
        Frame frame;
        frame.code = code;
        frame.packet = p[4];
        frame.payload.assign(p + header, p + total);
        start += total;
        on_frame(std::move(frame));
    }
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start));
}

Bytes encode_reply(uint32_t code, uint8_t status, std::span<const uint8_t> payload, bool pad_to_packet) {
    Bytes out;
    out.reserve(std::max(kPacket, kReplyHeader + payload.size()));
    put_be32(out, code);
    out.push_back(status);
    put_be16(out, static_cast<uint16_t>(std::min<std::size_t>(payload.size(), 0xFFFF)));
    out.insert(out.end(), payload.begin(), payload.end());
    if (pad_to_packet && out.size() < kPacket) out.resize(kPacket, 0);
    return out;
}

}  // namespace corvel::sim::fw
