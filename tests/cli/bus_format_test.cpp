#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "bus_format.hpp"

namespace corvel::cli {
namespace {

TEST(PmbusNumbers, Linear11SignedExponentAndMantissa) {
    const struct {
        uint16_t word;
        double value;
    } cases[] = {
        {0xE814, 2.5},            // N -3, Y 20: the supply's 2.500 A
        {0xF846, 35.0},           // N -1, Y 70
        {0xEBFF, 127.875},        // largest positive mantissa
        {0xEC00, -128.0},         // Y 0x400 is -1024
        {0x0801, 2.0},            // N +1
        {0x7BFF, 33521664.0},     // N +15, Y 1023
        {0x8001, 1.0 / 65536.0},  // N -16
    };
    for (const auto& c : cases) EXPECT_DOUBLE_EQ(linear11(c.word), c.value) << std::hex << c.word;
}

TEST(PmbusNumbers, Linear16FromVoutModeBothWays) {
    EXPECT_EQ(linear16_exponent(0x17), -9);
    EXPECT_EQ(linear16_exponent(0x10), -16);
    EXPECT_EQ(linear16_exponent(0x0F), 15);
    EXPECT_FALSE(linear16_exponent(0x20));  // VID
    EXPECT_FALSE(linear16_exponent(0x40));  // DIRECT
    EXPECT_DOUBLE_EQ(linear16(0x1800, -9), 12.0);
    EXPECT_DOUBLE_EQ(linear16(0xFFFF, 0), 65535.0);

    EXPECT_EQ(to_linear16(12.0, -9), 0x1800);
    EXPECT_EQ(to_linear16(3.3, -9), 0x069A);  // 1689.6 rounds up
    EXPECT_EQ(to_linear16(127.998, -9), 0xFFFF);
    EXPECT_FALSE(to_linear16(128.0, -9));
    EXPECT_FALSE(to_linear16(-0.01, -9));
    EXPECT_FALSE(to_linear16(std::nan(""), -9));
}

TEST(PmbusStatus, BitNamesMostSignificantFirst) {
    const struct {
        StatusRegister reg;
        uint16_t value;
        const char* names;
    } cases[] = {
        {StatusRegister::word, 0x0000, ""},
        {StatusRegister::word, 0x0840, "POWER_GOOD# OFF"},
        {StatusRegister::word, 0xC003, "VOUT IOUT/POUT CML NONE_OF_THE_ABOVE"},
        {StatusRegister::vout, 0x10, "VOUT_UV_FAULT"},
        {StatusRegister::iout, 0x81, "IOUT_OC_FAULT POUT_OP_WARNING"},
        {StatusRegister::temperature, 0xC1, "OT_FAULT OT_WARNING bit 0"},
        {StatusRegister::cml, 0xA0, "INVALID_COMMAND PEC_FAILED"},
    };
    for (const auto& c : cases) EXPECT_EQ(status_bits(c.reg, c.value), c.names) << std::hex << c.value;
}

TEST(Smbus, StatusPhrasesAndWordsInBusOrder) {
    EXPECT_EQ(smbus_status_text(1), "address not acknowledged (status 1)");
    EXPECT_EQ(smbus_status_text(3), "PEC error (status 3)");
    EXPECT_EQ(smbus_status_text(9), "unknown status (status 9)");

    const uint8_t bus[2] = {0x19, 0x00};  // an LM75 at 25.0 C: MSB first on the bus
    uint16_t stored = 0;
    std::memcpy(&stored, bus, 2);
    EXPECT_EQ(word_as_on_bus(stored), 0x0019);
}

TEST(Sdi12, MeasurementAnswers) {
    const struct {
        const char* command;
        const char* answer;
        int seconds;  // -1: not a measurement answer
        int values;
    } cases[] = {
        {"0M!", "00013", 1, 3},      {"0MC!", "00013", 1, 3},     {"1M9!", "10109", 10, 9},
        {"0C!", "000512", 5, 12},    {"0HA!", "0005123", 5, 123}, {"0V!", "00002", 0, 2},
        {"0D0!", "00013", -1, 0},    {"0M!", "0", -1, 0},         {"0M!", "10013", -1, 0},
        {"0MX!", "00013", -1, 0},    {"0V1!", "00002", -1, 0},    {"0M!", "0001a", -1, 0},
        {"0M!", "000123456", -1, 0},
    };
    for (const auto& c : cases) {
        auto m = measurement_answer(c.command, c.answer);
        ASSERT_EQ(m.has_value(), c.seconds >= 0) << c.command << " " << c.answer;
        if (!m) continue;
        EXPECT_EQ(m->seconds, c.seconds) << c.command;
        EXPECT_EQ(m->values, c.values) << c.command;
    }
    for (const char* data : {"0D0!", "0D999!", "0RC0!"}) EXPECT_TRUE(is_data_command(data)) << data;
    for (const char* other : {"0D!", "0D1000!", "0DA!", "0R0!", "0M!", "0"}) {
        EXPECT_FALSE(is_data_command(other)) << other;
    }
}

TEST(OneWire, DallasCrcOfPublishedCodes) {
    // A ROM code and two DS18B20 scratchpads, CRC last: the CRC over all of it is 0.
    const std::vector<std::vector<uint8_t>> codes = {
        {0x02, 0x1C, 0xB8, 0x01, 0x00, 0x00, 0x00, 0xA2},
        {0x50, 0x05, 0x4B, 0x46, 0x7F, 0xFF, 0x0C, 0x10, 0x1C},
        {0x72, 0x01, 0x4B, 0x46, 0x7F, 0xFF, 0x0E, 0x10, 0x57},
    };
    for (const auto& code : codes) {
        EXPECT_EQ(dallas_crc8(std::span(code).first(code.size() - 1)), code.back());
        EXPECT_EQ(dallas_crc8(code), 0);
    }
}

TEST(OneWire, Temperatures) {
    const struct {
        uint16_t raw;
        const char* text;
    } cases[] = {{0x0158, "21.5"},    {0x0550, "85.0"},    {0x0000, "0.0"},   {0x0001, "0.0625"},
                 {0xFFFF, "-0.0625"}, {0xFF5E, "-10.125"}, {0xFC90, "-55.0"}, {0x07D0, "125.0"}};
    for (const auto& c : cases) EXPECT_EQ(celsius_text(c.raw), c.text) << std::hex << c.raw;
}

TEST(EasyScale, DataByte) {
    EXPECT_EQ(easyscale_data_byte(true, 2, 31), 0xDF);
    EXPECT_EQ(easyscale_data_byte(false, 0, 0), 0x00);
    EXPECT_EQ(easyscale_data_byte(true, 3, 1), 0xE1);
}

}  // namespace
}  // namespace corvel::cli
