// The firmware model's SDI-12, 1-Wire and EasyScale side driven with raw frames: the sensors'
// answers with their CRCs, the parity rule, readiness and conversion on the virtual clock, reset
// and presence, the slot timings, and the LED driver's acknowledge rule. What the library sends is
// covered by tests/single_wire/behaviour_test.cpp.
#include <unistd.h>

#include <bit>
#include <string>

#include "corvel/sim_wire.hpp"
#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

// ---- SDI-12

const Bytes kNoAnswer = {0, 0, 0x0F, 0x03, 7, 0, 0};

class Sdi12 : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(ask(3840, {0}), Bytes{6});
        ASSERT_EQ(ask(3840, {1}), Bytes{6});
    }
    // The command with even parity in bit 7, as the library sends it.
    Bytes send(uint8_t port, const std::string& command) {
        Bytes payload{port};
        for (char c : command) payload.push_back(uint8_t(c | (std::popcount(uint8_t(c)) % 2 ? 0x80 : 0)));
        return ask(3842, payload);
    }
    // The reply a status-6 answer carries.
    static Bytes line(const std::string& text) {
        const std::string t = text + "\r\n";
        return Bytes{0, 0, 0x0F, 0x03, 6, 0, uint8_t(t.size())} + Bytes(t.begin(), t.end());
    }
};

TEST_F(Sdi12, PortsAreInitialisedOneByOne) {
    configure({adapter("CV0000000001")});
    read_bus();
    EXPECT_EQ(send(0, "0!"), kNoAnswer);
    EXPECT_EQ(ask(3840, {2}), Bytes{7});
    EXPECT_EQ(ask(3840, {0, 0}), Bytes{7});
    EXPECT_EQ(ask(3842, {}), kNoAnswer);
    EXPECT_EQ(ask(3840, {1}), Bytes{6});
    EXPECT_EQ(send(0, "0!"), kNoAnswer);
    EXPECT_EQ(send(1, "1!"), line("1"));
    EXPECT_EQ(send(2, "1!"), kNoAnswer);
    EXPECT_TRUE(sdi12_port(0, 1).initialised);
    EXPECT_FALSE(sdi12_port(0, 0).initialised);
}

TEST_F(Sdi12, SensorsAnswerTheCommonCommands) {
    const struct {
        uint8_t port;
        std::string command;
        Bytes answer;
    } cases[] = {
        {0, "0!", line("0")},
        {0, "?!", line("0")},
        {1, "?!", line("1")},
        {0, "0I!", line("014CORVEL  SDI12S100SN0001")},
        {1, "1I!", line("114CORVEL  SDI12S100SN0001")},
        {0, "0D0!", line("0")},  // no measurement yet
        {0, "0R0!", line("0+21.5+1013.2")},
        {0, "0RC0!", line("0+21.5+1013.2Ctk")},
        {1, "1RC0!", line("1+21.5+1013.2Kpi")},
        {0, "0R1!", line("0")},
        {0, "0M1!", line("00000")},
        {0, "1!", kNoAnswer},  // the sensor on port 0 is "0"
        {0, "0X!", kNoAnswer},
        {0, "0I", kNoAnswer},
        {0, "0A5!", line("5")},
        {0, "0!", kNoAnswer},
        {0, "5I!", line("514CORVEL  SDI12S100SN0001")},
    };
    for (const auto& c : cases) EXPECT_EQ(send(c.port, c.command), c.answer) << c.command;
    EXPECT_EQ(sdi12_port(0, 0).address, '5');
    EXPECT_EQ(sdi12_port(0, 0).last_command, "5I!");
    EXPECT_EQ(sdi12_port(0, 0).commands, 13u);  // port 0's, all but the one without "!"
}

TEST_F(Sdi12, WrongParityGetsNoAnswer) {
    EXPECT_EQ(ask(3842, {0, 0x30, 0x4D, 0x21}), line("00013"));  // 0M! with its parity
    EXPECT_EQ(ask(3842, {1, 0xB1, 0x21}), line("1"));            // 1! : '1' has three bits set
    EXPECT_EQ(ask(3842, {1, 0x31, 0x21}), kNoAnswer);
    EXPECT_EQ(ask(3842, {0, 0xB0, 0x21}), kNoAnswer);
    EXPECT_EQ(ask(3842, {0, 0x30, 0xA1}), kNoAnswer);
    EXPECT_EQ(sdi12_port(0, 0).commands, 1u);
}

