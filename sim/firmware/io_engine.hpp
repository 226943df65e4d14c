// The GPIO, ADC, PWM and counter engine of the I2C and SPI types (personalities 1 and 2; the CAN
// types have none): the pins and their wiring harness (io/pin_bank.*), the ADC and the signals on
// its channels (io/analog.*), the PWM outputs (io/pwm.*) and the counters (io/counters.hpp).
//
// Time is the adapter's own (ModelTime): the virtual clock's elapsed time while that is on, the
// host's monotonic clock while it is off. Nothing runs between requests: every request and every
// control-API call first brings the counters up to now, counting their sources' edges since the
// last look, and then counts the level changes it makes itself (a PWM start, a pin write) at the
// instant it makes them. An ADC block is worked out when requested and sent when its last sample
// is taken (at once with the clock off).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>

#include "corvel/sim_io.hpp"
#include "firmware/engine.hpp"
#include "firmware/io/counters.hpp"
#include "firmware/io/pin_bank.hpp"
#include "firmware/io/pwm.hpp"

namespace corvel::sim::fw {

inline constexpr int kSnifferChannels = 256;

class IoEngine final : public Engine {
  public:
    explicit IoEngine(Port& port);

    std::span<const Route> routes() const override;

    // ---- For the control API: indices are checked by the caller.
    uint64_t time_us();
    IoPinState pin(int n);
    void drive(int n, std::optional<bool> level);
    const IoWiring& wiring() const { return pins_.wiring(); }
    bool set_wiring(const IoWiring& wiring);
    bool sniffer(int channel) const { return sniffer_on_[static_cast<std::size_t>(channel)]; }
    uint64_t sniffer_reads(int channel) const { return sniffer_reads_[static_cast<std::size_t>(channel)]; }
    IoAdcState adc() const { return {adc_mask_, adc_period_}; }
    const AdcSignal& signal(int channel) const { return signals_[static_cast<std::size_t>(channel)]; }
    void set_signal(int channel, const AdcSignal& s) { signals_[static_cast<std::size_t>(channel)] = s; }
    IoPwmState pwm(int n);
    IoCounterState counter(int n);
    void set_source(int n, const CounterSource& source);

  private:
    // Brings the counters up to now, runs `change` at now and counts the level changes it made.
    template <typename Fn>
    void change(Fn&& fn);
    void sync(uint64_t now);

    void gpio_init(Request& r);
    void gpio_write(Request& r);
    void gpio_read(Request& r);
    void sniffer_control(Request& r);
    void sniffer_read(Request& r);
    void adc_init(Request& r);
    void adc_read(Request& r);
    void pwm_init(Request& r);
    void pwm_start(Request& r);
    void pwm_stop(Request& r);
    void pwm_pulse(Request& r);
    void pwm_period(Request& r);
    void cnt_init(Request& r);
    void cnt_set(Request& r);
    void cnt_get(Request& r);
    void cnt_start(Request& r);
    void cnt_stop(Request& r);

    Port& port_;
    ModelTime time_;
    uint64_t now_ = 0;   // the time of the request being handled
    uint64_t last_ = 0;  // the counters are up to date to here
    PinBank pins_;
    std::array<bool, kSnifferChannels> sniffer_on_{};
    std::array<uint64_t, kSnifferChannels> sniffer_reads_{};
    std::array<AdcSignal, proto::adc::kChannels> signals_;
    uint8_t adc_mask_ = 0;
    uint16_t adc_period_ = 0;
    uint64_t adc_busy_until_ = 0;  // the time the last block asked for is sampled
    PwmBank pwm_;
    CounterBank counters_{};
};

std::unique_ptr<Engine> make_io_engine(Port& port);

}  // namespace corvel::sim::fw
