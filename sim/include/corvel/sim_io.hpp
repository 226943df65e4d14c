// Control API of the virtual adapter's GPIO, ADC, PWM and counter side (types 1 and 2): the pins
// and the wiring harness outside them, outside drivers, the I2C sniffer switch, the analogue
// signals on the ADC's channels, the PWM outputs and the counters and what they count.
//
// An unknown adapter, an adapter without these functions (types 3 and 4), or a pin, channel,
// output or counter out of range gives harmless defaults (a default record, false, 0) and changes
// nothing. Every call first brings the model up to the adapter's time (counters count the edges
// their sources made since the last look). See docs/virtual-adapter.md, "GPIO, ADC, PWM and
// counters".
#pragma once

#include <cstdint>
#include <optional>

#include "corvel/sim.hpp"

namespace corvel::sim {

// ---- GPIO: pins 0..23

struct IoPinState {
    uint8_t mode = 3;  // 0 input with pull-up, 1 push-pull output, 2 open drain with pull-up, 3 input
    bool latch = false;
    bool level = false;           // the level of its net, as a read returns it
    bool contention = false;      // drives against another driver of its net
    std::optional<bool> outside;  // the level an outside driver forces on it, if any
};
CORVEL_SIM_API IoPinState io_pin(int adapter, int pin);
// An outside driver on a pin: a push-pull driver of that level; nullopt releases it.
CORVEL_SIM_API void set_io_outside(int adapter, int pin, std::optional<bool> level);

// The wiring harness. False (nothing changes) when a wire names a pin out of range.
CORVEL_SIM_API IoWiring io_wiring(int adapter);
CORVEL_SIM_API bool set_io_wiring(int adapter, const IoWiring& wiring);

// The I2C sniffer switch of a channel (0..255) and the sniffer read requests it has had.
CORVEL_SIM_API bool io_sniffer(int adapter, int channel);
CORVEL_SIM_API uint64_t io_sniffer_reads(int adapter, int channel);

// ---- ADC: channels 0..7

struct IoAdcState {
    uint8_t mask = 0;     // channels sampled
    uint16_t period = 0;  // microseconds; 0 until the host initialises it
};
CORVEL_SIM_API IoAdcState io_adc(int adapter);
CORVEL_SIM_API AdcSignal io_adc_signal(int adapter, int channel);
CORVEL_SIM_API void set_io_adc_signal(int adapter, int channel, const AdcSignal& signal);
// What the converter reads on `channel` at the adapter's time `t_us`: the value a sample taken then
// carries.
CORVEL_SIM_API uint16_t io_adc_sample(int adapter, int channel, uint64_t t_us);

// The adapter's time in microseconds, the time line of the signals, PWM outputs and counters: the
// virtual time that passed while the virtual clock was on, and real time while it was off.
CORVEL_SIM_API uint64_t io_time_us(int adapter);

// ---- PWM: outputs 0..7

struct IoPwmState {
    uint8_t mode = 0, polarity = 0, pulse = 0;  // pulse: percent
    uint32_t frequency = 0;                     // Hz
    bool running = false;
    bool level = false;  // the output now
};
CORVEL_SIM_API IoPwmState io_pwm(int adapter, int output);

// ---- Counters: 0..3

struct IoCounterState {
    uint8_t mode = 0;      // 0 up, 1 down
    uint8_t polarity = 0;  // 0 rising edges, 1 falling, 2 both
    uint8_t width = 32;    // 16 or 32 bits
    uint32_t value = 0;
    bool running = false;
    CounterSource source;
};
CORVEL_SIM_API IoCounterState io_counter(int adapter, int counter);
// What a counter counts, changed at run time (the value stays).
CORVEL_SIM_API void set_io_counter_source(int adapter, int counter, const CounterSource& source);

}  // namespace corvel::sim
