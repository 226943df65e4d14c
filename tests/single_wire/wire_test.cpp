// The SDI-12, 1-Wire and EasyScale families on the wire: order of checks, payload layouts, status
// mapping, the SDI-12 response line and its CRC, and replies that overrun the caller's buffer. The
// firmware is silenced and every answer scripted here, so these tests hold whatever the adapter
// model answers.
#include <array>
#include <cstring>
#include <functional>
#include <string>

#include "Control1Wire.h"
#include "ControlSDI.h"
#include "EasyScale.h"
#include "adapter_fixture.hpp"
#include "check_order.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;
using Fn = std::function<int32_t()>;

class SingleWire : public VirtualAdapters {
  protected:
    void SetUp() override {
        reset({adapter("SW0001", KD_DEVTYPE_SPI)});
        ASSERT_EQ(SDI_OpenDevice(KD_DEVTYPE_SPI, 0, 0), 0);
        sim::silence(0, true);
        settle();
    }
};

uint8_t command[] = "0M!";
std::array<uint8_t, 520> respond;
uint8_t level;
KD_1WIRE_INIT_CONFIG ow{};
const std::vector<int32_t> kTypes{KD_DEVTYPE_I2C, KD_DEVTYPE_SPI};

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The SDI-12 functions check the port (0 or 1) before the pointers; the 1-Wire ones check nothing
// beyond type and connection.
// clang-format off
const CheckedFunction kChecked[] = {
    {"SDI_InitSDI", [](int32_t t, int32_t d, int32_t c, bool) { return SDI_InitSDI(t, d, static_cast<uint8_t>(c)); }, kTypes, 1, false},
    {"SDI_SendCmd", [](int32_t t, int32_t d, int32_t c, bool) { return SDI_SendCmd(t, d, static_cast<uint8_t>(c), command, respond.data(), 0); }, kTypes, 1, false},
    {"KD_OW_Init", [](int32_t t, int32_t d, int32_t, bool) { return KD_OW_Init(t, d, &ow); }, kTypes, kNoChannelCheck, false},
    {"KD_OW_Read_Byte", [](int32_t t, int32_t d, int32_t, bool) { return KD_OW_Read_Byte(t, d, &level); }, kTypes, kNoChannelCheck, false},
};
// clang-format on

TEST_F(SingleWire, OrderOfChecks) {
    expect_check_order(kChecked);
    EXPECT_EQ(SDI_SendCmd(1, 0, 2, nullptr, nullptr, 0), -4) << "port before pointers";
    EXPECT_EQ(SDI_SendCmd(1, 0, 1, command, nullptr, 0), -1);
    EXPECT_EQ(SDI_SendCmd(1, 0, 1, nullptr, respond.data(), 0), -1);
    EXPECT_TRUE(frames().empty());
}

TEST_F(SingleWire, SdiCommandsGoOutWithParityUpToTheirMark) {
    std::string over(511, 'A');
    over.back() = '!';
    const struct {
        std::string cmd;
        uint8_t port;
        Bytes payload;  // empty: refused with -4, nothing sent
    } cases[] = {
        {"0M!", 0, {0, 0x30, 0x4D, 0x21}},
        {"1M!", 1, {1, 0xB1, 0x4D, 0x21}},
        {"0I!junk", 0, {0, 0x30, 0xC9, 0x21}},
        {"0M", 0, {}},
        {over, 0, Bytes{0} + Bytes(510, 0x41) + Bytes{0x21}},
        {"A" + over, 0, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmd.substr(0, 8));
        settle();
        sim::clear_in(0);
        inject_bulk(reply(3843, 6, {'0', '\r', '\n'}));
        std::vector<uint8_t> cmd(c.cmd.begin(), c.cmd.end());
        cmd.push_back(0);
        const int32_t r = SDI_SendCmd(1, 0, c.port, cmd.data(), respond.data(), 0);
        EXPECT_EQ(r, c.payload.empty() ? -4 : 0);
        EXPECT_EQ(sent(),
                  c.payload.empty() ? std::vector<Frame>{} : std::vector<Frame>{request(3842, c.payload)});
    }
    uint8_t unterminated[600];
    std::memset(unterminated, '!', sizeof unterminated);
    EXPECT_EQ(SDI_SendCmd(1, 0, 0, unterminated, respond.data(), 0), -4);
}

