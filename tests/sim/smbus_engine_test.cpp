// The firmware model's SMBus and PMBus side, driven with raw frames: reply layouts, the packet
// error code, refusals, group commands, SMBALERT# and the Alert Response Address, the PMBus number
// formats and the control API. What the library sends is covered by tests/smbus/behaviour_test.cpp.
#include <random>
#include <string>

#include "CorvelMsg.h"
#include "corvel/sim_i2c.hpp"
#include "corvel/sim_smbus.hpp"
#include "sim_fixture.hpp"
#include "targets/pmbus_linear.hpp"
#include "targets/smbus_device.hpp"

namespace corvel::sim::test {
namespace {

constexpr uint8_t kOk = 0, kAddrNack = 1, kDataNack = 2, kPecError = 3, kNotReady = 4, kBlockSize = 5,
                  kMalformed = 6;
constexpr uint8_t kPsu0 = 0x80, kPsu1 = 0x82;  // the supplies at 0x40 and 0x41, 8-bit form
constexpr uint8_t kSensor = 0x90, kEeprom = 0xA0, kAra = 0x19;

class Smbus : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        for (uint8_t ch : {0, 1})
            ASSERT_EQ(ask(MSG_KD_SMBUS_HARDINIT, {ch, 0x00, 0x01, 0x86, 0xA0, 0x10}),
                      reply(MSG_KD_SMBUS_HARDINIT, kOk));
    }
    Bytes status_of(uint32_t code, uint8_t status) { return reply(code, status); }
};

TEST_F(Smbus, MalformedRequestsAndChannelsNotReady) {
    const struct {
        uint32_t code;
        std::vector<std::size_t> sizes;  // of a zero payload: all wrong
    } sizes[] = {{896, {5, 7}}, {897, {1, 3}}, {898, {3, 5}}, {899, {2, 4}}, {900, {4, 6}}, {901, {5, 7}},
                 {902, {3, 5}}, {903, {5}},    {904, {5, 7}}, {905, {4}},    {906, {3, 5}}, {907, {4}},
                 {908, {0, 2}}, {928, {7}},    {929, {4, 6}}, {930, {3}},    {931, {5}},    {932, {5}},
                 {933, {3}},    {934, {5, 7}}, {935, {4, 6}}, {936, {6, 8}}, {937, {4, 6}}, {938, {4}},
                 {939, {5}},    {940, {4}},    {941, {2}},    {942, {2}},    {943, {1, 3}}};
    for (const auto& c : sizes)
        for (std::size_t n : c.sizes)
            EXPECT_EQ(ask(c.code, Bytes(n, 0)), reply(c.code, kMalformed)) << c.code << "/" << n;

    const struct {
        uint32_t code;
        Bytes payload;
        uint8_t status;
    } cases[] = {
        {905, {1, kPsu0, 0x99, 3, 0, 'A', 'B'}, kMalformed},  // fewer bytes than the count
        {938, Bytes{1, kPsu0, 0x99, 33, 0} + Bytes(33, 'A'), kBlockSize},
        {941, {1, 1, 0, 2, kPsu0, 0x01, 0x00}, kMalformed},        // the entry lacks a byte
        {941, {1, 1, 0, 1, kPsu0, 0x01, 0x00, 0x00}, kMalformed},  // a byte after the last entry
        {941, {1, 1, 0, 0, kPsu0, 0x03}, kBlockSize},
        {941, Bytes{1, 1, 0, 33, kPsu0, 0x99} + Bytes(33, 'A'), kBlockSize},
        {896, {2, 0x00, 0x01, 0x86, 0xA0, 0x10}, kNotReady},
        {928, {0, 0x00, 0x00, 0x27, 0x0F, 0x10}, kMalformed},  // 9999 Hz
        {928, {0, 0x00, 0x06, 0x1A, 0x81, 0x10}, kMalformed},  // 400001 Hz
        {903, {2, kSensor, 0x00, 0}, kNotReady},
        {908, {2}, kNotReady},
        {943, {2, 0}, kNotReady},
    };
    for (const auto& c : cases) EXPECT_EQ(ask(c.code, c.payload), reply(c.code, c.status)) << c.code;
    EXPECT_TRUE(unknown_messages(0).empty());

    configure({adapter("CV0000000001")});  // power-up: no channel set up
    read_bus();
    EXPECT_FALSE(smbus_channel(0, 1).initialised);
    EXPECT_EQ(ask(933, {1, kPsu0, 0x8B, 0}), reply(933, kNotReady));
    EXPECT_EQ(ask(928, {1, 0x00, 0x00, 0x27, 0x10, 0x22}), reply(928, kOk));  // 10000 Hz
    const SmbusChannel ch = smbus_channel(0, 1);
    EXPECT_TRUE(ch.initialised);
    EXPECT_EQ(ch.clock_hz, 10000u);
    EXPECT_EQ(ch.own_addr, 0x22);
    EXPECT_EQ(ask(933, {1, kPsu0, 0x8B, 0}), reply(933, kOk, {0x00, 0x18}));
}

