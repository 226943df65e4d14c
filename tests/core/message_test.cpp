// Frames on the wire: headers, payload bounds, zero-length packets and the receive variants.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>

#include "CorvelBoard.h"
#include "usb_driver.h"
#include "usb_list.h"
#include "wire.hpp"

namespace {

using namespace corvel::test;
using namespace corvel::proto;
namespace sim = corvel::sim;

class Messages : public testing::Test {
  protected:
    void SetUp() override {
        sim::configure({adapter("A")});
        ASSERT_EQ(KD_EnumBoard(1), 1);
        ASSERT_EQ(KD_OpenBoard(0), 0);
        sim::clear_records();
        sim::reset_clock();
        out.fill(0xEE);
    }
    S_MSG msg(int32_t code, int32_t size, uint8_t* payload, uint8_t pack = 0) {
        return S_MSG{code, size, MSG_NO_STATE, pack, payload};
    }
    std::array<uint8_t, 1024> out{};
};

struct HeaderCase {
    int32_t code;
    int32_t size;
    Bytes header;
};

class FrameHeader : public Messages, public testing::WithParamInterface<HeaderCase> {};

TEST_P(FrameHeader, CodeDecidesBetweenSevenAndNineBytes) {
    const HeaderCase c = GetParam();
    Bytes payload(static_cast<std::size_t>(c.size));
    for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i + 1);
    S_MSG m = msg(c.code, c.size, payload.data(), 0x5A);
    ASSERT_EQ(USB_SendMsg(0, &m), 0);
    const auto f = frames();
    ASSERT_EQ(f.size(), 1u);
    Bytes expected = c.header;
    expected.insert(expected.end(), payload.begin(), payload.end());
    EXPECT_EQ(f[0], expected);
    EXPECT_EQ(calls(Call::BulkWrite)[0].timeout_ms, 5000);
}

INSTANTIATE_TEST_SUITE_P(
    Codes, FrameHeader,
    testing::Values(HeaderCase{772, 3, {0x00, 0x00, 0x03, 0x04, 0x5A, 0x00, 0x03}},
                    HeaderCase{32767, 2, {0x00, 0x00, 0x7F, 0xFF, 0x5A, 0x00, 0x02}},
                    HeaderCase{32768, 2, {0x00, 0x00, 0x80, 0x00, 0x5A, 0x00, 0x00, 0x00, 0x02}},
                    HeaderCase{32770, 300, {0x00, 0x00, 0x80, 0x02, 0x5A, 0x00, 0x00, 0x01, 0x2C}},
                    HeaderCase{260, 0, {0x00, 0x00, 0x01, 0x04, 0x5A, 0x00, 0x00}}));

struct ZlpCase {
    int32_t code;
    int32_t size;
    std::size_t zero_length_packets;
};

class FrameZlp : public Messages, public testing::WithParamInterface<ZlpCase> {};

TEST_P(FrameZlp, PacketMultipleFramesAreFollowedByThree) {
    const ZlpCase c = GetParam();
    Bytes payload(static_cast<std::size_t>(c.size), 0x11);
    S_MSG m = msg(c.code, c.size, payload.data());
    ASSERT_EQ(USB_SendMsg(0, &m), 0);
    const auto writes = calls(Call::BulkWrite);
    ASSERT_EQ(writes.size(), 1 + c.zero_length_packets);
    for (std::size_t i = 1; i < writes.size(); ++i) EXPECT_TRUE(writes[i].data.empty());
    // The first zero-length packet belongs to the frame's own write (5000 ms); the extra write of
    // the message layer uses 500 ms and adds two.
    if (c.zero_length_packets == 3) {
        EXPECT_EQ(writes[1].timeout_ms, 5000);
        EXPECT_EQ(writes[2].timeout_ms, 500);
        EXPECT_EQ(writes[3].timeout_ms, 500);
    }
}

INSTANTIATE_TEST_SUITE_P(Lengths, FrameZlp,
                         testing::Values(ZlpCase{772, 56, 0}, ZlpCase{772, 57, 3}, ZlpCase{772, 58, 0},
                                         ZlpCase{772, 121, 3}, ZlpCase{32768, 55, 3}, ZlpCase{32768, 57, 0}));

TEST_F(Messages, OversizedOrMissingPayloadFailsWithoutTraffic) {
    static std::array<uint8_t, kSendFrameMax> big{};
    S_MSG fits = msg(772, 102801, big.data());
    S_MSG too_long = msg(772, 102802, big.data());
    S_MSG long_too_long = msg(32768, 102800, big.data());
    S_MSG null_payload = msg(772, 4, nullptr);
    S_MSG negative = msg(772, -1, big.data());
    EXPECT_EQ(USB_SendMsg(0, &too_long), 1);
    EXPECT_EQ(USB_SendMsg(0, &long_too_long), 1);
    EXPECT_EQ(USB_SendMsg(0, &null_payload), 1);
    EXPECT_EQ(USB_SendMsg(0, &negative), 1);
    EXPECT_TRUE(frames().empty());
    EXPECT_EQ(USB_SendMsg(0, &fits), 0);
    EXPECT_EQ(frames().at(0).size(), kSendFrameMax);
}

TEST_F(Messages, ShortWriteFailsTheSend) {
    sim::fail_next(Call::BulkWrite, 1, -5);
    uint8_t p[2] = {1, 2};
    S_MSG m = msg(772, 2, p);
    EXPECT_EQ(USB_SendMsg(0, &m), 1);
}

