#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "i2c_format.hpp"

namespace corvel::cli {
namespace {

std::bitset<128> addresses(std::initializer_list<int> list) {
    std::bitset<128> set;
    for (int a : list) set.set(static_cast<std::size_t>(a));
    return set;
}

const std::string kHeader = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n";
const std::string kEmptyRow = "-- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- \n";

// What `i2cdetect -y` prints for a bus with parts at 0x48 and 0x50: every cell three characters
// wide, trailing space included, blanks for the unprobed 0x00-0x02 and 0x78-0x7f.
TEST(ScanGrid, LayoutOfI2cdetect) {
    const std::string expected = kHeader +
                                 "00:          -- -- -- -- -- -- -- -- -- -- -- -- -- \n"
                                 "10: " +
                                 kEmptyRow + "20: " + kEmptyRow + "30: " + kEmptyRow +
                                 "40: -- -- -- -- -- -- -- -- 48 -- -- -- -- -- -- -- \n"
                                 "50: 50 -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- \n"
                                 "60: " +
                                 kEmptyRow + "70: -- -- -- -- -- -- -- --                         \n";
    EXPECT_EQ(scan_grid(addresses({0x48, 0x50})), expected);
}

TEST(ScanGrid, EdgesOfTheProbedRange) {
    // The first and last probed addresses show; answers outside the range are not shown at all.
    std::string grid = scan_grid(addresses({0x00, 0x02, 0x03, 0x0f, 0x10, 0x77, 0x78, 0x7f}));
    EXPECT_NE(grid.find("00:          03 -- -- -- -- -- -- -- -- -- -- -- 0f \n"), std::string::npos) << grid;
    EXPECT_NE(grid.find("10: 10 -- "), std::string::npos) << grid;
    EXPECT_NE(grid.find("70: -- -- -- -- -- -- -- 77                         \n"), std::string::npos) << grid;
}

TEST(ScanGrid, WholeRangeHasNoBlanks) {
    std::string none_15;
    for (int i = 0; i < 15; ++i) none_15 += "-- ";
    std::string grid = scan_grid(addresses({0x00, 0x7f}), 0x00, 0x7f);
    EXPECT_NE(grid.find("00: 00 " + none_15 + "\n"), std::string::npos) << grid;
    EXPECT_NE(grid.find("70: " + none_15 + "7f \n"), std::string::npos) << grid;
    EXPECT_EQ(grid.substr(kHeader.size()).find("   "), std::string::npos) << grid;  // no blank cell
}

TEST(ScanGrid, NineLinesOfFixedWidth) {
    std::string grid = scan_grid(addresses({}));
    std::vector<std::size_t> widths;
    for (std::size_t start = 0, end; (end = grid.find('\n', start)) != std::string::npos; start = end + 1) {
        widths.push_back(end - start);
    }
    EXPECT_EQ(widths, (std::vector<std::size_t>{51, 52, 52, 52, 52, 52, 52, 52, 52}));
}

struct FieldCase {
    const char* name;
    std::vector<uint8_t> bytes;
    std::string text;
    friend void PrintTo(const FieldCase& c, std::ostream* os) { *os << c.name; }
};

class FieldText : public testing::TestWithParam<FieldCase> {};

TEST_P(FieldText, UpToTheFirstNulWithUnprintablesAsDots) {
    EXPECT_EQ(field_text(GetParam().bytes), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FieldText,
    testing::Values(FieldCase{"padded", {'C', 'V', '1', 0, 0, 0}, "CV1"},
                    // Bytes after the first NUL are not part of the text, even printable ones.
                    FieldCase{"junk_after_nul", {'A', 0, 'B', 'C'}, "A"},
                    FieldCase{"no_nul_fills_the_field", {'C', 'V', '0', '0'}, "CV00"},
                    FieldCase{"all_zero", {0, 0, 0, 0}, ""}, FieldCase{"empty", {}, ""},
                    FieldCase{"unprintables", {0x01, 'a', 0x1f, 0x20, 0x7e, 0x7f, 0x80, 0xff}, ".a. ~..."}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace corvel::cli
