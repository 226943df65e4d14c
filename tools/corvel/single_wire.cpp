// Single-wire protocols on an I2C- or SPI-type adapter: SDI-12 sensor commands, a 1-Wire DS18B20
// temperature sensor's reading and ROM code, and one EasyScale command.
//
// SDI-12 waits the seconds a measurement announces before the next command. 1-Wire is composed
// from the library's pin and byte primitives: the reset pulse is timed here with usleep, since the
// library sends only the low byte of each slot timing and a reset lasts 480 us. On the virtual
// adapter with its virtual clock, every sleep here moves the adapter's time on instead of waiting.
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "Control1Wire.h"
#include "ControlSDI.h"
#include "EasyScale.h"
#include "bus_format.hpp"
#include "context.hpp"
#include "corvel/protocol.hpp"
#include "io_adapter.hpp"
#include "numbers.hpp"
#include "output.hpp"

namespace corvel::cli {
namespace {

namespace sdi = proto::sdi12;

void add_target(CLI::App& cmd, IoTarget& target) {
    cmd.add_option("-d,--device", target.dev, "Device index (see `corvel list`)")
        ->capture_default_str()
        ->transform(number_in(0, 127));
    cmd.add_option("-t,--type", target.type,
                   "Device type: 1 (I2C adapter) or 2 (SPI adapter); default: the adapter's own")
        ->transform(number_in(1, 2));
}

// --- corvel sdi12 ----------------------------------------------------------------------------

struct Sdi12Args {
    IoTarget target;
    int port = 0;
    bool crc = false;
    std::vector<std::string> commands;
};

// A command as the library takes it: printable characters ending in its only "!".
void check_command(const std::string& command) {
    bool printable = true;
    for (char c : command) printable = printable && c >= 0x20 && c < 0x7F;
    if (command.size() < 2 || command.size() > sdi::kCommandMax || command.back() != sdi::kCommandEnd ||
        command.find(sdi::kCommandEnd) != command.size() - 1 || !printable) {
        throw CLI::ValidationError(
            "CMD",
            fmt::format("'{}' is not an SDI-12 command (an address, the command and a final '!', e.g. 0M!)",
                        command));
    }
}

// Sends one command; the sensor's line, without its CR LF, goes to `answer` (also when the
// library reports its CRC as wrong).
int32_t send_command(int32_t type, const Sdi12Args& a, const std::string& command, bool check_crc,
                     std::string& answer) {
    std::string text = command;  // the library takes a writable buffer
    std::array<char, sdi::kLineBufferSize> reply{};
    int32_t rc =
        SDI_SendCmd(type, a.target.dev, static_cast<uint8_t>(a.port), reinterpret_cast<uint8_t*>(text.data()),
                    reinterpret_cast<uint8_t*>(reply.data()), check_crc ? 1 : 0);
    answer.assign(reply.data(), strnlen(reply.data(), reply.size()));
    if (answer.ends_with("\r\n")) answer.resize(answer.size() - 2);
    return rc;
}

int run_sdi12(const Sdi12Args& a) {
    return with_family_adapter(
        {SDI_ScanDevice, SDI_OpenDevice, SDI_CloseDevice}, a.target, [&](int32_t type) {
            if (int32_t rc = SDI_InitSDI(type, a.target.dev, static_cast<uint8_t>(a.port)); rc != 0) {
                return fail(fmt::format("set up SDI-12 port {}", a.port), rc);
            }
            for (std::size_t i = 0; i < a.commands.size(); ++i) {
                const std::string& command = a.commands[i];
                const bool check_crc = a.crc && is_data_command(command);
                std::string answer;
                int32_t rc = send_command(type, a, command, check_crc, answer);
                // With the CRC checked, the library's "Device Not Available" after a line came means
                // the line's CRC did not match its text.
                if (rc == KD_ERR_DEVICE_NOT_AVAILABLE && check_crc && !answer.empty()) {
                    fmt::print("{}\n", answer);
                    std::fflush(stdout);
                    return fail(fmt::format("{}: CRC mismatch in the answer \"{}\"", command, answer));
                }
                if (rc == KD_ERR_EXECUTE_CMD) {
                    return fail(fmt::format("{} on port {}: no sensor answered ({})", command, a.port, rc));
                }
                if (rc != 0) return fail(fmt::format("{} on port {}", command, a.port), rc);
                fmt::print("{}\n", answer);
                if (check_crc) fmt::print("CRC ok\n");
                auto measurement = measurement_answer(command, answer);
                if (measurement && measurement->seconds > 0 && i + 1 < a.commands.size()) {
                    fmt::print("waiting {} s for {} value{}\n", measurement->seconds, measurement->values,
                               measurement->values == 1 ? "" : "s");
                    std::fflush(stdout);
                    sleep(static_cast<unsigned>(measurement->seconds));
                }
            }
            return 0;
        });
}

void add_sdi12(CLI::App& app, Context& ctx) {
    auto* cmd =
        app.add_subcommand("sdi12", "Send SDI-12 commands to the sensors on a port and print their answers");
    auto a = std::make_shared<Sdi12Args>();
    add_target(*cmd, a->target);
    cmd->add_option("-p,--port", a->port, "SDI-12 port: 0 or 1")
        ->capture_default_str()
        ->transform(number_in(0, 1));
    cmd->add_flag("--crc", a->crc, "Check the CRC of the data commands' answers (aD0!, aRC0!, ...)");
    cmd->add_option("CMD", a->commands, "Commands, sent in order: e.g. 0I! 0M! 0D0!")->required();
    cmd->footer(
        "After a measurement command (aM!, aMC!, aC!, ...) answered atttn, the next command waits ttt "
        "seconds. "
        "On the virtual adapter port 0 has a sensor at address 0, port 1 one at address 1:\n"
        "  corvel --sim sdi12 --crc 0MC! 0D0!");
    cmd->callback([&ctx, a] {
        for (const auto& command : a->commands) check_command(command);
        ctx.run = [a] { return run_sdi12(*a); };
    });
}

// --- corvel onewire --------------------------------------------------------------------------

struct OneWireArgs {
    IoTarget target;
    int port = 0;
    int pin = 0;
    bool verbose = false;
};

// 1-Wire's standard-speed slot timings in microseconds: A write-1 low time, B write-1 recovery,
// C write-0 low time, D write-0 recovery, E read sample delay, F read recovery, G reset delay. The
// reset's H (480 us low), I (70 us to the presence sample) and J (410 us recovery) are timed by
// the tool (see OneWireBus::reset), so they and the adapter's own tR1-tR5 are sent as 0.
constexpr KD_1WIRE_TIMING_CONFIG kStandardTiming = {6, 64, 60, 10, 9, 55, 0, 0, 0, 0, 0, 0, 0, 0, 0};
constexpr useconds_t kResetLowUs = 480;
constexpr useconds_t kPresenceSampleUs = 70;
constexpr useconds_t kResetRecoveryUs = 410;
constexpr useconds_t kConversionUs = 750000;  // CONVERT T at 12-bit resolution

constexpr uint8_t kReadRom = 0x33;
constexpr uint8_t kSkipRom = 0xCC;
constexpr uint8_t kConvertT = 0x44;
constexpr uint8_t kReadScratchpad = 0xBE;
constexpr uint8_t kFamilyDs18b20 = 0x28;

class OneWireBus {
  public:
    OneWireBus(int32_t type, const OneWireArgs& a) : type_(type), dev_(a.target.dev), args_(a) {}

