// The SMBus and PMBus families through the shipped library against the virtual adapter's PMBus
// supplies (channel 1, 0x40 and 0x41) and the channel-0 temperature sensor: readings decoded from
// their number formats, PEC, faults in the status registers, group commands, SMBALERT# and the
// Alert Response Address, the CONTROL line, blocks and extended commands.
#include <cmath>
#include <cstring>
#include <string>

#include "ControlPMBus.h"
#include "ControlSMBus.h"
#include "adapter_fixture.hpp"
#include "corvel/sim_i2c.hpp"
#include "corvel/sim_smbus.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

constexpr int32_t kType = KD_DEVTYPE_I2C;
constexpr uint8_t kPsu0 = 0x80, kPsu1 = 0x82;  // 7-bit 0x40 and 0x41
constexpr uint8_t kPage = 0x00, kOperation = 0x01, kClearFaults = 0x03, kVoutMode = 0x20, kVoutCommand = 0x21,
                  kStatusWord = 0x79, kStatusCml = 0x7E, kReadVout = 0x8B, kReadIout = 0x8C, kMfrId = 0x99,
                  kMfrModel = 0x9A;
constexpr uint16_t kOff = 0x0040, kCml = 0x0002;

// The PMBus number formats, decoded here on their own.
double linear11(uint16_t w) {
    const int exponent = ((w >> 11) & 0x10) != 0 ? ((w >> 11) & 0x1F) - 32 : (w >> 11) & 0x1F;
    const int mantissa = (w & 0x400) != 0 ? (w & 0x7FF) - 0x800 : w & 0x7FF;
    return std::ldexp(mantissa, exponent);
}
double linear16(uint16_t w, uint8_t vout_mode) {
    const int exponent = (vout_mode & 0x10) != 0 ? (vout_mode & 0x1F) - 32 : vout_mode & 0x1F;
    return std::ldexp(w, exponent);
}

class SmbusBehaviour : public VirtualAdapters {
  protected:
    void SetUp() override {
        reset({adapter("SMB0001")});
        ASSERT_EQ(SMBus_OpenDevice(kType, 0, 0), 0);
        ASSERT_EQ(SMBus_HardInit(kType, 0, 0, 100000, 0x10), 0);
        ASSERT_EQ(PMBus_HardInit(kType, 0, 1, 400000, 0x10), 0);
        settle();
    }
    // A word read on channel 1; the status goes to `status`.
    static uint16_t word(uint8_t addr, uint8_t command, uint8_t pec = 0, int32_t* status = nullptr) {
        uint16_t w = 0xEEEE;
        const int32_t r = PMBus_ReadWord(kType, 0, 1, addr, command, &w, pec);
        if (status != nullptr) *status = r;
        EXPECT_TRUE(status != nullptr || r == 0) << "command " << int(command) << ": " << r;
        return w;
    }
    static uint8_t byte(uint8_t addr, uint8_t command) {
        uint8_t b = 0xEE;
        EXPECT_EQ(PMBus_ReadByte(kType, 0, 1, addr, command, &b, 0), 0) << "command " << int(command);
        return b;
    }
    static double vout(uint8_t addr) { return linear16(word(addr, kReadVout), byte(addr, kVoutMode)); }
};

TEST_F(SmbusBehaviour, ReadsVoltageAndCurrentOfEveryPage) {
    const struct {
        uint8_t addr;
        uint8_t page;
        double volts;
        double amps;
    } outputs[] = {{kPsu0, 0, 12.0, 2.5},
                   {kPsu0, 1, 5.0, 1.25},
                   {kPsu1, 0, 3.30078125, 4.0},
                   {kPsu1, 1, 1.80078125, 0.5}};
    for (const auto& o : outputs) {
        ASSERT_EQ(PMBus_WriteByte(kType, 0, 1, o.addr, kPage, o.page, 0), 0);
        EXPECT_EQ(byte(o.addr, kVoutMode), 0x17);
        EXPECT_EQ(vout(o.addr), o.volts) << int(o.addr) << "/" << int(o.page);
        EXPECT_EQ(linear11(word(o.addr, kReadIout)), o.amps) << int(o.addr) << "/" << int(o.page);
    }
    EXPECT_EQ(sim::pmbus_supply(0, 1, 0x41).page, 1);
    sim::set_pmbus_load(0, 1, 0x41, 1, 0.75);
    EXPECT_EQ(linear11(word(kPsu1, kReadIout)), 0.75);
}

TEST_F(SmbusBehaviour, PecOnWritesAndReads) {
    ASSERT_EQ(PMBus_WriteWord(kType, 0, 1, kPsu0, kVoutCommand, 0x0A00, 1), 0);  // 5 V
    int32_t status = -1;
    EXPECT_EQ(word(kPsu0, kReadVout, 1, &status), 0x0A00);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(sim::pmbus_supply(0, 1, 0x40).pages[0].vout, 5.0);
    uint8_t b = 0;
    EXPECT_EQ(SMBus_ReadByteProtocol(kType, 0, 1, kPsu1, kVoutMode, &b, 1), 0);
    EXPECT_EQ(b, 0x17);
}

TEST_F(SmbusBehaviour, PecErrorShowsInStatusCmlUntilClearFaults) {
    sim::smbus_corrupt_next_pec(0, 1);
    EXPECT_EQ(PMBus_WriteWord(kType, 0, 1, kPsu0, kVoutCommand, 0x0A00, 1), 3);
    EXPECT_EQ(vout(kPsu0), 12.0);  // refused, not applied
    EXPECT_EQ(byte(kPsu0, kStatusCml), 0x20);
    EXPECT_EQ(word(kPsu0, kStatusWord), kCml);
    sim::smbus_corrupt_next_pec(0, 1);
    int32_t status = -1;
    EXPECT_EQ(word(kPsu0, kReadVout, 1, &status), 0xEEEE);  // a failed read stores nothing
    EXPECT_EQ(status, 3);
    EXPECT_EQ(PMBus_SendByte(kType, 0, 1, kPsu0, kClearFaults, 1), 0);
    EXPECT_EQ(byte(kPsu0, kStatusCml), 0x00);
    EXPECT_EQ(word(kPsu0, kStatusWord), 0x0000);
}

