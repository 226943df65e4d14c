// The I2C status log of the text driver layer and its CRC-16, on scripted answers.
#include <gtest/gtest.h>

#include <array>
#include <string_view>

#include "CorvelBoard.h"
#include "crc16.h"
#include "i2c_driver.h"
#include "wire.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

TEST(Crc16, XmodemCheckValues) {
    constexpr std::string_view check = "123456789";
    EXPECT_EQ(crc16_ccitt(reinterpret_cast<const uint8_t*>(check.data()), check.size()), 0x31C3);
    const uint8_t bytes[] = {0x01, 0x11, 0x22};
    EXPECT_EQ(crc16_ccitt(bytes, 1), 0x1021);
    EXPECT_EQ(crc16_ccitt(bytes + 1, 2), 0x3462);
    EXPECT_EQ(crc16_ccitt(bytes, 0), 0x0000);
}

class StatusLog : public testing::Test {
  protected:
    void SetUp() override {
        sim::configure({adapter("A")});
        ASSERT_EQ(KD_EnumBoard(1), 1);
        ASSERT_EQ(KD_OpenBoard(0), 0);
        sim::silence(0, true);
        sim::clear_records();
        I2C_Data.p_getDataBuff = reply_buffer.data();
        I2C_Data.SerialNumber = 1;
    }
    static Bytes log_reply(uint8_t status, const Bytes& payload) {
        return reply(779, status, payload, {}, 512);
    }
    std::array<uint8_t, 512> reply_buffer{};
};

TEST_F(StatusLog, RefusedSequenceNumberStartsAgainFromZero) {
    inject_bulk(log_reply(MSG_MSG_DATA_TRAN_SRL_ERROR, {}));
    inject_bulk(log_reply(MSG_I2C_GETSTATS_OK, {0x11, 0x22, 0x34, 0x62}));
    EXPECT_EQ(I2C_GetLogData(&I2C_Data), 0);
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0], request(778, {0x01, 0x10, 0x21}));
    EXPECT_EQ(sent()[1], request(778, {0x00, 0x00, 0x00}));
    EXPECT_EQ(I2C_Data.SerialNumber, 1);
}

TEST_F(StatusLog, ThreeBadAnswersGiveUp) {
    inject_bulk(log_reply(MSG_I2C_GETSTATS_OK, {0x11, 0x22, 0x34, 0x63}));  // CRC off by one
    inject_bulk(log_reply(MSG_I2C_GETSTATS_OK, Bytes(59, 0)));              // too long
    inject_bulk(log_reply(MSG_I2C_GETSTATS_ERROR, {0x11, 0x22, 0x34, 0x62}));
    EXPECT_EQ(I2C_GetLogData(&I2C_Data), 2);
    EXPECT_EQ(sent().size(), 3u);
    EXPECT_EQ(I2C_Data.SerialNumber, 1);
}

}  // namespace
