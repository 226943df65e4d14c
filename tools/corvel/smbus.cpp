// SMBus and PMBus commands on the I2C channels of an I2C-type adapter.
//
// `corvel smbus` has the habits of i2c-tools (i2cget, i2cset, i2cdetect), without their -y: 7-bit
// addresses on the command line, BUS the adapter's I2C channel. `corvel pmbus` speaks to one power
// supply: readings decoded from LINEAR11 and LINEAR16, status registers by name, output on/off,
// the CONTROL line and group commands. Every run sets the channel up (HardInit) first.
//
// The library takes addresses in the I2C family's 8-bit form (the 7-bit address shifted left by
// one) and returns the adapter's status byte for each transaction; a nonzero status is reported in
// the words of smbus_status_text().
#include <array>
#include <bitset>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "ControlPMBus.h"
#include "ControlSMBus.h"
#include "bus_format.hpp"
#include "context.hpp"
#include "corvel/protocol.hpp"
#include "i2c_format.hpp"
#include "io_adapter.hpp"
#include "numbers.hpp"
#include "output.hpp"

namespace corvel::cli {
namespace {

namespace smb = proto::smbus;

constexpr int32_t kType = KD_DEVTYPE_I2C;
constexpr uint8_t kOwnAddress = 0;        // the adapter is the master only
constexpr uint8_t kAlertResponse = 0x19;  // the Alert Response Address 0x0C, read

// Where a command works and how the channel is set up.
struct Bus {
    int32_t dev = 0;
    int32_t channel = 0;
    uint32_t clock = 100000;
    bool pec = false;
};

uint8_t wire_address(int addr7) {
    return static_cast<uint8_t>(addr7 << 1);
}

// 0 for a transaction that succeeded; otherwise the error line (the adapter's status in words, or
// the library's text for a negative code) and kExitFailure.
int check(int32_t rc, std::string_view what) {
    if (rc == 0) return 0;
    if (rc > 0) return fail(fmt::format("{}: {}", what, smbus_status_text(rc)));
    return fail(what, rc);
}

using HardInit = int32_t (*)(int32_t, int32_t, int32_t, uint32_t, uint8_t);

// Opens the adapter with the family's functions, sets the channel up at the bus's clock and runs
// `body`.
int on_bus(const FamilyCalls& calls, HardInit init, const Bus& bus, const std::function<int()>& body) {
    return with_family_adapter(calls, {bus.dev, kType}, [&](int32_t) {
        if (int rc = check(init(kType, bus.dev, bus.channel, bus.clock, kOwnAddress),
                           fmt::format("set up SMBus on bus {}", bus.channel));
            rc != 0) {
            return rc;
        }
        return body();
    });
}

int on_smbus(const Bus& bus, const std::function<int()>& body) {
    return on_bus({SMBus_ScanDevice, SMBus_OpenDevice, SMBus_CloseDevice}, SMBus_HardInit, bus, body);
}

std::string hex_list(std::span<const uint8_t> bytes) {
    std::string out;
    for (uint8_t b : bytes) out += fmt::format("{}0x{:02x}", out.empty() ? "" : " ", b);
    return out;
}

// The alert flag of the bus and, while it is asserted, the Alert Response Address's answer: the
// address of the alerting part with the lowest address, which then releases SMBALERT#.
int report_alert(const Bus& bus, int32_t (*get_alert)(int32_t, int32_t, int32_t, uint8_t*)) {
    uint8_t flag = 0;
    if (int32_t rc = get_alert(kType, bus.dev, bus.channel, &flag); rc != 0) {
        return fail(fmt::format("read SMBALERT# of bus {}", bus.channel), rc);
    }
    if (flag == 0) {
        fmt::print("SMBALERT# not asserted\n");
        return 0;
    }
    uint8_t from = 0;
    if (int rc = check(SMBus_ReadByte(kType, bus.dev, bus.channel, kAlertResponse, &from, bus.pec),
                       "read the Alert Response Address");
        rc != 0) {
        return rc;
    }
    fmt::print("SMBALERT# asserted by 0x{:02x}\n", from >> 1);
    return 0;
}

// --- corvel smbus ----------------------------------------------------------------------------

struct SmbusArgs {
    int bus = 0;
    int addr = 0;
    int cmd = 0;
    bool has_cmd = false;
    std::string mode;
    int value = 0;
    bool has_value = false;
    std::vector<int> block;
};

std::string on_target(const Bus& bus, int addr) {
    return fmt::format("0x{:02x} on bus {}", addr, bus.channel);
}

int smbus_get(const Bus& bus, const SmbusArgs& a) {
    const auto dev = bus.dev;
    const auto ch = bus.channel;
    const uint8_t addr = wire_address(a.addr);
    const auto cmd = static_cast<uint8_t>(a.cmd);
    const auto pec = static_cast<uint8_t>(bus.pec);
    return on_smbus(bus, [&] {
        if (!a.has_cmd) {
            uint8_t byte = 0;
            int rc = check(SMBus_ReadByte(kType, dev, ch, addr, &byte, pec),
                           fmt::format("receive byte from {}", on_target(bus, a.addr)));
            if (rc == 0) fmt::print("0x{:02x}\n", byte);
            return rc;
        }
        const std::string from = fmt::format("0x{:02x} from {}", a.cmd, on_target(bus, a.addr));
        if (a.mode == "w") {
            uint16_t word = 0;
            int rc =
                check(SMBus_ReadWordProtocol(kType, dev, ch, addr, cmd, &word, pec), "read word " + from);
            if (rc == 0) fmt::print("0x{:04x}\n", word_as_on_bus(word));
            return rc;
        }
        if (a.mode == "s") {
            std::array<uint8_t, smb::kBlockMax> block{};
            uint8_t count = 0;
            int rc = check(SMBus_BlockRead(kType, dev, ch, addr, cmd, block.data(), &count, pec),
                           "block read " + from);
            if (rc == 0)
                fmt::print("{}\n", hex_list(std::span(block).first(std::min<std::size_t>(count, 32))));
            return rc;
        }
        uint8_t byte = 0;
        int rc = check(SMBus_ReadByteProtocol(kType, dev, ch, addr, cmd, &byte, pec), "read byte " + from);
        if (rc == 0) fmt::print("0x{:02x}\n", byte);
        return rc;
    });
}

int smbus_set(const Bus& bus, const SmbusArgs& a) {
    const uint8_t addr = wire_address(a.addr);
    const auto cmd = static_cast<uint8_t>(a.cmd);
    const auto pec = static_cast<uint8_t>(bus.pec);
    const std::string to = fmt::format("0x{:02x} to {}", a.cmd, on_target(bus, a.addr));
    return on_smbus(bus, [&] {
        if (!a.block.empty()) {
            std::vector<uint8_t> data(a.block.begin(), a.block.end());
            return check(SMBus_BlockWrite(kType, bus.dev, bus.channel, addr, cmd, data.data(),
                                          static_cast<uint8_t>(data.size()), pec),
                         "block write " + to);
        }
        if (a.mode == "w") {
            return check(SMBus_WriteWordProtocol(kType, bus.dev, bus.channel, addr, cmd,
                                                 static_cast<uint16_t>(a.value), pec),
                         "write word " + to);
        }
        return check(SMBus_WriteByteProtocol(kType, bus.dev, bus.channel, addr, cmd,
                                             static_cast<uint8_t>(a.value), pec),
                     "write byte " + to);
    });
}

int smbus_send(const Bus& b, const SmbusArgs& a) {
    return on_smbus(b, [&] {
        return check(SMBus_WriteByte(kType, b.dev, b.channel, wire_address(a.addr),
                                     static_cast<uint8_t>(a.value), static_cast<uint8_t>(b.pec)),
                     fmt::format("send byte 0x{:02x} to {}", a.value, on_target(b, a.addr)));
    });
}

int smbus_call(const Bus& b, const SmbusArgs& a) {
    return on_smbus(b, [&] {
        uint16_t back = 0;
        int rc = check(
            SMBus_ProcessCall(kType, b.dev, b.channel, wire_address(a.addr), static_cast<uint8_t>(a.cmd),
                              static_cast<uint16_t>(a.value), &back, static_cast<uint8_t>(b.pec)),
            fmt::format("process call 0x{:02x} to {}", a.cmd, on_target(b, a.addr)));
        if (rc == 0) fmt::print("0x{:04x}\n", word_as_on_bus(back));
        return rc;
    });
}

int smbus_quick(const Bus& b, const SmbusArgs& a) {
    return on_smbus(b, [&] {
        auto addr = static_cast<uint8_t>(wire_address(a.addr) | (a.mode == "r" ? 1 : 0));
        return check(SMBus_QuickCommand(kType, b.dev, b.channel, addr),
                     fmt::format("quick command ({}) to {}", a.mode, on_target(b, a.addr)));
    });
}

// i2cdetect's default probes: a receive byte where a quick write could change a part's state (0x30
// to 0x37, 0x50 to 0x5f: EEPROMs and write-protect latches), a quick write everywhere else. An
// address not acknowledged is "--"; any other failure ends the scan.
int smbus_detect(const Bus& bus, const SmbusArgs&) {
    return on_smbus(bus, [&] {
        std::bitset<128> answered;
        for (int addr = kFirstProbedAddress; addr <= kLastProbedAddress; ++addr) {
            bool read = (addr >= 0x30 && addr <= 0x37) || (addr >= 0x50 && addr <= 0x5F);
            uint8_t byte = 0;
            int32_t rc = read ? SMBus_ReadByte(kType, bus.dev, bus.channel, wire_address(addr), &byte, 0)
                              : SMBus_QuickCommand(kType, bus.dev, bus.channel, wire_address(addr));
            if (rc == smb::kStatusAddressNack) continue;
            if (rc != 0) return check(rc, fmt::format("probe {}", on_target(bus, addr)));
            answered.set(static_cast<std::size_t>(addr));
        }
        fmt::print("{}", scan_grid(answered));
        return 0;
    });
}

int smbus_alert(const Bus& b, const SmbusArgs&) {
    return on_smbus(b, [&] { return report_alert(b, SMBus_GetAlert); });
}

using SmbusBody = int (*)(const Bus&, const SmbusArgs&);

// A subcommand of `corvel smbus`: its arguments, and a callback that checks them with `validate`
// and leaves `body` to run with the group's options.
std::shared_ptr<SmbusArgs> define(CLI::App& cmd, Context& ctx, const std::shared_ptr<Bus>& bus,
                                  SmbusBody body, std::function<void(CLI::App&, SmbusArgs&)> validate = {}) {
    auto a = std::make_shared<SmbusArgs>();
    cmd.add_option("BUS", a->bus, "I2C channel of the adapter: 0 or 1")
        ->required()
        ->transform(number_in(0, 1));
    cmd.callback([&ctx, &cmd, bus, a, body, validate] {
        if (validate) validate(cmd, *a);
        bus->channel = a->bus;
        ctx.run = [bus, a, body] { return body(*bus, *a); };
    });
    return a;
}

void add_address(CLI::App& cmd, int& addr) {
    cmd.add_option("ADDR", addr, "7-bit address of the part")
        ->required()
        ->transform(number_in(kFirstProbedAddress, kLastProbedAddress, true));
}

void add_smbus_group(CLI::App& app, Context& ctx) {
    auto* group = app.add_subcommand("smbus", "SMBus transactions on an I2C-type adapter, as i2c-tools does");
    group->require_subcommand(1);
    group->fallthrough();
    group->footer(
        "BUS is the adapter's I2C channel, 0 or 1. Addresses are 7-bit (0x03 to 0x77). Numbers are decimal, "
        "or hexadecimal after 0x. Every run sets the channel up as an SMBus master first.");
    auto bus = std::make_shared<Bus>();
    group->add_option("-d,--device", bus->dev, "Device index (see `corvel list`)")
        ->capture_default_str()
        ->transform(number_in(0, 127));
    group->add_option("--clock", bus->clock, "Bus clock in Hz")
        ->capture_default_str()
        ->transform(number_in(smb::kMinClockHz, smb::kMaxClockHz));
    group->add_flag("--pec", bus->pec, "Append and check the packet error code (PEC)");

    {
        auto* cmd = group->add_subcommand("get", "Read from a part, as i2cget: no CMD receive byte; b, w, s");
        auto a = define(*cmd, ctx, bus, smbus_get,
                        [](CLI::App& c, SmbusArgs& a) { a.has_cmd = c.get_option("CMD")->count() > 0; });
        add_address(*cmd, a->addr);
        cmd->add_option("CMD", a->cmd, "Command code (register)")->transform(number_in(0, 0xff, true));
        a->mode = "b";
        cmd->add_option("MODE", a->mode, "b read byte (default), w read word, s block read")
            ->check(CLI::IsMember({"b", "w", "s"}));
    }
    {
        auto* cmd = group->add_subcommand(
            "set",
            "Write to a part, as i2cset: CMD VALUE [b|w] (write byte or word), or CMD --block BYTE...");
        auto a = define(*cmd, ctx, bus, smbus_set, [](CLI::App& c, SmbusArgs& a) {
            a.has_value = c.get_option("VALUE")->count() > 0;
            if (a.has_value == !a.block.empty()) {
                throw CLI::ValidationError("VALUE", "give either VALUE or --block BYTE...");
            }
            if (a.has_value && a.mode == "b" && a.value > 0xff) {
                throw CLI::ValidationError("VALUE",
                                           fmt::format("0x{:x} does not fit in a byte (b)", a.value));
            }
            if (a.block.size() > smb::kBlockMax) {
                throw CLI::ValidationError("--block", fmt::format("at most {} bytes", smb::kBlockMax));
            }
        });
        add_address(*cmd, a->addr);
        cmd->add_option("CMD", a->cmd, "Command code (register)")
            ->required()
            ->transform(number_in(0, 0xff, true));
        cmd->add_option("VALUE", a->value, "Byte or word to write")->transform(number_in(0, 0xffff, true));
        a->mode = "b";
        cmd->add_option("MODE", a->mode, "b write byte (default), w write word")
            ->check(CLI::IsMember({"b", "w"}));
        cmd->add_option("--block", a->block, "Block write of these bytes (1 to 32)")
            ->transform(number_in(0, 0xff, true));
    }
    {
        auto* cmd = group->add_subcommand("send", "Send one byte to a part (SMBus Send Byte)");
        auto a = define(*cmd, ctx, bus, smbus_send);
        add_address(*cmd, a->addr);
        cmd->add_option("VALUE", a->value, "Byte to send")->required()->transform(number_in(0, 0xff, true));
    }
    {
        auto* cmd =
            group->add_subcommand("call", "Process call: write WORD to command CMD, print the word back");
        auto a = define(*cmd, ctx, bus, smbus_call);
        add_address(*cmd, a->addr);
        cmd->add_option("CMD", a->cmd, "Command code")->required()->transform(number_in(0, 0xff, true));
        cmd->add_option("WORD", a->value, "Word to write")->required()->transform(number_in(0, 0xffff, true));
    }
    {
        auto* cmd =
            group->add_subcommand("quick", "Quick command: the address and its R/W bit alone (default w)");
        auto a = define(*cmd, ctx, bus, smbus_quick);
        add_address(*cmd, a->addr);
        a->mode = "w";
        cmd->add_option("RW", a->mode, "r or w: the R/W bit sent")->check(CLI::IsMember({"r", "w"}));
    }
    {
        auto* cmd =
            group->add_subcommand("detect", "Show which addresses answer, in the layout of i2cdetect");
        define(*cmd, ctx, bus, smbus_detect);
        cmd->footer(
            "Probes with a receive byte at 0x30-0x37 and 0x50-0x5f and a quick write elsewhere, as i2cdetect "
            "does by default.");
    }
    {
        auto* cmd = group->add_subcommand(
            "alert",
            "Show whether SMBALERT# is asserted and, if so, which part answers the Alert Response Address");
        define(*cmd, ctx, bus, smbus_alert);
    }
}

// --- corvel pmbus ----------------------------------------------------------------------------

namespace cmdcode {
constexpr uint8_t kPage = 0x00;
constexpr uint8_t kOperation = 0x01;
constexpr uint8_t kClearFaults = 0x03;
constexpr uint8_t kVoutMode = 0x20;
constexpr uint8_t kVoutCommand = 0x21;
constexpr uint8_t kStatusWord = 0x79;
constexpr uint8_t kStatusVout = 0x7A;
constexpr uint8_t kStatusIout = 0x7B;
constexpr uint8_t kStatusTemperature = 0x7D;
constexpr uint8_t kStatusCml = 0x7E;
constexpr uint8_t kReadVout = 0x8B;
constexpr uint8_t kReadIout = 0x8C;
constexpr uint8_t kReadTemperature1 = 0x8D;
constexpr uint8_t kPmbusRevision = 0x98;
constexpr uint8_t kMfrId = 0x99;
constexpr uint8_t kMfrModel = 0x9A;
constexpr uint8_t kMfrRevision = 0x9B;
}  // namespace cmdcode

constexpr uint8_t kOperationOn = 0x80;
constexpr uint8_t kOperationOff = 0x00;  // immediate off
constexpr std::size_t kGroupMax = 64;    // supplies in one group command

// The supply a run works on: the bus, its address, and the page selected first, if any.
struct PmbusTarget {
    Bus bus{0, 1, 100000, false};
    int addr = 0x40;
    int page = 0;
    bool has_page = false;
};

// One supply's transactions, each reported by command name when it fails.
class Supply {
  public:
    explicit Supply(const PmbusTarget& t)
        : bus_(t.bus), addr7_(t.addr), pec_(static_cast<uint8_t>(t.bus.pec)) {}