TEST_F(SingleWire, SdiResponseLines) {
    const auto line = [](const std::string& s) { return Bytes(s.begin(), s.end()); };
    const struct {
        Bytes answer;
        uint8_t crc;
        int32_t code;
    } cases[] = {
        {reply(3843, 6, line("0+3.14\r\nxy")), 0, 0},
        {reply(3843, 6, line("0+3.14OqZ\r\n")), 1, 0},
        {reply(3843, 6, line("0+3.14OqY\r\n")), 1, -15},
        {reply(3843, 6, line("0+3.14")), 0, -7},
        {reply(3843, 6, line("\r")), 0, -10},
        {reply(3843, 7), 0, -10},
        {reply(3843, 6, line("0\r\n"), 5), 0, -5},
        {{}, 0, -5},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        sim::clear_in(0);
        respond.fill(0xEE);
        if (!cases[i].answer.empty()) inject_bulk(cases[i].answer);
        EXPECT_EQ(SDI_SendCmd(1, 0, 0, command, respond.data(), cases[i].crc), cases[i].code) << "case " << i;
        if (i == 0) {
            EXPECT_EQ(std::memcmp(respond.data(), "0+3.14\r\n\0y", 11), 0) << "reply and one byte more";
            EXPECT_EQ(respond[11], 0xEE);
        }
    }
    // A reply longer than the caller's 512 bytes: 511 kept, the terminator behind them.
    sim::clear_in(0);
    respond.fill(0xEE);
    inject_bulk(reply(3843, 6, line("0\r\n") + Bytes(600, 'x')));
    EXPECT_EQ(SDI_SendCmd(1, 0, 0, command, respond.data(), 0), 0);
    EXPECT_EQ(respond[510], 'x');
    EXPECT_EQ(respond[511], 0);
    EXPECT_EQ(respond[512], 0xEE);
}

// Requests answered by a status byte or a one-byte reply frame.
TEST_F(SingleWire, StatusAndReplies) {
    KD_1WIRE_INIT_CONFIG config{1, 7, {0x0106, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xFFFF}};
    const struct {
        const char* name;
        Fn call;
        Frame frame;
        Bytes answer;
        int32_t code;
    } cases[] = {
        // clang-format off
        {"SdiInit", [] { return SDI_InitSDI(2, 0, 1); }, request(3840, {1}), {6}, 0},
        {"SdiInitRefused", [] { return SDI_InitSDI(1, 0, 0); }, request(3840, {0}), {7}, -10},
        {"Init", [&] { return KD_OW_Init(1, 0, &config); }, request(4864, {1, 7, 6, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xFF}), {70}, 0},
        {"SetPin", [] { return KD_OW_Set_Pin(1, 0, 0); }, request(4865, {0}), {72}, 0},
        {"WriteByte", [] { return KD_OW_Write_Byte(2, 0, 0xCC); }, request(4869, {0xCC}), {73}, -10},
        {"ReadPin", [] { return KD_OW_Read_Pin(1, 0, &level); }, request(4866, {0x63}), reply(4867, 74, {0}), 0},
        {"ReadByte", [] { return KD_OW_Read_Byte(1, 0, &level); }, request(4870, {0x63}), reply(4871, 74, {0xA5}), 0},
        {"ReadByteNoData", [] { return KD_OW_Read_Byte(1, 0, &level); }, request(4870, {0x63}), reply(4871, 75, {0x11}), -6},
        {"OutputTX", [] { return KD_OW_output_TX(1, 0); }, request(4872, {0x63}), reply(4872, 77, {0}), 0},
        {"InputRX", [] { return KD_OW_input_RX(1, 0); }, request(4873, {0x63}), reply(4873, 80, {0}), -6},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        settle();
        sim::clear_in(0);
        inject_bulk(c.answer);
        EXPECT_EQ(c.call(), c.code);
        EXPECT_EQ(sent(), std::vector<Frame>{c.frame});
    }
    EXPECT_EQ(level, 0xA5) << "left as it was by the failed reads";
}

// EasyScale checks nothing: any device type goes out, and an absent adapter fails at the send.
TEST_F(SingleWire, EasyScale) {
    KEI_ES_TIMING t{0x0E01, 0x0102, 0x0203, 0x0304, 0x0405, 0x0506,
                    0x0607, 0x0708, 0x0809, 0x090A, 0x0A0B, 0x0B0C};
    inject_bulk(status_answer(58));
    EXPECT_EQ(KEI_InitES(9, 0, 0x10001, 1, &t), 0);
    KEI_ES_OBJ cmds[3] = {{0, 0x72, 1, 2, 0x1F}, {3, 0x72, 0, 1, 0x05}, {0, 0x72, 0, 0, 0}};
    for (uint8_t s : {60, 61}) inject_bulk(status_answer(s));
    EXPECT_EQ(KEI_Transmit(1, 0, 0, cmds, 3), -10);
    EXPECT_EQ(KEI_Transmit(1, 0, 0, cmds, 0), 0);
    EXPECT_EQ(KEI_Transmit(-3, 7, 0, cmds, 1), -5);
    const std::vector<Frame> expected{
        request(3328,
                {0, 1, 0, 1, 1, 2, 2, 3, 3, 4, 8, 9, 9, 10, 10, 11, 11, 12, 7, 8, 5, 6, 4, 5, 6, 7, 0x0E, 1}),
        request(3330, {0, 0, 0x72, 0xDF, 0}),
        request(3330, {0, 0, 0x72, 0x25, 3}),
    };
    EXPECT_EQ(sent(), expected);
}

}  // namespace