TEST_F(Smbus, EveryProtocolsReplyLayout) {
    const std::string corvel = "CORVEL", model = "SIM-PSU";
    const struct {
        uint32_t code;
        Bytes payload;
        uint8_t status;
        Bytes data;
    } cases[] = {
        {897, {1, kPsu0 | 1}, kOk, {}},                   // quick command, read
        {897, {1, 0x84}, kAddrNack, {}},                  // nobody at 0x42
        {903, {0, kSensor, 0x00, 0}, kOk, {0x19, 0x00}},  // the sensor's 25.0 C register, in bus order
        {933, {1, kPsu0, 0x8B, 0}, kOk, {0x00, 0x18}},    // READ_VOUT 12 V: 0x1800, low byte first
        {933, {1, kPsu1, 0x8B, 0}, kOk, {0x9A, 0x06}},    // 3.3 V
        {933, {1, kPsu0, 0x8C, 0}, kOk, {0x80, 0xC2}},    // READ_IOUT 2.5 A, LINEAR11
        {933, {1, kPsu0, 0x8D, 0}, kOk, {0x30, 0xE2}},    // READ_TEMPERATURE_1 35.0 C
        {930, {1, kPsu0, 0x20, 0}, kOk, {0x17}},          // VOUT_MODE
        {902, {1, kPsu0, 0x19, 0}, kOk, {0xB0}},          // CAPABILITY
        {906, {1, kPsu0, 0x99, 0}, kOk, Bytes(corvel.begin(), corvel.end())},
        {939, {1, kPsu1, 0x9A, 0}, kOk, Bytes(model.begin(), model.end())},
        {904, {0, kSensor, 0x02, 0x80, 0x00, 0}, kOk, {0x00, 0x80}},  // written 00 80, read back
        {940, {1, kPsu0, 0x1A, 1, 0, 0x8B}, kOk, {0xA0}},             // QUERY READ_VOUT: readable, linear
        {907, {1, kPsu0, 0x1A, 1, 0, 0x03}, kOk, {0xDC}},             // QUERY CLEAR_FAULTS: write only
        {936, {1, kPsu0, 0xFE, 0x10, 0xAB, 0xCD, 0}, kOk, {}},
        {937, {1, kPsu0, 0xFE, 0x10, 0}, kOk, {0xCD, 0xAB}},
        {935, {1, kPsu0, 0xFE, 0x11, 0}, kDataNack, {}},  // no such manufacturer command
        {932, {1, kPsu0, 0x21, 0x10, 0x00, 0}, kOk, {}},  // VOUT_COMMAND 8 V
        {933, {1, kPsu0, 0x8B, 0}, kOk, {0x00, 0x10}},
        {938, {1, kPsu0, 0x9B, 2, 0, '2', 'B'}, kOk, {}},  // MFR_REVISION
        {939, {1, kPsu0, 0x9B, 0}, kOk, {'2', 'B'}},
        {898, {0, kEeprom, 0x30, 0}, kOk, {}},         // send byte: the EEPROM's word address
        {899, {0, kEeprom, 0}, kOk, {0xFF}},           // receive byte from there
        {899, {1, kAra, 0}, kOk, {kPsu0}},             // alerting since it refused 0xFE 0x11
        {899, {1, kAra, 0}, kAddrNack, {}},            // nobody alerting now
        {906, {0, kEeprom, 0x30, 0}, kBlockSize, {}},  // an erased EEPROM's count is 0xFF
    };
    for (const auto& c : cases) EXPECT_EQ(ask(c.code, c.payload), reply(c.code, c.status, c.data)) << c.code;
}

