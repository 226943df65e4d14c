#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "numbers.hpp"

namespace corvel::cli {
namespace {

struct NumberCase {
    const char* text;
    std::optional<uint64_t> value;
};

class ParseNumber : public testing::TestWithParam<NumberCase> {};

TEST_P(ParseNumber, DecimalOrHexAfter0x) {
    EXPECT_EQ(parse_number(GetParam().text), GetParam().value) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ParseNumber,
    testing::Values(
        NumberCase{"0", 0}, NumberCase{"16", 16}, NumberCase{"0x10", 16}, NumberCase{"0X1f", 31},
        NumberCase{"0xDEAD", 0xdead},
        // A leading zero is not octal.
        NumberCase{"010", 10}, NumberCase{"0x0", 0}, NumberCase{"18446744073709551615", UINT64_MAX},
        NumberCase{"0xffffffffffffffff", UINT64_MAX},
        // Not numbers: empty, signs, prefixes alone, trailing text, spaces, overflow.
        NumberCase{"", std::nullopt}, NumberCase{"-1", std::nullopt}, NumberCase{"+1", std::nullopt},
        NumberCase{"0x", std::nullopt}, NumberCase{"0x-1", std::nullopt}, NumberCase{"x10", std::nullopt},
        NumberCase{"12a", std::nullopt}, NumberCase{"0x1g", std::nullopt}, NumberCase{" 1", std::nullopt},
        NumberCase{"1 ", std::nullopt}, NumberCase{"0b101", std::nullopt},
        NumberCase{"18446744073709551616", std::nullopt}, NumberCase{"0x10000000000000000", std::nullopt}));

// number_in() as an option sees it: through a CLI11 parse.
struct RangeCase {
    const char* arg;
    std::optional<int> value;  // nothing: the parse must fail with a validation error
};

class NumberIn : public testing::TestWithParam<RangeCase> {};

TEST_P(NumberIn, AcceptsBothFormsWithinTheRangeOnly) {
    CLI::App app;
    int value = -1;
    app.add_option("N", value)->transform(number_in(3, 0x77, true));
    std::vector<std::string> args{GetParam().arg};  // CLI11 takes them in reverse order
    if (GetParam().value) {
        app.parse(args);
        EXPECT_EQ(value, *GetParam().value);
    } else {
        EXPECT_THROW(app.parse(args), CLI::ValidationError);
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, NumberIn,
                         testing::Values(RangeCase{"3", 3}, RangeCase{"0x03", 3}, RangeCase{"0x77", 0x77},
                                         RangeCase{"119", 119}, RangeCase{"0x50", 0x50},
                                         RangeCase{"0x02", {}}, RangeCase{"2", {}}, RangeCase{"0x78", {}},
                                         RangeCase{"120", {}}, RangeCase{"abc", {}}, RangeCase{"-5", {}}));

TEST(NumberIn, AppliesToEveryValueOfAList) {
    CLI::App app;
    std::vector<int> bytes;
    app.add_option("BYTE", bytes)->transform(number_in(0, 0xff, true));
    app.parse(std::vector<std::string>{"255", "0x10", "0xde"});  // reversed: 0xde 0x10 255
    EXPECT_EQ(bytes, (std::vector<int>{0xde, 0x10, 0xff}));

    CLI::App bad;
    bad.add_option("BYTE", bytes)->transform(number_in(0, 0xff, true));
    EXPECT_THROW(bad.parse(std::vector<std::string>{"1", "0x100", "2"}), CLI::ValidationError);
}

TEST(NumberIn, ErrorNamesTheTextAndTheRange) {
    CLI::App app;
    int value = 0;
    app.add_option("ADDR", value)->transform(number_in(3, 0x77, true));
    try {
        app.parse(std::vector<std::string>{"0x78"});
        FAIL() << "0x78 accepted";
    } catch (const CLI::ValidationError& e) {
        EXPECT_EQ(std::string(e.what()), "ADDR: 0x78 is out of range (0x03 to 0x77)");
    }
}

}  // namespace
}  // namespace corvel::cli
