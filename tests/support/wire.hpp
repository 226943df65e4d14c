// Helpers for asserting on the libusb calls the virtual adapter captured: the calls of one kind,
// the request frames the library sent (raw or decoded), and reply frames and status answers to put
// on the adapter's IN endpoints.
//
// The decoder knows the frame header only (code, packet number, size field); payload layouts are
// never computed here. Wire tests write the payload they expect as byte literals, so that a
// disagreement between the library and the adapter model shows.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <ostream>
#include <span>
#include <vector>

#include "corvel/protocol.hpp"
#include "corvel/sim.hpp"

namespace corvel::test {

using Bytes = std::vector<uint8_t>;
using sim::Call;
using sim::Record;

// ---- Capture --------------------------------------------------------------------------------

// Captured calls of one kind, in order.
inline std::vector<Record> calls(Call kind) {
    std::vector<Record> out;
    for (auto& r : sim::records())
        if (r.call == kind) out.push_back(r);
    return out;
}

inline std::size_t count(Call kind) {
    return calls(kind).size();
}

// Data of the non-empty bulk writes, i.e. the frames the library sent, as raw bytes.
inline std::vector<Bytes> frames() {
    std::vector<Bytes> out;
    for (auto& r : calls(Call::BulkWrite))
        if (!r.data.empty()) out.push_back(r.data);
    return out;
}

// ---- Request frames -------------------------------------------------------------------------

// A request frame taken apart: a 7-byte header (code, packet number, 16-bit size) or, for codes
// of 32768 and above, a 9-byte one with a 32-bit size; then the payload. A frame too short for its
// header decodes with `header` 0 and the bytes it has as payload, so it equals no request().
struct Frame {
    uint32_t code = 0;
    Bytes payload;
    uint8_t packet = 0;
    uint32_t size = 0;       // the header's size field
    std::size_t header = 0;  // header bytes: 7 or 9, 0 when the frame is cut short
    bool operator==(const Frame&) const = default;
};

inline void PrintTo(const Frame& f, std::ostream* os) {
    *os << "code " << f.code << ", packet " << +f.packet << ", size field " << f.size << ", " << f.header
        << "-byte header, payload" << std::hex;
    for (uint8_t b : f.payload) *os << ' ' << +b;
}

inline Frame decode(std::span<const uint8_t> raw) {
    proto::Reader r(raw);
    Frame f;
    f.code = r.be32();
    f.packet = r.u8();
    const bool long_header = proto::request_header_size(f.code) == proto::kLongHeaderSize;
    f.size = long_header ? r.be32() : r.be16();
    if (!r.ok()) return Frame{.payload = Bytes(raw.begin(), raw.end())};
    f.header = r.position();
    const auto rest = r.rest();
    f.payload.assign(rest.begin(), rest.end());
    return f;
}

// The frames the library sent, decoded, in order.
inline std::vector<Frame> sent() {
    std::vector<Frame> out;
    for (const auto& raw : frames()) out.push_back(decode(raw));
    return out;
}

// A well-formed request as expected on the wire: the size field equals the payload's length and
// the header has the form the code calls for.
inline Frame request(uint32_t code, Bytes payload, uint8_t packet = 0) {
    const auto size = static_cast<uint32_t>(payload.size());
    return Frame{code, std::move(payload), packet, size, proto::request_header_size(code)};
}

// ---- Answers to inject ----------------------------------------------------------------------

// A reply packet as the firmware sends it: 7-byte header (code, status, 16-bit size field), the
// payload, zero padding to `total` bytes. The size field says `announced` (default: the payload's
// length); `total` defaults to header and payload, and a smaller one cuts the packet short.
inline Bytes reply(uint32_t code, uint8_t status, const Bytes& payload = {},
                   std::optional<std::size_t> announced = {}, std::optional<std::size_t> total = {}) {
    Bytes b(proto::kReplyHeaderSize + payload.size());
    proto::put_be32(b.data(), code);
    b[4] = status;
    proto::put_be16(b.data() + 5, static_cast<uint32_t>(announced.value_or(payload.size())));
    std::copy(payload.begin(), payload.end(), b.begin() + proto::kReplyHeaderSize);
    b.resize(total.value_or(b.size()), 0);
    return b;
}

// The one-byte answer of a request that reports only a status.
inline Bytes status_answer(uint8_t status) {
    return Bytes{status};
}

// Queues `bytes` as the next answer on the adapter's bulk IN (frames, status bytes, raw data) or
// interrupt IN (board command answers) endpoint, after what is already waiting.
inline void inject_bulk(const Bytes& bytes, int adapter = 0) {
    sim::inject_in(adapter, proto::kEndpointBulkIn, bytes);
}
inline void inject_interrupt(const Bytes& bytes, int adapter = 0) {
    sim::inject_in(adapter, proto::kEndpointIntIn, bytes);
}

// ---- Adapters -------------------------------------------------------------------------------

inline sim::AdapterSpec adapter(const char* serial, int type = proto::kDevTypeI2c) {
    sim::AdapterSpec a;
    a.serial = serial;
    a.personality = type;
    return a;
}

}  // namespace corvel::test
