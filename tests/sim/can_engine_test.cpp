// The firmware model's CAN side driven with raw frames: refusals, bit timing, the bus between the
// channels in each mode, filters, FIFO paging and overflow, error counters and bus-off, and the
// simulated nodes. What the library sends is covered by tests/can/behaviour_test.cpp.
#include <unistd.h>

#include <cerrno>

#include "CorvelBoard.h"
#include "CorvelMsg.h"
#include "corvel/sim_can.hpp"
#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

// An init payload: channel, TTCM, ABOM, AWUM, NART, RFLM, TXFP, mode, SJW, BS1, BS2, prescaler, relay.
struct Init {
    uint8_t channel = 1, abom = 0, nart = 1, rflm = 1, mode = 0, sjw = 0, bs1 = 2, bs2 = 1;
    uint16_t prescaler = 12;  // 500 kbit/s
    Bytes payload() const {
        return {channel,
                0,
                abom,
                0,
                nart,
                rflm,
                1,
                mode,
                sjw,
                bs1,
                bs2,
                uint8_t(prescaler >> 8),
                uint8_t(prescaler),
                0};
    }
};

class Can : public SimTest {
  protected:
    void SetUp() override { rebuild({can_adapter(proto::kDevTypeCan2)}); }
    static AdapterSpec can_adapter(int type, CanSpec can = {}) {
        AdapterSpec a = adapter("CAN0001", type);
        a.can = can;
        return a;
    }
    // The answer of a status-path request carrying the channel alone: `result` 0 is a zero-length
    // answer, -ETIMEDOUT none at all.
    Read on_channel(uint32_t code, uint8_t channel) {
        EXPECT_EQ(write(h, frame(code, {channel})), 8);
        return read(h, 20000);
    }
    Bytes init(const Init& i) { return ask(MSG_KD_CAN_INIT, i.payload()); }
    Bytes send(const Bytes& records) { return ask(MSG_KD_CAN_WRITE_DATAS, records); }
    Bytes poll(uint8_t channel) { return on_channel(MSG_KD_CAN_READ_DATAS, channel).data; }
    std::size_t waiting(int channel) { return can_controller(0, channel).waiting; }
};

const Bytes kOk = {MSG_CAN_NINT_OK};
const Bytes kSent = {MSG_CAN_WRITE_DATA_OK};
const Bytes kNotSent = {MSG_CAN_WRITE_DATA_ERROR};
// Standard data frame 0x123 with data 11 22 33, from channel 1.
const Bytes kFrame1 = {0x31, 0x23, 0x01, 0x11, 0x22, 0x33};

