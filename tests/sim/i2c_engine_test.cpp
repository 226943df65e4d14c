// The firmware model's I2C side, driven with raw frames: malformed requests, the answers' exact
// bytes, the bus traffic behind the sub-address width and the address forms, the simulated parts,
// slave buffers and pin-event transfers.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <random>

#include "CorvelMsg.h"
#include "corvel/sim_i2c.hpp"
#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

constexpr uint8_t kNack = 0xEE;          // marks "no single status byte came back"
constexpr std::size_t kCollect = 10233;  // a slave collect's most data: the host's buffer less the header

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

// A data answer as the adapter sends it: header (code, status, length), then the data.
Bytes data_answer(uint32_t code, uint8_t state, const Bytes& data) {
    return be32(code) + Bytes{state} + be16(uint16_t(data.size())) + data;
}

class I2c : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        h = open();
        ASSERT_NE(h, nullptr);
        ASSERT_EQ(status(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0)), MSG_I2C_NINT_OK);
    }
    Bytes ask(uint32_t code, const Bytes& payload) {
        const Bytes f = frame(code, payload);
        EXPECT_EQ(write(h, f), static_cast<int>(f.size()));
        return read(h, 70000).data;
    }
    uint8_t status(uint32_t code, const Bytes& payload) {
        const Bytes answer = ask(code, payload);
        return answer.size() == 1 ? answer[0] : kNack;
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

    usb_dev_handle* h = nullptr;
};

TEST_F(I2c, MalformedRequestsGetTheirOperationsErrorStatus) {
    const struct {
        uint32_t code;
        Bytes payload;
        uint8_t status;
    } cases[] = {
        {MSG_KD_REQUEST_SET_IIC_INFORMATION, Bytes(11, 0), MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0) + Bytes{0}, MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_SET_IIC_INFORMATION, config(21), MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0, 5), MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0, 1, 8), MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_SOFT_SET_IIC_TIME_ONE_INFORMATION, Bytes(13, 0), MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_SOFT_SET_IIC_TIME_ONE_INFORMATION, Bytes(15, 0), MSG_I2C_NINT_ERROR},
        {MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, Bytes(6, 0), MSG_I2C_WRITE_DATA_ERROR},
        {MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(0xA0, 0, 21), MSG_I2C_WRITE_DATA_ERROR},
        {MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(0xA0, 0, 255) + Bytes{1}, MSG_I2C_WRITE_DATA_ERROR},
        {MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(0xA0, 0, 1),
         MSG_I2C_WRITE_DATA_ERROR},  // not initialised
        {MSG_KD_REQUEST_IIC_DATAS_READ, {}, MSG_I2C_READ_DATA_ERROR},
        {MSG_KD_REQUEST_IIC_DATAS_READ, transfer(0xA0, 0, 0) + Bytes{1}, MSG_I2C_READ_DATA_ERROR},
        {MSG_KD_REQUEST_IIC_DATAS_READ, transfer(0xA0, 0, 0) + Bytes{0, 1, 2}, MSG_I2C_READ_DATA_ERROR},
        {MSG_KD_REQUEST_WRITE_READ, Bytes(14, 0), MSG_I2C_READ_DATA_ERROR},
        {MSG_KD_SLAVE_WRITE, {}, MSG_I2C_WRITE_DATA_ERROR},
        {MSG_KD_SLAVE_WRITE, {0, 1, 2}, MSG_I2C_WRITE_DATA_ERROR},  // channel 0 is a master
        {MSG_KD_EVENT_READ, Bytes(16, 0), MSG_I2C_READ_DATA_ERROR},
        {MSG_KD_EVENT_READ, Bytes(18, 0), MSG_I2C_READ_DATA_ERROR},
        {MSG_KD_EVENT_READ, transfer(0xA0, 0, 21) + Bytes(10, 0), MSG_I2C_READ_DATA_ERROR},
        {MSG_KD_EVENT_WRITE, Bytes(14, 0), MSG_I2C_WRITE_DATA_ERROR},
        {MSG_KD_EVENT_CLEAR, {0, 1}, MSG_I2C_WRITE_DATA_ERROR},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.code << " with " << c.payload.size() << " bytes");
        EXPECT_EQ(ask(c.code, c.payload), Bytes{c.status});
    }
    EXPECT_TRUE(nothing_waits());
    EXPECT_TRUE(unknown_messages(0).empty());
    EXPECT_EQ(i2c_channel(0, 0).sub_addr_width, 1);  // the refused configurations changed nothing
    EXPECT_TRUE(i2c_timing(0).empty());

    // Remaining bytes of no channel: a reply frame, with the transfer error status.
    EXPECT_EQ(ask(MSG_KD_SLAVE_WRITE_REMAIN, {}), data_answer(MSG_KD_SLAVE_WRITE_REMAIN_FB, 3, {0, 0}));
    EXPECT_EQ(ask(MSG_KD_SLAVE_WRITE_REMAIN, {21}), data_answer(MSG_KD_SLAVE_WRITE_REMAIN_FB, 3, {0, 0}));
}

