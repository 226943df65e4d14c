// The SMBus and PMBus families on the wire: order of checks, payload layouts, the status byte as
// the result, and what the reads store from the replies, hostile ones included. The firmware is
// silenced and every reply scripted here, so these tests hold whatever the adapter model answers.
#include <array>
#include <functional>

#include "ControlPMBus.h"
#include "ControlSMBus.h"
#include "adapter_fixture.hpp"
#include "check_order.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;
using Fn = std::function<int32_t()>;

class SmbusWire : public VirtualAdapters {
  protected:
    void SetUp() override {
        reset({adapter("SMB0001")});
        ASSERT_EQ(SMBus_OpenDevice(KD_DEVTYPE_I2C, 0, 0), 0);
        sim::silence(0, true);
        settle();
    }
};

uint8_t byte, flag, got;
uint16_t word;
std::array<uint8_t, 40> block;
uint8_t three[3] = {0xA1, 0xA2, 0xA3};
Bytes many(33, 0x33);
const std::vector<int32_t> kI2cType{KD_DEVTYPE_I2C};

// The head, then n bytes of `fill`.
Bytes padded(Bytes head, std::size_t n, uint8_t fill) {
    head.resize(head.size() + n, fill);
    return head;
}

// No pointer checks; no channel check but the bus initialisation's (below).
// clang-format off
const CheckedFunction kChecked[] = {
    {"SMBus_QuickCommand", [](int32_t t, int32_t d, int32_t c, bool) { return SMBus_QuickCommand(t, d, c, 0x90); }, kI2cType, kNoChannelCheck, false},
    {"SMBus_GetAlert", [](int32_t t, int32_t d, int32_t c, bool) { return SMBus_GetAlert(t, d, c, &flag); }, kI2cType, kNoChannelCheck, false},
    {"PMBus_BlockWrite", [](int32_t t, int32_t d, int32_t c, bool) { return PMBus_BlockWrite(t, d, c, 0x80, 1, many.data(), 32, 0); }, kI2cType, kNoChannelCheck, false},
    {"PMBus_SetControl", [](int32_t t, int32_t d, int32_t c, bool) { return PMBus_SetControl(t, d, c, 1); }, kI2cType, kNoChannelCheck, false},
};
// clang-format on

TEST_F(SmbusWire, OrderOfChecks) {
    expect_check_order(kChecked);
}

// The bus initialisation refuses a channel above 1 (signed) and a clock outside 10000..400000 with
// -1, after the type and connection checks; the PMBus one the same. The block writes of PMBus
// refuse more than 32 bytes, a group entry of 0 or more than 32, with -4.
TEST_F(SmbusWire, RefusedBeforeAnythingGoesOut) {
    uint8_t zero_entry[] = {0, 0x80, 1}, big_entry[36] = {33, 0x80, 1};
    const struct {
        Fn call;
        int32_t code;
    } cases[] = {
        {[] { return SMBus_HardInit(1, 0, 0, 9999, 0); }, -1},
        {[] { return SMBus_HardInit(1, 0, 0, 400001, 0); }, -1},
        {[] { return SMBus_HardInit(1, 0, 2, 100000, 0); }, -1},
        {[] { return PMBus_HardInit(1, 0, 1, 9999, 0); }, -1},
        {[] { return SMBus_HardInit(2, 0, 5, 0, 0); }, -15},
        {[] { return SMBus_HardInit(1, 7, 5, 0, 0); }, -13},
        {[] { return PMBus_BlockWrite(1, 0, 0, 0x80, 1, many.data(), 33, 0); }, -4},
        {[] { return PMBus_BlockProcessCall(1, 0, 0, 0x80, 1, many.data(), 33, block.data(), &got, 0); }, -4},
        {[&] { return PMBus_GroupCmd(1, 0, 0, zero_entry, 1, 0); }, -4},
        {[&] { return PMBus_GroupCmd(1, 0, 0, big_entry, 1, 0); }, -4},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(cases[i].call(), cases[i].code) << "case " << i;
        EXPECT_TRUE(frames().empty()) << "case " << i;
    }
}

