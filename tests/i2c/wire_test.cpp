// The I2C family on the wire: order of checks, payload layouts and status mapping.
#include <array>
#include <cstring>

#include "check_order.hpp"
#include "i2c_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

uint8_t data[64];
uint16_t len16;
KII_INIT_CONFIG init = master_config();
KII_TIME_CONFIG timing{};
const std::vector<int32_t> kI2cType{KD_DEVTYPE_I2C};

// Every I2C function that checks type, connection and a pointer before it sends, with its channel
// limit. InitI2C leaves the channel to the firmware; the user-data functions' third argument is an
// offset, which they clamp, and they check the pointer even for a count of 0.
// clang-format off
const CheckedFunction kChecked[] = {
    {"WriteBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_WriteBytes(t, d, c, 0xA0, 0, n ? nullptr : data, 1); }, kI2cType, 20},
    {"ReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_ReadBytes(t, d, c, 0xA0, 0, n ? nullptr : data, 1); }, kI2cType, 20},
    {"WriteReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_WriteReadBytes(t, d, c, 0xA0, 0, data, 0, 0, n ? nullptr : data, 1, 0); }, kI2cType, 20},
    {"SlaveWriteBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_SlaveWriteBytes(t, d, c, n ? nullptr : data, 1); }, kI2cType, 20},
    {"SlaveReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_SlaveReadBytes(t, d, c, data, n ? nullptr : &len16); }, kI2cType, 20},
    {"SlaveWriteRemain", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_SlaveWriteRemain(t, d, c, n ? nullptr : &len16); }, kI2cType, 2},
    {"PinEventReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_PinEventReadBytes(t, d, c, 1, 1, 0xA0, 0, n ? nullptr : data, 1, 10); }, kI2cType, 20},
    {"PinEventWriteBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_PinEventWriteBytes(t, d, c, 1, 1, 0xA0, 0, n ? nullptr : data, 1, 10); }, kI2cType, 20},
    {"TimeConfig", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_TimeConfig(t, d, c, n ? nullptr : &timing); }, kI2cType, 20},
    {"InitI2C", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_InitI2C(t, d, c, n ? nullptr : &init); }, kI2cType, kNoChannelCheck},
    {"WriteUserData", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_WriteUserData(t, d, c, n ? nullptr : data, n ? 0 : 1); }, kI2cType, kNoChannelCheck},
    {"ReadUserData", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KII_ReadUserData(t, d, c, n ? nullptr : data, n ? 4 : 1); }, kI2cType, kNoChannelCheck},
};
// clang-format on

TEST_F(I2cAdapter, OrderOfChecks) {
    expect_check_order(kChecked);
}

TEST_F(I2cAdapter, UnsupportedFunctionsAnswerAtOnce) {
    for (int32_t type : {0, 1, 2}) {
        EXPECT_EQ(KII_PullupConfig(type, 9, 99, 1), -15);
        EXPECT_EQ(KII_ClearPinEvent(type, 9, 99, 0xFFFF), -7);
    }
    EXPECT_TRUE(sim::records().empty());
}

TEST_F(I2cAdapter, DeviceManagementAcceptsTypeOneOnly) {
    EXPECT_EQ(KII_OpenDevice(2, 0, 0), -15);
    EXPECT_EQ(KII_CloseDevice(2, 0), -15);
    EXPECT_EQ(KII_ScanDevice(0), 1);
    EXPECT_EQ(KII_OpenDevice(1, 3, 0), -8);
    EXPECT_EQ(KII_CloseDevice(1, 0), 0);
    EXPECT_EQ(KII_CloseDevice(1, 0), -9);
}

TEST_F(I2cAdapter, InitRangesAreCheckedBeforeSending) {
    const struct {
        void (*edit)(KII_INIT_CONFIG&);
        int32_t expected;
    } cases[] = {
        {[](auto& c) { c.ClockSpeed = 999; }, -4},    {[](auto& c) { c.ClockSpeed = 1000; }, 0},
        {[](auto& c) { c.ClockSpeed = 5000000; }, 0}, {[](auto& c) { c.ClockSpeed = 5000001; }, -4},
        {[](auto& c) { c.SubAddrWidth = 4; }, 0},     {[](auto& c) { c.SubAddrWidth = 5; }, -4},
        {[](auto& c) { c.AddrType = 8; }, -4},        {[](auto& c) { c.AddrType = 10; }, 0},
        {[](auto& c) { c.ControlMode = 2; }, 0},      {[](auto& c) { c.ControlMode = 3; }, -4},
    };
    for (const auto& c : cases) {
        sim::clear_records();
        KII_INIT_CONFIG config = master_config();
        c.edit(config);
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        EXPECT_EQ(KII_InitI2C(1, 0, 0, &config), c.expected);
        EXPECT_EQ(frames().size(), c.expected == 0 ? 1u : 0u);
    }
}

TEST_F(I2cAdapter, InitLayout) {
    KII_INIT_CONFIG c{0, 1, 10, 0, 0x1234, 400000};
    // The library does not limit the channel index here; the firmware refuses channel 300.
    EXPECT_EQ(KII_InitI2C(1, 0, 300, &c), -10);
    EXPECT_EQ(sent().at(0),
              request(768, {0x01, 0x00, 0x06, 0x1A, 0x80, 0x02, 0x00, 0x0A, 0x2C, 0x12, 0x34, 0x00}));
}

TEST_F(I2cAdapter, TimingSendsSevenLowBytesBehindZeros) {
    KII_TIME_CONFIG t{};
    t.tSU_STA = 300;  // only its low byte, 44, reaches the adapter
    t.tHD_STA = 2;
    t.tLOW = 3;
    t.tHIGH = 4;
    t.tSU_DAT = 5;
    t.tSU_STO = 6;
    t.tBuf = 0x1FF;
    t.tDH = 99;
    ASSERT_EQ(KII_TimeConfig(1, 0, 20, &t), 0);
    EXPECT_EQ(sent().at(0), request(770, {0, 44, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 0xFF}));
    EXPECT_EQ(sim::i2c_timing(0), (std::vector<uint16_t>{44, 2, 3, 4, 5, 6, 0xFF}));
}

TEST_F(I2cAdapter, TransferLayouts) {
    uint8_t bytes[] = {0xDE, 0xAD};
    ASSERT_EQ(KII_WriteBytes(1, 0, 0, 0xA0, 0x1234, bytes, 0), 0);  // Len 0: address, sub-address, index
    EXPECT_EQ(sent().at(0), request(772, {0x00, 0xA0, 0x00, 0x00, 0x12, 0x34, 0x00}));
    KII_WriteBytes(1, 0, -1, 0xA0, 0x10, bytes, 2);  // -1 passes the signed check and goes as 0xFF
    EXPECT_EQ(sent().at(1), request(772, {0x00, 0xA0, 0x00, 0x00, 0x00, 0x10, 0xFF, 0xDE, 0xAD}));

    sim::clear_records();
    uint8_t out[4];
    ASSERT_EQ(KII_ReadBytes(1, 0, 0, 0xA0, 0x10, out, 2), 0);
    EXPECT_EQ(sent().at(0), request(774, {0x00, 0xA0, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x02}));
    EXPECT_EQ(frames().at(1), (Bytes{0x00, 0x00, 0x03, 0x08, 0x00, 0x00, 0x00}));  // the data fetch
    const auto reads = calls(Call::BulkRead);
    EXPECT_EQ(reads.back().timeout_ms, 500);
    EXPECT_EQ(reads.back().data.size(), 9u);

    sim::clear_records();
    ASSERT_EQ(KII_WriteReadBytes(1, 0, 3, 0xA0, 0x01020304, bytes, 2, 0x0A0B0C0D, out, 1, 0x0506), -10);
    EXPECT_EQ(sent().at(0), request(790, {0x00, 0xA0, 0x01, 0x02, 0x03, 0x04, 0x03, 0x0A, 0x0B, 0x0C, 0x0D,
                                          0x05, 0x06, 0x00, 0x01, 0xDE, 0xAD}));
}

TEST_F(I2cAdapter, FailedReadStatusSkipsTheDataFetch) {
    uint8_t out[4];
    EXPECT_EQ(KII_ReadBytes(1, 0, 0, 0xA2, 0, out, 4), -10);  // nothing at 0x51: MSG_I2C_READ_DATA_ERROR
    EXPECT_EQ(frames().size(), 1u);
    sim::override_next_status(0, MSG_I2C_WRITE_DATA_OK);
    EXPECT_EQ(KII_ReadBytes(1, 0, 0, 0xA0, 0, out, 4), -10);  // a write's OK is not a read's
}

TEST_F(I2cAdapter, ShortDataAnswerStillSucceeds) {
    std::array<uint8_t, 16> out;
    out.fill(0xEE);
    sim::set_i2c_eeprom(0, 0, 0x50, Bytes(256, 0x5A));
    sim::short_read_next(0, 1);  // the status byte itself
    sim::short_read_next(0, 12);
    ASSERT_EQ(KII_ReadBytes(1, 0, 0, 0xA0, 0, out.data(), 16), 0);
    EXPECT_EQ(out[4], 0x5A);
    EXPECT_EQ(out[5], 0xEE);  // 12 bytes in all: 5 of data

    sim::short_read_next(0, 1);
    sim::short_read_next(0, 7);
    out.fill(0xEE);
    EXPECT_EQ(KII_ReadBytes(1, 0, 0, 0xA0, 0, out.data(), 16), 0);  // header only: success, no data
    EXPECT_EQ(out[0], 0xEE);

    sim::short_read_next(0, 1);
    sim::short_read_next(0, 6);
    EXPECT_EQ(KII_ReadBytes(1, 0, 0, 0xA0, 0, out.data(), 16), -6);
}

TEST_F(I2cAdapter, ReadsBeyondTheReceiveBufferAreRefused) {
    static uint8_t out[10240];
    uint8_t in[1] = {0};
    EXPECT_EQ(KII_ReadBytes(1, 0, 0, 0xA0, 0, out, 10234), -4);
    EXPECT_EQ(KII_WriteReadBytes(1, 0, 0, 0xA0, 0, in, 0, 0, out, 10234, 0), -4);
    EXPECT_EQ(KII_PinEventReadBytes(1, 0, 0, 1, 1, 0xA0, 0, out, 10234, 10), -4);
    EXPECT_TRUE(frames().empty());
    EXPECT_EQ(KII_ReadBytes(1, 0, 0, 0xA0, 0, out, 10233), 0);
}

TEST_F(I2cAdapter, SlaveChecksAndAnswers) {
    uint8_t out[16];
    uint16_t n = 0xBEEF;
    KII_SlaveReadBytes(1, 0, 3, out, &n);  // channel 3, refused by SlaveWriteRemain, is sent here
    EXPECT_EQ(sent().at(0), request(784, {3}));

    sim::drop_next_answers(0, 1);
    inject_bulk(reply(785, MSG_I2C_NO_DATA));
    n = 0xBEEF;
    EXPECT_EQ(KII_SlaveReadBytes(1, 0, 0, out, &n), -7);  // header only
    EXPECT_EQ(n, 0xBEEF);

    sim::drop_next_answers(0, 1);
    n = 0xBEEF;
    EXPECT_EQ(KII_SlaveReadBytes(1, 0, 0, out, &n), -6);
    EXPECT_EQ(n, 0xBEEF);
    EXPECT_EQ(calls(Call::BulkRead).back().timeout_ms, 100);

    sim::override_next_status(0, MSG_MSG_EXECUT_OK);
    EXPECT_EQ(KII_SlaveWriteRemain(1, 0, 0, &n), -10);  // payload arrived, status is not 2
    EXPECT_EQ(calls(Call::BulkRead).back().data.size(), 9u);
}

TEST_F(I2cAdapter, PinEventLayouts) {
    uint8_t bytes[] = {7, 8};
    KII_PinEventWriteBytes(1, 0, 2, 0x0102, 0x0304, 0xA0, 0x11223344, bytes, 2, 0x55667788);
    EXPECT_EQ(sent().at(0), request(794, {0x00, 0xA0, 0x11, 0x22, 0x33, 0x44, 0x02, 0x01, 0x02, 0x03, 0x04,
                                          0x55, 0x66, 0x77, 0x88, 7, 8}));
    uint8_t out[2];
    KII_PinEventReadBytes(1, 0, 2, 0x0102, 0x0304, 0xA0, 0x11223344, out, 2, 250);
    EXPECT_EQ(sent().at(1), request(792, {0x00, 0xA0, 0x11, 0x22, 0x33, 0x44, 0x02, 0x00, 0x02, 0x01, 0x02,
                                          0x03, 0x04, 0x00, 0x00, 0x00, 0xFA}));
    EXPECT_EQ(calls(Call::BulkRead).back().timeout_ms, 250);  // one attempt with the caller's time-out
}

TEST_F(I2cAdapter, UserDataClamps) {
    static uint8_t bytes[2048];
    const struct {
        int32_t offset;
        int32_t count;
        std::size_t sent;  // data bytes in the write frame
    } cases[] = {{0, 16, 16}, {2000, 100, 48}, {2048, 1, 0}, {3000, 10, 0}, {0, -5, 0}, {2040, INT32_MAX, 8}};
    for (const auto& c : cases) {
        sim::clear_records();
        EXPECT_EQ(KII_WriteUserData(1, 0, c.offset, bytes, c.count), 0) << c.offset;
        EXPECT_EQ(sent().at(0).payload.size(), 4 + c.sent) << c.offset;
    }

    sim::clear_records();
    EXPECT_EQ(KII_ReadUserData(1, 0, 3000, bytes, 10), 0);  // clamped to 0: reads nothing
    EXPECT_EQ(sent().at(0), request(269, {0x00, 0x00, 0x0B, 0xB8, 0, 0, 0, 0}));

    sim::short_read_next(0, 3);
    EXPECT_EQ(KII_ReadUserData(1, 0, 0, bytes, 8), -10);  // short is -10 here, not -6
}

TEST_F(I2cAdapter, BoardInformation) {
    KII_BOARD_INFO info;
    std::memset(&info, 0xEE, sizeof info);
    ASSERT_EQ(KII_ReadBoardInfo(0, &info), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(info.ProductName)), "Corvel I2C Adapter");
    EXPECT_EQ(Bytes(info.FirmwareVersion, info.FirmwareVersion + 4), (Bytes{2, 1, 0, 5}));
    EXPECT_EQ(Bytes(info.HardwareVersion, info.HardwareVersion + 4), (Bytes{1, 0, 0, 0}));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(info.SerialNumber), 7), "I2C0001");
    EXPECT_EQ(KII_ReadBoardInfo(4, &info), -8);
    EXPECT_EQ(KII_ReadBoardInfo(0, nullptr), -1);
    sim::drop_next_answers(0, 1);
    EXPECT_EQ(KII_ReadBoardInfo(0, &info), -6);
}

}  // namespace
