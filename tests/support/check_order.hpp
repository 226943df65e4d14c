// The order in which every family function checks its arguments, run from one table per family.
//
// A family function checks, before it sends anything: the device type (one the family does not
// accept gives -15 before any USB traffic at all), the connection (an index with no adapter gives
// -13), its pointers (null gives -1), then the channel index (above the family's limit gives -4).
// A family's wire test lists its functions in a table of CheckedFunction rows and hands the table
// to expect_check_order() from a test whose fixture has opened the device.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace corvel::test {

// Calls the function under test with this device type, device index and channel index; `null`
// passes a null pointer for (one of) the pointers the function checks, otherwise valid buffers.
using CheckedCall = std::function<int32_t(int32_t type, int32_t dev, int32_t channel, bool null)>;

// Written in a row for a function that does not limit its channel index (or has none).
inline constexpr std::optional<int32_t> kNoChannelCheck = std::nullopt;

struct CheckedFunction {
    const char* name;
    CheckedCall call;
    std::vector<int32_t> types;            // device types the family accepts
    std::optional<int32_t> channel_limit;  // highest channel index accepted
    bool pointer = true;                   // false: the function checks no pointer
};

// For every row, in order, each step on an empty capture:
//  1. every device type from -1 to 5 the row does not accept, with a null pointer, an absent
//     index and a bad channel: -15 and no libusb call at all;
//  2. each accepted type on `absent`, an index with no adapter: -13 and no frame sent;
//  3. a null pointer on the open device `dev`, with a bad channel: -1 and no frame sent;
//  4. channel limit + 1: -4 and no frame sent; the limit itself: a frame is sent. A row without a
//     channel check sends channel 300 instead.
// Answers left over from one row are cleared before the next.
void expect_check_order(std::span<const CheckedFunction> table, int32_t dev = 0, int32_t absent = 7);

}  // namespace corvel::test
