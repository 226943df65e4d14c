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

// The layout of `i2cdetect -y` with answers at 0x48 and 0x50 is checked end to end by `corvel i2c
// scan`; here the edges: the first and last probed addresses show, answers outside are blanks, and
// a range over all addresses leaves no blank cell.
TEST(ScanGrid, EdgesOfTheProbedRange) {
    const std::string grid = scan_grid(addresses({0x00, 0x02, 0x03, 0x0f, 0x10, 0x77, 0x78, 0x7f}));
    for (const char* line : {"00:          03 -- -- -- -- -- -- -- -- -- -- -- 0f \n", "\n10: 10 -- ",
                             "\n70: -- -- -- -- -- -- -- 77                         \n"}) {
        EXPECT_NE(grid.find(line), std::string::npos) << line << " in\n" << grid;
    }
    const std::string whole = scan_grid(addresses({0x00, 0x7f}), 0x00, 0x7f);
    EXPECT_NE(whole.find("\n00: 00 -- "), std::string::npos) << whole;
    EXPECT_NE(whole.find(" -- 7f \n"), std::string::npos) << whole;
    EXPECT_EQ(whole.find("   ", whole.find('\n')), std::string::npos) << whole;  // no blank cell
}

TEST(FieldText, UpToTheFirstNulWithUnprintablesAsDots) {
    const std::pair<std::vector<uint8_t>, const char*> cases[] = {
        {{'A', 0, 'B', 'C'}, "A"},  // bytes after the first NUL do not count, even printable ones
        {{0x01, 'a', 0x1f, 0x20, 0x7e, 0x7f, 0x80, 0xff}, ".a. ~..."}};
    for (const auto& [bytes, text] : cases) EXPECT_EQ(field_text(bytes), text);
}

}  // namespace
}  // namespace corvel::cli
