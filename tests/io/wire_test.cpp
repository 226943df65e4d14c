// The GPIO, ADC, PWM and counter families on the wire: order of checks, payload layouts, status
// mapping, and what the reads take from the answers, hostile ones included. The firmware is
// silenced and every answer scripted here, so these tests hold whatever the adapter model answers.
#include <array>
#include <functional>

#include "check_order.hpp"
#include "io_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

class IoWire : public IoAdapter {
  protected:
    void SetUp() override {
        IoAdapter::SetUp();
        sim::silence(0, true);
    }
};

uint16_t levels;
uint16_t samples[8];
uint8_t pulses[8] = {10, 20, 30, 40, 50, 60, 70, 80};
uint32_t hz[8] = {1000, 2, 3, 4, 5, 6, 7, 20000000};
uint32_t values[5];
uint32_t preset[2] = {0x11223344, 0xAABBCCDD};
uint8_t sniffed = 0x5A;
KPI_INIT_CONFIG pwm{0x03, 1, 50, 0, 1000};
CNT_INIT_CONFIG cnt{1, 2, 32};
const std::vector<int32_t> kTypes{KD_DEVTYPE_I2C, KD_DEVTYPE_SPI};
using Fn = std::function<int32_t()>;

// One row per shape of check (the others share it); no function has a channel index, and only
// those that check a pointer are given null.
// clang-format off
const CheckedFunction kChecked[] = {
    {"InitGPIO", [](int32_t t, int32_t d, int32_t, bool) { return KGI_InitGPIO(t, d, 1, 0); }, kTypes, kNoChannelCheck, false},
    {"ReadDatas", [](int32_t t, int32_t d, int32_t, bool n) { return KGI_ReadDatas(t, d, 1, n ? nullptr : &levels); }, kTypes, kNoChannelCheck},
    {"SnifferRead", [](int32_t t, int32_t d, int32_t, bool) { return KGI_I2C_Sniffer_ReadDatas(t, d, 0, nullptr); }, kTypes, kNoChannelCheck, false},
    {"InitADC", [](int32_t t, int32_t d, int32_t, bool) { return KAI_InitADC(t, d, 1, 10); }, kTypes, kNoChannelCheck, false},
    {"ReadADC", [](int32_t t, int32_t d, int32_t, bool n) { return KAI_ReadDatas(t, d, 1, n ? nullptr : samples); }, kTypes, kNoChannelCheck},
    {"InitPWM", [](int32_t t, int32_t d, int32_t, bool n) { return KPI_InitPWM(t, d, n ? nullptr : &pwm); }, kTypes, kNoChannelCheck},
    {"StartPWM", [](int32_t t, int32_t d, int32_t, bool) { return KPI_StartPWM(t, d, 1); }, kTypes, kNoChannelCheck, false},
    {"SetPWMPulse", [](int32_t t, int32_t d, int32_t, bool) { return KPI_SetPWMPulse(t, d, 1, pulses); }, kTypes, kNoChannelCheck, false},
    {"InitCounter", [](int32_t t, int32_t d, int32_t, bool) { return CNT_InitCounter(t, d, 1, &cnt); }, kTypes, kNoChannelCheck, false},
    {"SetCounter", [](int32_t t, int32_t d, int32_t, bool) { return CNT_SetCounter(t, d, 1, values); }, kTypes, kNoChannelCheck, false},
    {"GetCounter", [](int32_t t, int32_t d, int32_t, bool) { return CNT_GetCounter(t, d, 1, values); }, kTypes, kNoChannelCheck, false},
    {"StartCounter", [](int32_t t, int32_t d, int32_t, bool) { return CNT_StartCounter(t, d, 1); }, kTypes, kNoChannelCheck, false},
};
// clang-format on

TEST_F(IoWire, OrderOfChecks) {
    expect_check_order(kChecked);
}

