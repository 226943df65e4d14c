// GPIO commands with the habits of libgpiod's tools: set pin directions, drive pins, read levels
// (gpioget), and print level changes as they happen (gpiomon, by polling).
//
// Pins are 0 to 23. Masks within pins 0 to 15 go through the base functions, wider ones through
// the Ex functions. The adapter's read brings back pins 0 to 15 only, and its write carries levels
// for pins 0 to 15 only (pins 16 to 23 can be driven low, never high): both are refused with a
// message instead of printing or doing something other than asked.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "ControlGPIO.h"
#include "context.hpp"
#include "corvel/protocol.hpp"
#include "io_adapter.hpp"
#include "io_format.hpp"
#include "numbers.hpp"
#include "output.hpp"

namespace corvel::cli {
namespace {

namespace gpio = proto::gpio;

constexpr uint32_t kReadable = (1U << gpio::kReadPins) - 1;

struct Pins {
    std::string text;
    PinList list;
};

void parse_into(Pins& p, const char* what) {
    auto parsed = parse_pins(p.text, gpio::kPins - 1);
    if (!parsed) throw CLI::ValidationError(what, parsed.error);
    p.list = *parsed.value;
}

void readable_only(const Pins& p, const char* what) {
    if ((p.list.mask & ~kReadable) != 0) {
        throw CLI::ValidationError(what, "the adapter's read returns pins 0 to 15 only");
    }
}

int init_pins(int32_t type, int32_t dev, uint32_t mask, uint32_t mode) {
    int32_t rc = mask > 0xFFFF ? KGI_InitGPIOEx(type, dev, mask, mode)
                               : KGI_InitGPIO(type, dev, static_cast<uint16_t>(mask), mode);
    return rc == 0 ? 0 : fail("set pin mode", rc);
}

int write_pins(int32_t type, int32_t dev, uint32_t mask, uint16_t data) {
    int32_t rc = mask > 0xFFFF ? KGI_WriteDatasEx(type, dev, mask, data)
                               : KGI_WriteDatas(type, dev, static_cast<uint16_t>(mask), data);
    return rc == 0 ? 0 : fail("write pins", rc);
}

int read_pins(int32_t type, int32_t dev, uint32_t mask, uint16_t& levels) {
    int32_t rc = KGI_ReadDatas(type, dev, static_cast<uint16_t>(mask), &levels);
    return rc == 0 ? 0 : fail("read pins", rc);
}

// Time since the watch began. With the virtual adapter's clock on, sleeps return at once and the
// time slept counts instead, so a watch lasts as long in virtual time as it would in real time.
class WatchClock {
  public:
    uint64_t elapsed_us() const {
        auto real = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start_).count();
        return std::max(static_cast<uint64_t>(real), slept_us_);
    }
    void sleep_us(uint64_t us) {
        usleep(static_cast<useconds_t>(us));
        slept_us_ += us;
    }

  private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_ = Clock::now();
    uint64_t slept_us_ = 0;
};

struct WatchArgs {
    Pins pins;
    uint64_t count = 0;       // 0: no limit
    uint64_t timeout_ms = 0;  // 0: no limit
    uint64_t interval_ms = 1;
    Pins toggle;  // output pins driven alternately high and low
    uint64_t toggle_ms = 100;
};

// One line per change of a watched pin: "<seconds since start> <pin>=<level> rising|falling". The
// levels at the start are the reference and are not printed.
int watch(const IoTarget& t, const WatchArgs& a) {
    WatchClock clock;
    uint16_t levels = 0;
    uint16_t out = 0;
    uint64_t next_toggle = a.toggle_ms * 1000;
    if (int rc = read_pins(t.type, t.dev, a.pins.list.mask, levels); rc != 0) return rc;
    uint64_t events = 0;
    while ((a.count == 0 || events < a.count) &&
           (a.timeout_ms == 0 || clock.elapsed_us() < a.timeout_ms * 1000)) {
        clock.sleep_us(a.interval_ms * 1000);
        if (a.toggle.list.mask != 0 && clock.elapsed_us() >= next_toggle) {
            out = static_cast<uint16_t>(~out);
            if (int rc = write_pins(t.type, t.dev, a.toggle.list.mask, out); rc != 0) return rc;
            next_toggle += a.toggle_ms * 1000;
        }
        uint16_t now = 0;
        if (int rc = read_pins(t.type, t.dev, a.pins.list.mask, now); rc != 0) return rc;
        uint16_t changed = static_cast<uint16_t>(now ^ levels);
        if (changed == 0) continue;
        uint64_t t = clock.elapsed_us();
        for (int pin : a.pins.list.pins) {
            if ((changed >> pin & 1U) == 0) continue;
            int level = now >> pin & 1U;
            fmt::print("{}.{:06} {}={} {}\n", t / 1000000, t % 1000000, pin, level,
                       level ? "rising" : "falling");
            if (++events == a.count) break;
        }
        std::fflush(stdout);
        levels = now;
    }
    return 0;
}

uint32_t mode_word(const std::string& mode) {
    if (mode == "out") return KGI_PIN_MODE_OUTPUT;
    if (mode == "od") return KGI_PIN_MODE_OPEN_DRAIN;
    if (mode == "pullup") return 0;  // every field 0: input with pull-up
    return KGI_PIN_MODE_INPUT;
}

}  // namespace

