// The GPIO, ADC, PWM and counter families against the virtual adapter's model: what the library's
// calls do to the pins, signals, outputs and counters, in virtual time.
#include <unistd.h>

#include <array>

#include "corvel/sim_io.hpp"
#include "io_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

constexpr int32_t kI2c = KD_DEVTYPE_I2C;
constexpr int32_t kSpi = KD_DEVTYPE_SPI;

using IoBehaviour = IoAdapter;

uint16_t read_pins(uint16_t mask) {
    uint16_t v = 0xDEAD;
    EXPECT_EQ(KGI_ReadDatas(kI2c, 0, mask, &v), 0);
    return v;
}

TEST_F(IoBehaviour, PinZeroSetAndClearedReadsBackOnPinEight) {
    ASSERT_EQ(KGI_SetOutput(kI2c, 0, 0x0001), 0);
    ASSERT_EQ(KGI_SetPins(kI2c, 0, 0x0001), 0);
    EXPECT_EQ(read_pins(0xFF00), 0x0100);
    ASSERT_EQ(KGI_ResetPins(kI2c, 0, 0x0001), 0);
    EXPECT_EQ(read_pins(0xFF00), 0);

    // And back the other way, on the SPI-type call path.
    ASSERT_EQ(KGI_SetInput(kSpi, 0, 0x0001), 0);
    ASSERT_EQ(KGI_SetOutput(kSpi, 0, 0x0100), 0);
    ASSERT_EQ(KGI_SetPins(kSpi, 0, 0x0100), 0);
    EXPECT_EQ(read_pins(0x0001), 0x0001);
}

TEST_F(IoBehaviour, OpenDrainPinsShareTheirNet) {
    ASSERT_EQ(KGI_SetOpenDrain(kI2c, 0, 0x0202), 0);
    ASSERT_EQ(KGI_SetPins(kI2c, 0, 0x0202), 0);
    EXPECT_EQ(read_pins(0x0202), 0x0202);
    ASSERT_EQ(KGI_ResetPins(kI2c, 0, 0x0200), 0);
    EXPECT_EQ(read_pins(0x0202), 0);
    EXPECT_FALSE(sim::io_pin(0, 1).contention);
}

TEST_F(IoBehaviour, ExFunctionsReachTheWiderMask) {
    ASSERT_EQ(KGI_SetOutputEx(kI2c, 0, 0x010004), 0);
    ASSERT_EQ(KGI_SetPinsEx(kI2c, 0, 0x010004), 0);
    uint16_t v = 0;
    ASSERT_EQ(KGI_ReadDatasEx(kI2c, 0, 0xFFFFFF, &v), 0);
    EXPECT_EQ(v, 0x0404);
    // Pin 16's latch stays 0: the data reaching it is only 16 bits wide.
    EXPECT_EQ(sim::io_pin(0, 16).mode, 1);
    EXPECT_FALSE(sim::io_pin(0, 16).latch);
    ASSERT_EQ(KGI_ResetPinsEx(kI2c, 0, 0x000004), 0);
    ASSERT_EQ(KGI_ReadDatasEx(kI2c, 0, 0x000400, &v), 0);
    EXPECT_EQ(v, 0);
    ASSERT_EQ(KGI_SetInputEx(kI2c, 0, 0x010004), 0);
    EXPECT_EQ(sim::io_pin(0, 16).mode, 3);
}

TEST_F(IoBehaviour, AdcSamplesAreTheSignalsAtTheirInstants) {
    ASSERT_EQ(KAI_InitADC(kI2c, 0, 0x0E, 250), 0);  // ramp, sine, square every 250 us
    const uint64_t t0 = sim::io_time_us(0);
    std::array<uint16_t, 3 * 400> samples{};
    ASSERT_EQ(KAI_ReadDatas(kI2c, 0, 400, samples.data()), 0);
    EXPECT_EQ(sim::io_time_us(0) - t0, 100000u);
    for (std::size_t k = 0; k < 400; ++k)
        for (int ch = 1; ch <= 3; ++ch)
            ASSERT_EQ(samples[3 * k + ch - 1], sim::io_adc_sample(0, ch, t0 + (k + 1) * 250))
                << k << " " << ch;

    ASSERT_EQ(KAI_InitADC(kI2c, 0, 0xF1, 10), 0);
    std::array<uint16_t, 5 * 2> dc{};
    ASSERT_EQ(KAI_ReadDatas(kI2c, 0, 2, dc.data()), 0);
    EXPECT_EQ(dc, (std::array<uint16_t, 10>{2048, 0, 1024, 3072, 4095, 2048, 0, 1024, 3072, 4095}));
}

