// The firmware model's I2C side where the library does not lead it, driven with raw frames:
// malformed requests, any payload, 10-bit addresses and channels, and the control API on adapters
// and channels that do not exist. What the library sends is covered by tests/i2c/behaviour_test.cpp.
#include <algorithm>
#include <cerrno>
#include <random>

#include "CorvelMsg.h"
#include "corvel/sim_i2c.hpp"
#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

constexpr uint8_t kNack = 0xEE;  // marks "no single status byte came back"

Bytes be16(uint16_t v) {
    return {uint8_t(v >> 8), uint8_t(v)};
}
Bytes config(uint8_t channel, uint8_t width = 1, uint8_t addr_type = 7, uint8_t master = 1) {
    return Bytes{0} + be32(100000) +
           Bytes{uint8_t(width ? 1 : 2), width, addr_type, channel, 0, 0x30, master};
}
Bytes transfer(uint16_t addr, uint32_t sub, uint8_t channel) {
    return be16(addr) + be32(sub) + Bytes{channel};
}

class I2c : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(status(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0)), MSG_I2C_NINT_OK);
    }
    uint8_t status(uint32_t code, const Bytes& payload) {
        const Bytes answer = ask(code, payload);
        return answer.size() == 1 ? answer[0] : kNack;
    }
    uint8_t write_to(uint16_t addr, uint32_t sub, const Bytes& data, uint8_t channel = 0) {
        return status(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(addr, sub, channel) + data);
    }
    Bytes fetch() { return ask(MSG_KD_REQUEST_IIC_ADDR_DATAS_REC, {}); }
    // A plain read of `len` bytes and its data, or kNack alone when the read failed.
    Bytes bus_read(uint16_t addr, uint32_t sub, uint16_t len, uint8_t channel = 0) {
        if (status(MSG_KD_REQUEST_IIC_DATAS_READ, transfer(addr, sub, channel) + be16(len)) !=
            MSG_I2C_READ_DATA_OK)
            return {kNack};
        const Bytes answer = fetch();
        return answer.size() >= 7 ? Bytes(answer.begin() + 7, answer.end()) : Bytes{kNack};
    }
    bool nothing_waits() { return read(h, 1).result == -ETIMEDOUT; }
};

TEST_F(I2c, MalformedRequestsGetTheirOperationsErrorStatus) {
    const struct {
        uint32_t code;
        std::vector<std::size_t> sizes;  // of a zero payload: all wrong
        uint8_t status;
    } sizes[] = {{MSG_KD_REQUEST_SET_IIC_INFORMATION, {11, 13}, MSG_I2C_NINT_ERROR},
                 {MSG_KD_REQUEST_SOFT_SET_IIC_TIME_ONE_INFORMATION, {13, 15}, MSG_I2C_NINT_ERROR},
                 {MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, {0, 6}, MSG_I2C_WRITE_DATA_ERROR},
                 {MSG_KD_REQUEST_IIC_DATAS_READ, {0, 8, 10}, MSG_I2C_READ_DATA_ERROR},
                 {MSG_KD_REQUEST_WRITE_READ, {14}, MSG_I2C_READ_DATA_ERROR},
                 {MSG_KD_SLAVE_WRITE, {0}, MSG_I2C_WRITE_DATA_ERROR},
                 {MSG_KD_EVENT_READ, {16, 18}, MSG_I2C_READ_DATA_ERROR},
                 {MSG_KD_EVENT_WRITE, {14}, MSG_I2C_WRITE_DATA_ERROR},
                 {MSG_KD_EVENT_CLEAR, {2}, MSG_I2C_WRITE_DATA_ERROR}};
    for (const auto& c : sizes) {
        for (std::size_t n : c.sizes)
            EXPECT_EQ(ask(c.code, Bytes(n, 0)), Bytes{c.status}) << c.code << "/" << n;
    }
    const struct {
        uint32_t code;
        Bytes payload;
        uint8_t status;
    } values[] = {
        {MSG_KD_REQUEST_SET_IIC_INFORMATION, config(21), MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0, 5), MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0, 1, 8), MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(0xA0, 0, 21), MSG_I2C_WRITE_DATA_ERROR},
        {MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(0xA0, 0, 255) + Bytes{1}, MSG_I2C_WRITE_DATA_ERROR},
        {MSG_KD_SLAVE_WRITE, {0, 1, 2}, MSG_I2C_WRITE_DATA_ERROR},  // channel 0 is a master
        {MSG_KD_EVENT_READ, transfer(0xA0, 0, 21) + Bytes(10, 0), MSG_I2C_READ_DATA_ERROR}};
    for (const auto& c : values) EXPECT_EQ(ask(c.code, c.payload), Bytes{c.status}) << c.code;
    EXPECT_TRUE(nothing_waits());
    EXPECT_TRUE(unknown_messages(0).empty());
    EXPECT_EQ(i2c_channel(0, 0).sub_addr_width, 1);  // the refused configurations changed nothing
    EXPECT_TRUE(i2c_timing(0).empty());
    // Remaining bytes of no channel: a reply frame, with the transfer error status.
    for (const Bytes& p : {Bytes{}, Bytes{21}})
        EXPECT_EQ(ask(MSG_KD_SLAVE_WRITE_REMAIN, p), reply(MSG_KD_SLAVE_WRITE_REMAIN_FB, 3, {0, 0}));
}