TEST_F(Smbus, PacketErrorCode) {
    uint8_t crc = 0;
    for (char c : std::string("123456789")) crc = fw::smbus_pec(crc, static_cast<uint8_t>(c));
    EXPECT_EQ(crc, 0xF4);  // the CRC-8 check value

    // The EEPROM keeps what goes on the bus, PEC included: A0 10 42 -> D6; A0 20 03 01 02 03 -> C1.
    EXPECT_EQ(ask(900, {0, kEeprom, 0x10, 0x42, 1}), reply(900, kOk));
    EXPECT_EQ(ask(905, {0, kEeprom, 0x20, 3, 1, 0x01, 0x02, 0x03}), reply(905, kOk));
    const Bytes rom = i2c_eeprom(0, 0, 0x50);
    EXPECT_EQ(Bytes(rom.begin() + 0x10, rom.begin() + 0x12), (Bytes{0x42, 0xD6}));
    EXPECT_EQ(Bytes(rom.begin() + 0x20, rom.begin() + 0x25), (Bytes{0x03, 0x01, 0x02, 0x03, 0xC1}));

    EXPECT_EQ(ask(903, {0, kSensor, 0x00, 1}), reply(903, kPecError));  // the sensor sends none
    EXPECT_EQ(ask(933, {1, kPsu0, 0x8B, 1}), reply(933, kOk, {0x00, 0x18}));
    EXPECT_EQ(ask(931, {1, kPsu0, 0x03, 1}), reply(931, kOk));
    EXPECT_EQ(ask(941, {1, 2, 1, 1, kPsu0, 0x01, 0x80, 1, kPsu1, 0x01, 0x80}), reply(941, kOk));

    smbus_corrupt_next_pec(0, 1);
    EXPECT_EQ(ask(933, {1, kPsu0, 0x8B, 0}), reply(933, kOk, {0x00, 0x18}));  // no PEC: not this one
    EXPECT_EQ(ask(933, {1, kPsu0, 0x8B, 1}), reply(933, kPecError));
    EXPECT_EQ(ask(933, {1, kPsu0, 0x8B, 1}), reply(933, kOk, {0x00, 0x18}));
    EXPECT_EQ(pmbus_supply(0, 1, 0x40).status_cml, 0);  // the supply saw nothing wrong

    smbus_corrupt_next_pec(0, 1);
    EXPECT_EQ(ask(932, {1, kPsu0, 0x21, 0x10, 0x00, 1}), reply(932, kPecError));
    const PmbusSupplyState s = pmbus_supply(0, 1, 0x40);
    EXPECT_EQ(s.status_cml, 0x20);
    EXPECT_EQ(s.pages[0].vout_command, 12.0);  // refused: not applied
    EXPECT_TRUE(s.alert);
}

TEST_F(Smbus, RefusedCommandsAreRecordedInStatusCml) {
    const struct {
        uint32_t code;
        Bytes payload;
        uint8_t cml;
    } cases[] = {
        {933, {1, kPsu0, 0x55, 0}, 0x80},        // unsupported command
        {932, {1, kPsu0, 0x8B, 0, 0, 0}, 0x80},  // READ_VOUT is read-only
        {929, {1, kPsu0, 0x00, 2, 0}, 0x40},     // PAGE 2
        {929, {1, kPsu0, 0x01, 0x81, 0}, 0x40},  // no such OPERATION
        {938, {1, kPsu0, 0x99, 0, 0}, 0x40},     // empty block
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ask(c.code, c.payload), reply(c.code, kDataNack)) << int(c.payload[2]);
        EXPECT_EQ(ask(930, {1, kPsu0, 0x7E, 0}), reply(930, kOk, {c.cml})) << int(c.payload[2]);
        EXPECT_EQ(ask(933, {1, kPsu0, 0x79, 0}), reply(933, kOk, {0x02, 0x00}));  // STATUS_WORD: CML
        EXPECT_EQ(ask(931, {1, kPsu0, 0x03, 0}), reply(931, kOk));                // CLEAR_FAULTS
        EXPECT_EQ(ask(930, {1, kPsu0, 0x7E, 0}), reply(930, kOk, {0x00}));
    }
    EXPECT_EQ(ask(933, {1, 0x84, 0x8B, 0}), reply(933, kAddrNack));
}

