// The firmware model's GPIO, ADC, PWM and counter side driven with raw frames: silence of the GPIO
// commands, levels through the wiring harness, the ADC's blocks and their timing, PWM refusals and
// counters fed by PWM outputs over virtual time. What the library sends is covered by
// tests/io/behaviour_test.cpp.
#include <unistd.h>

#include <cerrno>

#include "corvel/sim_io.hpp"
#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

class Io : public SimTest {
  protected:
    bool silent() { return read(h, 64, 0x82, 1).result == -ETIMEDOUT; }
    void send(uint32_t code, const Bytes& payload) {
        ASSERT_EQ(write(h, frame(code, payload)), int(7 + payload.size()));
    }
    uint16_t pins(uint16_t mask) {
        const Bytes r = ask(1544, {0, 0, uint8_t(mask >> 8), uint8_t(mask)});
        return r.size() == 11 ? uint16_t(r[9] << 8 | r[10]) : 0xDEAD;
    }
};

const Bytes kPwmOk = {62};
const Bytes kPwmError = {63};
const Bytes kExecuted = {6};

TEST_F(Io, GpioCommandsAreNeverAnswered) {
    const struct {
        uint32_t code;
        Bytes payload;
    } cases[] = {
        {1536, {0, 0, 0, 1, 0x55, 0x55, 0x55, 0x55}},
        {1546, {0, 0, 0, 1, 0x55, 0x55, 0x55, 0x55}},
        {1538, {0, 0, 0, 1, 0, 0, 0, 1}},
        {1548, {0, 0, 0, 1, 0, 0, 0, 1}},
        {1550, {1, 1}},
        {1552, {1}},
        {1536, {0, 1}},
        {1538, Bytes(9, 0)},
        {1550, {1}},
        {1552, {1, 2}},
    };
    for (const auto& c : cases) {
        send(c.code, c.payload);
        EXPECT_TRUE(silent()) << c.code;
    }
    EXPECT_TRUE(io_sniffer(0, 1));
    EXPECT_EQ(io_sniffer_reads(0, 1), 1u);
    EXPECT_EQ(io_pin(0, 0).mode, 1);
    EXPECT_TRUE(io_pin(0, 8).level);
}

TEST_F(Io, ReadsBackThroughTheDefaultWiring) {
    send(1536, {0, 0, 0x00, 0x01, 0x55, 0x55, 0x55, 0x55});  // pin 0 push-pull
    send(1538, {0, 0, 0x00, 0x01, 0, 0, 0x00, 0x01});        // pin 0 high
    EXPECT_EQ(ask(1544, {0, 0, 0xFF, 0xFF}), (Bytes{0, 0, 0x06, 0x09, 32, 0, 4, 0, 0, 0x01, 0x01}));
    EXPECT_EQ(ask(1542, {0, 0xFF, 0x01, 0x00}), (Bytes{0, 0, 0x06, 0x07, 32, 0, 4, 0, 0, 0x01, 0x00}));
    EXPECT_EQ(ask(1544, {0, 0, 0xFF}), (Bytes{0, 0, 0x06, 0x09, 33, 0, 4, 0, 0, 0, 0}));

    send(1536, {0, 0, 0x01, 0x00, 0x55, 0x55, 0x55, 0x55});  // pin 8 drives 0 against pin 0
    EXPECT_TRUE(io_pin(0, 0).contention && io_pin(0, 8).contention);
    EXPECT_EQ(pins(0xFFFF), 0);

    send(1536, {0, 0, 0x00, 0x01, 0xFF, 0xFF, 0xFF, 0xFF});  // pin 0 input: pin 8 drives it
    send(1538, {0, 0, 0x01, 0x00, 0, 0, 0x01, 0x00});
    EXPECT_EQ(pins(0xFFFF), 0x0101);
    EXPECT_EQ(pins(0x00FF), 0x0001);
    send(1548, {0, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0});
    EXPECT_EQ(pins(0xFFFF), 0);
}