TEST_F(IoWire, RangesAreRefusedBeforeAnythingGoesOut) {
    const struct {
        uint8_t mode, polarity, pulse;
        uint32_t hz;
        int32_t code;
    } cases[] = {{0, 1, 100, 1, 0},       {0, 0, 101, 1000, -4}, {1, 2, 0, 1000, -4},
                 {4, 0, 0, 1000, -4},     {3, 5, 200, 1000, 0},  {2, 0, 0, 20000000, 0},
                 {2, 0, 0, 20000001, -4}, {2, 0, 0, 0, -4},      {3, 0, 0, 0, -4}};
    for (const auto& c : cases) {
        sim::clear_in(0);
        settle();
        inject_bulk(status_answer(62));
        KPI_INIT_CONFIG config{1, c.mode, c.pulse, c.polarity, c.hz};
        EXPECT_EQ(KPI_InitPWM(2, 0, &config), c.code) << +c.mode << " " << +c.pulse << " " << c.hz;
        EXPECT_EQ(frames().size(), c.code == 0 ? 1u : 0u);
    }
    for (auto [num, code] : {std::pair{0, -4}, {10241, -4}, {10240, 0}}) {
        settle();
        EXPECT_EQ(KAI_ReadDatas(1, 0, static_cast<uint16_t>(num), samples), code) << num;
        EXPECT_EQ(frames().size(), code == 0 ? 1u : 0u);
    }
}