    int init() const {
        KD_1WIRE_INIT_CONFIG config{};
        config.port = static_cast<uint8_t>(args_.port);
        config.pin = static_cast<uint8_t>(args_.pin);
        config.timing = kStandardTiming;
        int32_t rc = KD_OW_Init(type_, dev_, &config);
        return rc == 0 ? 0 : fail(fmt::format("set up 1-Wire on port {} pin {}", args_.port, args_.pin), rc);
    }

    // Reset pulse and presence: the line low for 480 us, released, sampled 70 us later (a device
    // answers by holding it low), then the rest of the reset time.
    int reset() const {
        uint8_t level = 1;
        if (int32_t rc = KD_OW_Set_Pin(type_, dev_, 0); rc != 0) return fail("drive the 1-Wire line low", rc);
        usleep(kResetLowUs);
        if (int32_t rc = KD_OW_Set_Pin(type_, dev_, 1); rc != 0) return fail("release the 1-Wire line", rc);
        usleep(kPresenceSampleUs);
        if (int32_t rc = KD_OW_Read_Pin(type_, dev_, &level); rc != 0)
            return fail("read the 1-Wire line", rc);
        usleep(kResetRecoveryUs);
        if (level != 0) {
            return fail(fmt::format("no device answered the reset on port {} pin {}", args_.port, args_.pin));
        }
        return 0;
    }