TEST_F(I2c, AnyPayloadIsAnsweredAndTheAdapterCarriesOn) {
    std::minstd_rand random(7);
    for (uint32_t code : {768, 770, 772, 774, 776, 782, 784, 786, 790, 792, 794, 796}) {
        for (std::size_t size : {0, 1, 6, 7, 8, 9, 12, 14, 15, 16, 17, 18, 40, 3000}) {
            Bytes payload(size);
            for (uint8_t& b : payload) b = uint8_t(random());
            ASSERT_EQ(write(h, frame(code, payload)), static_cast<int>(size + 7));
            int answers = 0;
            while (read(h, 70000).result > 0) ++answers;
            // One answer each; a pin-event transfer may instead wait for its event.
            const bool may_wait = code == MSG_KD_EVENT_READ || code == MSG_KD_EVENT_WRITE;
            EXPECT_EQ(answers, may_wait ? std::min(answers, 1) : 1) << code << "/" << size;
        }
    }
    for (int pin = 0; pin < 256; ++pin) raise_pin_event(0, uint16_t(pin), uint16_t(random() & 3));
    while (read(h, 70000).result > 0) {
    }
    EXPECT_TRUE(unknown_messages(0).empty());
    ASSERT_EQ(status(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0)), MSG_I2C_NINT_OK);
    EXPECT_EQ(bus_read(0x90, 2, 2).size(), 2u);
}

TEST_F(I2c, AddressFormsAndChannelsKeepPartsApart) {
    ASSERT_EQ(status(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(2, 1, 10)), MSG_I2C_NINT_OK);
    ASSERT_EQ(status(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(1)), MSG_I2C_NINT_OK);
    ASSERT_TRUE(i2c_attach_eeprom(0, 2, 0x050, true));
    ASSERT_TRUE(i2c_attach_eeprom(0, 1, 0x50));
    EXPECT_FALSE(i2c_attach_eeprom(0, 21, 0x50));
    EXPECT_FALSE(i2c_attach_eeprom(0, 1, 0x80));
    EXPECT_FALSE(i2c_attach_eeprom(0, 1, 0x400, true));
    const struct {
        uint8_t channel;
        uint16_t addr;
        uint8_t status;
    } cases[] = {
        {2, 0x0050, MSG_I2C_WRITE_DATA_OK},     // 10-bit: the low ten bits
        {2, 0xFC50, MSG_I2C_WRITE_DATA_OK},     // bits above them do not count
        {2, 0x00A0, MSG_I2C_WRITE_DATA_ERROR},  // the 8-bit form means nothing to a 10-bit channel
        {1, 0x00A1, MSG_I2C_WRITE_DATA_OK},     // 7-bit: the R/W bit is ignored
        {1, 0x01A0, MSG_I2C_WRITE_DATA_OK},     // and so is the high byte
        {1, 0x0050, MSG_I2C_WRITE_DATA_ERROR},  // 0x28: nobody
        {1, 0x0090, MSG_I2C_WRITE_DATA_ERROR}   // the sensor lives on channel 0 only
    };
    for (const auto& c : cases) EXPECT_EQ(write_to(c.addr, 0x01, {0x42}, c.channel), c.status) << c.addr;
    EXPECT_EQ(i2c_eeprom(0, 1, 0x50).at(0x01), 0x42);
    EXPECT_EQ(i2c_eeprom(0, 0, 0x50).at(0x01), 0xFF);  // channel 0's EEPROM untouched
    // Removing the 7-bit part 0x50 of channel 2 (there is none) leaves the 10-bit part in place.
    i2c_detach(0, 2, 0x50);
    EXPECT_EQ(bus_read(0x0050, 0x01, 1, 2), Bytes{0x42});
}

TEST_F(I2c, ControlApiIsHarmlessOnUnknownAdaptersAndChannels) {
    for (int adapter : {-1, 1, 7}) {
        EXPECT_FALSE(i2c_channel(adapter, 0).initialised);
        EXPECT_TRUE(i2c_timing(adapter).empty());
        EXPECT_TRUE(i2c_eeprom(adapter, 0, 0x50).empty());
        EXPECT_FALSE(i2c_master_write(adapter, 0, {1}));
        EXPECT_TRUE(i2c_master_read(adapter, 0, 4).empty());
        raise_pin_event(adapter, 1, 1);
        i2c_attach_defaults(adapter);
    }
    for (int channel : {-1, 21, 1000}) {
        EXPECT_FALSE(i2c_channel(0, channel).initialised);
        EXPECT_TRUE(i2c_eeprom(0, channel, 0x50).empty());
        set_i2c_eeprom(0, channel, 0x50, {1});
        set_temperature(0, channel, 0x48, 1000);
        i2c_detach(0, channel, 0x50);
        EXPECT_FALSE(i2c_master_write(0, channel, {1}));
    }
    EXPECT_TRUE(i2c_eeprom(0, 0, 0x48).empty());  // the sensor is no EEPROM
    set_temperature(0, 0, 0x50, 1000);            // nor the EEPROM a sensor
    EXPECT_EQ(i2c_eeprom(0, 0, 0x50).size(), 256u);
}

}  // namespace
}  // namespace corvel::sim::test
