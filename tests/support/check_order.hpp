// The order in which a family's functions check their arguments, run from one table per family.
//
// Before it sends anything, a family function checks the device type (one the family does not
// accept: -15, before any USB traffic), the connection (an index with no adapter: -13), its
// pointers (null: -1), then the channel index (above the family's limit: -4).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "wire.hpp"

namespace corvel::test {

// A row of a family's table. `call` calls the function with this device type, device index and
// channel index; `null` passes a null pointer for one the function checks, else valid buffers.
struct CheckedFunction {
    const char* name;
    std::function<int32_t(int32_t type, int32_t dev, int32_t channel, bool null)> call;
    std::vector<int32_t> types;            // device types the family accepts
    std::optional<int32_t> channel_limit;  // highest channel index accepted
    bool pointer = true;                   // false: the function checks no pointer
};

inline constexpr std::optional<int32_t> kNoChannelCheck = std::nullopt;

// For every row, from a test whose fixture has opened device `dev`, each step on an empty capture:
//  1. each device type from -1 to 5 the row does not accept (null pointer, absent index, bad
//     channel): -15 and no libusb call at all;
//  2. each accepted type on `absent`, an index with no adapter: -13 and no frame sent;
//  3. a null pointer with a bad channel: -1 and no frame sent;
//  4. channel limit + 1: -4 and no frame sent; the limit itself (channel 300 for a row without a
//     channel check) is sent.
inline void expect_check_order(std::span<const CheckedFunction> table, int32_t dev = 0, int32_t absent = 7) {
    constexpr int32_t kUnlimited = 300;
    const auto clear = [] {
        for (std::size_t i = 0; i < sim::adapters().size(); ++i) sim::clear_in(static_cast<int>(i));
        sim::clear_records();
    };
    for (const auto& f : table) {
        SCOPED_TRACE(f.name);
        ASSERT_FALSE(f.types.empty());
        const int32_t bad_channel = f.channel_limit ? *f.channel_limit + 1 : kUnlimited;
        clear();
        for (int32_t other = -1; other <= 5; ++other) {
            if (std::find(f.types.begin(), f.types.end(), other) != f.types.end()) continue;
            EXPECT_EQ(f.call(other, absent, bad_channel, true), -15) << "type " << other;
        }
        EXPECT_TRUE(sim::records().empty()) << "the type is checked before any USB traffic";
        for (int32_t type : f.types)
            EXPECT_EQ(f.call(type, absent, bad_channel, true), -13) << "type " << type;
        EXPECT_TRUE(frames().empty()) << "no frame for an absent adapter";
        const int32_t type = f.types.front();
        if (f.pointer) {
            EXPECT_EQ(f.call(type, dev, bad_channel, true), -1);
            EXPECT_TRUE(frames().empty()) << "no frame for a null pointer";
        }
        if (f.channel_limit) {
            EXPECT_EQ(f.call(type, dev, bad_channel, false), -4);
            EXPECT_TRUE(frames().empty()) << "no frame for channel " << bad_channel;
        }
        const int32_t accepted = f.channel_limit.value_or(kUnlimited);
        f.call(type, dev, accepted, false);
        EXPECT_FALSE(frames().empty()) << "channel " << accepted << " is sent";
        clear();
    }
}

}  // namespace corvel::test