TEST_F(I2c, AnyPayloadIsAnsweredAndTheAdapterCarriesOn) {
    const uint32_t codes[] = {768, 770, 772, 774, 776, 782, 784, 786, 790, 792, 794, 796};
    std::minstd_rand random(7);
    for (uint32_t code : codes) {
        for (std::size_t size : {0, 1, 6, 7, 8, 9, 12, 14, 15, 16, 17, 18, 40, 3000}) {
            Bytes payload(size);
            for (uint8_t& b : payload) b = uint8_t(random());
            SCOPED_TRACE(testing::Message() << code << " with " << size << " bytes");
            ASSERT_EQ(write(h, frame(code, payload)), static_cast<int>(size + 7));
            int answers = 0;
            while (read(h, 70000).result > 0) ++answers;
            // One answer each; a pin-event transfer may instead wait for its event.
            const bool may_wait = code == MSG_KD_EVENT_READ || code == MSG_KD_EVENT_WRITE;
            EXPECT_EQ(answers, may_wait ? std::min(answers, 1) : 1);
        }
    }
    for (int pin = 0; pin < 256; ++pin) raise_pin_event(0, uint16_t(pin), uint16_t(random() & 3));
    while (read(h, 70000).result > 0) {
    }
    EXPECT_TRUE(unknown_messages(0).empty());
    ASSERT_EQ(status(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0)), MSG_I2C_NINT_OK);
    EXPECT_EQ(bus_read(0x90, 2, 2).size(), 2u);
}

TEST_F(I2c, OtherPersonalitiesHaveNoI2c) {
    for (int personality : {2, 3, 4}) {
        rebuild({adapter("CV0000000002", personality)});
        h = open();
        EXPECT_EQ(write(h, frame(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0))), 19);
        EXPECT_TRUE(nothing_waits());
        EXPECT_EQ(unknown_messages(0), std::vector<uint32_t>{MSG_KD_REQUEST_SET_IIC_INFORMATION});
        EXPECT_TRUE(i2c_eeprom(0, 0, 0x50).empty());
        EXPECT_FALSE(i2c_channel(0, 0).initialised);
    }
}

TEST_F(I2c, ReadDataIsFetchedOnceWithAnExactHeader) {
    Bytes content(256);
    for (int i = 0; i < 256; ++i) content[i] = uint8_t(i);
    set_i2c_eeprom(0, 0, 0x50, content);
    ASSERT_EQ(status(MSG_KD_REQUEST_IIC_DATAS_READ, transfer(0xA0, 0x10, 0) + be16(3)), MSG_I2C_READ_DATA_OK);
    EXPECT_EQ(fetch(),
              data_answer(MSG_KD_REQUEST_IIC_ADDR_DATAS_REC_FB, MSG_I2C_READ_DATA_OK, {0x10, 0x11, 0x12}));
    EXPECT_EQ(fetch(), data_answer(MSG_KD_REQUEST_IIC_ADDR_DATAS_REC_FB, MSG_I2C_NO_DATA, {}));

    // A failed read leaves nothing to fetch, not even an earlier read's data.
    ASSERT_EQ(status(MSG_KD_REQUEST_IIC_DATAS_READ, transfer(0xA0, 0, 0) + be16(2)), MSG_I2C_READ_DATA_OK);
    ASSERT_EQ(status(MSG_KD_REQUEST_IIC_DATAS_READ, transfer(0xA2, 0, 0) + be16(2)), MSG_I2C_READ_DATA_ERROR);
    EXPECT_EQ(fetch().size(), 7u);

    // The longest read a request can ask for, answered as one block; reads wrap at the end.
    const Bytes all = bus_read(0xA0, 0x10, 0xFFFF);
    ASSERT_EQ(all.size(), 0xFFFFu);
    EXPECT_EQ(all[0], 0x10);
    EXPECT_EQ(all[0xEF], 0xFF);
    EXPECT_EQ(all[0xF0], 0x00);
    EXPECT_EQ(all[0xFFFE], uint8_t(0x10 + 0xFFFE));
}

