#include "firmware/frame.hpp"

#include <algorithm>

namespace corvel::sim::fw {

FrameAssembler::Result FrameAssembler::feed(std::span<const uint8_t> bytes) {
    if (complete_) clear();
    if (bytes.empty()) return buffer_.empty() && !overflow_ ? Result::Pending : finish();
    // No host frame is longer than the library's frame store: the rest of such a transfer is not kept.
    const std::size_t room = proto::kSendFrameMax - buffer_.size();
    if (bytes.size() > room) overflow_ = true;
    const auto kept = bytes.first(std::min(bytes.size(), room));
    buffer_.insert(buffer_.end(), kept.begin(), kept.end());
    return bytes.size() % proto::kUsbPacketSize != 0 ? finish() : Result::Pending;
}

FrameAssembler::Result FrameAssembler::finish() {
    proto::Reader in(buffer_);
    const uint32_t code = in.be32();
    const uint8_t packet = in.u8();
    // The host's bare status messages (a header, no payload) always take the short header, even
    // for a code of the long group (the long write-read's data request): a transfer of exactly
    // that length can be nothing else, as a long header alone is longer.
    const std::size_t header = buffer_.size() == proto::kShortHeaderSize ? proto::kShortHeaderSize
                                                                         : proto::request_header_size(code);
    const uint32_t size = header == proto::kLongHeaderSize ? in.be32() : in.be16();
    // The size field must agree with the transfer's length, modulo the field's range.
    const std::size_t length = buffer_.size();
    const uint32_t expected = header == proto::kLongHeaderSize ? static_cast<uint32_t>(length - header)
                                                               : static_cast<uint16_t>(length - header);
    if (overflow_ || !in.ok() || size != expected) {
        rejected_code_ = code;
        clear();
        return Result::Rejected;
    }
    frame_ = Frame{code, packet, in.rest()};
    complete_ = true;
    return Result::Complete;
}

void FrameAssembler::clear() {
    buffer_.clear();
    overflow_ = false;
    complete_ = false;
    frame_ = Frame{};
}

Bytes encode_reply(uint32_t code, uint8_t status, std::span<const uint8_t> payload, bool pad_to_packet) {
    Bytes out;
    out.reserve(std::max(proto::kPacketSize, proto::kReplyHeaderSize + payload.size()));
    append_be32(out, code);
    out.push_back(status);
    append_be16(out, static_cast<uint16_t>(std::min<std::size_t>(payload.size(), 0xFFFF)));
    out.insert(out.end(), payload.begin(), payload.end());
    if (pad_to_packet && out.size() < proto::kPacketSize) out.resize(proto::kPacketSize, 0);
    return out;
}

}  // namespace corvel::sim::fw
