// ADC command: sample channels of an I2C- or SPI-type adapter and print the instants as volts or
// raw counts, as CSV, or as a chart in the terminal.
//
// The adapter takes the samples at its own pace (--period microseconds apart) and sends the block
// when the last one is taken. On the virtual adapter with its clock on (the default of --sim) the
// block comes at once and the samples are those of virtual time; with CORVEL_SIM_CLOCK=real it
// comes at once too, the signals taken at the adapter's time of the request.
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "ControlADC.h"
#include "context.hpp"
#include "corvel/protocol.hpp"
#include "io_adapter.hpp"
#include "io_format.hpp"
#include "numbers.hpp"
#include "output.hpp"

namespace corvel::cli {
namespace {

namespace adc = proto::adc;

struct ReadArgs {
    uint8_t mask = 0x01;
    uint16_t count = 16;
    uint16_t period_us = 1000;
    double vref = 3.3;
    bool raw = false;
    bool csv = false;
    bool plot = false;
    int plot_height = 16;
};

// COLUMNS when it is a number, else the terminal's width, else 80.
int terminal_width() {
    if (const char* columns = std::getenv("COLUMNS"); columns != nullptr) {
        if (int n = std::atoi(columns); n > 0) return n;
    }
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 80;
}

int read_samples(const IoTarget& t, const ReadArgs& a) {
    if (int32_t rc = KAI_InitADC(t.type, t.dev, a.mask, a.period_us); rc != 0)
        return fail("set up the ADC", rc);
    const std::vector<int> channels = mask_bits(a.mask);
    std::vector<uint16_t> block(static_cast<std::size_t>(a.count) * channels.size());
    if (int32_t rc = KAI_ReadDatas(t.type, t.dev, a.count, block.data()); rc != 0) {
        return fail("read the samples", rc);
    }
    // The block as the adapter sent it, least significant byte of each value first.
    std::vector<uint8_t> bytes(block.size() * 2);
    std::memcpy(bytes.data(), block.data(), bytes.size());
    SampleTable table{channels, decode_samples(bytes), a.vref, a.raw, a.csv};
    if (!a.plot) {
        fmt::print("{}", format_samples(table));
        return 0;
    }
    std::vector<PlotSeries> series;
    for (std::size_t c = 0; c < channels.size(); ++c) {
        PlotSeries s{fmt::format("ch{}", channels[c]), {}};
        for (std::size_t i = c; i < table.values.size(); i += channels.size()) {
            s.values.push_back(a.raw ? table.values[i] : table.values[i] * a.vref / adc::kFullScale);
        }
        series.push_back(std::move(s));
    }
    PlotStyle style;
    style.width = terminal_width();
    style.height = a.plot_height;
    style.decimals = a.raw ? 0 : 3;
    style.unit = a.raw ? "" : "V";
    style.colour = isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
    fmt::print("{}", render_plot(series, style));
    return 0;
}

}  // namespace

void add_adc_commands(CLI::App& app, Context& ctx) {
    auto* group = app.add_subcommand("adc", "Analogue inputs of an I2C- or SPI-type adapter");
    auto actions = std::make_shared<ActionGroup>(*group, ctx, IoFamily::adc);
    group->footer(
        "Channels 0 to 7, 12-bit, reference 3.3 V. The virtual adapter's channels: ch0 1.65 V, ch1 ramp at "
        "1 Hz, ch2 sine 50 Hz, ch3 square 10 Hz, ch4-7 0, 0.825, 2.475, 3.3 V.");

    auto* cmd =
        group->add_subcommand("read", "Sample channels: one line per instant, one column per channel");
    auto a = std::make_shared<ReadArgs>();
    cmd->add_option("-c,--channels", a->mask, "Channel mask, bit n for channel n")
        ->capture_default_str()
        ->transform(number_in(1, 0xFF, true));
    cmd->add_option("-n,--count", a->count, "Sampling instants")
        ->capture_default_str()
        ->transform(number_in(1, adc::kMaxInstants));
    cmd->add_option("--period", a->period_us, "Microseconds between two instants")
        ->capture_default_str()
        ->transform(number_in(1, 65535));
    cmd->add_option("--vref", a->vref, "Reference voltage for the volts")
        ->capture_default_str()
        ->check(CLI::Range(0.001, 1000.0));
    cmd->add_flag("--raw", a->raw, "Raw counts (0 to 4095) instead of volts");
    auto* csv = cmd->add_flag("--csv", a->csv, "CSV with a header row");
    cmd->add_flag("--plot", a->plot, "Draw the samples as a chart (the width of the terminal or COLUMNS)")
        ->excludes(csv);
    cmd->add_option("--height", a->plot_height, "Rows of the chart")
        ->capture_default_str()
        ->transform(number_in(5, 200));
    cmd->callback([actions, a] { actions->add([a](const IoTarget& t) { return read_samples(t, *a); }); });
}

}  // namespace corvel::cli