TEST_F(Sdi12, ValuesAreReadyOneSecondAfterTheMeasurement) {
    EXPECT_EQ(send(0, "0MC!"), line("00013"));
    EXPECT_EQ(send(0, "0D0!"), line("0"));
    usleep(999999);
    EXPECT_EQ(send(0, "0D0!"), line("0"));
    usleep(1);
    EXPECT_EQ(send(0, "0D0!"), line("0+3.14+2.718+1.414Ipz"));
    EXPECT_EQ(send(0, "0D1!"), line("0AP@"));

    ASSERT_TRUE(set_sdi12_values(0, 0, {1, 2}));
    EXPECT_FALSE(set_sdi12_values(0, 0, std::vector<double>(10, 1.0)));
    EXPECT_EQ(send(0, "0C!"), line("000102"));
    usleep(1000000);
    EXPECT_EQ(send(0, "0D0!"), line("0+1+2"));

    ASSERT_TRUE(set_sdi12_values(0, 0, {-12.5, 1234567.8, 0.000125, 0, -0.00000001, 99999999, 7}));
    EXPECT_EQ(send(0, "0M!"), line("00017"));
    usleep(1000000);
    EXPECT_EQ(send(0, "0D0!"), line("0-12.5+1234568+0.000125+0+0+9999999"));  // 35 value characters at most
    EXPECT_EQ(send(0, "0D1!"), line("0+7"));
    ASSERT_TRUE(set_sdi12_values(0, 0, {}));
    EXPECT_EQ(send(0, "0M!"), line("00000"));
}

// ---- 1-Wire

const Bytes kWritten = {72};
const Bytes kRomCode = {0x28, 0x43, 0x4F, 0x52, 0x56, 0x45, 0x4C, 0x40};

class OneWire : public SimTest {
  protected:
    // Port, pin and the standard slot timings: A 6, B 64, C 60, D 10, E 9, F 55, G 0, H 480 (low
    // byte 0xE0), I 70, J 410 (0x9A).
    Bytes init(uint8_t pin = 0, uint8_t ta = 6, uint8_t tc = 60, uint8_t te = 9) {
        return ask(4864, {0, pin, ta, 64, tc, 10, te, 55, 0, 0xE0, 70, 0x9A, 0, 0, 0, 0, 0});
    }
    uint8_t read_pin() {
        const Bytes r = ask(4866, {0x63});
        return r.size() == 8 && r[4] == 74 ? r[7] : 0xEE;
    }
    // The line low for `low_us`, released, and then read: 0 when a sensor answered with presence.
    uint8_t reset(uint64_t low_us = 480) {
        EXPECT_EQ(ask(4865, {0}), kWritten);
        usleep(static_cast<useconds_t>(low_us));
        EXPECT_EQ(ask(4865, {1}), kWritten);
        return read_pin();
    }
    void write(const Bytes& bytes) {
        for (uint8_t b : bytes) EXPECT_EQ(ask(4869, {b}), kWritten);
    }
    Bytes read(int n) {
        Bytes out;
        for (int i = 0; i < n; ++i) {
            const Bytes r = ask(4870, {0x63});
            out.push_back(r.size() == 8 && r[4] == 74 ? r[7] : 0xEE);
        }
        return out;
    }
};

