// The SDI-12, 1-Wire and EasyScale families against the virtual adapter's sensors and LED driver:
// what the library's calls get from them and do to them, in virtual time.
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "Control1Wire.h"
#include "ControlSDI.h"
#include "EasyScale.h"
#include "adapter_fixture.hpp"
#include "corvel/sim_wire.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

constexpr int32_t kI2c = KD_DEVTYPE_I2C;
constexpr int32_t kSpi = KD_DEVTYPE_SPI;

// Adapter 0 of the I2C type, adapter 1 of the SPI type, both open.
class SingleWireParts : public VirtualAdapters {
  protected:
    void SetUp() override {
        reset({adapter("SW0001"), adapter("SW0002", kSpi)});
        ASSERT_NO_FATAL_FAILURE(open({[](int32_t dev) { return SDI_OpenDevice(kI2c, dev, 0); }}, 2));
        settle();
    }

    std::string sdi(int32_t dev, uint8_t port, const char* command, uint8_t check_crc, int32_t expect = 0) {
        std::array<uint8_t, 512> out{};
        std::array<uint8_t, 512> cmd{};
        std::memcpy(cmd.data(), command, std::strlen(command));
        EXPECT_EQ(SDI_SendCmd(kI2c, dev, port, cmd.data(), out.data(), check_crc), expect) << command;
        return reinterpret_cast<const char*>(out.data());
    }

    // Standard slot timings: A 6, B 64, C 60, D 10, E 9, F 55, G 0, H 480, I 70, J 410.
    static void ow_init(int32_t dev, uint8_t pin = 0) {
        KD_1WIRE_INIT_CONFIG c{0, pin, {6, 64, 60, 10, 9, 55, 0, 480, 70, 410, 0, 0, 0, 0, 0}};
        ASSERT_EQ(KD_OW_Init(kI2c, dev, &c), 0);
    }
    // A reset through the primitives; true when a sensor answered with its presence pulse.
    static bool ow_reset(int32_t dev) {
        uint8_t level = 0xEE;
        EXPECT_EQ(KD_OW_Set_Pin(kI2c, dev, 0), 0);
        usleep(480);
        EXPECT_EQ(KD_OW_Set_Pin(kI2c, dev, 1), 0);
        EXPECT_EQ(KD_OW_Read_Pin(kI2c, dev, &level), 0);
        return level == 0;
    }
    static void ow_write(int32_t dev, std::initializer_list<uint8_t> bytes) {
        for (uint8_t b : bytes) EXPECT_EQ(KD_OW_Write_Byte(kI2c, dev, b), 0);
    }
    template <std::size_t N>
    static std::array<uint8_t, N> ow_read(int32_t dev) {
        std::array<uint8_t, N> out{};
        for (uint8_t& b : out) EXPECT_EQ(KD_OW_Read_Byte(kI2c, dev, &b), 0);
        return out;
    }
};

TEST_F(SingleWireParts, Sdi12MeasurementPassesTheLibrarysCrcCheck) {
    ASSERT_EQ(SDI_InitSDI(kI2c, 0, 0), 0);
    EXPECT_EQ(sdi(0, 0, "0I!", 0), "014CORVEL  SDI12S100SN0001\r\n");
    EXPECT_EQ(sdi(0, 0, "0MC!", 0), "00013\r\n");
    EXPECT_EQ(sdi(0, 0, "0D0!", 1, -15), "0\r\n");  // not ready: the address alone, which the check refuses
    usleep(1000000);
    EXPECT_EQ(sdi(0, 0, "0D0!", 1), "0+3.14+2.718+1.414Ipz\r\n");

    // Other values: the model's CRC and the library's agree on them too.
    ASSERT_TRUE(sim::set_sdi12_values(0, 0, {-0.25, 1013.25, 7}));
    ASSERT_TRUE(sim::set_sdi12_continuous(0, 0, {-40, 99.5}));
    EXPECT_EQ(sdi(0, 0, "0RC0!", 1), "0-40+99.5IOB\r\n");
    EXPECT_EQ(sdi(0, 0, "0CC!", 0), "000103\r\n");
    usleep(1000000);
    EXPECT_EQ(sdi(0, 0, "0D0!", 1), "0-0.25+1013.25+7@AQ\r\n");
    EXPECT_EQ(sim::sdi12_port(0, 0).last_command, "0D0!");
}