TEST_F(SmbusWire, Payloads) {
    uint8_t group[] = {1, 0x80, 0x01, 0x80, 2, 0x82, 0x21, 0x18, 0x00};
    const struct {
        const char* name;
        Fn call;
        Frame frame;
    } cases[] = {
        // clang-format off
        {"HardInit", [] { return SMBus_HardInit(1, 0, 0, 10000, 0x20); }, request(896, {0, 0, 0, 0x27, 0x10, 0x20})},
        {"HardInit-1", [] { return SMBus_HardInit(1, 0, -1, 400000, 0); }, request(896, {0xFF, 0, 6, 0x1A, 0x80, 0})},
        {"QuickCommand", [] { return SMBus_QuickCommand(1, 0, 1, 0x91); }, request(897, {1, 0x91})},
        {"WriteByte", [] { return SMBus_WriteByte(1, 0, 0, 0xA0, 0x5A, 1); }, request(898, {0, 0xA0, 0x5A, 1})},
        {"ReadByte", [] { return SMBus_ReadByte(1, 0, 0, 0xA1, &byte, 0); }, request(899, {0, 0xA1, 0})},
        {"WriteWordProtocol", [] { return SMBus_WriteWordProtocol(1, 0, 0, 0x90, 2, 0x1234, 1); }, request(901, {0, 0x90, 2, 0x12, 0x34, 1})},
        {"ReadWordProtocol", [] { return SMBus_ReadWordProtocol(1, 0, 0, 0x91, 4, &word, 1); }, request(903, {0, 0x91, 4, 1})},
        {"ProcessCall", [] { return SMBus_ProcessCall(1, 0, 0, 0x90, 5, 0xBEEF, &word, 0); }, request(904, {0, 0x90, 5, 0xBE, 0xEF, 0})},
        {"BlockWrite", [] { return SMBus_BlockWrite(1, 0, 0, 0x90, 6, three, 3, 1); }, request(905, {0, 0x90, 6, 3, 1, 0xA1, 0xA2, 0xA3})},
        {"BlockProcessCall", [] { return SMBus_BlockProcessCall(1, 0, 1, 0x90, 8, three, 2, block.data(), &got, 1); }, request(907, {1, 0x90, 8, 2, 1, 0xA1, 0xA2})},
        {"GetAlert", [] { return SMBus_GetAlert(1, 0, 1, &flag); }, request(908, {1})},
        {"P.WriteByte", [] { return PMBus_WriteByte(1, 0, 1, 0x80, 1, 0x80, 0); }, request(929, {1, 0x80, 1, 0x80, 0})},
        {"P.SendByte", [] { return PMBus_SendByte(1, 0, 1, 0x80, 3, 1); }, request(931, {1, 0x80, 3, 1})},
        {"P.ReadWord", [] { return PMBus_ReadWord(1, 0, 1, 0x80, 0x8B, &word, 1); }, request(933, {1, 0x80, 0x8B, 1})},
        {"P.WriteWordExt", [] { return PMBus_WriteWordExt(1, 0, 1, 0x80, 0xFE, 0x10, 0xABCD, 1); }, request(936, {1, 0x80, 0xFE, 0x10, 0xAB, 0xCD, 1})},
        {"P.ReadWordExt", [] { return PMBus_ReadWordExt(1, 0, 1, 0x82, 0xFE, 0x10, &word, 0); }, request(937, {1, 0x82, 0xFE, 0x10, 0})},
        {"P.BlockWrite32", [] { return PMBus_BlockWrite(1, 0, 1, 0x80, 0x99, many.data(), 32, 1); }, request(938, padded({1, 0x80, 0x99, 32, 1}, 32, 0x33))},
        {"P.BlockProcessCall", [] { return PMBus_BlockProcessCall(1, 0, 0, 0x80, 0x30, three, 1, block.data(), &got, 0); }, request(940, {0, 0x80, 0x30, 1, 0, 0xA1})},
        {"P.GroupCmd", [&] { return PMBus_GroupCmd(1, 0, 1, group, 2, 0); }, request(941, {1, 2, 0, 1, 0x80, 1, 0x80, 2, 0x82, 0x21, 0x18, 0})},
        {"P.GroupCmd0", [] { return PMBus_GroupCmd(1, 0, 1, nullptr, 0, 1); }, request(941, {1, 0, 1})},
        {"P.SetControl", [] { return PMBus_SetControl(1, 0, 1, 0); }, request(943, {1, 0})},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        settle();
        inject_bulk(reply(c.frame.code, 0));
        EXPECT_EQ(c.call(), 0);
        EXPECT_EQ(sent(), std::vector<Frame>{c.frame});
        ASSERT_EQ(count(Call::BulkRead), 1u);
        EXPECT_EQ(calls(Call::BulkRead)[0].timeout_ms, 100);
    }
}

