#include "firmware/io_engine.hpp"

#include <algorithm>
#include <bit>

#include "CorvelMsg.h"
#include "firmware/io/analog.hpp"

namespace corvel::sim::fw {
namespace {

namespace gpio = proto::gpio;
namespace adc = proto::adc;
namespace pwm = proto::pwm;
namespace cnt = proto::cnt;

constexpr uint32_t kMask16 = 0xFFFF;
constexpr uint8_t kCounterModeMax = 1;
constexpr uint8_t kCounterPolarityMax = 2;

// Replies carry the request's code + 1.
constexpr uint32_t answer_code(uint32_t code) {
    return code + 1;
}

bool bit(uint32_t bits, int n) {
    return bits >> n & 1u;
}

}  // namespace

IoEngine::IoEngine(Port& port)
    : port_(port), time_(port), pins_(port.identity().io.wiring), signals_(port.identity().io.adc) {
    for (int n = 0; n < kCounters; ++n)
        counters_[static_cast<std::size_t>(n)].state.source =
            port.identity().io.counters[static_cast<std::size_t>(n)];
    now_ = last_ = time_.now();
}

std::span<const Route> IoEngine::routes() const {
    static constexpr Route kRoutes[] = {
        // GPIO commands are never answered, whatever their size.
        route<&IoEngine::gpio_init>(MSG_KD_REQUEST_GPIO_INIT, Sizes::exactly(gpio::kInitSize)),
        route<&IoEngine::gpio_init>(MSG_KD_REQUEST_GPIO_INIT_EX, Sizes::exactly(gpio::kInitSize)),
        route<&IoEngine::gpio_write>(MSG_KD_REQUEST_GPIO_WRITE_DATA, Sizes::exactly(gpio::kWriteSize)),
        route<&IoEngine::gpio_write>(MSG_KD_REQUEST_GPIO_WRITE_DATA_EX, Sizes::exactly(gpio::kWriteSize)),
        route<&IoEngine::gpio_read>(MSG_KD_REQUEST_GPIO_READ_DATA_WITH_SIZE, Sizes::exactly(gpio::kReadSize),
                                    Refusal::reply(answer_code(MSG_KD_REQUEST_GPIO_READ_DATA_WITH_SIZE),
                                                   MSG_GPIO_READ_DATA_ERROR, gpio::kReadReplySize)),
        route<&IoEngine::gpio_read>(MSG_KD_REQUEST_GPIO_READ_DATA_EX, Sizes::exactly(gpio::kReadSize),
                                    Refusal::reply(answer_code(MSG_KD_REQUEST_GPIO_READ_DATA_EX),
                                                   MSG_GPIO_READ_DATA_ERROR, gpio::kReadReplySize)),
        route<&IoEngine::sniffer_control>(MSG_KD_REQUEST_GPIO_I2C_SNIFFER_CONTROL,
                                          Sizes::exactly(gpio::kSnifferControlSize)),
        route<&IoEngine::sniffer_read>(MSG_KD_REQUEST_GPIO_I2C_SNIFFER_READ_DATA,
                                       Sizes::exactly(gpio::kSnifferReadSize)),
        route<&IoEngine::adc_init>(MSG_KD_ADC_INIT, Sizes::exactly(adc::kInitSize),
                                   Refusal::with_status(MSG_ADC_NINT_ERROR)),
        route<&IoEngine::adc_read>(MSG_KD_ADC_READ_DATA, Sizes::exactly(adc::kReadSize)),
        route<&IoEngine::pwm_init>(MSG_KD_PWM_INIT, Sizes::exactly(pwm::kInitSize),
                                   Refusal::with_status(MSG_PWM_CMD_ERROR)),
        route<&IoEngine::pwm_start>(MSG_KD_PWM_START, Sizes::exactly(pwm::kMaskSize),
                                    Refusal::with_status(MSG_PWM_CMD_ERROR)),
        route<&IoEngine::pwm_stop>(MSG_KD_PWM_STOP, Sizes::exactly(pwm::kMaskSize),
                                   Refusal::with_status(MSG_PWM_CMD_ERROR)),
        route<&IoEngine::pwm_pulse>(MSG_KD_PWM_SET_PULSE, Sizes::exactly(pwm::kPulseSize),
                                    Refusal::with_status(MSG_PWM_CMD_ERROR)),
        route<&IoEngine::pwm_period>(MSG_KD_PWM_SET_PERIOD, Sizes::exactly(pwm::kPeriodSize),
                                     Refusal::with_status(MSG_PWM_CMD_ERROR)),
        route<&IoEngine::cnt_init>(MSG_KD_CNT_INIT, Sizes::exactly(cnt::kInitSize),
                                   Refusal::with_status(MSG_MSG_EXECUT_ERROR)),
        route<&IoEngine::cnt_set>(MSG_KD_CNT_SET, Sizes::at_least(cnt::kMaskSize),
                                  Refusal::with_status(MSG_MSG_EXECUT_ERROR)),
        route<&IoEngine::cnt_get>(MSG_KD_CNT_GET, Sizes::exactly(cnt::kMaskSize),
                                  Refusal::reply(answer_code(MSG_KD_CNT_GET), MSG_MSG_EXECUT_ERROR, 0)),
        route<&IoEngine::cnt_start>(MSG_KD_CNT_START, Sizes::exactly(cnt::kMaskSize),
                                    Refusal::with_status(MSG_MSG_EXECUT_ERROR)),
        route<&IoEngine::cnt_stop>(MSG_KD_CNT_STOP, Sizes::exactly(cnt::kMaskSize),
                                   Refusal::with_status(MSG_MSG_EXECUT_ERROR)),
    };
    return kRoutes;
}

// ---- Time and edges

void IoEngine::sync(uint64_t now) {
    for (Counter& c : counters_) {
        if (c.state.source.kind != CounterSource::Kind::Pwm) continue;
        const Edges e = pwm_.edges(c.state.source.index, last_, now);
        c.count(e.rising, e.falling);
    }
    last_ = std::max(last_, now);
}

template <typename Fn>
void IoEngine::change(Fn&& fn) {
    now_ = time_.now();
    sync(now_);
    const uint32_t pins_before = pins_.levels();
    const uint8_t pwm_before = pwm_.levels(now_);
    fn();
    const uint32_t pins_after = pins_.levels();
    const uint8_t pwm_after = pwm_.levels(now_);
    for (Counter& c : counters_) {
        const CounterSource& s = c.state.source;
        if (s.kind == CounterSource::Kind::None) continue;
        const bool pin = s.kind == CounterSource::Kind::Pin;
        const bool before = bit(pin ? pins_before : pwm_before, s.index);
        const bool after = bit(pin ? pins_after : pwm_after, s.index);
        c.count(!before && after, before && !after);
    }
}

uint64_t IoEngine::time_us() {
    change([] {});
    return now_;
}

// ---- Control API

IoPinState IoEngine::pin(int n) {
    change([] {});
    return {pins_.mode(n), pins_.latch(n), bit(pins_.levels(), n), bit(pins_.contention(), n),
            pins_.outside(n)};
}

void IoEngine::drive(int n, std::optional<bool> level) {
    change([&] { pins_.drive(n, level); });
}

bool IoEngine::set_wiring(const IoWiring& wiring) {
    bool ok = false;
    change([&] { ok = pins_.set_wiring(wiring); });
    return ok;
}

IoPwmState IoEngine::pwm(int n) {
    change([] {});
    const PwmOutput& o = pwm_.output(n);
    return {o.mode, o.polarity, o.pulse, o.frequency, o.running, pwm_.level(n, now_)};
}

IoCounterState IoEngine::counter(int n) {
    change([] {});
    return counters_[static_cast<std::size_t>(n)].state;
}

void IoEngine::set_source(int n, const CounterSource& source) {
    change([&] { counters_[static_cast<std::size_t>(n)].state.source = source; });
}

// ---- GPIO

void IoEngine::gpio_init(Request& r) {
    const uint32_t width = r.code == MSG_KD_REQUEST_GPIO_INIT ? kMask16 : gpio::kExMaskBits;
    const uint32_t mask = r.in.be32() & width;
    const uint32_t mode = r.in.be32();
    change([&] { pins_.init(mask, mode); });
}

void IoEngine::gpio_write(Request& r) {
    const uint32_t width = r.code == MSG_KD_REQUEST_GPIO_WRITE_DATA ? kMask16 : gpio::kExMaskBits;
    const uint32_t mask = r.in.be32() & width;
    const uint32_t data = r.in.be32();
    change([&] { pins_.write(mask, data); });
}

void IoEngine::gpio_read(Request& r) {
    const uint32_t width = r.code == MSG_KD_REQUEST_GPIO_READ_DATA_WITH_SIZE ? kMask16 : gpio::kExMaskBits;
    const uint32_t mask = r.in.be32() & width;
    change([] {});
    std::array<uint8_t, gpio::kReadReplySize> levels{};
    proto::put_be32(levels.data(), pins_.levels() & mask);
    port_.reply(answer_code(r.code), MSG_GPIO_READ_DATA_OK, levels, /*pad_to_packet=*/false);
}

void IoEngine::sniffer_control(Request& r) {
    const uint8_t channel = r.in.u8();
    sniffer_on_[channel] = r.in.u8() != 0;
}

void IoEngine::sniffer_read(Request& r) {
    ++sniffer_reads_[r.in.u8()];
}

// ---- ADC

void IoEngine::adc_init(Request& r) {
    const uint8_t mask = r.in.u8();
    r.in.skip(2);
    const uint16_t period = r.in.be16();
    if (period == 0) return port_.status(MSG_ADC_NINT_ERROR);
    adc_mask_ = mask;
    adc_period_ = period;
    port_.status(MSG_ADC_NINT_OK);
}

// Sample k of n is the signal at t0 + (k + 1) x period, t0 the request's time; the block goes when
// the last is taken. A block asked for while the converter still samples the previous one starts
// after it.
void IoEngine::adc_read(Request& r) {
    r.in.skip(2);
    const uint16_t instants = r.in.be16();
    if (instants == 0 || instants > adc::kMaxInstants || adc_mask_ == 0) return;
    const uint64_t now = time_us();
    const uint64_t t0 = std::max(now, adc_busy_until_);
    Bytes block;
    block.reserve(std::size_t{instants} * std::popcount(adc_mask_) * adc::kSampleSize);
    for (uint64_t k = 1; k <= instants; ++k) {
        for (int ch = 0; ch < adc::kChannels; ++ch) {
            if (!bit(adc_mask_, ch)) continue;
            const uint16_t v = adc_sample(signals_[static_cast<std::size_t>(ch)], t0 + k * adc_period_);
            block.push_back(static_cast<uint8_t>(v));
            block.push_back(static_cast<uint8_t>(v >> 8));
        }
    }
    adc_busy_until_ = t0 + uint64_t{instants} * adc_period_;
    if (!port_.clock_on()) return port_.raw(std::move(block));
    port_.schedule_in(adc_busy_until_ - now,
                      [this, block = std::move(block)]() mutable { port_.raw(std::move(block)); });
}

// ---- PWM

void IoEngine::pwm_init(Request& r) {
    const uint8_t mode = r.in.u8();
    const uint8_t mask = r.in.u8();
    const uint8_t polarity = r.in.u8();
    const uint8_t pulse = r.in.u8();
    const uint32_t frequency = r.in.be32();
    const bool checked = mode != pwm::kModeUnchecked;
    if (mode > pwm::kMaxMode || (checked && (polarity > pwm::kMaxPolarity || pulse > pwm::kMaxPulse)) ||
        frequency < pwm::kMinFrequencyHz || frequency > pwm::kMaxFrequencyHz)
        return port_.status(MSG_PWM_CMD_ERROR);
    change([&] { pwm_.init(mask, mode, polarity, pulse, frequency, now_); });
    port_.status(MSG_PWM_CMD_OK);
}

void IoEngine::pwm_start(Request& r) {
    const uint8_t mask = r.in.u8();
    change([&] { pwm_.start(mask, now_); });
    port_.status(MSG_PWM_CMD_OK);
}

void IoEngine::pwm_stop(Request& r) {
    const uint8_t mask = r.in.u8();
    change([&] { pwm_.stop(mask); });
    port_.status(MSG_PWM_CMD_OK);
}

void IoEngine::pwm_pulse(Request& r) {
    const uint8_t mask = r.in.u8();
    std::array<uint8_t, kPwmOutputs> pulse{};
    for (std::size_t n = 0; n < pulse.size(); ++n) {
        pulse[n] = r.in.u8();
        if (bit(mask, static_cast<int>(n)) && pulse[n] > pwm::kMaxPulse)
            return port_.status(MSG_PWM_CMD_ERROR);
    }
    change([&] { pwm_.set_pulse(mask, pulse); });
    port_.status(MSG_PWM_CMD_OK);
}

void IoEngine::pwm_period(Request& r) {
    const uint8_t mask = r.in.u8();
    std::array<uint32_t, kPwmOutputs> frequency{};
    for (std::size_t n = 0; n < frequency.size(); ++n) {
        frequency[n] = r.in.be32();
        const bool bad = frequency[n] < pwm::kMinFrequencyHz || frequency[n] > pwm::kMaxFrequencyHz;
        if (bit(mask, static_cast<int>(n)) && bad) return port_.status(MSG_PWM_CMD_ERROR);
    }
    change([&] { pwm_.set_frequency(mask, frequency, now_); });
    port_.status(MSG_PWM_CMD_OK);
}

// ---- Counters

void IoEngine::cnt_init(Request& r) {
    const uint8_t mask = r.in.u8() & cnt::kChannelMask;
    const uint8_t width = r.in.u8();
    const uint8_t mode = r.in.u8();
    const uint8_t polarity = r.in.u8();
    if ((width != 16 && width != 32) || mode > kCounterModeMax || polarity > kCounterPolarityMax)
        return port_.status(MSG_MSG_EXECUT_ERROR);
    change([&] {
        for (int n = 0; n < kCounters; ++n) {
            if (!bit(mask, n)) continue;
            IoCounterState& s = counters_[static_cast<std::size_t>(n)].state;
            s.width = width;
            s.mode = mode;
            s.polarity = polarity;
            s.value &= counters_[static_cast<std::size_t>(n)].mask();
        }
    });
    port_.status(MSG_MSG_EXECUT_OK);
}

void IoEngine::cnt_set(Request& r) {
    const uint8_t mask = r.in.u8() & cnt::kChannelMask;
    if (r.in.remaining() != cnt::kValueSize * std::popcount(mask)) return port_.status(MSG_MSG_EXECUT_ERROR);
    change([&] {
        for (int n = 0; n < kCounters; ++n) {
            if (!bit(mask, n)) continue;
            Counter& c = counters_[static_cast<std::size_t>(n)];
            c.state.value = r.in.be32() & c.mask();
        }
    });
    port_.status(MSG_MSG_EXECUT_OK);
}

void IoEngine::cnt_get(Request& r) {
    const uint8_t mask = r.in.u8() & cnt::kChannelMask;
    change([] {});
    std::array<uint8_t, cnt::kValueSize * kCounters> values{};
    std::size_t size = 0;
    for (int n = 0; n < kCounters; ++n) {
        if (!bit(mask, n)) continue;
        proto::put_be32(&values[size], counters_[static_cast<std::size_t>(n)].state.value);
        size += cnt::kValueSize;
    }
    port_.reply(answer_code(r.code), MSG_MSG_EXECUT_OK, std::span(values).first(size),
                /*pad_to_packet=*/false);
}

void IoEngine::cnt_start(Request& r) {
    const uint8_t mask = r.in.u8() & cnt::kChannelMask;
    change([&] {
        for (int n = 0; n < kCounters; ++n)
            if (bit(mask, n)) counters_[static_cast<std::size_t>(n)].state.running = true;
    });
    port_.status(MSG_MSG_EXECUT_OK);
}

void IoEngine::cnt_stop(Request& r) {
    const uint8_t mask = r.in.u8() & cnt::kChannelMask;
    change([&] {
        for (int n = 0; n < kCounters; ++n)
            if (bit(mask, n)) counters_[static_cast<std::size_t>(n)].state.running = false;
    });
    port_.status(MSG_MSG_EXECUT_OK);
}

std::unique_ptr<Engine> make_io_engine(Port& port) {
    const int type = port.identity().personality;
    if (type != proto::kDevTypeI2c && type != proto::kDevTypeSpi) return nullptr;
    return std::make_unique<IoEngine>(port);
}

}  // namespace corvel::sim::fw