TEST_F(I2c, SubAddressWidthPutsItsLowBytesOnTheBus) {
    // The EEPROM takes the first byte after its address as the word address and stores the rest,
    // so its contents show every byte that went on the bus.
    const struct {
        uint8_t width;
        uint32_t sub;
        std::vector<std::pair<uint8_t, uint8_t>> stored;  // address, value
    } cases[] = {
        {1, 0x00001234, {{0x34, 0xAA}}},
        {2, 0x00001234, {{0x12, 0x34}, {0x13, 0xAA}}},
        {3, 0x00A1B2C3, {{0xA1, 0xB2}, {0xA2, 0xC3}, {0xA3, 0xAA}}},
        {4, 0x0102FE07, {{0x01, 0x02}, {0x02, 0xFE}, {0x03, 0x07}, {0x04, 0xAA}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(int(c.width));
        ASSERT_EQ(status(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(0, c.width)), MSG_I2C_NINT_OK);
        set_i2c_eeprom(0, 0, 0x50, Bytes(256, 0));
        ASSERT_EQ(status(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(0xA0, c.sub, 0) + Bytes{0xAA}),
                  MSG_I2C_WRITE_DATA_OK);
        Bytes expected(256, 0);
        for (auto [at, value] : c.stored) expected[at] = value;
        EXPECT_EQ(i2c_eeprom(0, 0, 0x50), expected);
    }
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
        {1, 0x00A0, MSG_I2C_WRITE_DATA_OK},     // 7-bit: the part at 0x50
        {1, 0x00A1, MSG_I2C_WRITE_DATA_OK},     // the R/W bit is ignored
        {1, 0x01A0, MSG_I2C_WRITE_DATA_OK},     // and so is the high byte
        {1, 0x0050, MSG_I2C_WRITE_DATA_ERROR},  // 0x28: nobody
        {0, 0x0090, MSG_I2C_WRITE_DATA_OK},     // the sensor lives on channel 0 only
        {1, 0x0090, MSG_I2C_WRITE_DATA_ERROR},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << int(c.channel) << " " << c.addr);
        EXPECT_EQ(status(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(c.addr, 0x01, c.channel) + Bytes{0x42}),
                  c.status);
    }
    EXPECT_EQ(i2c_eeprom(0, 1, 0x50).at(0x01), 0x42);
    EXPECT_EQ(i2c_eeprom(0, 0, 0x50).at(0x01), 0xFF);  // channel 0's EEPROM untouched
    EXPECT_EQ(bus_read(0x0050, 0x01, 1, 2), Bytes{0x42});

    // Removing the 7-bit part 0x50 of channel 2 (there is none) leaves the 10-bit part in place.
    i2c_detach(0, 2, 0x50);
    EXPECT_EQ(bus_read(0x0050, 0x01, 1, 2), Bytes{0x42});
}

TEST_F(I2c, EepromContentsLiveInTheStateDirectory) {
    ASSERT_EQ(status(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(0xA0, 0x20, 0) + Bytes{0x11, 0x22}),
              MSG_I2C_WRITE_DATA_OK);
    const auto file = std::filesystem::path(dir_) / "CV0000000001" / "eeprom-ch0-50.bin";
    ASSERT_TRUE(std::filesystem::exists(file));
    EXPECT_EQ(std::filesystem::file_size(file), 256u);
    rebuild({adapter("CV0000000001")});
    const Bytes kept = i2c_eeprom(0, 0, 0x50);
    EXPECT_EQ(Bytes(kept.begin() + 0x20, kept.begin() + 0x22), (Bytes{0x11, 0x22}));
    // Removed and restored, the part is the same chip.
    i2c_detach(0, 0, 0x50);
    EXPECT_TRUE(i2c_eeprom(0, 0, 0x50).empty());
    i2c_attach_defaults(0);
    EXPECT_EQ(i2c_eeprom(0, 0, 0x50), kept);
}