TEST_F(OneWire, NeedsItsInitAndAnswersAtExactLengths) {
    EXPECT_EQ(ask(4865, {0}), Bytes{73});
    EXPECT_EQ(ask(4868, {1}), Bytes{73});
    EXPECT_EQ(ask(4869, {0xCC}), Bytes{73});
    EXPECT_EQ(ask(4866, {0x63}), (Bytes{0, 0, 0x13, 0x03, 76, 0, 1, 0}));
    EXPECT_EQ(ask(4870, {0x63}), (Bytes{0, 0, 0x13, 0x07, 76, 0, 1, 0}));
    EXPECT_EQ(ask(4872, {0x63}), (Bytes{0, 0, 0x13, 0x08, 78, 0, 1, 0}));
    EXPECT_EQ(ask(4873, {0x63}), (Bytes{0, 0, 0x13, 0x09, 80, 0, 1, 0}));
    EXPECT_EQ(ask(4864, Bytes(16, 0)), Bytes{71});
    EXPECT_EQ(init(), Bytes{70});
    EXPECT_EQ(ask(4865, {0, 0}), Bytes{73});
    EXPECT_EQ(ask(4872, {0x63}), (Bytes{0, 0, 0x13, 0x08, 77, 0, 1, 0}));
    EXPECT_EQ(ask(4873, {0x63}), (Bytes{0, 0, 0x13, 0x09, 79, 0, 1, 0}));
    EXPECT_FALSE(onewire_line(0).transmitting);
    EXPECT_EQ(ask(4868, {1}), kWritten);
    EXPECT_EQ(onewire_line(0).timings[9], 0x9A);
}

TEST_F(OneWire, PresenceAnswersALongEnoughResetOnTheSensorsPin) {
    ASSERT_EQ(init(), Bytes{70});
    EXPECT_EQ(read_pin(), 1);
    EXPECT_EQ(reset(479), 1);
    EXPECT_EQ(reset(480), 0);
    EXPECT_EQ(read_pin(), 1);  // the pulse is read once
    EXPECT_EQ(ask(4865, {0}), kWritten);
    EXPECT_EQ(read_pin(), 0);
    EXPECT_FALSE(onewire_line(0).level);
    ASSERT_EQ(init(1), Bytes{70});
    EXPECT_EQ(reset(), 1);  // an empty bus
    write({0x33});
    EXPECT_EQ(read(1), Bytes{0xFF});
}

TEST_F(OneWire, ConversionTakesItsTimeAndFillsTheScratchpad) {
    ASSERT_EQ(init(), Bytes{70});
    ASSERT_EQ(reset(), 0);
    write({0xCC, 0xBE});
    EXPECT_EQ(read(9), (Bytes{0x50, 0x05, 0x4B, 0x46, 0x7F, 0xFF, 0x0C, 0x10, 0x1C}));  // 85.0 at power-up

    ASSERT_EQ(reset(), 0);
    write({0xCC, 0x44});
    EXPECT_EQ(read(1), Bytes{0x00});
    usleep(749999);
    EXPECT_EQ(read(1), Bytes{0x00});
    usleep(1);
    EXPECT_EQ(read(1), Bytes{0xFF});
    ASSERT_EQ(reset(), 0);
    write({0x55});
    write(kRomCode);
    write({0xBE});
    EXPECT_EQ(read(9), (Bytes{0x58, 0x01, 0x4B, 0x46, 0x7F, 0xFF, 0x0C, 0x10, 0xC2}));  // 21.5

    // 9 bits: 93.75 ms, and the three lowest bits read 0 (21.5 has none; -10.0625 reads -10.5).
    ASSERT_EQ(reset(), 0);
    write({0xCC, 0x4E, 0x1E, 0x05, 0x00});
    ASSERT_EQ(reset(), 0);
    write({0xCC, 0x44});
    usleep(93749);
    EXPECT_EQ(read(1), Bytes{0x00});
    usleep(1);
    EXPECT_EQ(read(1), Bytes{0xFF});
    EXPECT_EQ(onewire_scratchpad(0),
              (std::array<uint8_t, 9>{0x58, 0x01, 0x1E, 0x05, 0x1F, 0xFF, 0x0C, 0x10, 0x30}));
    set_onewire_temperature(0, -10.0625);  // -10.5 at 9 bits
    ASSERT_EQ(reset(), 0);
    write({0xCC, 0x44});
    usleep(93750);
    EXPECT_EQ(onewire_scratchpad(0),
              (std::array<uint8_t, 9>{0x58, 0xFF, 0x1E, 0x05, 0x1F, 0xFF, 0x0C, 0x10, 0x0B}));
}

