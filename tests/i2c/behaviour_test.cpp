// The I2C family against the simulated parts: an EEPROM, a temperature sensor, an external bus
// master for slave mode, pin events on the virtual clock, and the user-data area. These tests are
// also the firmware model's tests for what the library sends; tests/sim/i2c_engine_test.cpp covers
// the requests the library never makes.
#include <algorithm>
#include <array>
#include <climits>

#include "i2c_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

constexpr uint16_t kEeprom = 0x50 << 1;
constexpr uint16_t kSensor = 0x48 << 1;

TEST_F(I2cAdapter, EepromKeepsWhatWasWritten) {
    uint8_t bytes[] = {0xDE, 0xAD, 0xBE, 0xEF};
    ASSERT_EQ(KII_WriteBytes(1, 0, 0, kEeprom, 0x10, bytes, 4), 0);
    std::array<uint8_t, 4> out{};
    ASSERT_EQ(KII_ReadBytes(1, 0, 0, kEeprom, 0x10, out.data(), 4), 0);
    EXPECT_EQ(Bytes(out.begin(), out.end()), Bytes(bytes, bytes + 4));
    out.fill(0);
    ASSERT_EQ(KII_WriteReadBytes(1, 0, 0, kEeprom, 0x12, bytes, 0, 0x12, out.data(), 2, 0), 0);
    EXPECT_EQ(out[0], 0xBE);
    EXPECT_EQ(out[1], 0xEF);
    EXPECT_EQ(sim::i2c_eeprom(0, 0, 0x50).at(0x13), 0xEF);
}

TEST_F(I2cAdapter, EepromWritesWrapWithinTheirPage) {
    sim::set_i2c_eeprom(0, 0, 0x50, Bytes(256, 0xFF));
    uint8_t bytes[10];
    for (uint8_t i = 0; i < 10; ++i) bytes[i] = i;
    ASSERT_EQ(KII_WriteBytes(1, 0, 0, kEeprom, 0x06, bytes, 10), 0);
    const Bytes e = sim::i2c_eeprom(0, 0, 0x50);
    // Addresses 06 07 00 01 02 03 04 05 06 07: the last two bytes overwrite the first two.
    EXPECT_EQ(Bytes(e.begin(), e.begin() + 9), (Bytes{2, 3, 4, 5, 6, 7, 8, 9, 0xFF}));
}

TEST_F(I2cAdapter, SequentialReadsWrapAroundTheEnd) {
    Bytes content(256);
    for (int i = 0; i < 256; ++i) content[i] = static_cast<uint8_t>(i);
    sim::set_i2c_eeprom(0, 0, 0x50, content);
    std::array<uint8_t, 4> out{};
    ASSERT_EQ(KII_ReadBytes(1, 0, 0, kEeprom, 0xFE, out.data(), 4), 0);
    EXPECT_EQ(Bytes(out.begin(), out.end()), (Bytes{0xFE, 0xFF, 0x00, 0x01}));
}

TEST_F(I2cAdapter, EepromContentsOutliveTheProcessState) {
    uint8_t bytes[] = {0x42};
    ASSERT_EQ(KII_WriteBytes(1, 0, 0, kEeprom, 0x20, bytes, 1), 0);
    sim::configure({adapter("I2C0001")});  // same serial, same state directory: a new "run"
    ASSERT_EQ(KII_ScanDevice(1), 1);
    ASSERT_EQ(KII_OpenDevice(1, 0, 0), 0);
    KII_INIT_CONFIG c = master_config();
    ASSERT_EQ(KII_InitI2C(1, 0, 0, &c), 0);
    uint8_t out = 0;
    ASSERT_EQ(KII_ReadBytes(1, 0, 0, kEeprom, 0x20, &out, 1), 0);
    EXPECT_EQ(out, 0x42);
}

TEST_F(I2cAdapter, NobodyAtTheAddressIsAnExecutionFailure) {
    uint8_t bytes[] = {1};
    EXPECT_EQ(KII_WriteBytes(1, 0, 0, 0x51 << 1, 0, bytes, 1), -10);
    EXPECT_EQ(KII_ReadBytes(1, 0, 0, 0x51 << 1, 0, bytes, 1), -10);
    EXPECT_EQ(KII_WriteBytes(1, 0, 1, kEeprom, 0, bytes, 1), -10);  // channel 1 was not initialised
    sim::i2c_detach(0, 0, 0x50);
    EXPECT_EQ(KII_WriteBytes(1, 0, 0, kEeprom, 0, bytes, 1), -10);
    sim::i2c_attach_defaults(0);
    EXPECT_EQ(KII_WriteBytes(1, 0, 0, kEeprom, 0, bytes, 1), 0);
}