TEST_F(Smbus, GroupCommandReachesBothSuppliesInOneTransaction) {
    // OPERATION off for page 0 of both, each entry with its own PEC.
    EXPECT_EQ(ask(941, {1, 2, 1, 1, kPsu0, 0x01, 0x00, 1, kPsu1, 0x01, 0x00}), reply(941, kOk));
    EXPECT_FALSE(pmbus_supply(0, 1, 0x40).pages[0].output_on);
    EXPECT_FALSE(pmbus_supply(0, 1, 0x41).pages[0].output_on);
    EXPECT_TRUE(pmbus_supply(0, 1, 0x41).pages[1].output_on);
    // A NACK ends the transaction; the STOP still comes, and the complete entry before it acts.
    EXPECT_EQ(ask(941, {1, 2, 0, 1, kPsu0, 0x01, 0x80, 1, 0x84, 0x01, 0x80}), reply(941, kAddrNack));
    EXPECT_TRUE(pmbus_supply(0, 1, 0x40).pages[0].output_on);
    EXPECT_EQ(ask(941, {1, 0, 0}), reply(941, kOk));  // no entries: nothing on the bus
}

TEST_F(Smbus, AlertsAnswerTheAlertResponseAddressLowestFirst) {
    EXPECT_EQ(ask(942, {1}), reply(942, 0));
    set_pmbus_load(0, 1, 0x41, 0, 9.0);          // above its 8 A limit: over-current
    set_pmbus_temperature(0, 1, 0x40, 1, 90.0);  // above 85 C: over-temperature
    EXPECT_EQ(pmbus_supply(0, 1, 0x41).pages[0].status_iout, 0x80);
    EXPECT_FALSE(pmbus_supply(0, 1, 0x41).pages[0].output_on);
    EXPECT_EQ(pmbus_supply(0, 1, 0x40).pages[1].status_temperature, 0x80);
    EXPECT_EQ(ask(908, {1}), reply(908, 1));
    EXPECT_EQ(ask(899, {1, kAra, 1}), reply(899, kOk, {kPsu0}));  // with its PEC
    EXPECT_EQ(ask(908, {1}), reply(908, 1));
    EXPECT_EQ(ask(899, {1, kAra, 0}), reply(899, kOk, {kPsu1}));
    EXPECT_EQ(ask(908, {1}), reply(908, 0));
    EXPECT_EQ(ask(899, {1, kAra, 0}), reply(899, kAddrNack));
    EXPECT_EQ(pmbus_supply(0, 1, 0x41).pages[0].status_iout, 0x80);  // the ARA clears no status

    smbus_set_alert(0, 0, true);
    EXPECT_TRUE(smbus_channel(0, 0).alert);
    EXPECT_EQ(ask(908, {0}), reply(908, 1));
    EXPECT_EQ(ask(899, {0, kAra, 0}), reply(899, kAddrNack));  // nobody on the bus to answer
    smbus_set_alert(0, 0, false);
    EXPECT_EQ(ask(908, {0}), reply(908, 0));
}

TEST_F(Smbus, ControlLineAndOperation) {
    EXPECT_EQ(ask(943, {1, 0}), reply(943, kOk));
    EXPECT_FALSE(smbus_channel(0, 1).control_high);
    for (uint8_t addr : {0x40, 0x41})
        for (const PmbusPage& p : pmbus_supply(0, 1, addr).pages) EXPECT_FALSE(p.output_on);
    EXPECT_EQ(ask(933, {1, kPsu0, 0x79, 0}), reply(933, kOk, {0x40, 0x08}));  // OFF, POWER_GOOD#
    EXPECT_EQ(ask(943, {1, 7}), reply(943, kOk));
    EXPECT_TRUE(pmbus_supply(0, 1, 0x41).pages[1].output_on);
    // ON_OFF_CONFIG 0x18: OPERATION alone decides.
    EXPECT_EQ(ask(929, {1, kPsu0, 0x02, 0x18, 0}), reply(929, kOk));
    EXPECT_EQ(ask(943, {1, 0}), reply(943, kOk));
    EXPECT_TRUE(pmbus_supply(0, 1, 0x40).pages[0].output_on);
    EXPECT_EQ(ask(929, {1, kPsu0, 0x01, 0x40, 0}), reply(929, kOk));  // soft off
    EXPECT_EQ(ask(933, {1, kPsu0, 0x8B, 0}), reply(933, kOk, {0x00, 0x00}));
}