// Sampling longer than the read's 10 s time-out still arrives: the transfer layer retries the
// timed-out read (Intended: a -6 by time-out needs more than the retries' 1000 s, beyond the
// longest block the adapter samples, 10240 x 65535 us).
TEST_F(IoBehaviour, AdcReadLongerThanTheTimeOutArrivesThroughTheRetries) {
    ASSERT_EQ(KAI_InitADC(kI2c, 0, 0x01, 50000), 0);
    std::array<uint16_t, 201> samples{};
    const uint64_t t0 = sim::io_time_us(0);
    EXPECT_EQ(KAI_ReadDatas(kI2c, 0, 201, samples.data()), 0);
    EXPECT_GE(sim::io_time_us(0) - t0, 10050000u);
    EXPECT_EQ(samples[200], 2048);
}

// A refused initialisation leaves the adapter sampling its old channels while the library sizes
// its read by the new mask: the block is short, and the read says so.
TEST_F(IoBehaviour, AdcReadOfTheWrongSizeFails) {
    ASSERT_EQ(KAI_InitADC(kI2c, 0, 0x01, 100), 0);
    EXPECT_EQ(KAI_InitADC(kI2c, 0, 0x03, 0), -10);
    std::array<uint16_t, 20> samples{};
    EXPECT_EQ(KAI_ReadDatas(kI2c, 0, 10, samples.data()), -6);
}

TEST_F(IoBehaviour, CounterCountsAPwmOutputAcrossAFrequencyChange) {
    KPI_INIT_CONFIG pwm{0x01, 0, 50, 0, 1000};
    ASSERT_EQ(KPI_InitPWM(kI2c, 0, &pwm), 0);
    ASSERT_EQ(KPI_StartPWM(kI2c, 0, 0x01), 0);
    CNT_INIT_CONFIG cnt{0, 0, 32};
    uint32_t value = 0;
    ASSERT_EQ(CNT_InitCounter(kI2c, 0, 0x01, &cnt), 0);
    ASSERT_EQ(CNT_SetCounter(kI2c, 0, 0x01, &value), 0);
    ASSERT_EQ(CNT_StartCounter(kI2c, 0, 0x01), 0);
    usleep(1000000);
    ASSERT_EQ(CNT_StopCounter(kI2c, 0, 0x01), 0);
    ASSERT_EQ(CNT_GetCounter(kI2c, 0, 0x01, &value), 0);
    EXPECT_EQ(value, 1000u);

    uint32_t hz[8] = {2000};
    ASSERT_EQ(CNT_StartCounter(kI2c, 0, 0x01), 0);
    ASSERT_EQ(KPI_SetPWMPeriod(kI2c, 0, 0x01, hz), 0);
    usleep(1000000);
    ASSERT_EQ(CNT_StopCounter(kI2c, 0, 0x01), 0);
    ASSERT_EQ(CNT_GetCounter(kI2c, 0, 0x01, &value), 0);
    EXPECT_EQ(value, 3000u);
}

TEST_F(IoBehaviour, CountersAreSetReadStartedAndStopped) {
    CNT_INIT_CONFIG wide{0, 0, 32}, narrow{1, 0, 16};
    ASSERT_EQ(CNT_InitCounter(kI2c, 0, 0x02, &wide), 0);
    ASSERT_EQ(CNT_InitCounter(kI2c, 0, 0x04, &narrow), 0);
    uint32_t preset[2] = {0x11223344, 0x12345};
    ASSERT_EQ(CNT_SetCounter(kI2c, 0, 0x06, preset), 0);
    uint32_t got[2] = {};
    ASSERT_EQ(CNT_GetCounter(kI2c, 0, 0x06, got), 0);
    EXPECT_EQ(got[0], 0x11223344u);
    EXPECT_EQ(got[1], 0x2345u);

    // Counter 2 counts output 2 down: started, it runs; stopped, it holds.
    KPI_INIT_CONFIG pwm{0x04, 0, 50, 0, 100};
    ASSERT_EQ(KPI_InitPWM(kI2c, 0, &pwm), 0);
    ASSERT_EQ(KPI_StartPWM(kI2c, 0, 0x04), 0);
    ASSERT_EQ(CNT_StartCounter(kI2c, 0, 0x04), 0);
    usleep(100000);
    ASSERT_EQ(CNT_StopCounter(kI2c, 0, 0x04), 0);
    usleep(100000);
    ASSERT_EQ(CNT_GetCounter(kI2c, 0, 0x06, got), 0);
    EXPECT_EQ(got[0], 0x11223344u);
    EXPECT_EQ(got[1], 0x2345u - 10);
    EXPECT_FALSE(sim::io_counter(0, 2).running);
}

}  // namespace
