// The control API of the virtual adapter's GPIO, ADC, PWM and counter side (corvel/sim_io.hpp).
#include "corvel/sim_io.hpp"
#include "firmware/io/analog.hpp"
#include "firmware/io_engine.hpp"
#include "simulator.hpp"

namespace corvel::sim {
namespace {

template <typename Fn>
auto with_io(int index, Fn&& fn) {
    return with_engine<fw::IoEngine>(index, std::forward<Fn>(fn));
}

bool in(int i, int count) {
    return i >= 0 && i < count;
}

bool valid(const CounterSource& s) {
    switch (s.kind) {
        case CounterSource::Kind::Pwm:
            return in(s.index, fw::kPwmOutputs);
        case CounterSource::Kind::Pin:
            return in(s.index, fw::kIoPins);
        case CounterSource::Kind::None:
            return true;
    }
    return false;
}

}  // namespace

IoPinState io_pin(int adapter, int pin) {
    if (!in(pin, fw::kIoPins)) return {};
    return with_io(adapter, [&](fw::IoEngine& e) { return e.pin(pin); });
}

void set_io_outside(int adapter, int pin, std::optional<bool> level) {
    if (in(pin, fw::kIoPins)) with_io(adapter, [&](fw::IoEngine& e) { e.drive(pin, level); });
}

IoWiring io_wiring(int adapter) {
    return with_io(adapter, [](fw::IoEngine& e) { return e.wiring(); });
}

bool set_io_wiring(int adapter, const IoWiring& wiring) {
    return with_io(adapter, [&](fw::IoEngine& e) { return e.set_wiring(wiring); });
}

bool io_sniffer(int adapter, int channel) {
    if (!in(channel, fw::kSnifferChannels)) return false;
    return with_io(adapter, [&](fw::IoEngine& e) { return e.sniffer(channel); });
}

uint64_t io_sniffer_reads(int adapter, int channel) {
    if (!in(channel, fw::kSnifferChannels)) return 0;
    return with_io(adapter, [&](fw::IoEngine& e) { return e.sniffer_reads(channel); });
}

IoAdcState io_adc(int adapter) {
    return with_io(adapter, [](fw::IoEngine& e) { return e.adc(); });
}

AdcSignal io_adc_signal(int adapter, int channel) {
    if (!in(channel, proto::adc::kChannels)) return {};
    return with_io(adapter, [&](fw::IoEngine& e) { return e.signal(channel); });
}

void set_io_adc_signal(int adapter, int channel, const AdcSignal& signal) {
    if (in(channel, proto::adc::kChannels))
        with_io(adapter, [&](fw::IoEngine& e) { e.set_signal(channel, signal); });
}

uint16_t io_adc_sample(int adapter, int channel, uint64_t t_us) {
    if (!in(channel, proto::adc::kChannels)) return 0;
    return with_io(adapter, [&](fw::IoEngine& e) { return fw::adc_sample(e.signal(channel), t_us); });
}

uint64_t io_time_us(int adapter) {
    return with_io(adapter, [](fw::IoEngine& e) { return e.time_us(); });
}

IoPwmState io_pwm(int adapter, int output) {
    if (!in(output, fw::kPwmOutputs)) return {};
    return with_io(adapter, [&](fw::IoEngine& e) { return e.pwm(output); });
}

IoCounterState io_counter(int adapter, int counter) {
    if (!in(counter, fw::kCounters)) return {};
    return with_io(adapter, [&](fw::IoEngine& e) { return e.counter(counter); });
}

void set_io_counter_source(int adapter, int counter, const CounterSource& source) {
    if (in(counter, fw::kCounters) && valid(source))
        with_io(adapter, [&](fw::IoEngine& e) { e.set_source(counter, source); });
}

}  // namespace corvel::sim