TEST_F(SmbusBehaviour, UnsupportedCommandIsRefused) {
    int32_t status = -1;
    EXPECT_EQ(word(kPsu0, 0x55, 0, &status), 0xEEEE);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(byte(kPsu0, kStatusCml), 0x80);
    EXPECT_EQ(PMBus_WriteByte(kType, 0, 1, 0x84, kOperation, 0x00, 0), 1);  // nobody at 0x42
}

TEST_F(SmbusBehaviour, GroupCommandSwitchesBothSuppliesOff) {
    uint8_t list[] = {1, kPsu0, kOperation, 0x00, 1, kPsu1, kOperation, 0x00};
    ASSERT_EQ(PMBus_GroupCmd(kType, 0, 1, list, 2, 1), 0);
    for (uint8_t addr : {kPsu0, kPsu1}) {
        EXPECT_EQ(word(addr, kReadVout), 0) << int(addr);
        EXPECT_EQ(word(addr, kStatusWord) & kOff, kOff) << int(addr);
    }
    EXPECT_TRUE(sim::pmbus_supply(0, 1, 0x41).pages[1].output_on);  // page 1 was not addressed
}

TEST_F(SmbusBehaviour, OverVoltageRaisesAnAlertThatTheAlertResponseAddressAnswers) {
    uint8_t flag = 0xEE;
    ASSERT_EQ(PMBus_GetAlert(kType, 0, 1, &flag), 0);
    EXPECT_EQ(flag, 0);
    ASSERT_EQ(PMBus_WriteWord(kType, 0, 1, kPsu1, kVoutCommand, 0x0800, 0), 0);  // 4 V, limit 3.8 V
    EXPECT_EQ(word(kPsu1, kStatusWord), 0x8860);  // VOUT, POWER_GOOD#, OFF, VOUT_OV
    EXPECT_EQ(vout(kPsu1), 0.0);
    ASSERT_EQ(SMBus_GetAlert(kType, 0, 1, &flag), 0);
    EXPECT_EQ(flag, 1);
    uint8_t who = 0;
    EXPECT_EQ(SMBus_ReadByte(kType, 0, 1, 0x19, &who, 1), 0);
    EXPECT_EQ(who, kPsu1);
    ASSERT_EQ(SMBus_GetAlert(kType, 0, 1, &flag), 0);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(SMBus_ReadByte(kType, 0, 1, 0x19, &who, 0), 1);  // nobody alerting any more

    sim::smbus_set_alert(0, 1, true);
    ASSERT_EQ(PMBus_GetAlert(kType, 0, 1, &flag), 0);
    EXPECT_EQ(flag, 1);
}

TEST_F(SmbusBehaviour, ControlLowSwitchesTheOutputsOff) {
    ASSERT_EQ(PMBus_SetControl(kType, 0, 1, 0), 0);
    EXPECT_EQ(vout(kPsu0), 0.0);
    EXPECT_EQ(linear11(word(kPsu0, kReadIout)), 0.0);
    EXPECT_EQ(word(kPsu0, kStatusWord) & kOff, kOff);
    ASSERT_EQ(PMBus_SetControl(kType, 0, 1, 1), 0);
    EXPECT_EQ(vout(kPsu0), 12.0);
    EXPECT_EQ(word(kPsu0, kStatusWord), 0x0000);
}

TEST_F(SmbusBehaviour, ManufacturerBlocksAndExtendedRegister) {
    uint8_t data[32] = {};
    uint8_t count = 0;
    ASSERT_EQ(PMBus_BlockRead(kType, 0, 1, kPsu0, kMfrId, data, &count, 1), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), count), "CORVEL");
    ASSERT_EQ(SMBus_BlockRead(kType, 0, 1, kPsu1, kMfrModel, data, &count, 0), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), count), "SIM-PSU");

    ASSERT_EQ(PMBus_WriteWordExt(kType, 0, 1, kPsu0, 0xFE, 0x10, 0xABCD, 1), 0);
    uint16_t w = 0;
    ASSERT_EQ(PMBus_ReadWordExt(kType, 0, 1, kPsu0, 0xFE, 0x10, &w, 1), 0);
    EXPECT_EQ(w, 0xABCD);
    EXPECT_EQ(sim::pmbus_supply(0, 1, 0x40).mfr_register, 0xABCD);
    EXPECT_EQ(sim::pmbus_supply(0, 1, 0x41).mfr_register, 0);
}

TEST_F(SmbusBehaviour, ReadWordOfTheTemperatureSensorComesInBusOrder) {
    const struct {
        int milli_celsius;
        uint8_t bytes[2];  // the LM75-style register, most significant byte first on the bus
    } cases[] = {{25000, {0x19, 0x00}}, {-5500, {0xFA, 0x80}}};
    for (const auto& c : cases) {
        sim::set_temperature(0, 0, 0x48, c.milli_celsius);
        uint16_t w = 0;
        ASSERT_EQ(SMBus_ReadWordProtocol(kType, 0, 0, 0x90, 0x00, &w, 0), 0);
        uint8_t bytes[2];
        std::memcpy(bytes, &w, 2);
        EXPECT_EQ(bytes[0], c.bytes[0]) << c.milli_celsius;
        EXPECT_EQ(bytes[1], c.bytes[1]) << c.milli_celsius;
    }
}

}  // namespace