TEST_F(I2c, TemperatureSensor) {
    const struct {
        int milli;
        Bytes reg;
    } temperatures[] = {
        {25000, {0x19, 0x00}},   {25300, {0x19, 0x00}},   {-5500, {0xFA, 0x80}},  {-5700, {0xFA, 0x00}},
        {-1, {0xFF, 0x80}},      {499, {0x00, 0x00}},     {127999, {0x7F, 0x80}}, {200000, {0x7F, 0x80}},
        {-128000, {0x80, 0x00}}, {INT_MIN, {0x80, 0x00}},
    };
    for (const auto& t : temperatures) {
        SCOPED_TRACE(t.milli);
        set_temperature(0, 0, 0x48, t.milli);
        EXPECT_EQ(bus_read(0x90, 0, 4), t.reg + t.reg);  // the two bytes, then again
    }
    EXPECT_EQ(bus_read(0x90, 2, 2), (Bytes{75, 0}));
    EXPECT_EQ(bus_read(0x90, 3, 2), (Bytes{80, 0}));

    // The limits take 0.5 degree steps; the configuration is one byte; the temperature is read-only.
    const struct {
        uint8_t reg;
        Bytes written;
        Bytes read;
    } writes[] = {
        {2, {0x3C, 0xFF}, {0x3C, 0x80}},
        {3, {0xE7, 0x00, 0x55}, {0xE7, 0x00}},
        {1, {0x06, 0x07}, {0x06, 0x06}},
        {0, {0x01, 0x00}, {0x80, 0x00}},
    };
    for (const auto& w : writes) {
        SCOPED_TRACE(int(w.reg));
        EXPECT_EQ(status(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(0x90, w.reg, 0) + w.written),
                  MSG_I2C_WRITE_DATA_OK);
        EXPECT_EQ(bus_read(0x90, w.reg, 2), w.read);
    }
    // A pointer beyond the last register is not acknowledged.
    EXPECT_EQ(status(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, transfer(0x90, 4, 0)), MSG_I2C_WRITE_DATA_ERROR);
    EXPECT_EQ(status(MSG_KD_REQUEST_IIC_DATAS_READ, transfer(0x90, 4, 0) + be16(1)), MSG_I2C_READ_DATA_ERROR);
}

TEST_F(I2c, SlaveBuffers) {
    ASSERT_EQ(status(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(5, 0, 7, 0)), MSG_I2C_NINT_OK);
    ASSERT_EQ(status(MSG_KD_SLAVE_WRITE, {5, 1, 2, 3}), MSG_I2C_WRITE_DATA_OK);
    ASSERT_EQ(status(MSG_KD_SLAVE_WRITE, {5, 4, 5}), MSG_I2C_WRITE_DATA_OK);  // replaces
    EXPECT_EQ(i2c_master_read(0, 5, 10), (Bytes{4, 5}));
    EXPECT_EQ(ask(MSG_KD_SLAVE_WRITE_REMAIN, {5}), data_answer(MSG_KD_SLAVE_WRITE_REMAIN_FB, 2, {0, 0}));

    // What the master wrote comes in blocks that fit the host's buffer.
    Bytes written(kCollect + 12);
    for (std::size_t i = 0; i < written.size(); ++i) written[i] = uint8_t(i * 7);
    ASSERT_TRUE(i2c_master_write(0, 5, written));
    const Bytes first = ask(MSG_KD_SLAVE_READ, {5});
    ASSERT_EQ(first.size(), 7 + kCollect);
    EXPECT_EQ(Bytes(first.begin(), first.begin() + 7),
              be32(MSG_KD_SLAVE_READ_FB) + Bytes{12} + be16(kCollect));
    EXPECT_EQ(Bytes(first.begin() + 7, first.end()), Bytes(written.begin(), written.begin() + kCollect));
    EXPECT_EQ(ask(MSG_KD_SLAVE_READ, {5}),
              data_answer(MSG_KD_SLAVE_READ_FB, 12, Bytes(written.begin() + kCollect, written.end())));
    EXPECT_EQ(ask(MSG_KD_SLAVE_READ, {5}), data_answer(MSG_KD_SLAVE_READ_FB, MSG_I2C_NO_DATA, {}));
    EXPECT_EQ(ask(MSG_KD_SLAVE_READ, {99}), data_answer(MSG_KD_SLAVE_READ_FB, MSG_I2C_NO_DATA, {}));

    // A new configuration starts the buffers afresh.
    ASSERT_TRUE(i2c_master_write(0, 5, {1}));
    ASSERT_EQ(status(MSG_KD_SLAVE_WRITE, {5, 9}), MSG_I2C_WRITE_DATA_OK);
    ASSERT_EQ(status(MSG_KD_REQUEST_SET_IIC_INFORMATION, config(5, 0, 7, 0)), MSG_I2C_NINT_OK);
    EXPECT_EQ(ask(MSG_KD_SLAVE_READ, {5}).size(), 7u);
    EXPECT_TRUE(i2c_master_read(0, 5, 1).empty());
}