TEST_F(I2cAdapter, TemperatureSensorRoundsClampsAndKeepsItsLimit) {
    std::array<uint8_t, 4> t{};
    ASSERT_EQ(KII_ReadBytes(1, 0, 0, kSensor, 0, t.data(), 2), 0);
    EXPECT_EQ(Bytes(t.begin(), t.begin() + 2), (Bytes{0x19, 0x00}));  // 25.0 degrees until set
    const std::pair<int, Bytes> temperatures[] = {
        {25300, {0x19, 0x00}}, {-5500, {0xFA, 0x80}},  {-5700, {0xFA, 0x00}},  {-1, {0xFF, 0x80}},
        {499, {0x00, 0x00}},   {127999, {0x7F, 0x80}}, {200000, {0x7F, 0x80}}, {INT_MIN, {0x80, 0x00}}};
    for (const auto& [milli, reg] : temperatures) {
        sim::set_temperature(0, 0, 0x48, milli);
        ASSERT_EQ(KII_ReadBytes(1, 0, 0, kSensor, 0, t.data(), 4), 0);
        EXPECT_EQ(Bytes(t.begin(), t.end()), (Bytes{reg[0], reg[1], reg[0], reg[1]})) << milli;  // and again
    }
    uint8_t limit[] = {0x3C, 0x00};  // over-temperature limit 60 degrees
    ASSERT_EQ(KII_WriteBytes(1, 0, 0, kSensor, 3, limit, 2), 0);
    ASSERT_EQ(KII_ReadBytes(1, 0, 0, kSensor, 3, t.data(), 2), 0);
    EXPECT_EQ(t[0], 0x3C);
    // A pointer beyond the last register is not acknowledged.
    EXPECT_EQ(KII_WriteBytes(1, 0, 0, kSensor, 4, limit, 0), -10);
    EXPECT_EQ(KII_ReadBytes(1, 0, 0, kSensor, 4, t.data(), 1), -10);
}

TEST_F(I2cAdapter, SubAddressWidthDecidesTheBytesOnTheBus) {
    // The EEPROM takes the first byte after its address as the word address and stores the rest,
    // so its contents show every byte that went on the bus: the sub-address's low bytes, the data.
    const struct {
        uint8_t width;
        uint32_t sub;
        Bytes stored;  // from address `stored[0]` on
    } cases[] = {{0, 0xFFFFFF, {0x30, 0x77}},
                 {1, 0x00001234, {0x34, 0x30, 0x77}},
                 {2, 0x00001234, {0x12, 0x34, 0x30, 0x77}},
                 {3, 0x00A1B2C3, {0xA1, 0xB2, 0xC3, 0x30, 0x77}},
                 {4, 0x0102FE07, {0x01, 0x02, 0xFE, 0x07, 0x30, 0x77}}};
    uint8_t data[] = {0x30, 0x77};
    for (const auto& c : cases) {
        KII_INIT_CONFIG config = master_config(c.width);
        ASSERT_EQ(KII_InitI2C(1, 0, 0, &config), 0);
        EXPECT_EQ(sim::i2c_channel(0, 0).sub_addr_width, c.width);
        sim::set_i2c_eeprom(0, 0, 0x50, Bytes(256, 0));
        ASSERT_EQ(KII_WriteBytes(1, 0, 0, kEeprom, c.sub, data, 2), 0);
        Bytes expected(256, 0);
        std::copy(c.stored.begin() + 1, c.stored.end(), expected.begin() + c.stored[0]);
        EXPECT_EQ(sim::i2c_eeprom(0, 0, 0x50), expected) << int(c.width);
    }
}