// The status byte is the result, as a positive number; the alert query and the CONTROL line are
// the exceptions. A reply shorter than its header, or none, is -6; a request that does not go out -5.
TEST_F(SmbusWire, Results) {
    const struct {
        Fn call;
        Bytes answer;
        int32_t code;
    } cases[] = {
        {[] { return SMBus_WriteByte(1, 0, 0, 0xA0, 1, 0); }, reply(898, 2), 2},
        {[] { return PMBus_ReadWord(1, 0, 1, 0x80, 1, &word, 0); }, reply(933, 255), 255},
        {[] { return SMBus_GetAlert(1, 0, 0, &flag); }, reply(908, 1), 0},
        {[] { return PMBus_SetControl(1, 0, 1, 1); }, reply(943, 5), 0},
        {[] { return PMBus_SetControl(1, 0, 1, 1); }, {}, -6},
        {[] { return SMBus_QuickCommand(1, 0, 0, 0x90); }, reply(897, 0, {}, 0, 6), -6},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        sim::clear_in(0);
        if (!cases[i].answer.empty()) inject_bulk(cases[i].answer);
        EXPECT_EQ(cases[i].call(), cases[i].code) << "case " << i;
    }
    EXPECT_EQ(flag, 1);
    sim::fail_next(Call::BulkWrite, 1, -5);
    EXPECT_EQ(SMBus_ReadByte(1, 0, 0, 0x90, &byte, 0), -5);

    inject_bulk(reply(933, 0, {0x34, 0x12}));
    EXPECT_EQ(PMBus_ReadWord(1, 0, 1, 0x80, 1, &word, 0), 0);
    EXPECT_EQ(word, 0x1234) << "bus order, low byte first";
    inject_bulk(reply(906, 0, {7, 8, 9}));
    EXPECT_EQ(SMBus_BlockRead(1, 0, 0, 0x90, 1, block.data(), &got, 0), 0);
    EXPECT_EQ(got, 3);
    EXPECT_EQ(block[2], 9);
    inject_bulk(reply(906, 0, {7, 8, 9}, 3, 5));
    EXPECT_EQ(SMBus_BlockRead(1, 0, 0, 0x90, 1, block.data(), &got, 0), -6);
    EXPECT_EQ(got, 4) << "the request's own payload size";
}

// Whatever the reply announces or carries, a word read stores 2 bytes, a block read 32, and none
// more than arrived.
TEST_F(SmbusWire, HostileRepliesStayInBounds) {
    block.fill(0xEE);
    inject_bulk(reply(906, 0, Bytes(40, 0x11)));
    EXPECT_EQ(SMBus_BlockRead(1, 0, 0, 0x90, 1, block.data(), &got, 0), 0);
    EXPECT_EQ(got, 32);
    EXPECT_EQ(block[31], 0x11);
    EXPECT_EQ(block[32], 0xEE);
    block.fill(0xEE);
    inject_bulk(reply(940, 0, {1, 2}, 300));
    EXPECT_EQ(PMBus_BlockProcessCall(1, 0, 0, 0x80, 1, three, 1, block.data(), &got, 0), 0);
    EXPECT_EQ(got, 2) << "a size field that lies";
    EXPECT_EQ(block[2], 0xEE);
    std::array<uint16_t, 2> words{0xEEEE, 0xEEEE};
    inject_bulk(reply(904, 0, {1, 0, 3, 4, 5}));
    EXPECT_EQ(SMBus_ProcessCall(1, 0, 0, 0x90, 1, 0, words.data(), 0), 0);
    EXPECT_EQ(words[0], 1);
    EXPECT_EQ(words[1], 0xEEEE);
}

}  // namespace
