// What the SMBus and PMBus families share: they run on the same I2C channels of the I2C-type
// adapter, with the same checks and one exchange, a request answered by one reply frame whose status
// byte is the result of the bus transaction. Neither family takes the board lock (intended: callers
// that share an adapter between threads serialise their calls themselves).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "family.h"

namespace corvel::smbus {

// Only device type 1: both families drive the I2C adapter's channels.
inline constexpr std::array<int32_t, 1> kTypes = {KD_DEVTYPE_I2C};
inline constexpr Family kFamily{kTypes};

// Type (-15) and connection (-13); the transactions check nothing else.
inline int32_t check(int32_t DevType, int32_t DevIndex) {
    return Check(kFamily, DevType, DevIndex);
}

// The bus initialisation also refuses a channel above 1 (compared as a signed number, so negative
// indices pass) and a clock outside 10000 to 400000 Hz, both with -1. Intended: -1, not -4.
inline int32_t check_init(int32_t DevType, int32_t DevIndex, int32_t index, uint32_t ClockSpeed) {
    return Check(kFamily, DevType, DevIndex)
        .require(index < proto::smbus::kChannels && ClockSpeed >= proto::smbus::kMinClockHz &&
                     ClockSpeed <= proto::smbus::kMaxClockHz,
                 KD_ERR_PARAMETER_NULL);
}

// The channel index goes out as its low byte.
inline proto::Writer& channel(Request& request, int32_t index) {
    return request.payload().u8(static_cast<uint32_t>(index));
}

// Sends the request and reads its one reply frame (up to 512 bytes, 100 ms a try). At most
// out.size() payload bytes are stored in `out`, never more than arrived. Returns the reply's status
// byte (0 to 255), -5 when the request did not go out, -6 when no reply, or less than its 7-byte
// header, came.
//
// `count`, when given, receives the number of payload bytes stored; when the reply read failed it
// receives the size of the request's own payload instead (intended: the message record of the
// request is the one the reply is read into, and a failed read leaves its size as it was).
inline int32_t transact(int32_t dev, Request& request, std::span<uint8_t> out = {},
                        uint8_t* count = nullptr) {
    S_MSG answer{};
    const int32_t r = request_reply(dev, request, Reply::Frame, out, std::nullopt, &answer);
    if (r == KD_ERR_USB_WRITE_FAIL) return r;
    if (count != nullptr)
        *count = static_cast<uint8_t>(r == KD_SUCCESS ? answer.size
                                                      : static_cast<int32_t>(request.payload().size()));
    if (r != KD_SUCCESS) return r;
    return static_cast<int32_t>(static_cast<uint8_t>(answer.status));
}

// Where a reply's payload goes: `n` bytes of a caller's buffer (none when the pointer is null),
// and for the block reads the byte count (see transact).
struct Into {
    Into() = default;
    Into(void* data, std::size_t n, uint8_t* count_out = nullptr)
        : bytes(data ? std::span(static_cast<uint8_t*>(data), n) : std::span<uint8_t>{}), count(count_out) {}
    std::span<uint8_t> bytes;
    uint8_t* count = nullptr;
};

// A 16-bit field of a request, written big-endian.
struct Word {
    uint16_t value;
};

inline void put(proto::Writer& out, uint8_t byte) {
    out.u8(byte);
}
inline void put(proto::Writer& out, Word word) {
    out.be16(word.value);
}

// Every transaction but the block writes: the type and connection checks, then message `code` with
// the channel and `fields` in order (bytes, and Words big-endian), and the reply's payload stored
// as `reply` says. Returns transact's result.
template <typename... Field>
int32_t run(int32_t DevType, int32_t DevIndex, int32_t code, int32_t index, Into reply, Field... fields) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(code);
    proto::Writer& out = channel(request, index);
    (put(out, fields), ...);
    return transact(DevIndex, request, reply.bytes, reply.count);
}

// The data a block write carries.
struct Block {
    const uint8_t* data;
    uint8_t count;
};

// Block Write and Block Process Call: address, command code, byte count and PEC flag, then the
// data bytes (the PEC flag before the data: intended). A count above `limit`, when there is one, is
// -4 after the connection check and before anything goes out.
inline int32_t run_block(int32_t DevType, int32_t DevIndex, int32_t code, int32_t index, uint8_t SlaveAddr,
                         uint8_t CommandCode, Block block, uint8_t PEC, std::optional<std::size_t> limit,
                         Into reply = {}) {
    if (const int32_t r =
            Check(kFamily, DevType, DevIndex).require(!limit || block.count <= *limit, KD_ERR_DATA_FORMAT);
        r != 0)
        return r;
    Request request(code);
    channel(request, index)
        .u8(SlaveAddr)
        .u8(CommandCode)
        .u8(block.count)
        .u8(PEC)
        .bytes(block.data, block.count);
    return transact(DevIndex, request, reply.bytes, reply.count);
}

// The alert query: the status byte is the state of the channel's SMBALERT# line, stored in *flag;
// the function then returns 0 (or -5/-6).
inline int32_t get_alert(int32_t DevType, int32_t DevIndex, int32_t index, int32_t code, uint8_t* flag) {
    if (const int32_t r = check(DevType, DevIndex); r != 0) return r;
    Request request(code);
    channel(request, index);
    const int32_t r = transact(DevIndex, request);
    if (r < 0) return r;
    *flag = static_cast<uint8_t>(r);
    return KD_SUCCESS;
}

// The bus initialisation: channel, clock (4 bytes), own address; the status byte is returned.
inline int32_t hard_init(int32_t DevType, int32_t DevIndex, int32_t index, uint32_t ClockSpeed,
                         uint8_t OwnAddr, int32_t code) {
    if (const int32_t r = check_init(DevType, DevIndex, index, ClockSpeed); r != 0) return r;
    Request request(code);
    channel(request, index).be32(ClockSpeed).u8(OwnAddr);
    return transact(DevIndex, request);
}

}  // namespace corvel::smbus