TEST_F(I2c, PinEventTransfersWaitForTheirOwnEvent) {
    set_i2c_eeprom(0, 0, 0x50, Bytes(256, 0x3C));
    const auto event_read = [](uint16_t pin, uint16_t type, uint32_t timeout_ms) {
        return frame(MSG_KD_EVENT_READ,
                     transfer(0xA0, 0, 0) + be16(2) + be16(pin) + be16(type) + be32(timeout_ms));
    };
    const auto event_write = [](uint16_t pin, uint16_t type, uint32_t timeout_ms, uint8_t channel = 0) {
        return frame(MSG_KD_EVENT_WRITE,
                     transfer(0xA0, 0x40, channel) + be16(pin) + be16(type) + be32(timeout_ms) + Bytes{0x99});
    };
    write(h, event_read(1, 1, 10000));
    write(h, event_write(2, 1, 10000));
    write(h, event_write(3, 1, 10000, 4));  // channel 4 is not initialised: fails when it runs
    EXPECT_TRUE(nothing_waits());
    EXPECT_EQ(i2c_waiting_event_transfers(0), 3u);

    raise_pin_event(0, 1, 2);  // right pin, wrong type
    EXPECT_TRUE(nothing_waits());
    raise_pin_event(0, 2, 1);
    EXPECT_EQ(read(h, 8).data, Bytes{MSG_I2C_WRITE_DATA_OK});
    EXPECT_EQ(i2c_eeprom(0, 0, 0x50).at(0x40), 0x99);
    raise_pin_event(0, 3, 1);
    EXPECT_EQ(read(h, 8).data, Bytes{MSG_I2C_WRITE_DATA_ERROR});
    raise_pin_event(0, 1, 1);
    EXPECT_EQ(read(h, 8).data, Bytes{MSG_I2C_READ_DATA_OK});
    EXPECT_EQ(fetch(), data_answer(MSG_KD_REQUEST_IIC_ADDR_DATAS_REC_FB, MSG_I2C_READ_DATA_OK, {0x3C, 0x3C}));
    raise_pin_event(0, 1, 1);  // each transfer runs once
    EXPECT_TRUE(nothing_waits());

    // Dropped once their time-out has passed on the virtual clock.
    write(h, event_read(1, 1, 50));
    EXPECT_TRUE(nothing_waits());  // a 100 ms wait
    EXPECT_EQ(i2c_waiting_event_transfers(0), 0u);
    raise_pin_event(0, 1, 1);
    EXPECT_TRUE(nothing_waits());

    // Cleared by pin mask, on their channel only.
    write(h, event_write(3, 1, 10000));
    write(h, event_write(4, 1, 10000));
    EXPECT_EQ(status(MSG_KD_EVENT_CLEAR, {1, 0x00, 0x18}), MSG_I2C_WRITE_DATA_OK);
    EXPECT_EQ(i2c_waiting_event_transfers(0), 2u);
    EXPECT_EQ(status(MSG_KD_EVENT_CLEAR, {0, 0x00, 0x08}), MSG_I2C_WRITE_DATA_OK);
    raise_pin_event(0, 3, 1);
    EXPECT_TRUE(nothing_waits());
    raise_pin_event(0, 4, 1);
    EXPECT_EQ(read(h, 8).data, Bytes{MSG_I2C_WRITE_DATA_OK});
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