TEST_F(Smbus, AnyPayloadIsAnsweredOnce) {
    std::minstd_rand random(11);
    for (uint32_t code = 896; code <= 943; ++code) {
        if (code > 908 && code < 928) continue;
        for (std::size_t size : {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 40, 300}) {
            Bytes payload(size);
            for (uint8_t& b : payload) b = uint8_t(random());
            if (size > 0) payload[0] &= 1;  // mostly a real channel
            ASSERT_EQ(write(h, frame(code, payload)), static_cast<int>(size + 7));
            int answers = 0;
            while (read(h, 70000).result > 0) ++answers;
            EXPECT_EQ(answers, 1) << code << "/" << size;
        }
    }
    EXPECT_TRUE(unknown_messages(0).empty());
}

TEST_F(Smbus, ControlApiAttachesSuppliesAndIsHarmlessElsewhere) {
    for (int a : {-1, 1}) {
        EXPECT_FALSE(smbus_channel(a, 0).initialised);
        EXPECT_FALSE(pmbus_supply(a, 1, 0x40).present);
        EXPECT_FALSE(pmbus_attach_supply(a, 1, 0x42));
        smbus_set_alert(a, 0, true);
        smbus_corrupt_next_pec(a, 0);
        set_pmbus_load(a, 1, 0x40, 0, 1.0);
    }
    EXPECT_FALSE(pmbus_attach_supply(0, 2, 0x42));
    EXPECT_FALSE(pmbus_attach_supply(0, 0, 0x0C));
    EXPECT_FALSE(pmbus_attach_supply(0, 0, 0x78));
    set_pmbus_load(0, 1, 0x40, 2, 100.0);  // no page 2
    EXPECT_EQ(pmbus_supply(0, 1, 0x40).status_cml + pmbus_supply(0, 1, 0x40).pages[0].status_iout, 0);

    ASSERT_TRUE(pmbus_attach_supply(0, 0, 0x23));  // odd: starts as the one at 0x41
    EXPECT_EQ(ask(933, {0, 0x46, 0x8B, 0}), reply(933, kOk, {0x9A, 0x06}));
    pmbus_detach_supply(0, 0, 0x23);
    pmbus_detach_supply(0, 0, 0x50);  // an EEPROM, no supply: stays
    EXPECT_EQ(ask(933, {0, 0x46, 0x8B, 0}), reply(933, kAddrNack));
    EXPECT_EQ(i2c_eeprom(0, 0, 0x50).size(), 256u);

    configure({parse_config("psu=none").at(0)});
    EXPECT_FALSE(pmbus_supply(0, 1, 0x40).present);
    configure({parse_config("psu=0x10/0x11").at(0)});
    EXPECT_EQ(pmbus_supply(0, 1, 0x10).pages[0].vout, 12.0);
    EXPECT_EQ(pmbus_supply(0, 1, 0x11).pages[1].vout_command, 1.80078125);
}

TEST(PmbusLinear, EncodeAndDecode) {
    using namespace fw::pmbus;
    const struct {
        double value;
        uint16_t word;
        double decoded;
    } linear11[] = {{0.0, 0x0000, 0.0},      {2.5, 0xC280, 2.5},     {35.0, 0xE230, 35.0},
                    {4.0, 0xCA00, 4.0},      {-1.0, 0xB400, -1.0},   {0.3, 0xAA66, 0.2998046875},
                    {100000, 0x3B0D, 99968}, {1e9, 0x7BFF, 33521664}};
    for (const auto& c : linear11) {
        EXPECT_EQ(linear11_encode(c.value), c.word) << c.value;
        EXPECT_EQ(linear11_decode(c.word), c.decoded) << c.value;
    }
    const struct {
        double value;
        uint8_t mode;
        uint16_t word;
        double decoded;
    } linear16[] = {{12.0, 0x17, 0x1800, 12.0}, {3.3, 0x17, 0x069A, 3.30078125},
                    {-1.0, 0x17, 0x0000, 0.0},  {200.0, 0x17, 0xFFFF, 127.998046875},
                    {5.0, 0x14, 0x5000, 5.0},   {3.0, 0x01, 0x0002, 4.0}};
    for (const auto& c : linear16) {
        EXPECT_EQ(linear16_encode(c.value, c.mode), c.word) << c.value;
        EXPECT_EQ(linear16_decode(c.word, c.mode), c.decoded) << c.value;
    }
}

}  // namespace
}  // namespace corvel::sim::test