// Fire-and-forget commands read nothing, so the next exchange finds its own answer.
TEST_F(IoWire, Payloads) {
    const struct {
        const char* name;
        Fn call;
        Frame frame;
        Bytes answer = {};  // none: nothing may be read
    } cases[] = {
        // clang-format off
        {"SetOutput", [] { return KGI_SetOutput(1, 0, 0x0003); }, request(1536, {0, 0, 0, 3, 0x55, 0x55, 0x55, 0x55})},
        {"InitGPIOEx", [] { return KGI_InitGPIOEx(1, 0, 0xAB123456, 0xC); }, request(1546, {0, 0x12, 0x34, 0x56, 0, 0, 0, 0xC})},
        {"WriteDatas", [] { return KGI_WriteDatas(1, 0, 0x00F0, 0x1234); }, request(1538, {0, 0, 0, 0xF0, 0, 0, 0x12, 0x34})},
        {"WriteDatasEx", [] { return KGI_WriteDatasEx(1, 0, 0x12345678, 0x0001FFFF); }, request(1548, {0, 0x34, 0x56, 0x78, 0, 0, 0xFF, 0xFF})},
        {"SetPinsEx", [] { return KGI_SetPinsEx(1, 0, 0xFFFFFF); }, request(1548, {0, 0xFF, 0xFF, 0xFF, 0, 0, 0xFF, 0xFF})},
        {"SnifferControl", [] { return KGI_I2C_Sniffer_Control(1, 0, 2, 1); }, request(1550, {2, 1})},
        {"SnifferRead", [] { return KGI_I2C_Sniffer_ReadDatas(1, 0, 3, &sniffed); }, request(1552, {3})},
        {"ReadDatas", [] { return KGI_ReadDatas(1, 0, 0x8001, &levels); }, request(1544, {0, 0, 0x80, 1}), reply(1545, 32, {0, 0, 0, 1})},
        {"ReadDatasEx", [] { return KGI_ReadDatasEx(1, 0, 0xFF00FFFF, &levels); }, request(1542, {0, 0, 0xFF, 0xFF}), reply(1543, 32, {0, 0, 0, 1})},
        {"InitADC", [] { return KAI_InitADC(1, 0, 0x05, 1000); }, request(2560, {5, 0, 0, 3, 0xE8}), {36}},
        {"ReadADC", [] { return KAI_ReadDatas(1, 0, 2, samples); }, request(2562, {0, 0, 0, 2}), Bytes(8, 0x11)},
        {"InitPWM", [] { return KPI_InitPWM(1, 0, &pwm); }, request(3584, {1, 3, 0, 0x32, 0, 0, 3, 0xE8}), {62}},
        {"StartPWM", [] { return KPI_StartPWM(1, 0, 0x81); }, request(3586, {0x81}), {62}},
        {"StopPWM", [] { return KPI_StopPWM(1, 0, 0x02); }, request(3588, {2}), {62}},
        {"SetPWMPulse", [] { return KPI_SetPWMPulse(1, 0, 3, pulses); }, request(3590, {3, 10, 20, 30, 40, 50, 60, 70, 80}), {62}},
        {"SetPWMPeriod", [] { return KPI_SetPWMPeriod(1, 0, 0x80, hz); }, request(3592, {0x80, 0, 0, 3, 0xE8, 0, 0, 0, 2, 0, 0, 0, 3,
            0, 0, 0, 4, 0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0, 7, 1, 0x31, 0x2D, 0}), {62}},
        {"InitCounter", [] { return CNT_InitCounter(1, 0, 0xF3, &cnt); }, request(4096, {3, 32, 1, 2}), {6}},
        {"SetCounter", [] { return CNT_SetCounter(1, 0, 0x0A, preset); }, request(4100, {0x0A, 0x11, 0x22, 0x33, 0x44, 0xAA, 0xBB, 0xCC, 0xDD}), {6}},
        {"SetNoCounter", [] { return CNT_SetCounter(1, 0, 0xF0, nullptr); }, request(4100, {0}), {6}},
        {"GetCounter", [] { return CNT_GetCounter(2, 0, 0xF4, values); }, request(4098, {4}), reply(4099, 6, {0, 0, 0, 9})},
        {"StartCounter", [] { return CNT_StartCounter(1, 0, 0xF5); }, request(4102, {5}), {6}},
        {"StopCounter", [] { return CNT_StopCounter(1, 0, 0x13); }, request(4104, {3}), {6}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        settle();
        if (!c.answer.empty()) inject_bulk(c.answer);
        EXPECT_EQ(c.call(), 0);
        EXPECT_EQ(sent(), std::vector<Frame>{c.frame});
        EXPECT_EQ(count(Call::BulkRead), c.answer.empty() ? 0u : 1u);
    }
    EXPECT_EQ(sniffed, 0x5A) << "the sniffer read request reads nothing back";
    EXPECT_EQ(levels, 1);
}

TEST_F(IoWire, StatusMapping) {
    const struct {
        Fn call;
        Bytes answer;
        int32_t code;
    } cases[] = {
        // clang-format off
        {[] { return KGI_ReadDatas(1, 0, 1, &levels); }, reply(1545, 33, {0, 0, 0, 0}), -6},
        {[] { return KGI_ReadDatasEx(1, 0, 1, &levels); }, {}, -6},
        {[] { return KAI_InitADC(1, 0, 1, 0); }, {37}, -10},
        {[] { return KPI_StartPWM(1, 0, 1); }, {63}, -10},
        {[] { return KPI_SetPWMPulse(1, 0, 1, pulses); }, {}, -10},
        {[] { return CNT_InitCounter(1, 0, 1, &cnt); }, {7}, -10},
        {[] { return CNT_GetCounter(1, 0, 1, values); }, reply(4099, 7, {0, 0, 0, 1}), 0},  // status not examined
        {[] { return CNT_GetCounter(1, 0, 1, values); }, {}, -6},
        // clang-format on
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        if (!cases[i].answer.empty()) inject_bulk(cases[i].answer);
        EXPECT_EQ(cases[i].call(), cases[i].code) << "case " << i;
    }
    // A request that does not go out.
    for (const Fn& call :
         {Fn([] { return KGI_ReadDatas(1, 0, 1, &levels); }),
          Fn([] { return KAI_ReadDatas(1, 0, 1, samples); }), Fn([] { return KPI_InitPWM(1, 0, &pwm); }),
          Fn([] { return CNT_GetCounter(1, 0, 1, values); })}) {
        sim::fail_next(Call::BulkWrite, 1, -5);
        EXPECT_EQ(call(), -5);
    }
}

TEST_F(IoWire, AdcReadIsSizedByTheProcessWideMask) {
    std::array<uint16_t, 201> buf{};
    EXPECT_EQ(KAI_ReadDatas(1, 0, 100, buf.data()), 0) << "no channel before any initialisation";
    EXPECT_EQ(count(Call::BulkRead), 0u);
    inject_bulk({37});
    EXPECT_EQ(KAI_InitADC(1, 0, 0x05, 10), -10) << "the mask is kept all the same";
    Bytes raw(402);
    for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<uint8_t>(i);
    inject_bulk(raw);
    EXPECT_EQ(KAI_ReadDatas(2, 0, 100, buf.data()), 0);
    EXPECT_EQ(calls(Call::BulkRead).back().timeout_ms, 10000);
    EXPECT_EQ(buf[0], 0x0100);
    EXPECT_EQ(buf[199], 0x8F8E);
    EXPECT_EQ(buf[200], 0) << "400 bytes asked, no more";
    sim::clear_in(0);
    buf.fill(0);
    sim::fail_next(Call::BulkWrite, 1, -5);
    EXPECT_EQ(KAI_InitADC(1, 0, 0x07, 10), -5) << "stored before the send";
    inject_bulk(Bytes(8, 0xEE));
    EXPECT_EQ(KAI_ReadDatas(1, 0, 1, buf.data()), 0);
    EXPECT_EQ(buf[2], 0xEEEE);
    EXPECT_EQ(buf[3], 0);
    sim::clear_in(0);
    inject_bulk(Bytes(5, 0xEE));
    EXPECT_EQ(KAI_ReadDatas(1, 0, 1, buf.data()), -6);
}

TEST_F(IoWire, CounterReadFillsSelectedCountersPacked) {
    values[2] = 0x5A5A5A5A;
    inject_bulk(reply(4099, 6, {0, 0, 1, 0, 0x80, 0, 0, 3}));
    EXPECT_EQ(CNT_GetCounter(1, 0, 0x0A, values), 0);
    EXPECT_EQ(values[0], 0x100u) << "counter 1";
    EXPECT_EQ(values[1], 0x80000003u) << "counter 3";
    EXPECT_EQ(values[2], 0x5A5A5A5Au);
    inject_bulk(reply(4099, 6));
    EXPECT_EQ(CNT_GetCounter(1, 0, 0xF0, nullptr), 0) << "header-only reply, nothing written";
    EXPECT_EQ(calls(Call::BulkRead).back().data.size(), 7u);
}

// Replies that lie about their size or come cut short never write past the caller's data.
TEST_F(IoWire, HostileRepliesStayInBounds) {
    struct {
        uint16_t v = 0x1111, guard = 0x2222;
    } pins;
    inject_bulk(reply(1545, 32, {1, 2, 3, 4, 5, 6, 7, 8}, 300));
    EXPECT_EQ(KGI_ReadDatas(1, 0, 1, &pins.v), 0);
    EXPECT_EQ(pins.v, 0x0304);
    sim::clear_in(0);
    inject_bulk(reply(1545, 32, {1, 2}));
    EXPECT_EQ(KGI_ReadDatas(1, 0, 1, &pins.v), -6);
    EXPECT_EQ(pins.v, 0x0304);
    EXPECT_EQ(pins.guard, 0x2222);

    values[4] = 0x5A5A5A5A;
    inject_bulk(reply(4099, 6, Bytes(100, 0x77), 505));
    EXPECT_EQ(CNT_GetCounter(1, 0, 0x0F, values), 0);
    EXPECT_EQ(values[3], 0x77777777u);
    EXPECT_EQ(values[4], 0x5A5A5A5Au);
    sim::clear_in(0);
    inject_bulk(reply(4099, 6, {0xAA, 0xBB, 0xCC, 0xDD, 1, 2, 3, 4}, 2));
    EXPECT_EQ(CNT_GetCounter(1, 0, 0x03, values), 0);
    EXPECT_EQ(values[0], 0xAABB0000u) << "only the announced bytes count";
    EXPECT_EQ(values[1], 0u);
}

}  // namespace