TEST_F(Can, MalformedRequestsGetTheirRefusal) {
    const Bytes read_refused = {0x00, 0x00, 0x0B, 0x06, 47, 0x00, 0x00};
    const Bytes status_refused = Bytes{0x00, 0x00, 0x0B, 0x0E, 49, 0x00, 18} + Bytes(18, 0);
    const Bytes error_refused = Bytes{0x00, 0x00, 0x0B, 0x0A, 49, 0x00, 17} + Bytes(17, 0);
    const struct {
        uint32_t code;
        Bytes payload;
        Bytes answer;
    } cases[] = {
        {2816, Bytes(13, 0), {42}},
        {2816, Init{.channel = 3}.payload(), {42}},
        {2816, Init{.channel = 0}.payload(), {42}},
        {2816, Init{.mode = 4}.payload(), {42}},
        {2818, Bytes(14, 0), {42}},
        {2818, Bytes{1, 28} + Bytes(13, 0), {42}},
        {2820, {0x01, 0x23}, {44}},
        {2820, {0x81, 0x23, 0x01, 1, 2, 3, 4, 5, 6, 7}, {44}},  // eight data bytes announced, seven there
        {2820, kFrame1 + Bytes{0x13, 0x00, 0x01, 0x55}, {44}},  // channel 3: the whole batch stays
        {2828, {0x00, 0x23, 0x01}, {44}},                       // channel 0
        {2822, {1, 0}, read_refused},
        {2822, {3}, read_refused},
        {2830, {}, status_refused},
        {2830, {3}, status_refused},
        {2826, {3}, error_refused},
        {2834, {3}, {42}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ask(c.code, c.payload), c.answer) << c.code << " " << c.payload.size();
    EXPECT_EQ(waiting(2), 0u);
    EXPECT_FALSE(can_controller(0, 1).configured);
    // The frames-waiting count never leaves the host's status read to time out.
    for (const Bytes& payload : {Bytes{}, Bytes{3}, Bytes{1, 1}, Bytes{1}}) {
        ASSERT_EQ(write(h, frame(2824, payload)), int(7 + payload.size()));
        EXPECT_EQ(read(h, 1).result, 0) << payload.size();
    }
    // A one-channel adapter has no channel 2.
    rebuild({can_adapter(proto::kDevTypeCan1)});
    EXPECT_EQ(init(Init{.channel = 2}), Bytes{42});
    EXPECT_EQ(send({0x02, 0x23, 0x01}), kNotSent);
    EXPECT_EQ(on_channel(2822, 2).data, read_refused);
}

TEST_F(Can, InitSetsTheBitRateFromTheTimingRegisters) {
    EXPECT_EQ(can_controller(0, 2).bitrate, 500000u);  // power-on: the bus's rate
    const struct {
        uint8_t sjw, bs1, bs2;
        uint16_t prescaler;
        uint32_t bitrate;
    } cases[] = {{0, 4, 2, 4, 1000000},  {0, 2, 1, 24, 250000},
                 {1, 5, 3, 1000, 3273},  {3, 0x12, 0x09, 6, 1000000},  // BS1 4 bits, BS2 3 bits: 2 and 1
                 {0, 2, 1, 0, 5859},                                   // prescaler 0 acts as 1024
                 {0, 2, 1, 1036, 500000}};                             // 10 bits: 1036 is 12
    for (const auto& c : cases) {
        ASSERT_EQ(
            init(Init{.channel = 2, .sjw = c.sjw, .bs1 = c.bs1, .bs2 = c.bs2, .prescaler = c.prescaler}),
            kOk);
        EXPECT_EQ(can_controller(0, 2).bitrate, c.bitrate) << c.prescaler;
    }
    EXPECT_TRUE(can_controller(0, 2).configured);
    EXPECT_FALSE(can_controller(0, 1).configured);
}

TEST_F(Can, FramesPassBetweenChannelsAtTheSameBitRate) {
    usleep(123456);  // time stamp 1234 (100 us units)
    // Standard data, extended data, and a remote frame, from channel 1.
    ASSERT_EQ(send(kFrame1 + Bytes{0x29, 0x78, 0x56, 0x34, 0x12, 0xAA, 0xBB} + Bytes{0x05, 0xFF, 0x07}),
              kSent);
    EXPECT_EQ(on_channel(2824, 2).data, Bytes{3});
    EXPECT_EQ(poll(2), (Bytes{0x00, 0x00, 0x0B, 0x06, 45,   0x00, 0x1C,                          // 28 bytes
                              0x32, 0x23, 0x01, 0xD2, 0x04, 0x00, 0x00, 0x11, 0x22, 0x33,        //
                              0x2A, 0x78, 0x56, 0x34, 0x12, 0xD2, 0x04, 0x00, 0x00, 0xAA, 0xBB,  //
                              0x06, 0xFF, 0x07, 0xD2, 0x04, 0x00, 0x00}));
    EXPECT_EQ(poll(2), (Bytes{0x00, 0x00, 0x0B, 0x06, 46, 0x00, 0x00}));
    EXPECT_EQ(on_channel(2824, 1).result, 0);  // a normal controller does not receive its own frames
    EXPECT_EQ(can_controller(0, 1).tec, 0u);
    const auto bus = can_bus_frames(0);
    ASSERT_EQ(bus.size(), 3u);
    EXPECT_EQ(bus[1].frame, (CanFrame{0x12345678, true, false, 2, {0xAA, 0xBB}}));
    EXPECT_EQ(bus[1].channel, 1);
    EXPECT_TRUE(bus[1].acknowledged);

    // At another bit rate nothing arrives, the sender is not acknowledged and the receiver sees noise.
    ASSERT_EQ(init(Init{.channel = 2, .prescaler = 24}), kOk);
    ASSERT_EQ(send(kFrame1), kSent);
    EXPECT_EQ(on_channel(2824, 2).result, 0);
    EXPECT_EQ(can_controller(0, 1).tec, 8u);
    EXPECT_EQ(can_controller(0, 1).lec, 3);
    EXPECT_EQ(can_controller(0, 2).rec, 1u);
}

TEST_F(Can, ModesDecideWhoSendsHearsAndAcknowledges) {
    const struct {
        uint8_t mode1, mode2;
        std::size_t own, other;
        unsigned tec;
    } cases[] = {
        {0, 0, 0, 1, 0}, {1, 0, 1, 1, 0}, {3, 0, 1, 0, 0},
        {2, 0, 0, 0, 0}, {0, 2, 0, 0, 8},  // a silent listener neither acknowledges nor gets an errored frame
        {1, 2, 1, 1, 0},                   // a loop-back sender needs no acknowledgement
        {0, 1, 0, 0, 8},                   // a loop-back controller hears nothing from the bus
        {0, 3, 0, 0, 8}};
    for (const auto& c : cases) {
        ASSERT_EQ(init(Init{.channel = 1, .mode = c.mode1}), kOk);
        ASSERT_EQ(init(Init{.channel = 2, .mode = c.mode2}), kOk);
        ASSERT_EQ(send(kFrame1), kSent);
        EXPECT_EQ(waiting(1), c.own) << int(c.mode1) << int(c.mode2);
        EXPECT_EQ(waiting(2), c.other) << int(c.mode1) << int(c.mode2);
        EXPECT_EQ(can_controller(0, 1).tec, c.tec) << int(c.mode1) << int(c.mode2);
    }
}

TEST_F(Can, FiltersTakeFramesByMaskOrListAndNameTheFilter) {
    auto bank = [&](uint8_t number, uint8_t mode, uint8_t scale, uint16_t id_high, uint16_t id_low,
                    uint16_t mask_high, uint16_t mask_low) {
        const Bytes p = {2,
                         number,
                         mode,
                         scale,
                         uint8_t(id_high >> 8),
                         uint8_t(id_high),
                         uint8_t(id_low >> 8),
                         uint8_t(id_low),
                         uint8_t(mask_high >> 8),
                         uint8_t(mask_high),
                         uint8_t(mask_low >> 8),
                         uint8_t(mask_low),
                         0,
                         1,
                         1};
        ASSERT_EQ(ask(MSG_KD_CAN_INIT_FILTER, p), kOk);
    };
    bank(14, 0, 1, 0x2460, 0x0000, 0xFFE0, 0x0004);  // standard 0x123, data or remote
    bank(15, 1, 1, 0x0009, 0x1A2C, 0xFFFF, 0xFFFC);  // list: extended 0x12345 and 0x1FFFFFFF
    bank(16, 1, 0, 0x0000, 0xFFE0, 0x0000, 0x0000);  // 16-bit list: standard 0x7FF first
    ASSERT_EQ(send(Bytes{0x01, 0x23, 0x01} + Bytes{0x01, 0x24, 0x01} +  // 0x123 taken, 0x124 not
                   Bytes{0x09, 0x23, 0x01, 0x00, 0x00} +                // extended 0x123: not
                   Bytes{0x09, 0x45, 0x23, 0x01, 0x00} +                // extended 0x12345
                   Bytes{0x09, 0x46, 0x23, 0x01, 0x00} +                // extended 0x12346: not
                   Bytes{0x09, 0xFF, 0xFF, 0xFF, 0x1F} +                // extended 0x1FFFFFFF
                   Bytes{0x05, 0x23, 0x01} + Bytes{0x01, 0xFF, 0x07}),  // remote 0x123; 0x7FF
              kSent);
    const auto got = can_waiting(0, 2);
    const struct {
        uint32_t id;
        uint8_t filter;
    } expected[] = {{0x123, 0}, {0x12345, 1}, {0x1FFFFFFF, 2}, {0x123, 0}, {0x7FF, 3}};
    ASSERT_EQ(got.size(), std::size(expected));
    for (std::size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].frame.id, expected[i].id) << i;
        EXPECT_EQ(got[i].filter_index, expected[i].filter) << i;
    }
    EXPECT_EQ(can_controller(0, 2).last_filter_index, 3);
    EXPECT_EQ(can_controller(0, 1).tec, 0u);  // acknowledged whatever the filters took
}