TEST_F(OneWire, SlotTimingsDecideWhatGetsThrough) {
    const struct {
        uint8_t ta, tc, te;
        Bytes rom;
    } cases[] = {
        {6, 60, 9, kRomCode},        {15, 15, 0, kRomCode},
        {16, 60, 0, Bytes(8, 0xFF)},  // its 1s reach the sensor as 0s: 0x33 becomes 0x00
        {6, 14, 9, Bytes(8, 0xFF)},   // its 0s reach the sensor as 1s: 0x33 becomes 0xFF
        {6, 60, 10, Bytes(8, 0xFF)},  // samples after the sensor let go
    };
    for (const auto& c : cases) {
        ASSERT_EQ(init(0, c.ta, c.tc, c.te), Bytes{70});
        ASSERT_EQ(reset(), 0);
        write({0x33});
        EXPECT_EQ(read(8), c.rom) << int(c.ta) << " " << int(c.tc) << " " << int(c.te);
    }
}

// ---- EasyScale

class EasyScale : public SimTest {
  protected:
    // Channel, init pin 1, delays, then the bit times: a 1 is high `hh`, low `hl`; a 0 high `lh`,
    // low `ll`.
    Bytes init(uint8_t channel, uint8_t hh = 20, uint8_t hl = 8, uint8_t lh = 8, uint8_t ll = 20) {
        return ask(3328, {0, channel, 0, 1,  0, 100, 0, 200, 0, 250, 0, hh, 0,    hl,
                          0, lh,      0, ll, 0, 2,   0, 3,   0, 4,   0, 5,  0x0A, 0x0B});
    }
    Bytes command(uint8_t channel, uint8_t address, uint8_t data) {
        return ask(3330, {0, channel, address, data, 0x42});
    }
};

TEST_F(EasyScale, TheDriverTakesItsCommandsAndAcknowledgesWhenAsked) {
    EXPECT_EQ(init(2), Bytes{59});
    EXPECT_EQ(ask(3328, Bytes(27, 0)), Bytes{59});
    EXPECT_EQ(command(0, 0x72, 0x05), Bytes{61});  // not initialised
    ASSERT_EQ(init(0), Bytes{58});
    EXPECT_EQ(easyscale_channel(0, 0).timings.shutdown, 0x0A0B);
    ASSERT_EQ(init(1), Bytes{58});
    const struct {
        uint8_t channel, address, data;
        uint8_t status;
    } cases[] = {
        {0, 0x72, 0xDF, 60},  // RFA, register 2, 0x1F
        {0, 0x72, 0x05, 60},  // register 0, 5
        {0, 0x72, 0xB1, 60},  // RFA, register 1, 0x11
        {0, 0x70, 0x9F, 61},  // nobody there
        {0, 0x70, 0x1F, 60},  // nobody asked to acknowledge
        {1, 0x72, 0x81, 61},  // nothing on channel 1
        {0, 0x72, 0x7A, 60},  // register 3, 0x1A
    };
    for (const auto& c : cases)
        EXPECT_EQ(command(c.channel, c.address, c.data), Bytes{c.status}) << int(c.data);
    EXPECT_EQ(ask(3330, {0, 0, 0x72, 0x85}), Bytes{61});
    EXPECT_EQ(easyscale_driver(0).registers, (std::array<uint8_t, 4>{0x05, 0x11, 0x1F, 0x1A}));
    EXPECT_EQ(easyscale_driver(0).commands, 4u);
    EXPECT_EQ(easyscale_channel(0, 0).last_mode, 0x42);
}

TEST_F(EasyScale, BitsItCannotTellApartAreNotAcknowledged) {
    const struct {
        uint8_t hh, hl, lh, ll;
        uint8_t status;
    } cases[] = {{20, 10, 10, 20, 60}, {19, 10, 10, 20, 61}, {20, 10, 10, 19, 61}, {10, 10, 10, 10, 61}};
    for (const auto& c : cases) {
        ASSERT_EQ(init(0, c.hh, c.hl, c.lh, c.ll), Bytes{58});
        EXPECT_EQ(command(0, 0x72, 0x83), Bytes{c.status}) << int(c.hh) << " " << int(c.ll);
        EXPECT_EQ(command(0, 0x72, 0x04), Bytes{60});
    }
    EXPECT_EQ(easyscale_driver(0).registers[0], 0x04);
    EXPECT_EQ(easyscale_driver(0).commands, 2u);
}

}  // namespace
}  // namespace corvel::sim::test