void add_gpio_commands(CLI::App& app, Context& ctx) {
    auto* group = app.add_subcommand("gpio", "Pins of an I2C- or SPI-type adapter, as libgpiod's tools do");
    auto actions = std::make_shared<ActionGroup>(*group, ctx, IoFamily::gpio);
    group->footer(
        "PINS: pins 0 to 23 as a list with ranges, e.g. 0,3,8-11. Levels are read for pins 0 to 15 only, and "
        "pins 16 to 23 can be driven low only.\nActions chain in one run, in the order written: corvel gpio "
        "mode 0 out set 0 get 8 (each action once). On the virtual adapter pins n and n+8 (n = 0..7) are "
        "wired together, and nothing outlives a run.");

    {
        auto* cmd = group->add_subcommand("mode", "Make pins inputs or outputs");
        auto p = std::make_shared<Pins>();
        auto mode = std::make_shared<std::string>();
        cmd->add_option("PINS", p->text, "Pins")->required();
        cmd->add_option("MODE", *mode,
                        "in (high impedance), pullup (input with pull-up), out (push-pull), od (open drain "
                        "with pull-up)")
            ->required()
            ->check(CLI::IsMember({"in", "pullup", "out", "od"}));
        cmd->callback([actions, p, mode] {
            parse_into(*p, "PINS");
            actions->add([p, mode](const IoTarget& t) {
                return init_pins(t.type, t.dev, p->list.mask, mode_word(*mode));
            });
        });
    }
    for (bool high : {true, false}) {
        auto* cmd = group->add_subcommand(high ? "set" : "clear",
                                          high ? "Drive pins high (their output latch)" : "Drive pins low");
        auto p = std::make_shared<Pins>();
        cmd->add_option("PINS", p->text, "Pins")->required();
        cmd->callback([actions, p, high] {
            parse_into(*p, "PINS");
            if (high && (p->list.mask & ~kReadable) != 0) {
                throw CLI::ValidationError("PINS",
                                           "pins 16 to 23 can be driven low only: the adapter's write "
                                           "carries levels for pins 0 to 15");
            }
            actions->add([p, high](const IoTarget& t) {
                return write_pins(t.type, t.dev, p->list.mask, high ? 0xFFFF : 0);
            });
        });
    }
    {
        auto* cmd = group->add_subcommand("get", "Print pin levels: PIN=LEVEL in the order given");
        auto p = std::make_shared<Pins>();
        p->text = "0-15";
        cmd->add_option("PINS", p->text, "Pins from 0 to 15")->capture_default_str();
        cmd->callback([actions, p] {
            parse_into(*p, "PINS");
            readable_only(*p, "PINS");
            actions->add([p](const IoTarget& t) {
                uint16_t levels = 0;
                if (int rc = read_pins(t.type, t.dev, p->list.mask, levels); rc != 0) return rc;
                fmt::print("{}\n", format_levels(p->list.pins, levels));
                return 0;
            });
        });
    }
    {
        auto* cmd = group->add_subcommand("watch", "Print a line for each level change, as gpiomon does");
        auto a = std::make_shared<WatchArgs>();
        cmd->add_option("PINS", a->pins.text, "Pins from 0 to 15")->required();
        cmd->add_option("-n,--count", a->count, "Stop after this many changes")
            ->transform(number_in(1, UINT32_MAX));
        cmd->add_option("--timeout", a->timeout_ms, "Stop after this many milliseconds")
            ->transform(number_in(1, UINT32_MAX));
        cmd->add_option("--interval", a->interval_ms, "Milliseconds between two reads")
            ->capture_default_str()
            ->transform(number_in(1, 60000));
        cmd->add_option("--toggle", a->toggle.text,
                        "Drive these pins alternately high and low meanwhile (a test signal: on the virtual "
                        "adapter pin n drives pin n+8)");
        cmd->add_option("--toggle-ms", a->toggle_ms, "Milliseconds between two toggles")
            ->capture_default_str()
            ->transform(number_in(1, 60000));
        cmd->callback([actions, a] {
            parse_into(a->pins, "PINS");
            readable_only(a->pins, "PINS");
            if (!a->toggle.text.empty()) {
                parse_into(a->toggle, "--toggle");
                readable_only(a->toggle, "--toggle");
            }
            actions->add([a](const IoTarget& t) { return watch(t, *a); });
        });
    }
}

}  // namespace corvel::cli