    int write(uint8_t byte) const {
        int32_t rc = KD_OW_Write_Byte(type_, dev_, byte);
        return rc == 0 ? 0 : fail(fmt::format("write 0x{:02x} on the 1-Wire bus", byte), rc);
    }

    int read(std::span<uint8_t> bytes) const {
        for (uint8_t& b : bytes) {
            if (int32_t rc = KD_OW_Read_Byte(type_, dev_, &b); rc != 0)
                return fail("read from the 1-Wire bus", rc);
        }
        return 0;
    }

  private:
    int32_t type_;
    int32_t dev_;
    const OneWireArgs& args_;
};

int check_crc(std::span<const uint8_t> bytes, const char* what) {
    if (dallas_crc8(bytes.first(bytes.size() - 1)) == bytes.back()) return 0;
    return fail(fmt::format("{} CRC mismatch: {} (computed 0x{:02x})", what, hex_bytes(bytes),
                            dallas_crc8(bytes.first(bytes.size() - 1))));
}

// SKIP ROM and CONVERT T, the conversion time, then SKIP ROM and READ SCRATCHPAD: the
// temperature in its first two bytes, least significant first, in 1/16 C.
int read_temperature(const OneWireArgs& a) {
    return with_family_adapter(
        {K1W_ScanDevice, K1W_OpenDevice, K1W_CloseDevice}, a.target, [&](int32_t type) {
            OneWireBus bus(type, a);
            std::array<uint8_t, 9> pad{};
            if (bus.init() != 0 || bus.reset() != 0 || bus.write(kSkipRom) != 0 ||
                bus.write(kConvertT) != 0) {
                return kExitFailure;
            }
            usleep(kConversionUs);
            if (bus.reset() != 0 || bus.write(kSkipRom) != 0 || bus.write(kReadScratchpad) != 0 ||
                bus.read(pad) != 0) {
                return kExitFailure;
            }
            if (a.verbose) fmt::print("scratchpad {}\n", hex_bytes(pad));
            if (check_crc(pad, "scratchpad") != 0) return kExitFailure;
            fmt::print("{} C\n", celsius_text(static_cast<uint16_t>(pad[0] | pad[1] << 8)));
            return 0;
        });
}

// READ ROM (one device on the bus): family code, 48-bit serial number (shown most significant
// byte first, as Linux's w1 names devices) and CRC.
int read_rom(const OneWireArgs& a) {
    return with_family_adapter(
        {K1W_ScanDevice, K1W_OpenDevice, K1W_CloseDevice}, a.target, [&](int32_t type) {
            OneWireBus bus(type, a);
            std::array<uint8_t, 8> rom{};
            if (bus.init() != 0 || bus.reset() != 0 || bus.write(kReadRom) != 0 || bus.read(rom) != 0) {
                return kExitFailure;
            }
            if (a.verbose) fmt::print("rom {}\n", hex_bytes(rom));
            if (check_crc(rom, "ROM code") != 0) return kExitFailure;
            std::string serial;
            for (std::size_t i = 6; i >= 1; --i) serial += fmt::format("{:02x}", rom[i]);
            fmt::print("{:02x}-{}\n", rom[0], serial);
            fmt::print("family 0x{:02x}{}\n", rom[0],
                       rom[0] == kFamilyDs18b20 ? " (DS18B20 temperature sensor)" : "");
            fmt::print("serial {}\n", serial);
            fmt::print("crc    0x{:02x} ok\n", rom[7]);
            return 0;
        });
}

void add_onewire(CLI::App& app, Context& ctx) {
    auto* group =
        app.add_subcommand("onewire", "A 1-Wire temperature sensor (DS18B20) on a pin of the adapter");
    group->require_subcommand(1);
    group->fallthrough();
    auto a = std::make_shared<OneWireArgs>();
    add_target(*group, a->target);
    group->add_option("--port", a->port, "GPIO port of the bus pin")
        ->capture_default_str()
        ->transform(number_in(0, 255));
    group->add_option("--pin", a->pin, "Pin number of the bus pin")
        ->capture_default_str()
        ->transform(number_in(0, 255));
    group->add_flag("-v,--verbose", a->verbose, "Show the bytes read as well");
    group->footer(
        "One device on the bus, standard speed. On the virtual adapter a DS18B20-style sensor sits on port 0 "
        "pin 0 "
        "and reads 21.5 C.");
    group->add_subcommand("temp", "Convert and read the temperature (SKIP ROM, CONVERT T, READ SCRATCHPAD)")
        ->callback([&ctx, a] { ctx.run = [a] { return read_temperature(*a); }; });
    group->add_subcommand("rom", "Read the device's ROM code: family, serial number, CRC")
        ->callback([&ctx, a] { ctx.run = [a] { return read_rom(*a); }; });
}

// --- corvel easyscale ------------------------------------------------------------------------

struct EasyScaleArgs {
    IoTarget target;
    int channel = 0;
    bool no_ack = false;
    int addr = 0;
    int reg = 0;
    int value = 0;
};

// Timings in microseconds, with margin over what EasyScale devices need: the detect sequence
// (delay 100, detect 260 within a 1000 window), start and end of stream 2, acknowledge valid 2 and
// acknowledge 512, a 1 bit 30 high and 10 low, a 0 bit 10 high and 30 low (a device tells the bits
// by which of the two times is the longer), shutdown 3000.
constexpr KEI_ES_TIMING kEasyScaleTiming = {
    .TShutDown = 3000,
    .ESDelay = 100,
    .ESDetect = 260,
    .ESWin = 1000,
    .TStart = 2,
    .TEos = 2,
    .TValACK = 2,
    .TACKN = 512,
    .HighBit_THigh = 30,
    .HighBit_TLow = 10,
    .LowBit_THigh = 10,
    .LowBit_TLow = 30,
};
constexpr int32_t kIdleHigh = 1;  // the line's level between commands: high keeps the device on

int run_easyscale(const EasyScaleArgs& a) {
    return with_family_adapter(
        {KEI_ScanDevice, KEI_OpenDevice, KEI_CloseDevice}, a.target, [&](int32_t type) {
            KEI_ES_TIMING timing = kEasyScaleTiming;
            if (int32_t rc = KEI_InitES(type, a.target.dev, a.channel, kIdleHigh, &timing); rc != 0) {
                return fail(fmt::format("set up EasyScale channel {}", a.channel), rc);
            }
            KEI_ES_OBJ command{};
            command.ESMode = 0;
            command.DevAddr = static_cast<uint8_t>(a.addr);
            command.RFA = a.no_ack ? 0 : 1;
            command.SubAddr = static_cast<uint8_t>(a.reg) & 0x03;
            command.Data = static_cast<uint8_t>(a.value) & 0x1F;
            int32_t rc = KEI_Transmit(type, a.target.dev, a.channel, &command, 1);
            if (rc == KD_ERR_EXECUTE_CMD && !a.no_ack) {
                return fail(fmt::format("no acknowledge from 0x{:02x} on channel {}", a.addr, a.channel));
            }
            if (rc != 0) return fail(fmt::format("send to 0x{:02x} on channel {}", a.addr, a.channel), rc);
            fmt::print("sent 0x{:02x} 0x{:02x}: register {}, value {}, {}\n", a.addr,
                       easyscale_data_byte(!a.no_ack, a.reg, a.value), a.reg, a.value,
                       a.no_ack ? "no acknowledge requested" : "acknowledge requested");
            if (!a.no_ack) fmt::print("acknowledged\n");
            return 0;
        });
}

void add_easyscale(CLI::App& app, Context& ctx) {
    auto* cmd =
        app.add_subcommand("easyscale", "Send one EasyScale command to a device (LED drivers, converters)");
    auto a = std::make_shared<EasyScaleArgs>();
    add_target(*cmd, a->target);
    cmd->add_option("--channel", a->channel, "EasyScale channel: 0 or 1")
        ->capture_default_str()
        ->transform(number_in(0, 1));
    cmd->add_flag("--no-ack", a->no_ack, "Do not ask the device to acknowledge (RFA clear)");
    cmd->add_option("ADDR", a->addr, "Device address")->required()->transform(number_in(0, 0xff, true));
    cmd->add_option("REG", a->reg, "Register sub-address, 0 to 3")->required()->transform(number_in(0, 3));
    cmd->add_option("VALUE", a->value, "Value, 0 to 31")->required()->transform(number_in(0, 31));
    cmd->footer(
        "On the virtual adapter an LED driver answers at 0x72 on channel 0; register 0 is its brightness:\n"
        "  corvel --sim easyscale 0x72 0 31");
    cmd->callback([&ctx, a] { ctx.run = [a] { return run_easyscale(*a); }; });
}

}  // namespace

void add_single_wire_commands(CLI::App& app, Context& ctx) {
    add_sdi12(app, ctx);
    add_onewire(app, ctx);
    add_easyscale(app, ctx);
}

}  // namespace corvel::cli