TEST_F(Io, OpenDrainIsAWiredAndAndOutsideDriversCanFight) {
    send(1536, {0, 0, 0x02, 0x02, 0xAA, 0xAA, 0xAA, 0xAA});  // pins 1 and 9 open drain
    send(1538, {0, 0, 0x02, 0x02, 0, 0, 0x02, 0x02});
    EXPECT_EQ(pins(0x0202), 0x0202);  // both released: the pull-ups win
    send(1538, {0, 0, 0x02, 0x00, 0, 0, 0x00, 0x00});
    EXPECT_EQ(pins(0x0202), 0);  // pin 9 pulls the net low
    EXPECT_FALSE(io_pin(0, 1).contention);

    set_io_outside(0, 1, true);  // pushes 1 against pin 9's pull-down
    EXPECT_TRUE(io_pin(0, 1).contention && io_pin(0, 9).contention);
    EXPECT_EQ(pins(0x0202), 0);
    set_io_outside(0, 1, std::nullopt);
    set_io_outside(0, 2, true);  // an unconfigured pin reads what drives it
    EXPECT_EQ(pins(0x0404), 0x0404);
    ASSERT_TRUE(set_io_wiring(0, {}));
    EXPECT_EQ(pins(0x0404), 0x0004);
    EXPECT_FALSE(set_io_wiring(0, {{0, 24}}));
}

TEST_F(Io, AdcBlocksAreInterleavedLsbFirstAndSentWhenSampled) {
    EXPECT_EQ(ask(2560, {0x81, 0, 0, 0x03, 0xE8}), Bytes{36});  // channels 0 and 7 every 1 ms
    EXPECT_EQ(ask(2560, {0x01, 0, 0, 0, 0}), Bytes{37});
    EXPECT_EQ(ask(2560, {0x01, 0, 0}), Bytes{37});
    EXPECT_EQ(io_adc(0).mask, 0x81);

    send(2562, {0, 0, 0, 3});
    const uint64_t asked = now_us();
    EXPECT_TRUE(silent());  // 1 ms of the 3 it takes
    EXPECT_EQ(read(h, 64, 0x82, 5).data,
              (Bytes{0x00, 0x08, 0xFF, 0x0F, 0x00, 0x08, 0xFF, 0x0F, 0x00, 0x08, 0xFF, 0x0F}));
    EXPECT_EQ(now_us() - asked, 3000u);

    for (uint16_t n : {0, 10241}) {
        send(2562, {0, 0, uint8_t(n >> 8), uint8_t(n)});
        EXPECT_TRUE(silent());
    }
}

TEST_F(Io, AdcSignalsAreTheDocumentedFunctionsOfTime) {
    const struct {
        int channel;
        uint64_t t_us;
        uint16_t value;
    } cases[] = {{0, 7, 2048},     {1, 0, 0},       {1, 250000, 1024}, {1, 999999, 4095},
                 {2, 10000, 2048}, {2, 5000, 4095}, {2, 15000, 1},     {3, 49999, 4095},
                 {3, 50000, 0},    {5, 0, 1024},    {6, 0, 3072},      {7, 0, 4095}};
    for (const auto& c : cases)
        EXPECT_EQ(io_adc_sample(0, c.channel, c.t_us), c.value) << c.channel << " " << c.t_us;
    set_io_adc_signal(0, 4, {AdcSignal::Kind::Sine, 0.825, 1});
    EXPECT_EQ(io_adc_sample(0, 4, 250000), 2048 + 1024);
}

TEST_F(Io, PwmRefusesBadSettingsOfMaskedOutputsOnly) {
    const struct {
        uint32_t code;
        Bytes payload;
        Bytes answer;
    } cases[] = {
        {3584, {0, 1, 0, 100, 0x01, 0x31, 0x2D, 0x00}, kPwmOk},  // 20 MHz
        {3584, {3, 1, 5, 200, 0, 0, 0, 1}, kPwmOk},              // toggle: pulse, polarity unchecked
        {3584, {4, 1, 0, 50, 0, 0, 0, 1}, kPwmError},
        {3584, {0, 1, 2, 50, 0, 0, 0, 1}, kPwmError},
        {3584, {0, 1, 0, 101, 0, 0, 0, 1}, kPwmError},
        {3584, {0, 1, 0, 50, 0, 0, 0, 0}, kPwmError},
        {3584, {0, 1, 0, 50, 0x01, 0x31, 0x2D, 0x01}, kPwmError},
        {3584, {0, 1, 0, 50, 0, 0, 0}, kPwmError},
        {3586, {}, kPwmError},
        {3590, {0x01, 100, 255, 255, 255, 255, 255, 255, 255}, kPwmOk},
        {3590, {0x02, 100, 101, 0, 0, 0, 0, 0, 0}, kPwmError},
        {3592, Bytes{0x01} + be32(1) + Bytes(28, 0), kPwmOk},
        {3592, Bytes{0x80} + be32(1) + Bytes(28, 0), kPwmError},
        {3592, Bytes{0x01} + be32(20000001) + Bytes(28, 0), kPwmError},
    };
    for (const auto& c : cases) EXPECT_EQ(ask(c.code, c.payload), c.answer) << c.code;
    EXPECT_EQ(io_pwm(0, 0).pulse, 100);
    EXPECT_EQ(io_pwm(0, 0).frequency, 1u);
}

