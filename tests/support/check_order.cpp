#include "check_order.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "wire.hpp"

namespace corvel::test {

namespace {

constexpr int32_t kTypesProbed[] = {-1, 0, 1, 2, 3, 4, 5};
constexpr int32_t kUnlimitedChannel = 300;

void clear_answers() {
    for (std::size_t i = 0; i < sim::adapters().size(); ++i) sim::clear_in(static_cast<int>(i));
    sim::clear_records();
}

}  // namespace

void expect_check_order(std::span<const CheckedFunction> table, int32_t dev, int32_t absent) {
    for (const auto& f : table) {
        SCOPED_TRACE(f.name);
        ASSERT_FALSE(f.types.empty());
        const int32_t type = f.types.front();
        // A channel that fails the range check, so that each earlier check is seen to come first.
        const int32_t bad_channel = f.channel_limit ? *f.channel_limit + 1 : kUnlimitedChannel;
        clear_answers();

        for (int32_t other : kTypesProbed) {
            if (std::find(f.types.begin(), f.types.end(), other) != f.types.end()) continue;
            EXPECT_EQ(f.call(other, absent, bad_channel, true), -15) << "type " << other;
        }
        EXPECT_TRUE(sim::records().empty()) << "the type is checked before any USB traffic";

        for (int32_t accepted : f.types) {
            EXPECT_EQ(f.call(accepted, absent, bad_channel, true), -13) << "type " << accepted;
        }
        EXPECT_TRUE(frames().empty()) << "no frame for an absent adapter";

        if (f.pointer) {
            EXPECT_EQ(f.call(type, dev, bad_channel, true), -1);
            EXPECT_TRUE(frames().empty()) << "no frame for a null pointer";
        }

        if (f.channel_limit) {
            EXPECT_EQ(f.call(type, dev, bad_channel, false), -4);
            EXPECT_TRUE(frames().empty()) << "no frame for channel " << bad_channel;
        }
        f.call(type, dev, f.channel_limit.value_or(kUnlimitedChannel), false);
        EXPECT_FALSE(frames().empty())
            << "channel " << f.channel_limit.value_or(kUnlimitedChannel) << " is accepted and sent";
        clear_answers();
    }
}

}  // namespace corvel::test
