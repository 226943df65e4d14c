// I2C master commands: scan a bus, read and write a part's registers, dump a 256-byte part.
//
// Addresses on the command line are 7-bit, as i2c-tools writes them; the library takes them in the
// 8-bit form (the 7-bit address shifted left by one), which is what goes to KII_ReadBytes and
// KII_WriteBytes here.
#include <bitset>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "ControlI2C.h"
#include "context.hpp"
#include "corvel/protocol.hpp"
#include "i2c_adapter.hpp"
#include "i2c_format.hpp"
#include "numbers.hpp"
#include "output.hpp"

namespace corvel::cli {
namespace {

constexpr int kMaxChannel = proto::i2c::kMaxChannel;
constexpr uint32_t kMinClock = proto::i2c::kMinClockHz;
constexpr uint32_t kMaxClock = proto::i2c::kMaxClockHz;
constexpr int kMaxRegWidth = proto::i2c::kMaxSubAddrWidth;
constexpr std::size_t kMaxReadCount = proto::kReceiveDataMax;  // what one read answer of the adapter holds
constexpr std::size_t kMaxWriteCount = 65535;
constexpr std::size_t kDumpSize = 256;
constexpr uint16_t kDumpChunk = 32;

// Where a command works: adapter, channel, and how the channel is set up.
struct Bus {
    int32_t dev = 0;
    int32_t channel = 0;
    uint32_t clock = 100000;
    int reg_width = 1;  // register-address bytes sent after the part's address
};

// One command's arguments.
struct Args {
    Bus bus;
    int addr = 0;  // 7-bit
    uint32_t reg = 0;
    int count = 0;
    std::vector<int> bytes;
};

uint16_t wire_address(int addr7) {
    return static_cast<uint16_t>(addr7 << 1);
}

// Opens the adapter, sets the channel up as a master with 7-bit addressing and `reg_width`
// register bytes, and runs `body`.
int on_channel(const Bus& bus, int reg_width, const std::function<int()>& body) {
    return with_i2c_adapter(bus.dev, [&] {
        KII_INIT_CONFIG config{};
        config.MasterMode = 1;
        config.ControlMode = 0;
        config.AddrType = 7;
        config.SubAddrWidth = static_cast<uint8_t>(reg_width);
        config.Addr = 0;
        config.ClockSpeed = bus.clock;
        if (int32_t rc = KII_InitI2C(KD_DEVTYPE_I2C, bus.dev, bus.channel, &config); rc != 0) {
            return fail(fmt::format("set up I2C channel {}", bus.channel), rc);
        }
        return body();
    });
}

// Each address is probed with a write of no data and no register byte: only the address goes on
// the bus, and a part that acknowledges it answers. The adapter reports "no acknowledge" as a
// failed command (-10); any other failure ends the scan.
int scan_bus(const Bus& bus) {
    return on_channel(bus, 0, [&] {
        std::bitset<128> answered;
        uint8_t nothing = 0;  // the library wants a buffer even for no data
        for (int addr = kFirstProbedAddress; addr <= kLastProbedAddress; ++addr) {
            int32_t rc =
                KII_WriteBytes(KD_DEVTYPE_I2C, bus.dev, bus.channel, wire_address(addr), 0, &nothing, 0);
            if (rc == KD_ERR_EXECUTE_CMD) continue;
            if (rc != 0) return fail(fmt::format("probe address 0x{:02x}", addr), rc);
            answered.set(static_cast<std::size_t>(addr));
        }
        fmt::print("{}", scan_grid(answered));
        return 0;
    });
}

int read_bytes(const Args& a) {
    return on_channel(a.bus, a.bus.reg_width, [&] {
        std::vector<uint8_t> data(static_cast<std::size_t>(a.count));
        if (int32_t rc = KII_ReadBytes(KD_DEVTYPE_I2C, a.bus.dev, a.bus.channel, wire_address(a.addr), a.reg,
                                       data.data(), static_cast<uint16_t>(a.count));
            rc != 0) {
            return fail(fmt::format("read from 0x{:02x}", a.addr), rc);
        }
        fmt::print("{}\n", hex_bytes(data));
        return 0;
    });
}

int write_bytes(const Args& a) {
    return on_channel(a.bus, a.bus.reg_width, [&] {
        std::vector<uint8_t> data(a.bytes.begin(), a.bytes.end());
        if (int32_t rc = KII_WriteBytes(KD_DEVTYPE_I2C, a.bus.dev, a.bus.channel, wire_address(a.addr), a.reg,
                                        data.data(), static_cast<uint16_t>(data.size()));
            rc != 0) {
            return fail(fmt::format("write to 0x{:02x}", a.addr), rc);
        }
        return 0;
    });
}

// 256 bytes from register 0 on, a chunk at a time, each read naming its own start register. With
// no register bytes (-w 0) every chunk reads on from wherever the part's own pointer stands.
int dump_part(const Args& a) {
    return on_channel(a.bus, a.bus.reg_width, [&] {
        std::vector<uint8_t> data(kDumpSize);
        Progress progress(fmt::format("dump 0x{:02x}", a.addr), kDumpSize);
        for (std::size_t off = 0; off < kDumpSize; off += kDumpChunk) {
            if (int32_t rc = KII_ReadBytes(KD_DEVTYPE_I2C, a.bus.dev, a.bus.channel, wire_address(a.addr),
                                           static_cast<uint32_t>(off), data.data() + off, kDumpChunk);
                rc != 0) {
                progress.finish();
                return fail(fmt::format("read from 0x{:02x} at register 0x{:02x}", a.addr, off), rc);
            }
            progress.update(off + kDumpChunk);
        }
        progress.finish();
        fmt::print("{}", hexdump(data));
        return 0;
    });
}

void add_bus_options(CLI::App& cmd, Bus& bus, bool with_reg_width) {
    cmd.add_option("-d,--device", bus.dev, "Device index (see `corvel list`)")->capture_default_str();
    cmd.add_option("-c,--channel", bus.channel, "I2C channel of the adapter")
        ->capture_default_str()
        ->transform(number_in(0, kMaxChannel));
    cmd.add_option("--clock", bus.clock, "Bus clock in Hz")
        ->capture_default_str()
        ->transform(number_in(kMinClock, kMaxClock));
    if (with_reg_width) {
        cmd.add_option("-w,--reg-width", bus.reg_width, "Register-address bytes sent before the data")
            ->capture_default_str()
            ->transform(number_in(0, kMaxRegWidth));
    }
}

void add_address(CLI::App& cmd, Args& a) {
    cmd.add_option("ADDR", a.addr, "7-bit address of the part")
        ->required()
        ->transform(number_in(kFirstProbedAddress, kLastProbedAddress, true));
}

void add_register(CLI::App& cmd, Args& a) {
    cmd.add_option("REG", a.reg, "Register address; it must fit in the register bytes (-w)")
        ->required()
        ->transform(number_in(0, UINT32_MAX, true));
}

// Run in the subcommand's callback, after the options are in: a register that does not fit in
// the register bytes is a usage error, not something to cut silently.
void check_register(const Args& a) {
    if (a.bus.reg_width < kMaxRegWidth && (uint64_t{a.reg} >> (8 * a.bus.reg_width)) != 0) {
        throw CLI::ValidationError("REG", fmt::format("0x{:x} is too large for {} register byte(s) (-w {})",
                                                      a.reg, a.bus.reg_width, a.bus.reg_width));
    }
}

}  // namespace

void add_i2c_commands(CLI::App& app, Context& ctx) {
    auto* i2c = app.add_subcommand("i2c", "I2C master transfers on an I2C-type adapter");
    i2c->require_subcommand(1);
    i2c->footer(
        "Addresses are 7-bit (0x03 to 0x77), as i2c-tools writes them. Numbers are decimal, or hexadecimal "
        "after 0x.");

    {
        auto* cmd = i2c->add_subcommand("scan", "Show which addresses answer, in the layout of i2cdetect");
        auto bus = std::make_shared<Bus>();
        add_bus_options(*cmd, *bus, false);
        cmd->callback([&ctx, bus] { ctx.run = [bus] { return scan_bus(*bus); }; });
    }
    {
        auto* cmd = i2c->add_subcommand("read", "Read COUNT bytes from register REG of the part at ADDR");
        auto a = std::make_shared<Args>();
        add_bus_options(*cmd, a->bus, true);
        add_address(*cmd, *a);
        add_register(*cmd, *a);
        cmd->add_option("COUNT", a->count, "Number of bytes to read")
            ->required()
            ->transform(number_in(1, kMaxReadCount));
        cmd->callback([&ctx, a] {
            check_register(*a);
            ctx.run = [a] { return read_bytes(*a); };
        });
    }
    {
        auto* cmd = i2c->add_subcommand("write", "Write bytes to register REG of the part at ADDR");
        auto a = std::make_shared<Args>();
        add_bus_options(*cmd, a->bus, true);
        add_address(*cmd, *a);
        add_register(*cmd, *a);
        cmd->add_option("BYTE", a->bytes, "Bytes to write, one argument each")
            ->required()
            ->transform(number_in(0, 0xff, true));
        cmd->callback([&ctx, a] {
            check_register(*a);
            if (a->bytes.size() > kMaxWriteCount) {
                throw CLI::ValidationError("BYTE",
                                           fmt::format("at most {} bytes in one write", kMaxWriteCount));
            }
            ctx.run = [a] { return write_bytes(*a); };
        });
    }
    {
        auto* cmd = i2c->add_subcommand("dump", "Show the 256 bytes from register 0 of the part at ADDR");
        auto a = std::make_shared<Args>();
        add_bus_options(*cmd, a->bus, true);
        add_address(*cmd, *a);
        cmd->callback([&ctx, a] { ctx.run = [a] { return dump_part(*a); }; });
    }
}

}  // namespace corvel::cli
