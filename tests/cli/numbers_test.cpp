#include <gtest/gtest.h>

#include <optional>

#include "numbers.hpp"

namespace corvel::cli {
namespace {

// The range checks and their messages are run end to end by the CLI tests; the edges of the
// number forms are here. A leading zero is not octal.
TEST(ParseNumber, DecimalOrHexAfter0x) {
    const std::pair<const char*, uint64_t> numbers[] = {{"0", 0},
                                                        {"16", 16},
                                                        {"0x10", 16},
                                                        {"0X1f", 31},
                                                        {"0xDEAD", 0xdead},
                                                        {"010", 10},
                                                        {"0x0", 0},
                                                        {"18446744073709551615", UINT64_MAX},
                                                        {"0xffffffffffffffff", UINT64_MAX}};
    for (const auto& [text, value] : numbers) EXPECT_EQ(parse_number(text), value) << text;
    // Empty, signs, prefixes alone, trailing text, spaces, overflow.
    for (const char* text : {"", "-1", "+1", "0x", "0x-1", "x10", "12a", "0x1g", " 1", "1 ", "0b101",
                             "18446744073709551616", "0x10000000000000000"}) {
        EXPECT_EQ(parse_number(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace corvel::cli
