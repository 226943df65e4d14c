// The ControlCAN-style interface on the wire: payloads of the channel and filter initialisations,
// transmit packing, and the decoding of scripted replies.
#include <cstring>
#include <optional>

#include "can_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

VCI_INIT_CONFIG config(uint8_t t0, uint8_t t1, uint32_t code = 0, uint32_t mask = 0xFFFFFFFF,
                       uint8_t filter = 1, uint8_t mode = 0) {
    VCI_INIT_CONFIG c{};
    c.AccCode = code;
    c.AccMask = mask;
    c.Filter = filter;
    c.Timing0 = t0;
    c.Timing1 = t1;
    c.Mode = mode;
    return c;
}

TEST_F(CanWire, InitSendsTheTimingRowAndTheFilter) {
    const struct {
        VCI_INIT_CONFIG c;
        uint32_t can;
        Bytes init, filter;
    } cases[] = {
        // 500 kbit/s, accept all: row 4.
        {config(0x00, 0x1C),
         0,
         {1, 0, 0, 0, 1, 1, 1, 0, 0, 2, 1, 0x00, 0x0C, 0},
         {1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1}},
        // An unknown pair is 1 Mbit/s (row 0); silent mode; channel 2 uses bank 14.
        {config(0x12, 0x34, 0, 0xFFFFFFFF, 1, 1),
         1,
         {2, 0, 0, 0, 1, 1, 1, 2, 0, 4, 2, 0x00, 0x04, 0},
         {2, 14, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1}},
        // 5 kbit/s, a standard identifier 0x123: IDE must match, RTR free.
        {config(0xBF, 0xFF, 0x24600000, 0x001FFFFF),
         0,
         {1, 0, 0, 0, 1, 1, 1, 0, 1, 5, 3, 0x02, 0x58, 0},
         {1, 0, 0, 1, 0x24, 0x60, 0x00, 0x00, 0xFF, 0xE0, 0x00, 0x04, 0, 1, 1}},
        // 125 kbit/s, extended identifier 0x12345678 exactly, data frames only; self-test mode.
        {config(0x03, 0x1C, 0x12345678u << 3, 0x00000003, 1, 2),
         0,
         {1, 0, 0, 0, 1, 1, 1, 3, 0, 2, 1, 0x00, 0x30, 0},
         {1, 0, 0, 1, 0x91, 0xA2, 0xB3, 0xC4, 0xFF, 0xFF, 0xFF, 0xFE, 0, 1, 1}},
    };
    for (const auto& k : cases) {
        settle();
        inject_bulk(status_answer(41));
        inject_bulk(status_answer(41));
        VCI_INIT_CONFIG c = k.c;
        EXPECT_EQ(VCI_InitCAN(4, 0, k.can, &c), 1u);
        ASSERT_EQ(sent().size(), 2u);
        EXPECT_EQ(sent()[0], request(2816, k.init));
        EXPECT_EQ(sent()[1], request(2818, k.filter));
    }
}

}  // namespace

namespace {

// A receive reply: header 2822, status, size, then the records.
Bytes receive_reply(const Bytes& records, uint8_t status = 45, std::optional<std::size_t> announced = {}) {
    return reply(2822, status, records, announced);
}

TEST_F(CanWire, ReadThreadQueuesDecodedFramesAndStops) {
    const Bytes standard = {0x81, 0x23, 0x01, 0x10, 0x27, 0x00, 0x00, 1, 2, 3, 4, 5, 6, 7, 8};
    const Bytes extended = {0x2A, 0x78, 0x56, 0x34, 0x12, 0x01, 0x00, 0x00, 0x00, 0xAA, 0xBB};
    const Bytes remote = {0x45, 0xFF, 0x07, 0x02, 0x00, 0x00, 0x00};
    inject_bulk(status_answer(3));
    inject_bulk(receive_reply(standard + extended + remote));
    ASSERT_EQ(VCI_StartCAN(4, 0, 0), 1u);
    ASSERT_TRUE(until([] { return VCI_GetReceiveNum(4, 0, 0) == 3; }));
    EXPECT_EQ(VCI_ResetCAN(4, 0, 0), 1u);
    VCI_CAN_OBJ got[4]{};
    ASSERT_EQ(VCI_Receive(4, 0, 0, got, 4, 0), 3u);
    const uint8_t data8[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(got[0].ID, 0x123u);
    EXPECT_EQ(got[0].TimeStamp, 10000u);
    EXPECT_EQ(got[0].DataLen, 8);
    EXPECT_EQ(std::memcmp(got[0].Data, data8, 8), 0);
    EXPECT_EQ(got[0].TimeFlag, 1);
    EXPECT_EQ(got[1].ID, 0x12345678u);
    EXPECT_EQ(got[1].ExternFlag, 1);
    EXPECT_EQ(got[1].DataLen, 2);
    EXPECT_EQ(got[1].Data[1], 0xBB);
    EXPECT_EQ(got[2].ID, 0x7FFu);
    EXPECT_EQ(got[2].RemoteFlag, 1);
    EXPECT_EQ(got[2].DataLen, 4);
    EXPECT_EQ(got[2].TimeStamp, 2u);
    const auto polls = codes();
    ASSERT_GE(polls.size(), 3u);
    EXPECT_EQ(sent()[0], request(2824, {1}));
    EXPECT_EQ(sent()[1], request(2822, {1}));
    EXPECT_EQ(sent()[2], request(2824, {1}));
}

}  // namespace