    const Bus& bus() const { return bus_; }

    // 0, or the adapter's status (kStatusDataNack for a command the supply does not know) after an
    // error line; `quiet_nack` leaves that one status to the caller without a line.
    int read_byte(uint8_t code, const char* name, uint8_t& out, bool quiet_nack = false) const {
        int32_t rc = PMBus_ReadByte(kType, bus_.dev, bus_.channel, addr(), code, &out, pec_);
        return result(rc, "read", code, name, quiet_nack);
    }
    int read_word(uint8_t code, const char* name, uint16_t& out) const {
        uint16_t stored = 0;
        int32_t rc = PMBus_ReadWord(kType, bus_.dev, bus_.channel, addr(), code, &stored, pec_);
        out = word_as_on_bus(stored);
        return result(rc, "read", code, name, false);
    }
    int read_block(uint8_t code, const char* name, std::string& text, bool quiet_nack = false) const {
        std::array<uint8_t, smb::kBlockMax> block{};
        uint8_t count = 0;
        int32_t rc = PMBus_BlockRead(kType, bus_.dev, bus_.channel, addr(), code, block.data(), &count, pec_);
        if (rc == 0) text = field_text(std::span(block).first(std::min<std::size_t>(count, block.size())));
        return result(rc, "read", code, name, quiet_nack);
    }
    int write_byte(uint8_t code, const char* name, uint8_t value) const {
        return result(PMBus_WriteByte(kType, bus_.dev, bus_.channel, addr(), code, value, pec_), "write",
                      code, name, false);
    }
    int write_word(uint8_t code, const char* name, uint16_t value) const {
        return result(PMBus_WriteWord(kType, bus_.dev, bus_.channel, addr(), code, value, pec_), "write",
                      code, name, false);
    }
    int send_byte(uint8_t code, const char* name) const {
        return result(PMBus_SendByte(kType, bus_.dev, bus_.channel, addr(), code, pec_), "send", code, name,
                      false);
    }

