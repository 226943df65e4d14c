// PWM and counter commands: start, stop and change up to eight PWM outputs; configure, preset,
// read, start and stop up to four pulse counters, and count for a given time (`counter measure`).
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "ControlCNT.h"
#include "ControlPWM.h"
#include "context.hpp"
#include "corvel/protocol.hpp"
#include "io_adapter.hpp"
#include "io_format.hpp"
#include "numbers.hpp"
#include "output.hpp"

namespace corvel::cli {
namespace {

namespace pwm = proto::pwm;
namespace cnt = proto::cnt;

struct PwmArgs {
    uint8_t mask = 0x01;
    uint32_t freq = 1000;
    uint8_t duty = 50;
    uint8_t mode = 0;
    uint8_t polarity = 0;
};

int start_pwm(const IoTarget& t, const PwmArgs& a) {
    KPI_INIT_CONFIG config{};
    config.PWM_ChannelMask = a.mask;
    config.PWM_Mode = a.mode;
    config.PWM_Pulse = a.duty;
    config.PWM_Polarity = a.polarity;
    config.PWM_Frequency = a.freq;
    if (int32_t rc = KPI_InitPWM(t.type, t.dev, &config); rc != 0) return fail("set up PWM", rc);
    if (int32_t rc = KPI_StartPWM(t.type, t.dev, a.mask); rc != 0) return fail("start PWM", rc);
    return 0;
}

void add_mask(CLI::App& cmd, uint8_t& mask, int outputs, const char* what) {
    cmd.add_option("-c,--channels", mask, fmt::format("Mask of {}, bit n for {} n", what, what))
        ->capture_default_str()
        ->transform(number_in(1, (1U << outputs) - 1, true));
}

void add_pwm_settings(CLI::App& cmd, PwmArgs& a) {
    cmd.add_option("--freq", a.freq, "Frequency in Hz")
        ->capture_default_str()
        ->transform(number_in(pwm::kMinFrequencyHz, pwm::kMaxFrequencyHz));
    cmd.add_option("--duty", a.duty, "Duty cycle in percent")
        ->capture_default_str()
        ->transform(number_in(0, pwm::kMaxPulse));
}

struct CounterArgs {
    uint8_t mask = 0x01;
    uint8_t width = 32;
    std::string mode = "up";
    std::string edge = "rising";
    std::vector<uint32_t> values;
    double seconds = 1.0;
    uint32_t pwm_freq = 0;  // measure: start PWM outputs of the same mask at this frequency first
};

int init_counters(const IoTarget& t, const CounterArgs& a) {
    CNT_INIT_CONFIG config{};
    config.CounterMode = a.mode == "down" ? 1 : 0;
    config.CounterPolarity = a.edge == "falling" ? 1 : a.edge == "both" ? 2 : 0;
    config.CounterBitWide = a.width;
    if (int32_t rc = CNT_InitCounter(t.type, t.dev, a.mask, &config); rc != 0)
        return fail("set up counters", rc);
    return 0;
}

int print_counters(const IoTarget& t, uint8_t mask) {
    std::array<uint32_t, cnt::kCounters> values{};
    if (int32_t rc = CNT_GetCounter(t.type, t.dev, mask, values.data()); rc != 0)
        return fail("read counters", rc);
    std::size_t i = 0;
    for (int counter : mask_bits(mask)) fmt::print("counter {}: {}\n", counter, values[i++]);
    return 0;
}

// Counts for a time: set up the counters, zero them, optionally start the PWM outputs of the same
// mask, start counting, wait, read. The wait is a sleep: on the virtual adapter with its clock on
// it passes in virtual time.
int measure(const IoTarget& t, const CounterArgs& a) {
    if (int rc = init_counters(t, a); rc != 0) return rc;
    std::array<uint32_t, cnt::kCounters> zeros{};
    if (int32_t rc = CNT_SetCounter(t.type, t.dev, a.mask, zeros.data()); rc != 0)
        return fail("preset counters", rc);
    if (a.pwm_freq != 0) {
        PwmArgs p;
        p.mask = a.mask;
        p.freq = a.pwm_freq;
        if (int rc = start_pwm(t, p); rc != 0) return rc;
    }
    if (int32_t rc = CNT_StartCounter(t.type, t.dev, a.mask); rc != 0) return fail("start counters", rc);
    usleep(static_cast<useconds_t>(a.seconds * 1e6));
    if (int32_t rc = CNT_StopCounter(t.type, t.dev, a.mask); rc != 0) return fail("stop counters", rc);
    if (a.pwm_freq != 0) {
        if (int32_t rc = KPI_StopPWM(t.type, t.dev, a.mask); rc != 0) return fail("stop PWM", rc);
    }
    return print_counters(t, a.mask);
}

void add_pwm_commands(CLI::App& app, Context& ctx) {
    auto* group = app.add_subcommand("pwm", "PWM outputs 0 to 7 of an I2C- or SPI-type adapter");
    auto actions = std::make_shared<ActionGroup>(*group, ctx, IoFamily::pwm);
    group->footer(
        "Actions chain in one run: corvel pwm start -c 1 --freq 1000 duty -c 1 25 (each action once).");
    {
        auto* cmd = group->add_subcommand("start", "Set outputs up and start them");
        auto a = std::make_shared<PwmArgs>();
        add_mask(*cmd, a->mask, pwm::kChannels, "outputs");
        add_pwm_settings(*cmd, *a);
        cmd->add_option("--mode", a->mode, "Adapter PWM mode 0 to 3")
            ->capture_default_str()
            ->transform(number_in(0, pwm::kMaxMode));
        cmd->add_option("--polarity", a->polarity, "0 or 1")
            ->capture_default_str()
            ->transform(number_in(0, pwm::kMaxPolarity));
        cmd->callback([actions, a] { actions->add([a](const IoTarget& t) { return start_pwm(t, *a); }); });
    }
    {
        auto* cmd = group->add_subcommand("stop", "Stop outputs");
        auto mask = std::make_shared<uint8_t>(0xFF);
        add_mask(*cmd, *mask, pwm::kChannels, "outputs");
        cmd->callback([actions, mask] {
            actions->add([mask](const IoTarget& t) {
                int32_t rc = KPI_StopPWM(t.type, t.dev, *mask);
                return rc == 0 ? 0 : fail("stop PWM", rc);
            });
        });
    }
    {
        auto* cmd = group->add_subcommand("duty", "Change the duty cycle of running outputs");
        auto a = std::make_shared<PwmArgs>();
        add_mask(*cmd, a->mask, pwm::kChannels, "outputs");
        cmd->add_option("PCT", a->duty, "Duty cycle in percent")
            ->required()
            ->transform(number_in(0, pwm::kMaxPulse));
        cmd->callback([actions, a] {
            actions->add([a](const IoTarget& t) {
                std::array<uint8_t, pwm::kChannels> pulses{};
                pulses.fill(a->duty);  // every entry; the adapter takes those of the masked outputs
                int32_t rc = KPI_SetPWMPulse(t.type, t.dev, a->mask, pulses.data());
                return rc == 0 ? 0 : fail("set the duty cycle", rc);
            });
        });
    }
    {
        auto* cmd = group->add_subcommand("freq", "Change the frequency of running outputs");
        auto a = std::make_shared<PwmArgs>();
        add_mask(*cmd, a->mask, pwm::kChannels, "outputs");
        cmd->add_option("HZ", a->freq, "Frequency in Hz")
            ->required()
            ->transform(number_in(pwm::kMinFrequencyHz, pwm::kMaxFrequencyHz));
        cmd->callback([actions, a] {
            actions->add([a](const IoTarget& t) {
                std::array<uint32_t, pwm::kChannels> freqs{};
                freqs.fill(a->freq);
                int32_t rc = KPI_SetPWMPeriod(t.type, t.dev, a->mask, freqs.data());
                return rc == 0 ? 0 : fail("set the frequency", rc);
            });
        });
    }
}

void add_counter_setup(CLI::App& cmd, CounterArgs& a) {
    cmd.add_option("--width", a.width, "Counter width in bits: 16 or 32")
        ->capture_default_str()
        ->check(CLI::IsMember({16, 32}));
    cmd.add_option("--mode", a.mode, "Count up or down")
        ->capture_default_str()
        ->check(CLI::IsMember({"up", "down"}));
    cmd.add_option("--edge", a.edge, "Edges counted")
        ->capture_default_str()
        ->check(CLI::IsMember({"rising", "falling", "both"}));
}

void add_counter_commands(CLI::App& app, Context& ctx) {
    auto* group = app.add_subcommand("counter", "Pulse counters 0 to 3 of an I2C- or SPI-type adapter");
    auto actions = std::make_shared<ActionGroup>(*group, ctx, IoFamily::counter);
    group->footer(
        "Actions chain in one run: corvel counter init -c 3 set -c 3 0 start -c 3 get -c 3 (each action "
        "once). On the virtual adapter counter n counts PWM output n's edges: corvel counter measure -c 1 "
        "--pwm 1000 --seconds 1.");
    auto simple = [&](const char* name, const char* help, int32_t (*call)(int32_t, int32_t, uint8_t),
                      const char* what) {
        auto* cmd = group->add_subcommand(name, help);
        auto mask = std::make_shared<uint8_t>(0x0F);
        add_mask(*cmd, *mask, cnt::kCounters, "counters");
        cmd->callback([actions, mask, call, what] {
            actions->add([mask, call, what](const IoTarget& t) {
                int32_t rc = call(t.type, t.dev, *mask);
                return rc == 0 ? 0 : fail(what, rc);
            });
        });
    };
    {
        auto* cmd = group->add_subcommand("init", "Set counters up");
        auto a = std::make_shared<CounterArgs>();
        a->mask = 0x0F;
        add_mask(*cmd, a->mask, cnt::kCounters, "counters");
        add_counter_setup(*cmd, *a);
        cmd->callback(
            [actions, a] { actions->add([a](const IoTarget& t) { return init_counters(t, *a); }); });
    }
    {
        auto* cmd = group->add_subcommand("set", "Preset counters: one VALUE for all, or one per counter");
        auto a = std::make_shared<CounterArgs>();
        a->mask = 0x0F;
        add_mask(*cmd, a->mask, cnt::kCounters, "counters");
        cmd->add_option("VALUE", a->values, "Values, ascending counters")
            ->required()
            ->transform(number_in(0, UINT32_MAX, true));
        cmd->callback([actions, a] {
            std::size_t n = mask_bits(a->mask).size();
            if (a->values.size() == 1) a->values.resize(n, a->values[0]);
            if (a->values.size() != n) {
                throw CLI::ValidationError("VALUE",
                                           fmt::format("{} values for {} counters", a->values.size(), n));
            }
            actions->add([a](const IoTarget& t) {
                int32_t rc = CNT_SetCounter(t.type, t.dev, a->mask, a->values.data());
                return rc == 0 ? 0 : fail("preset counters", rc);
            });
        });
    }
    {
        auto* cmd = group->add_subcommand("get", "Print counters, one line each");
        auto mask = std::make_shared<uint8_t>(0x0F);
        add_mask(*cmd, *mask, cnt::kCounters, "counters");
        cmd->callback([actions, mask] {
            actions->add([mask](const IoTarget& t) { return print_counters(t, *mask); });
        });
    }
    simple("start", "Start counting", CNT_StartCounter, "start counters");
    simple("stop", "Stop counting", CNT_StopCounter, "stop counters");
    {
        auto* cmd = group->add_subcommand("measure", "Zero, start, wait SECONDS, stop and print counters");
        auto a = std::make_shared<CounterArgs>();
        add_mask(*cmd, a->mask, cnt::kCounters, "counters");
        add_counter_setup(*cmd, *a);
        cmd->add_option("--seconds", a->seconds, "Time to count")
            ->capture_default_str()
            ->check(CLI::Range(0.000001, 3600.0));
        cmd->add_option("--pwm", a->pwm_freq,
                        "Start the PWM outputs of the same mask at this frequency (50 %) while counting")
            ->transform(number_in(pwm::kMinFrequencyHz, pwm::kMaxFrequencyHz));
        cmd->callback([actions, a] { actions->add([a](const IoTarget& t) { return measure(t, *a); }); });
    }
}

}  // namespace

void add_pwm_counter_commands(CLI::App& app, Context& ctx) {
    add_pwm_commands(app, ctx);
    add_counter_commands(app, ctx);
}

}  // namespace corvel::cli