TEST_F(Can, ReadRepliesCarryWholeRecordsUpTo10240Bytes) {
    Bytes batch;  // 700 extended frames of 8 bytes: 17-byte records
    for (int i = 0; i < 700; ++i) {
        batch.insert(batch.end(), {0x89, uint8_t(i), uint8_t(i >> 8), 0, 0});
        batch.insert(batch.end(), 8, 0x5A);
    }
    ASSERT_EQ(send(batch), kSent);
    EXPECT_EQ(on_channel(2824, 2).data, Bytes{255});
    const Bytes first = poll(2);
    ASSERT_EQ(first.size(), 10224u);  // 601 records
    EXPECT_EQ(Bytes(first.begin(), first.begin() + 7), (Bytes{0x00, 0x00, 0x0B, 0x06, 45, 0x27, 0xE9}));
    EXPECT_EQ(Bytes(first.end() - 17, first.end() - 12), (Bytes{0x8A, 0x58, 0x02, 0x00, 0x00}));  // 600
    EXPECT_EQ(on_channel(2824, 2).data, Bytes{99});
    const Bytes second = poll(2);
    ASSERT_EQ(second.size(), 7u + 99 * 17);
    EXPECT_EQ(Bytes(second.begin(), second.begin() + 12),
              (Bytes{0x00, 0x00, 0x0B, 0x06, 45, 0x06, 0x93, 0x8A, 0x59, 0x02, 0x00, 0x00}));
    EXPECT_EQ(on_channel(2824, 2).result, 0);
}