    // The exponent of VOUT_MODE, for the LINEAR16 commands.
    int vout_exponent(int& exponent) const {
        uint8_t mode = 0;
        if (int rc = read_byte(cmdcode::kVoutMode, "VOUT_MODE", mode); rc != 0) return rc;
        auto e = linear16_exponent(mode);
        if (!e) {
            return fail(fmt::format(
                "VOUT_MODE 0x{:02x} of 0x{:02x}: not LINEAR16 (VID or DIRECT), not decoded", mode, addr7_));
        }
        exponent = *e;
        return 0;
    }

  private:
    uint8_t addr() const { return wire_address(addr7_); }

    int result(int32_t rc, const char* verb, uint8_t code, const char* name, bool quiet_nack) const {
        if (rc == 0) return 0;
        if (quiet_nack && rc == smb::kStatusDataNack) return rc;
        check(rc,
              fmt::format("{} {} (0x{:02x}) of 0x{:02x} on bus {}", verb, name, code, addr7_, bus_.channel));
        return rc > 0 ? rc : kExitFailure;
    }

    Bus bus_;
    int addr7_;
    uint8_t pec_;
};

int read_values(const Supply& s, const std::string& what) {
    const bool all = what == "all";
    auto label = [all](const char* name) { return all ? fmt::format("{} ", name) : std::string(); };
    if (all || what == "vout") {
        int exponent = 0;
        uint16_t mantissa = 0;
        if (int rc = s.vout_exponent(exponent); rc != 0) return rc;
        if (int rc = s.read_word(cmdcode::kReadVout, "READ_VOUT", mantissa); rc != 0) return rc;
        fmt::print("{}{:.3f} V\n", label("vout"), linear16(mantissa, exponent));
    }
    if (all || what == "iout") {
        uint16_t word = 0;
        if (int rc = s.read_word(cmdcode::kReadIout, "READ_IOUT", word); rc != 0) return rc;
        fmt::print("{}{:.3f} A\n", label("iout"), linear11(word));
    }
    if (all || what == "temp") {
        uint16_t word = 0;
        if (int rc = s.read_word(cmdcode::kReadTemperature1, "READ_TEMPERATURE_1", word); rc != 0) return rc;
        fmt::print("{}{:.1f} C\n", label("temp"), linear11(word));
    }
    return 0;
}

// STATUS_WORD, then the register behind each summary bit that is set.
int read_status(const Supply& s) {
    uint16_t word = 0;
    if (int rc = s.read_word(cmdcode::kStatusWord, "STATUS_WORD", word); rc != 0) return rc;
    auto line = [](const char* name, const std::string& value, const std::string& bits) {
        fmt::print("{:<18} {}{}{}\n", name, value, bits.empty() ? "" : "  ", bits);
    };
    line("STATUS_WORD", fmt::format("0x{:04x}", word), status_bits(StatusRegister::word, word));
    const struct {
        uint16_t summary;
        uint8_t code;
        const char* name;
        StatusRegister reg;
    } details[] = {
        {kStatusWordVout, cmdcode::kStatusVout, "STATUS_VOUT", StatusRegister::vout},
        {kStatusWordIout, cmdcode::kStatusIout, "STATUS_IOUT", StatusRegister::iout},
        {kStatusWordTemperature, cmdcode::kStatusTemperature, "STATUS_TEMPERATURE",
         StatusRegister::temperature},
        {kStatusWordCml, cmdcode::kStatusCml, "STATUS_CML", StatusRegister::cml},
    };
    for (const auto& d : details) {
        if ((word & d.summary) == 0) continue;
        uint8_t value = 0;
        if (int rc = s.read_byte(d.code, d.name, value); rc != 0) return rc;
        line(d.name, fmt::format("0x{:02x}", value), status_bits(d.reg, value));
    }
    return 0;
}

// The manufacturer's strings and the PMBus revision; a command the supply does not know shows as
// "(not supported)".
int read_info(const Supply& s) {
    const struct {
        uint8_t code;
        const char* name;
    } strings[] = {{cmdcode::kMfrId, "MFR_ID"},
                   {cmdcode::kMfrModel, "MFR_MODEL"},
                   {cmdcode::kMfrRevision, "MFR_REVISION"}};
    for (const auto& str : strings) {
        std::string text;
        int rc = s.read_block(str.code, str.name, text, true);
        if (rc != 0 && rc != smb::kStatusDataNack) return rc;
        fmt::print("{:<15} {}\n", str.name, rc == 0 ? text : "(not supported)");
    }
    uint8_t revision = 0;
    int rc = s.read_byte(cmdcode::kPmbusRevision, "PMBUS_REVISION", revision, true);
    if (rc != 0 && rc != smb::kStatusDataNack) return rc;
    if (rc == 0) {
        fmt::print("{:<15} 0x{:02x} (Part I 1.{}, Part II 1.{})\n", "PMBUS_REVISION", revision, revision >> 4,
                   revision & 0x0F);
    } else {
        fmt::print("{:<15} (not supported)\n", "PMBUS_REVISION");
    }
    return 0;
}

int set_vout(const Supply& s, double volts) {
    int exponent = 0;
    if (int rc = s.vout_exponent(exponent); rc != 0) return rc;
    auto mantissa = to_linear16(volts, exponent);
    if (!mantissa) {
        return fail(fmt::format("{} V does not fit LINEAR16 with exponent {} (0 to {:.3f} V)", volts,
                                exponent, linear16(0xFFFF, exponent)));
    }
    if (int rc = s.write_word(cmdcode::kVoutCommand, "VOUT_COMMAND", *mantissa); rc != 0) return rc;
    fmt::print("VOUT_COMMAND 0x{:04x} ({:.3f} V)\n", *mantissa, linear16(*mantissa, exponent));
    return 0;
}

// One group command: OPERATION to every supply listed, acted on by all of them together at the
// STOP.
int group_operation(const Bus& bus, bool on, const std::vector<int>& addrs) {
    std::vector<uint8_t> entries;
    std::string list;
    for (int addr : addrs) {
        entries.insert(entries.end(),
                       {1, wire_address(addr), cmdcode::kOperation, on ? kOperationOn : kOperationOff});
        list += fmt::format("{}0x{:02x}", list.empty() ? "" : " ", addr);
    }
    return check(
        PMBus_GroupCmd(kType, bus.dev, bus.channel, entries.data(), static_cast<uint8_t>(addrs.size()),
                       static_cast<uint8_t>(bus.pec)),
        fmt::format("group command OPERATION {} to {} on bus {}", on ? "on" : "off", list, bus.channel));
}

int set_control(const Bus& bus, int level) {
    int32_t rc = PMBus_SetControl(kType, bus.dev, bus.channel, static_cast<uint8_t>(level));
    return rc == 0 ? 0 : fail(fmt::format("set CONTROL of bus {}", bus.channel), rc);
}

// A run of `corvel pmbus`: the actions written, in order, on one open adapter. The virtual
// adapter's supplies keep no state from one process to the next, so what belongs together (off,
// then status) is one run.
struct PmbusRun {
    PmbusTarget target;
    CLI::Option* page = nullptr;
    std::vector<std::function<int(const Supply&)>> actions;
};

int run_pmbus(PmbusRun& run) {
    run.target.has_page = run.page->count() > 0;
    return on_bus(
        {PMBus_ScanDevice, PMBus_OpenDevice, PMBus_CloseDevice}, PMBus_HardInit, run.target.bus, [&] {
            Supply supply(run.target);
            if (run.target.has_page &&
                supply.write_byte(cmdcode::kPage, "PAGE", static_cast<uint8_t>(run.target.page)) != 0) {
                return kExitFailure;
            }
            for (const auto& action : run.actions) {
                if (action(supply) != 0) return kExitFailure;
            }
            return 0;
        });
}

void add_pmbus_group(CLI::App& app, Context& ctx) {
    auto* group = app.add_subcommand("pmbus", "PMBus power supplies on an I2C-type adapter");
    group->require_subcommand(1, 0);
    group->fallthrough();
    group->footer(
        "Actions chain in one run, in the order written, each once: corvel pmbus off status. On the virtual "
        "adapter two supplies sit on bus 1, at 0x40 and 0x41, with two pages (outputs) each, and nothing "
        "outlives a run. Numbers are decimal, or hexadecimal after 0x.");
    auto run = std::make_shared<PmbusRun>();
    PmbusTarget& t = run->target;
    group->add_option("-d,--device", t.bus.dev, "Device index (see `corvel list`)")
        ->capture_default_str()
        ->transform(number_in(0, 127));
    group->add_option("-b,--bus", t.bus.channel, "I2C channel of the adapter: 0 or 1")
        ->capture_default_str()
        ->transform(number_in(0, 1));
    group->add_option("-a,--address", t.addr, "7-bit address of the supply")
        ->default_str("0x40")
        ->transform(number_in(kFirstProbedAddress, kLastProbedAddress, true));
    run->page = group->add_option("--page", t.page, "Select this PAGE (output) first")
                    ->transform(number_in(0, 0xff, true));
    group->add_option("--clock", t.bus.clock, "Bus clock in Hz")
        ->capture_default_str()
        ->transform(number_in(smb::kMinClockHz, smb::kMaxClockHz));
    group->add_flag("--pec", t.bus.pec, "Append and check the packet error code (PEC)");

    // Adds an action to the run; called from a subcommand's callback.
    auto add = [&ctx, run](std::function<int(const Supply&)> action) {
        run->actions.push_back(std::move(action));
        ctx.run = [run] { return run_pmbus(*run); };
    };

    {
        auto* cmd =
            group->add_subcommand("read", "Read the output voltage, current, temperature, or all three");
        auto what = std::make_shared<std::string>();
        cmd->add_option("WHAT", *what, "vout, iout, temp or all")
            ->required()
            ->check(CLI::IsMember({"vout", "iout", "temp", "all"}));
        cmd->callback([add, what] { add([what](const Supply& s) { return read_values(s, *what); }); });
    }
    group
        ->add_subcommand("status",
                         "STATUS_WORD with its bits by name, and the registers its summary bits detail")
        ->callback([add] { add(read_status); });
    for (bool on : {true, false}) {
        group
            ->add_subcommand(on ? "on" : "off",
                             on ? "Switch the output on (OPERATION)" : "Switch the output off (OPERATION)")
            ->callback([add, on] {
                add([on](const Supply& s) {
                    return s.write_byte(cmdcode::kOperation, "OPERATION", on ? kOperationOn : kOperationOff);
                });
            });
    }
    group->add_subcommand("clear", "Clear the supply's faults (CLEAR_FAULTS)")->callback([add] {
        add([](const Supply& s) { return s.send_byte(cmdcode::kClearFaults, "CLEAR_FAULTS"); });
    });
    group->add_subcommand("info", "MFR_ID, MFR_MODEL, MFR_REVISION and PMBUS_REVISION")->callback([add] {
        add(read_info);
    });
    {
        auto* cmd =
            group->add_subcommand("vout", "Set the output voltage (VOUT_COMMAND, LINEAR16 from VOUT_MODE)");
        auto volts = std::make_shared<double>();
        cmd->add_option("VOLTS", *volts, "Output voltage in volts")
            ->required()
            ->check(CLI::NonNegativeNumber);
        cmd->callback([add, volts] { add([volts](const Supply& s) { return set_vout(s, *volts); }); });
    }
    {
        auto* cmd = group->add_subcommand("control", "Drive the bus's CONTROL line low (0) or high (1)");
        auto level = std::make_shared<int>();
        cmd->add_option("LEVEL", *level, "0 or 1")->required()->transform(number_in(0, 1));
        cmd->callback(
            [add, level] { add([level](const Supply& s) { return set_control(s.bus(), *level); }); });
    }
    {
        auto* cmd =
            group->add_subcommand("group", "Switch several supplies on or off at once (one group command)");
        auto state = std::make_shared<std::string>();
        auto addrs = std::make_shared<std::vector<int>>();
        cmd->add_option("STATE", *state, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
        cmd->add_option("ADDR", *addrs, "7-bit addresses of the supplies")
            ->required()
            ->transform(number_in(kFirstProbedAddress, kLastProbedAddress, true));
        cmd->callback([add, state, addrs] {
            if (addrs->size() > kGroupMax) {
                throw CLI::ValidationError("ADDR", fmt::format("at most {} supplies", kGroupMax));
            }
            add([state, addrs](const Supply& s) { return group_operation(s.bus(), *state == "on", *addrs); });
        });
    }
    group->add_subcommand("alert", "Show whether SMBALERT# is asserted and, if so, by which part")
        ->callback([add] { add([](const Supply& s) { return report_alert(s.bus(), PMBus_GetAlert); }); });
}

}  // namespace

void add_smbus_commands(CLI::App& app, Context& ctx) {
    add_smbus_group(app, ctx);
    add_pmbus_group(app, ctx);
}

}  // namespace corvel::cli