TEST_F(I2cAdapter, SlaveRoundTrip) {
    KII_INIT_CONFIG c = master_config();
    c.MasterMode = 0;
    c.Addr = 0x30;
    ASSERT_EQ(KII_InitI2C(1, 0, 1, &c), 0);

    uint8_t offer[] = {0x10, 0x20, 0x30, 0x40};
    ASSERT_EQ(KII_SlaveWriteBytes(1, 0, 1, offer, 4), 0);
    uint16_t remain = 0;
    ASSERT_EQ(KII_SlaveWriteRemain(1, 0, 1, &remain), 0);
    EXPECT_EQ(remain, 4);
    EXPECT_EQ(sim::i2c_master_read(0, 1, 3), (Bytes{0x10, 0x20, 0x30}));
    ASSERT_EQ(KII_SlaveWriteRemain(1, 0, 1, &remain), 0);
    EXPECT_EQ(remain, 1);

    uint8_t got[32] = {};
    uint16_t n = 0;
    EXPECT_EQ(KII_SlaveReadBytes(1, 0, 1, got, &n), -7);  // the master wrote nothing yet
    ASSERT_TRUE(sim::i2c_master_write(0, 1, {0xCA, 0xFE, 0x01}));
    ASSERT_EQ(KII_SlaveReadBytes(1, 0, 1, got, &n), 0);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(Bytes(got, got + 3), (Bytes{0xCA, 0xFE, 0x01}));
    EXPECT_FALSE(sim::i2c_master_write(0, 0, {1}));  // channel 0 is a master

    // More than the receive buffer holds behind a reply header comes in two reads.
    Bytes written(10233 + 12);
    for (std::size_t i = 0; i < written.size(); ++i) written[i] = static_cast<uint8_t>(i * 7);
    ASSERT_TRUE(sim::i2c_master_write(0, 1, written));
    static uint8_t block[10240];
    ASSERT_EQ(KII_SlaveReadBytes(1, 0, 1, block, &n), 0);
    EXPECT_EQ(Bytes(block, block + n), Bytes(written.begin(), written.begin() + 10233));
    ASSERT_EQ(KII_SlaveReadBytes(1, 0, 1, block, &n), 0);
    EXPECT_EQ(Bytes(block, block + n), Bytes(written.begin() + 10233, written.end()));
}

TEST_F(I2cAdapter, PinEventTransferRunsWhenItsEventComes) {
    sim::set_i2c_eeprom(0, 0, 0x50, Bytes(256, 0x3C));
    sim::schedule(sim::now_us() + 200000, [] { sim::raise_pin_event(0, 4, 1); });
    std::array<uint8_t, 3> out{};
    ASSERT_EQ(KII_PinEventReadBytes(1, 0, 0, 4, 1, kEeprom, 0, out.data(), 3, 500), 0);
    EXPECT_EQ(out[2], 0x3C);
    EXPECT_LT(sim::now_us(), 500000u);

    uint8_t bytes[] = {0x99};
    sim::schedule(sim::now_us() + 100000, [] { sim::raise_pin_event(0, 5, 2); });
    ASSERT_EQ(KII_PinEventWriteBytes(1, 0, 0, 5, 2, kEeprom, 0x40, bytes, 1, 300), 0);
    EXPECT_EQ(sim::i2c_eeprom(0, 0, 0x50).at(0x40), 0x99);
}

TEST_F(I2cAdapter, PinEventAfterTheTimeOutIsTooLate) {
    const uint64_t start = sim::now_us();
    sim::schedule(start + 800000, [] { sim::raise_pin_event(0, 4, 1); });
    std::array<uint8_t, 3> out{};
    EXPECT_EQ(KII_PinEventReadBytes(1, 0, 0, 4, 1, kEeprom, 0, out.data(), 3, 500), -10);
    EXPECT_GE(sim::now_us() - start, 500000u);
    EXPECT_EQ(count(Call::BulkRead), 1u);  // one attempt: no retries while waiting for the event
    EXPECT_EQ(frames().size(), 1u);        // no data fetch after a failed status
    // An event on another pin, or of another type, does not start a transfer.
    sim::schedule(sim::now_us() + 100000, [] { sim::raise_pin_event(0, 9, 1); });
    sim::schedule(sim::now_us() + 200000, [] { sim::raise_pin_event(0, 6, 2); });
    EXPECT_EQ(KII_PinEventReadBytes(1, 0, 0, 6, 1, kEeprom, 0, out.data(), 3, 500), -10);
}

TEST_F(I2cAdapter, UserDataRoundTrip) {
    std::array<uint8_t, 48> in{};
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = static_cast<uint8_t>(i * 3);
    ASSERT_EQ(KII_WriteUserData(1, 0, 2000, in.data(), 100), 0);  // 48 bytes fit
    std::array<uint8_t, 48> out{};
    ASSERT_EQ(KII_ReadUserData(1, 0, 2000, out.data(), 100), 0);
    EXPECT_EQ(out, in);
    EXPECT_EQ(sim::user_data(0).at(2047), in[47]);
}

}  // namespace
