// The SDI-12 CRC: the three characters sensors append to a data response, and their check.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "sdi12crc.h"

namespace {

TEST(Sdi12Crc, AppendsTheSensorsCharacters) {
    const struct {
        const char* line;
        const char* with_crc;
    } cases[] = {
        {"", "@@@"},
        {"0+3.14", "0+3.14OqZ"},
        {"0+3.14+2.718+1.414", "0+3.14+2.718+1.414Ipz"},
        {"0+1.11+2.22+3.33+4.44+5.55+6.66", "0+1.11+2.22+3.33+4.44+5.55+6.66I]q"},
        {"0+3.14\r\n", "0+3.14OqZ\r\n"},
    };
    for (const auto& c : cases) {
        sdi12CRC crc;
        crc.appendCRC(c.line);
        EXPECT_STREQ(crc.responseToDCommandWithCRC.data(), c.with_crc);
    }
}

TEST(Sdi12Crc, ChecksLinesWithOrWithoutLineEnd) {
    const struct {
        std::string line;
        bool ok;
    } cases[] = {
        {"0+3.14OqZ", true},
        {"0+3.14+2.718+1.414Ipz", true},
        {"0+1.11+2.22+3.33+4.44+5.55+6.66I]q", true},
        {"0+3.14+2.718IWO", true},
        {"0+2.718Gbc", true},
        {"0+1.414GtW", true},
        {"0+1.414GtV", false},
        {"1+1.414GtW", false},
        {"ab", false},
        {"0+3.14Oq\xDA", false},  // bit 7 kept by the 0xBF mask: intended
    };
    for (const auto& c : cases) {
        for (const std::string& line : {c.line, c.line + "\r\n"}) {
            sdi12CRC crc;
            EXPECT_EQ(crc.checkCRC(line.c_str()), c.ok) << line;
            EXPECT_EQ(crc.responseToDCommandWithCRC.data(), line) << "left as given";
        }
    }
}

// The self-test passes; a line longer than the buffers is cut to 511 characters, never written past
// them.
TEST(Sdi12Crc, SelfTestAndLongLines) {
    sdi12CRC crc;
    crc.test();
    const std::string line(600, '1');
    crc.appendCRC(line.c_str());
    EXPECT_EQ(std::strlen(crc.responseToDCommandWithCRC.data()), 511u);
    EXPECT_FALSE(crc.checkCRC(line.c_str()));
}

}  // namespace
