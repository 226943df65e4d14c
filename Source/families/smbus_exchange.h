// What the SMBus and PMBus families share: they run on the same I2C channels of the I2C-type
// adapter, with the same checks and one exchange, a request answered by one reply frame whose status
// byte is the result of the bus transaction. Neither family takes the board lock (intended: callers
// that share an adapter between threads serialise their calls themselves).
#pragma once

#include <array>
#include <cstdint>
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

// A caller's buffer as the reply's destination: `n` bytes, or none when the pointer is null.
inline std::span<uint8_t> into(void* data, std::size_t n) {
    return data ? std::span(static_cast<uint8_t*>(data), n) : std::span<uint8_t>{};
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