TEST_F(Io, CountersCountPwmEdgesExactlyAcrossChanges) {
    EXPECT_EQ(ask(3584, {0, 0x03, 0, 50, 0, 0, 0x03, 0xE8}), kPwmOk);  // outputs 0 and 1 at 1 kHz
    EXPECT_EQ(ask(4096, {0x01, 32, 0, 0}), kExecuted);
    EXPECT_EQ(ask(4096, {0x02, 16, 1, 2}), kExecuted);  // counter 1: down, both edges, 16 bits
    EXPECT_EQ(ask(4100, {0x03, 0, 0, 0, 0, 0, 0, 0, 5}), kExecuted);
    EXPECT_EQ(ask(4102, {0x03}), kExecuted);
    EXPECT_EQ(ask(3586, {0x03}), kPwmOk);  // both outputs rise now: counter 0 takes it, 1 too
    usleep(1000000);
    EXPECT_EQ(ask(4098, {0x03}), (Bytes{0, 0, 0x10, 0x03, 6, 0, 8, 0, 0, 0x03, 0xE9, 0, 0, 0xF8, 0x34}));

    EXPECT_EQ(ask(3592, Bytes{0x01} + be32(2000) + Bytes(28, 0xFF)),
              kPwmOk);  // at a period's end: the new one starts now
    usleep(250);
    EXPECT_EQ(io_counter(0, 0).value, 1001u);  // output 0 just started a new period: no edge yet
    usleep(999750);
    EXPECT_EQ(ask(4104, {0x01}), kExecuted);
    usleep(1000000);
    EXPECT_EQ(ask(4098, {0x01}), (Bytes{0, 0, 0x10, 0x03, 6, 0, 4, 0, 0, 0x0B, 0xB9}));
    EXPECT_EQ(ask(4098, {0x00}), (Bytes{0, 0, 0x10, 0x03, 6, 0, 0}));
}

TEST_F(Io, CounterRequestsCheckTheirFields) {
    const struct {
        uint32_t code;
        Bytes payload;
        uint8_t status;
    } cases[] = {
        {4096, {1, 8, 0, 0}, 7},
        {4096, {1, 32, 2, 0}, 7},
        {4096, {1, 32, 0, 3}, 7},
        {4096, {1, 32, 0}, 7},
        {4100, {0x03, 0, 0, 0, 1}, 7},
        {4100, {0xF1, 0, 1, 0, 0}, 6},
        {4102, {0, 0}, 7},
        {4104, {0xF0}, 6},
    };
    for (const auto& c : cases) EXPECT_EQ(ask(c.code, c.payload), Bytes{c.status}) << c.code;
    EXPECT_EQ(io_counter(0, 0).value, 0x10000u);
    EXPECT_EQ(ask(4098, {}), (Bytes{0, 0, 0x10, 0x03, 7, 0, 0}));
}

TEST_F(Io, CountersCanCountAPinsEdgesOrNothing) {
    set_io_counter_source(0, 0, {CounterSource::Kind::Pin, 8});
    set_io_counter_source(0, 1, {CounterSource::Kind::None, 0});
    EXPECT_EQ(ask(4096, {0x03, 32, 0, 2}), kExecuted);
    EXPECT_EQ(ask(4102, {0x03}), kExecuted);
    send(1536, {0, 0, 0, 1, 0x55, 0x55, 0x55, 0x55});
    for (uint8_t level : {1, 0, 0, 1}) send(1538, {0, 0, 0, 1, 0, 0, 0, level});
    EXPECT_EQ(io_counter(0, 0).value, 3u);
    EXPECT_EQ(ask(3586, {0x02}), kPwmOk);
    usleep(10000);
    EXPECT_EQ(io_counter(0, 1).value, 0u);
}

}  // namespace
}  // namespace corvel::sim::test