TEST_F(SingleWireParts, Sdi12CorruptedOrMissingAnswers) {
    ASSERT_EQ(SDI_InitSDI(kI2c, 1, 1), 0);
    EXPECT_EQ(sdi(1, 1, "1!", 0), "1\r\n");
    sdi(1, 1, "0!", 0, -10);  // nobody at address 0 on port 1
    sdi(1, 0, "0!", 0, -10);  // port 0 not initialised

    sim::silence(1, true);
    const std::string corrupt = "1+3.14+2.718+1.414Ipz\r\n";  // the line of address 0's CRC
    std::vector<uint8_t> reply = {0, 0, 0x0F, 0x03, 6, 0, uint8_t(corrupt.size())};
    reply.insert(reply.end(), corrupt.begin(), corrupt.end());
    sim::inject_in(1, 0x82, reply);
    EXPECT_EQ(sdi(1, 1, "1D0!", 1, -15), corrupt);
}

TEST_F(SingleWireParts, OneWireTemperatureConversionThroughThePrimitives) {
    ow_init(0);
    ASSERT_TRUE(ow_reset(0));
    ow_write(0, {0xCC, 0x44});
    uint8_t done = 0;
    int polls = 0;
    while (done == 0 && polls < 100) {
        usleep(10000);
        ++polls;
        ASSERT_EQ(KD_OW_Read_Byte(kI2c, 0, &done), 0);
    }
    EXPECT_EQ(polls, 75);  // 750 ms at 12 bits
    EXPECT_EQ(done, 0xFF);

    ASSERT_TRUE(ow_reset(0));
    ow_write(0, {0xCC, 0xBE});
    const auto pad = ow_read<9>(0);
    EXPECT_EQ(pad, (std::array<uint8_t, 9>{0x58, 0x01, 0x4B, 0x46, 0x7F, 0xFF, 0x0C, 0x10, 0xC2}));
    EXPECT_EQ(int16_t(pad[1] << 8 | pad[0]) / 16.0, 21.5);

    sim::set_onewire_temperature(0, -0.5);
    ASSERT_TRUE(ow_reset(0));
    ow_write(0, {0xCC, 0x44});
    usleep(750000);
    ASSERT_TRUE(ow_reset(0));
    ow_write(0, {0x55, 0x28, 0x43, 0x4F, 0x52, 0x56, 0x45, 0x4C, 0x40, 0xBE});
    EXPECT_EQ(ow_read<2>(0), (std::array<uint8_t, 2>{0xF8, 0xFF}));
}

TEST_F(SingleWireParts, OneWireReadRomOnTheSensorsPinOnly) {
    ow_init(1);
    ASSERT_TRUE(ow_reset(1));
    ow_write(1, {0x33});
    const auto rom = ow_read<8>(1);
    EXPECT_EQ(rom, (std::array<uint8_t, 8>{0x28, 0x43, 0x4F, 0x52, 0x56, 0x45, 0x4C, 0x40}));
    EXPECT_EQ(sim::onewire_rom(1), rom);
    EXPECT_EQ(KD_OW_output_TX(kSpi, 1), 0);
    EXPECT_TRUE(sim::onewire_line(1).transmitting);

    ow_init(1, 3);
    EXPECT_FALSE(ow_reset(1));
    EXPECT_FALSE(sim::onewire_line(1).sensor_on_line);
}

TEST_F(SingleWireParts, EasyScaleWritesReachTheDriversRegisters) {
    // The record's order: TShutDown, ESDelay, ESDetect, ESWin, TStart, TEos, TValACK, TACKN, then the
    // bit times; the library sends them in another order.
    KEI_ES_TIMING t{1000, 100, 260, 1000, 2, 2, 2, 512, 20, 8, 8, 20};
    ASSERT_EQ(KEI_InitES(kI2c, 0, 0, 1, &t), 0);
    const sim::EasyScaleTimings kept = sim::easyscale_channel(0, 0).timings;
    EXPECT_EQ(kept.shutdown, 1000);
    EXPECT_EQ(kept.es_detect, 260);
    EXPECT_EQ(kept.ack_n, 512);
    EXPECT_EQ(kept.high_bit_low, 8);

    KEI_ES_OBJ cmds[3] = {{0, 0x72, 1, 2, 0x1F}, {0, 0x72, 0, 0, 12}, {0, 0x72, 1, 1, 3}};
    ASSERT_EQ(KEI_Transmit(kI2c, 0, 0, cmds, 3), 0);
    EXPECT_EQ(sim::easyscale_driver(0).registers, (std::array<uint8_t, 4>{12, 3, 0x1F, 0x10}));

    // Nobody at 0x70 acknowledges: the series stops there, the first command taken.
    KEI_ES_OBJ others[3] = {{0, 0x72, 1, 0, 30}, {0, 0x70, 1, 0, 1}, {0, 0x72, 1, 0, 2}};
    EXPECT_EQ(KEI_Transmit(kI2c, 0, 0, others, 3), -10);
    EXPECT_EQ(sim::easyscale_driver(0).registers[0], 30);
    EXPECT_EQ(sim::easyscale_driver(0).commands, 4u);
}

}  // namespace
