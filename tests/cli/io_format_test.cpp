#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "io_format.hpp"

namespace corvel::cli {
namespace {

TEST(PinList, ListsAndRangesKeepTheOrderGiven) {
    struct Case {
        const char* text;
        std::vector<int> pins;
        uint32_t mask;
    };
    for (const auto& c : std::vector<Case>{{"0", {0}, 0x1},
                                           {"8,0", {8, 0}, 0x101},
                                           {"0,3,8-11", {0, 3, 8, 9, 10, 11}, 0xF09},
                                           {"23,5-5,5", {23, 5}, 0x800020}}) {
        auto parsed = parse_pins(c.text);
        ASSERT_TRUE(parsed) << c.text << ": " << parsed.error;
        EXPECT_EQ(parsed.value->pins, c.pins) << c.text;
        EXPECT_EQ(parsed.value->mask, c.mask) << c.text;
    }
}

TEST(PinList, Errors) {
    for (const char* text : {"", "24", "1,", ",1", "3-1", "a", "1-", "-1", "0x1", "1 ,2"}) {
        auto parsed = parse_pins(text);
        EXPECT_FALSE(parsed) << text;
        EXPECT_NE(parsed.error.find("from 0 to 23"), std::string::npos) << parsed.error;
    }
    EXPECT_FALSE(parse_pins("16", 15));
}

TEST(Levels, InTheOrderGiven) {
    std::vector<int> pins{8, 0, 15};
    EXPECT_EQ(format_levels(pins, 0x0100), "8=1 0=0 15=0");
}

TEST(Samples, LeastSignificantByteFirstWhateverTheHost) {
    std::vector<uint8_t> bytes{0x34, 0x12, 0xFF, 0x0F, 0x00};  // odd trailing byte ignored
    EXPECT_EQ(decode_samples(bytes), (std::vector<uint16_t>{0x1234, 0x0FFF}));
}

TEST(Samples, Tables) {
    SampleTable t{{0, 3}, {2048, 4095, 0, 1}};
    EXPECT_EQ(format_samples(t), "1.650 3.300\n0.000 0.001\n");
    t.raw = true;
    EXPECT_EQ(format_samples(t), "2048 4095\n   0    1\n");
    t.csv = true;
    EXPECT_EQ(format_samples(t), "ch0,ch3\n2048,4095\n0,1\n");
}

// A rising ramp: the first sample sits in the bottom-left cell, the last in the top-right one, and
// the line between them leaves no dot column empty; the labels, axis and legend frame it.
TEST(Plot, RampFromCornerToCorner) {
    std::vector<PlotSeries> series{{"ch1", {0, 1, 2, 3}}, {"ch5", {1, 1, 1, 1}}};
    PlotStyle style{30, 8, 1, "V", false};
    std::string plot = render_plot(series, style);
    std::vector<std::string> lines;
    for (std::size_t at = 0, nl; (nl = plot.find('\n', at)) != std::string::npos; at = nl + 1) {
        lines.push_back(plot.substr(at, nl - at));
    }
    ASSERT_EQ(lines.size(), 8u) << plot;
    EXPECT_EQ(lines[0].rfind("3.0V ┤", 0), 0u) << plot;
    EXPECT_EQ(lines[4].rfind("0.0V ┤", 0), 0u) << plot;
    // The dots of a braille cell (U+2800 + bits, three UTF-8 bytes): 0x40 bottom-left, 0x08 top-right.
    auto dots = [](const std::string& cell) { return ((cell[1] & 0x03) << 6) | (cell[2] & 0x3F); };
    EXPECT_TRUE(dots(lines[4].substr(std::string("0.0V ┤").size(), 3)) & 0x40) << plot;
    EXPECT_TRUE(dots(lines[0].substr(lines[0].size() - 3)) & 0x08) << plot;
    EXPECT_NE(lines[5].find("└──"), std::string::npos) << plot;
    EXPECT_EQ(lines[6], "      0" + std::string(22, ' ') + "3") << plot;
    EXPECT_EQ(lines[7], "      ⣿ ch1  ⣿ ch5") << plot;
    EXPECT_EQ(render_plot({}, style), "");

    // The ramp alone: every cell column holds dots of the line in both its dot columns.
    const std::vector<PlotSeries> ramp{series[0]};
    const std::string alone = render_plot(ramp, style);
    std::vector<int> column_dots;
    std::size_t at = 0;
    for (int row = 0; row < 5; ++row) {
        const std::size_t nl = alone.find('\n', at);
        const std::string line = alone.substr(at, nl - at);
        std::size_t c = 0;
        for (std::size_t i = std::string("0.0V ┤").size(); i < line.size(); ++c) {
            if (column_dots.size() <= c) column_dots.push_back(0);
            if (line[i] == ' ') {
                ++i;
            } else {
                column_dots[c] |= dots(line.substr(i, 3));
                i += 3;
            }
        }
        at = nl + 1;
    }
    ASSERT_EQ(column_dots.size(), 24u) << alone;
    for (std::size_t c = 0; c < column_dots.size(); ++c) {
        EXPECT_TRUE((column_dots[c] & 0x47) && (column_dots[c] & 0xB8)) << "cell column " << c << "\n"
                                                                        << alone;
    }
}

}  // namespace
}  // namespace corvel::cli