TEST_F(Can, FullFifoDropsTheNewOrTheOldestAsRflmSays) {
    for (uint8_t rflm : {1, 0}) {
        ASSERT_EQ(init(Init{.channel = 2, .rflm = rflm}), kOk);
        Bytes batch;  // 4100 standard frames, identifiers 0 to 4099 (modulo 0x800)
        for (int i = 0; i < 4100; ++i) batch.insert(batch.end(), {0x01, uint8_t(i), uint8_t((i >> 8) & 7)});
        ASSERT_EQ(send(batch), kSent);
        const auto got = can_waiting(0, 2);
        ASSERT_EQ(got.size(), 4096u);
        EXPECT_EQ(got.front().frame.id, rflm ? 0u : 4u);
        EXPECT_EQ(
            ask(2826, {2}),
            (Bytes{0x00, 0x00, 0x0B, 0x0A, 50, 0x00, 17, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x04} + Bytes(8, 0)));
        const Bytes status = ask(2830, {2});
        EXPECT_EQ(Bytes(status.begin() + 7, status.begin() + 9), (Bytes{0x00, 0x00}));  // BufferSize
    }
    EXPECT_EQ(ask(2834, {2}), kOk);  // reset: FIFO and lost count gone
    EXPECT_EQ(waiting(2), 0u);
    EXPECT_EQ(can_controller(0, 2).lost, 0u);
}

