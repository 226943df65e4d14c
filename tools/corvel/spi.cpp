// SPI master commands: set a channel up, clock bytes out and in.
#include <cstdint>
#include <memory>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "context.hpp"
#include "corvel/protocol.hpp"
#include "numbers.hpp"
#include "output.hpp"
#include "spi_adapter.hpp"

namespace corvel::cli {
namespace {

constexpr std::size_t kMaxXferCount = 0xFFFF;

struct Args {
    int32_t dev = kAnyAdapter;
    int32_t channel = 0;
    SpiSetup setup;
    std::vector<int> bytes;
    int read_count = 0;
};

int init_channel(const Args& a) {
    return with_spi_adapter(a.dev, [&](int32_t dev) {
        if (int32_t rc = spi_init(dev, a.channel, a.setup); rc != 0) {
            return fail(fmt::format("set up SPI channel {}", a.channel), rc);
        }
        return 0;
    });
}

// With nothing to read the bytes only go out; otherwise one write-read clocks them out and then the
// count asked for in, under one chip select.
int transfer(const Args& a) {
    return with_spi_adapter(a.dev, [&](int32_t dev) {
        std::vector<uint8_t> out(a.bytes.begin(), a.bytes.end());
        std::vector<uint8_t> in(static_cast<std::size_t>(a.read_count));
        int32_t rc = in.empty() ? spi_write(dev, a.channel, out) : spi_write_read(dev, a.channel, out, in);
        if (rc != 0) return fail(fmt::format("transfer on SPI channel {}", a.channel), rc);
        if (!in.empty()) fmt::print("{}\n", hex_bytes(in));
        return 0;
    });
}

void add_target_options(CLI::App& cmd, Args& a) {
    cmd.add_option("-d,--device", a.dev, "Device index (see `corvel list`); default: the first SPI adapter");
    cmd.add_option("-c,--channel", a.channel, "SPI channel (chip select) of the adapter")
        ->capture_default_str()
        ->transform(number_in(0, proto::spi::kMaxChannel));
}

void add_setup_options(CLI::App& cmd, SpiSetup& setup) {
    cmd.add_option("--mode", setup.mode, "SPI mode: clock polarity (bit 1) and phase (bit 0)")
        ->capture_default_str()
        ->transform(number_in(0, 3));
    cmd.add_option("--speed", setup.speed, "SPI clock in Hz")
        ->capture_default_str()
        ->transform(number_in(proto::spi::kMinClockHz, proto::spi::kMaxClockHzEx));
}

}  // namespace

void add_spi_commands(CLI::App& app, Context& ctx) {
    auto* spi = app.add_subcommand("spi", "SPI master transfers on an SPI-type adapter");
    spi->require_subcommand(1);
    spi->footer("Numbers are decimal, or hexadecimal after 0x.");

    {
        auto* cmd =
            spi->add_subcommand("init", "Set a channel up: mode, clock, word size, bit order, chip select");
        auto a = std::make_shared<Args>();
        add_target_options(*cmd, *a);
        add_setup_options(*cmd, a->setup);
        cmd->add_option("--bits", a->setup.bits, "Bits per transfer unit")
            ->capture_default_str()
            ->transform(number_in(proto::spi::kMinTranBits, proto::spi::kMaxTranBits));
        cmd->add_flag("--lsb-first", a->setup.lsb_first, "Least significant bit first");
        cmd->add_flag("--cs-high", a->setup.cs_high, "Chip select active high");
        cmd->callback([&ctx, a] { ctx.run = [a] { return init_channel(*a); }; });
    }
    {
        auto* cmd =
            spi->add_subcommand("xfer", "Clock bytes out, then --read N bytes in, under one chip select");
        auto a = std::make_shared<Args>();
        add_target_options(*cmd, *a);
        cmd->add_option("BYTE", a->bytes, "Bytes to clock out, one argument each")
            ->transform(number_in(0, 0xff, true));
        cmd->add_option("-r,--read", a->read_count, "Bytes to clock in after them; printed in hex")
            ->capture_default_str()
            ->transform(number_in(0, kMaxXferCount));
        cmd->callback([&ctx, a] {
            if (a->bytes.empty() && a->read_count == 0) {
                throw CLI::ValidationError("BYTE", "give bytes to clock out, --read N, or both");
            }
            if (a->bytes.size() > kMaxXferCount) {
                throw CLI::ValidationError("BYTE",
                                           fmt::format("at most {} bytes in one transfer", kMaxXferCount));
            }
            ctx.run = [a] { return transfer(*a); };
        });
    }
}

}  // namespace corvel::cli