// A reply copies no more than it announced, than arrived, than its packet or the caller's size
// holds; one cut short fails (1) and clears the code. Each receive reads with its own time-out.
TEST_F(Messages, RepliesCopyNoMoreThanWasAnnouncedArrivedOrFits) {
    using Receive = uint8_t (*)(S_MSG*);
    const Receive packet = [](S_MSG* m) { return USB_GetMsg(0, m); };          // one full 512-byte packet
    const Receive exact = [](S_MSG* m) { return USB_GetMsgWithSize(0, m); };   // header and m->size bytes
    const Receive header_first = [](S_MSG* m) { return USB_GetMsgEx(0, m); };  // header, then its size
    Bytes counting(600);
    for (std::size_t i = 0; i < counting.size(); ++i) counting[i] = static_cast<uint8_t>(i);
    const struct {
        Receive receive;
        std::vector<Bytes> answers;
        int32_t size;  // m->size passed in
        uint8_t result;
        int32_t code;  // m->message after the call
        int32_t announced;
        Bytes copied;
        std::vector<std::size_t> reads;  // bytes each read delivered
        int timeout_ms;
    } cases[] = {
        {packet,
         {reply(261, 2, {0xA1, 0xA2, 0xA3, 0xA4}, 3, 512)},
         0,
         0,
         261,
         3,
         {0xA1, 0xA2, 0xA3},
         {512},
         5000},
        {packet,
         {reply(261, 2, Bytes(505, 0x77), 0xFFFF, 512)},
         0,
         0,
         261,
         0xFFFF,
         Bytes(505, 0x77),
         {512},
         5000},
        {packet, {reply(261, 2, {1}, 1, 511)}, 0, 1, 0, 0, {}, {511}, 5000},
        {exact, {reply(787, 2, {0x01, 0x02}, 2, 9)}, 2, 0, 787, 2, {0x01, 0x02}, {9}, 1000},
        {exact, {reply(787, 2, {0x05, 0x06}, 40, 9)}, 2, 0, 787, 40, {0x05, 0x06}, {9}, 1000},
        {exact, {reply(787, 2, {0x01}, 1, 8)}, 2, 1, 0, 0, {}, {8}, 1000},
        // Longer than a packet: received whole, but the default capacity copies 505 bytes.
        {exact,
         {reply(787, 2, Bytes(counting.begin(), counting.begin() + 506))},
         506,
         0,
         787,
         506,
         Bytes(counting.begin(), counting.begin() + 505),
         {513},
         1000},
        {header_first, {reply(32769, 2, {}, 0, 7)}, 0, 0, 32769, 0, {}, {7}, 1000},
        {header_first, {reply(32769, 2, {}, 600, 7), counting}, 0, 0, 32769, 600, counting, {7, 600}, 1000},
        {header_first, {reply(32769, 2, {}, 10, 7), {1, 2, 3}}, 0, 1, 0, 0, {}, {7, 3}, 1000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        sim::clear_records();
        for (const Bytes& answer : c.answers) sim::inject_in(0, kEndpointBulkIn, answer);
        out.fill(0xEE);
        S_MSG m = msg(99, c.size, out.data());
        EXPECT_EQ(c.receive(&m), c.result);
        EXPECT_EQ(m.message, c.code);
        if (c.result == 0) {
            EXPECT_EQ(m.status, MSG_MSG_DATA_TRAN_OK);
            EXPECT_EQ(m.size, c.announced);
        }
        EXPECT_EQ(Bytes(out.begin(), out.begin() + c.copied.size()), c.copied);
        EXPECT_EQ(out[c.copied.size()], 0xEE);
        std::vector<std::size_t> reads;
        for (const auto& r : calls(Call::BulkRead)) {
            reads.push_back(r.data.size());
            EXPECT_EQ(r.timeout_ms, c.timeout_ms);
        }
        EXPECT_EQ(reads, c.reads);
    }
}

TEST_F(Messages, StatusByteOrNoState) {
    sim::inject_in(0, kEndpointBulkIn, {MSG_I2C_WRITE_DATA_OK});
    EXPECT_EQ(USB_GetStatus(0), MSG_I2C_WRITE_DATA_OK);
    EXPECT_EQ(calls(Call::BulkRead).at(0).timeout_ms, 3000);

    sim::clear_records();
    EXPECT_EQ(USB_GetStatus(0), MSG_NO_STATE);  // a silent adapter: 100 attempts, 10 s of pauses
    EXPECT_EQ(count(Call::BulkRead), 100u);
    EXPECT_EQ(sim::slept_us(), 10000000u);

    sim::clear_records();
    EXPECT_EQ(USB_GetStatusWithTimeOut(0, 1234), MSG_NO_STATE);
    ASSERT_EQ(count(Call::BulkRead), 1u);
    EXPECT_EQ(calls(Call::BulkRead)[0].timeout_ms, 1234);
}

TEST_F(Messages, SendStatusChecksBeforeWriting) {
    uint8_t p[506] = {};
    EXPECT_EQ(USB_SendStatus(0, msg(0, 0, nullptr)), -4);
    EXPECT_EQ(USB_SendStatus(0, msg(776, 3, nullptr)), -4);
    EXPECT_EQ(USB_SendStatus(0, msg(776, 506, p)), -4);
    EXPECT_TRUE(sim::records().empty());

    EXPECT_EQ(USB_SendStatus(0, msg(776, 0, nullptr)), 0);
    const auto w = calls(Call::BulkWrite);
    ASSERT_EQ(w.size(), 1u);  // no extra zero-length packet
    EXPECT_EQ(w[0].data, (Bytes{0x00, 0x00, 0x03, 0x08, 0x00, 0x00, 0x00}));
    EXPECT_EQ(w[0].timeout_ms, 500);

    sim::fail_next(Call::BulkWrite, 1, -5);
    EXPECT_EQ(USB_SendStatus(0, msg(776, 0, nullptr)), -5);
}

}  // namespace