TEST_F(Can, UnacknowledgedFramesLeadToBusOff) {
    rebuild({can_adapter(proto::kDevTypeCan1)});  // a lone channel: nobody acknowledges
    for (int i = 0; i < 12; ++i) ASSERT_EQ(send(kFrame1), kSent);
    EXPECT_EQ(ask(2830, {1}), (Bytes{0x00, 0x00, 0x0B, 0x0E, 50, 0x00, 18,   0x10, 0x00,  // 4096 free
                                     0x00, 0x60, 0x00, 0x31,  // ESR: TEC 96, LEC 3, warning
                                     0x00, 0x00, 0x00, 0x09,  // TSR: RQCP0, TERR0
                                     1,    0,    3,    96,   0,  0,    0x44, 96}));
    for (int i = 12; i < 32; ++i) ASSERT_EQ(send(kFrame1), kSent);  // TEC 256: bus-off
    EXPECT_EQ(send(kFrame1), kNotSent);
    EXPECT_EQ(ask(2826, {0}), (Bytes{0x00, 0x00, 0x0B, 0x0A, 50, 0x00, 34, 3, 255, 0, 1, 1, 1, 0, 0, 0} +
                               Bytes(8, 0) + Bytes(17, 0)));
    usleep(1000000);
    EXPECT_EQ(send(kFrame1), kNotSent);  // without automatic recovery it stays off
    EXPECT_EQ(ask(2834, {1}), kOk);
    EXPECT_EQ(can_controller(0, 1).tec, 0u);

    // Without NART the controller retries at once until bus-off; with ABOM it comes back after
    // 128 x 11 bit times (2816 us at 500 kbit/s).
    ASSERT_EQ(init(Init{.abom = 1, .nart = 0}), kOk);
    EXPECT_EQ(send(kFrame1 + kFrame1), kSent);
    EXPECT_TRUE(can_controller(0, 1).bus_off);
    EXPECT_EQ(can_bus_frames(0).size(), 33u);  // 32 single attempts, one request retried to the end
    usleep(2815);
    EXPECT_EQ(send(kFrame1), kNotSent);
    usleep(1);
    EXPECT_FALSE(can_controller(0, 1).bus_off);
    EXPECT_EQ(can_controller(0, 1).tec, 0u);
}

TEST_F(Can, EchoNodeAnswersAndGeneratorSendsAtItsRate) {
    CanSpec setup;
    setup.echo.bus = 1;
    setup.generator = {
        .rate = 100, .ids = CanGeneratorSpec::Ids::Increment, .id_first = 0x100, .id_last = 0x102, .dlc = 2};
    rebuild({can_adapter(proto::kDevTypeCan1, setup)});
    ASSERT_EQ(send(kFrame1), kSent);  // acknowledged by the nodes
    EXPECT_EQ(can_controller(0, 1).tec, 0u);
    EXPECT_EQ(poll(1), (Bytes{0x00, 0x00, 0x0B, 0x06, 45, 0x00, 0x0A, 0x31, 0x24, 0x01, 0, 0, 0, 0, 0x11,
                              0x22, 0x33}));
    // Frame k is due k / 100 s after the start; the echo node answers those too.
    usleep(30000);
    EXPECT_EQ(poll(1),
              (Bytes{0x00, 0x00, 0x0B, 0x06, 45,   0x00, 0x36,  //
                     0x21, 0x00, 0x01, 0x64, 0,    0,    0,    0x01, 0x00, 0x21, 0x01, 0x01, 0x64, 0,
                     0,    0,    0x01, 0x00, 0x21, 0x01, 0x01, 0xC8, 0,    0,    0,    0x02, 0x00, 0x21,
                     0x02, 0x01, 0xC8, 0,    0,    0,    0x02, 0x00, 0x21, 0x02, 0x01, 0x2C, 1,    0,
                     0,    0x03, 0x00, 0x21, 0x03, 0x01, 0x2C, 1,    0,    0,    0x03, 0x00}));
    set_can_echo(0, {});
    usleep(970000);
    EXPECT_EQ(can_generated(0, 1), 100u);
    EXPECT_EQ(ask(be32(KD_CMD_CAN_GET_DATA_FLAG) + be32(0), 0x01),
              (Bytes{0x00, 0x00, 0x0B, 0x01, 0, 0, 0, 97}));

    // A long pause costs no more than what can land: the first and the last frames, the rest lost.
    set_can_generator(0, {.rate = 1000000});
    usleep(10000000);
    const CanControllerState c = can_controller(0, 1);
    EXPECT_EQ(can_generated(0, 1), 10000100u);
    EXPECT_EQ(c.waiting, 4096u);
    EXPECT_EQ(c.lost, 10000000u - (4096 - 97));
}

}  // namespace
}  // namespace corvel::sim::test
