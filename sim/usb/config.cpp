// The CORVEL_SIM grammar: which adapters sit on the virtual bus.
//
//   ""                       one default adapter
//   "N"                      N default adapters (serials CV0000000001 ... ), 0 for none
//   "k=v,k=v;k=v,..."        one adapter per ';'-separated entry, keys serial, type, vid, pid,
//                            on the I2C and SPI types the pins' wiring, the ADC's signals and the
//                            counters' sources (wire, adc0..7, cnt0..3), on the I2C type the
//                            PMBus supplies (psu), and on the CAN types the bus and its nodes
//                            (bitrate, bus, echo, gen...)
//
// An entry's unspecified keys take the defaults of its position (the second entry's serial is
// CV0000000002). "serial=-" means the adapter has no serial-number string.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "corvel/sim.hpp"
#include "firmware/can_engine.hpp"

namespace corvel::sim {
namespace {

constexpr std::size_t kMaxAdapters = 127;     // USB addresses on one bus
constexpr std::size_t kMaxSerialChars = 126;  // what one string descriptor holds

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = s.find_last_not_of(" \t\r\n");
    return s.substr(first, last - first + 1);
}

bool all_digits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

[[noreturn]] void fail(std::size_t position, const std::string& reason) {
    throw std::invalid_argument("adapter " + std::to_string(position) + ": " + reason);
}

// A decimal or 0x-prefixed hexadecimal number no larger than `max`.
std::optional<unsigned long> number(std::string_view text, unsigned long max) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) return std::nullopt;
    unsigned long value = 0;
    for (char c : text) {
        int digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (base == 16 && c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else if (base == 16 && c >= 'A' && c <= 'F') {
            digit = c - 'A' + 10;
        } else {
            return std::nullopt;
        }
        value = value * static_cast<unsigned long>(base) + static_cast<unsigned long>(digit);
        if (value > max) return std::nullopt;
    }
    return value;
}

constexpr unsigned long kBitRateMin = 1000;
constexpr unsigned long kBitRateMax = 1000000;
constexpr unsigned long kGeneratorRateMax = 1000000;  // frames per second

std::string quoted(std::string_view key, std::string_view value) {
    return std::string(key) + "=" + std::string(value);
}

unsigned long bit_rate(std::size_t position, std::string_view key, std::string_view value) {
    auto r = number(value, kBitRateMax);
    if (!r || *r < kBitRateMin) fail(position, quoted(key, value) + ": bit rate must be 1000 to 1000000");
    return *r;
}

int bus_number(std::size_t position, std::string_view key, std::string_view value) {
    if (value != "1" && value != "2") fail(position, quoted(key, value) + ": bus must be 1 or 2");
    return value[0] - '0';
}

// FIRST-LAST, two identifiers.
bool id_range(std::string_view text, CanGeneratorSpec& g) {
    const auto dash = text.find('-');
    if (dash == std::string_view::npos) return false;
    auto first = number(trim(text.substr(0, dash)), proto::can::kExtIdMask);
    auto last = number(trim(text.substr(dash + 1)), proto::can::kExtIdMask);
    if (!first || !last || *first > *last) return false;
    g.id_first = static_cast<uint32_t>(*first);
    g.id_last = static_cast<uint32_t>(*last);
    return true;
}

// The CAN keys of one entry, checked against each other once the whole entry is read.
struct CanKeys {
    std::vector<std::string> given;
    bool random_range = false;  // gen_id=random:FIRST-LAST (else the whole range of the format)

    void parse(std::size_t position, std::string_view key, std::string_view value, CanSpec& c) {
        CanGeneratorSpec& g = c.generator;
        if (key == "bitrate") {
            c.bitrate = static_cast<uint32_t>(bit_rate(position, key, value));
            if (!fw::can_rates_match(fw::can_timing(c.bitrate).bitrate, c.bitrate))
                fail(position,
                     quoted(key, value) + ": the controller's 36 MHz clock cannot make it within 1 %");
        } else if (key == "bus") {
            if (value != "shared" && value != "split")
                fail(position, quoted(key, value) + ": shared or split");
            c.split = value == "split";
        } else if (key == "echo") {
            c.echo.bus = bus_number(position, key, value);
        } else if (key == "echo_bitrate") {
            c.echo.bitrate = static_cast<uint32_t>(bit_rate(position, key, value));
        } else if (key == "gen") {
            auto r = number(value, kGeneratorRateMax);
            if (!r) fail(position, quoted(key, value) + ": frames per second, 0 to 1000000");
            g.rate = static_cast<uint32_t>(*r);
        } else if (key == "gen_bus") {
            g.bus = bus_number(position, key, value);
        } else if (key == "gen_bitrate") {
            g.bitrate = static_cast<uint32_t>(bit_rate(position, key, value));
        } else if (key == "gen_id") {
            if (value == "random") {
                g.ids = CanGeneratorSpec::Ids::Random;
            } else if (value.starts_with("random:")) {
                g.ids = CanGeneratorSpec::Ids::Random;
                random_range = id_range(value.substr(7), g);
                if (!random_range) fail(position, quoted(key, value) + ": random:FIRST-LAST");
            } else if (id_range(value, g)) {
                g.ids = CanGeneratorSpec::Ids::Increment;
            } else if (auto id = number(value, proto::can::kExtIdMask)) {
                g.id_first = g.id_last = static_cast<uint32_t>(*id);
            } else {
                fail(position, quoted(key, value) + ": ID, FIRST-LAST, random or random:FIRST-LAST");
            }
        } else if (key == "gen_ext") {
            if (value != "0" && value != "1") fail(position, quoted(key, value) + ": 0 or 1");
            g.extended = value == "1";
        } else if (key == "gen_dlc") {
            auto n = number(value, proto::can::kMaxDataLength);
            if (!n) fail(position, quoted(key, value) + ": 0 to 8");
            g.dlc = static_cast<uint8_t>(*n);
        } else if (key == "gen_data") {
            parse_data(position, value, g);
        } else if (key == "gen_seed") {
            auto n = number(value, 0xFFFFFFFF);
            if (!n) fail(position, quoted(key, value) + ": 0 to 0xFFFFFFFF");
            g.seed = static_cast<uint32_t>(*n);
        } else {
            fail(position,
                 "unknown key \"" + std::string(key) +
                     "\" (serial, type, vid, pid; I2C and SPI: wire, adc0..adc7, cnt0..cnt3; I2C: psu; CAN: "
                     "bitrate, bus, echo, echo_bitrate, gen, "
                     "gen_bus, gen_bitrate, gen_id, gen_ext, gen_dlc, gen_data, gen_seed)");
        }
        given.emplace_back(key);
    }

    // counter, random, or up to eight bytes in hexadecimal (two digits each).
    static void parse_data(std::size_t position, std::string_view value, CanGeneratorSpec& g) {
        if (value == "counter" || value == "random") {
            g.data = value == "counter" ? CanGeneratorSpec::Data::Counter : CanGeneratorSpec::Data::Random;
            return;
        }
        if (value.empty() || value.size() % 2 != 0 || value.size() > 16)
            fail(position, quoted("gen_data", value) + ": counter, random or 1 to 8 bytes in hexadecimal");
        g.data = CanGeneratorSpec::Data::Fixed;
        for (std::size_t i = 0; i < value.size(); i += 2) {
            auto byte = number("0x" + std::string(value.substr(i, 2)), 0xFF);
            if (!byte) fail(position, quoted("gen_data", value) + ": not hexadecimal");
            g.fixed[i / 2] = static_cast<uint8_t>(*byte);
        }
    }

    bool has(std::string_view key) const { return std::find(given.begin(), given.end(), key) != given.end(); }

    void check(std::size_t position, AdapterSpec& a) const {
        if (given.empty()) return;
        if (a.personality != proto::kDevTypeCan1 && a.personality != proto::kDevTypeCan2)
            fail(position, given.front() + " needs a CAN type (type=3 or type=4)");
        CanSpec& c = a.can;
        CanGeneratorSpec& g = c.generator;
        for (const std::string& key : given) {
            if (key.starts_with("gen_") && !has("gen")) fail(position, key + " needs gen=RATE");
            if (key == "echo_bitrate" && !has("echo")) fail(position, "echo_bitrate needs echo=BUS");
        }
        if (a.personality == proto::kDevTypeCan1 && (c.split || c.echo.bus == 2 || g.bus == 2))
            fail(position, "a one-channel adapter has bus 1 only");
        const uint32_t mask = g.extended ? proto::can::kExtIdMask : proto::can::kStdIdMask;
        if (g.ids == CanGeneratorSpec::Ids::Random && !random_range) {
            g.id_first = 0;
            g.id_last = mask;
        }
        if (g.id_last > mask)
            fail(position, "gen_id above the " + std::string(g.extended ? "29" : "11") + "-bit identifiers");
    }
};

// The GPIO, ADC and counter keys of one entry (types 1 and 2):
//   wire=none | PIN:PIN[:PIN...]/...   the harness: each '/'-separated group of pins is one net
//   adcN=dc:VOLTS | ramp:HZ | sine:HZ[:AMPLITUDE_VOLTS] | square:HZ    channel N = 0..7
//   cntN=pwmK | pinK | none            what counter N = 0..3 counts
struct IoKeys {
    std::vector<std::string> given;

    static bool is_key(std::string_view key) {
        const auto indexed = [&](std::string_view prefix, char last) {
            return key.size() == prefix.size() + 1 && key.starts_with(prefix) && key.back() >= '0' &&
                   key.back() <= last;
        };
        return key == "wire" || indexed("adc", '7') || indexed("cnt", '3');
    }

    void parse(std::size_t position, std::string_view key, std::string_view value, IoSpec& io) {
        if (key == "wire") {
            io.wiring = wiring(position, value);
        } else if (key.starts_with("adc")) {
            io.adc[static_cast<std::size_t>(key.back() - '0')] = signal(position, key, value);
        } else {
            io.counters[static_cast<std::size_t>(key.back() - '0')] = source(position, key, value);
        }
        given.emplace_back(key);
    }

    void check(std::size_t position, const AdapterSpec& a) const {
        if (!given.empty() && a.personality != proto::kDevTypeI2c && a.personality != proto::kDevTypeSpi)
            fail(position, given.front() + " needs an I2C or SPI type (type=1 or type=2)");
    }

    static IoWiring wiring(std::size_t position, std::string_view value) {
        IoWiring w;
        if (value == "none") return w;
        const std::string bad =
            quoted("wire", value) + ": none or PIN:PIN[:PIN...] groups joined by '/', pins 0 to 23";
        for (std::string_view rest = value;;) {
            const auto slash = rest.find('/');
            std::string_view group = rest.substr(0, slash);
            std::optional<unsigned long> previous;
            int pins = 0;
            for (;;) {
                const auto colon = group.find(':');
                auto pin = number(trim(group.substr(0, colon)), proto::gpio::kPins - 1);
                if (!pin) fail(position, bad);
                if (previous) w.push_back({static_cast<int>(*previous), static_cast<int>(*pin)});
                previous = pin;
                ++pins;
                if (colon == std::string_view::npos) break;
                group.remove_prefix(colon + 1);
            }
            if (pins < 2) fail(position, bad);
            if (slash == std::string_view::npos) break;
            rest.remove_prefix(slash + 1);
        }
        return w;
    }

    // A non-negative decimal number no larger than `max`.
    static std::optional<double> decimal(std::string_view text, double max) {
        const std::string s(text);
        if (s.empty() || s.find_first_not_of("0123456789.") != std::string::npos) return std::nullopt;
        char* end = nullptr;
        const double v = std::strtod(s.c_str(), &end);
        if (end != s.c_str() + s.size() || v > max) return std::nullopt;
        return v;
    }

    static AdcSignal signal(std::size_t position, std::string_view key, std::string_view value) {
        constexpr double kVoltsMax = proto::adc::kReferenceMillivolts / 1000.0;
        constexpr double kHzMax = 1000000;
        const auto colon = value.find(':');
        const std::string_view form = value.substr(0, colon);
        std::string_view args =
            colon == std::string_view::npos ? std::string_view{} : value.substr(colon + 1);
        const auto colon2 = args.find(':');
        const std::string_view first = args.substr(0, colon2);
        const std::string_view second =
            colon2 == std::string_view::npos ? std::string_view{} : args.substr(colon2 + 1);
        const bool has_second = colon2 != std::string_view::npos;
        AdcSignal s;
        std::optional<double> a = decimal(first, form == "dc" ? kVoltsMax : kHzMax);
        bool ok = a.has_value() && (form == "sine" || !has_second);
        if (form == "dc") {
            s = {AdcSignal::Kind::Dc, a.value_or(0), 0};
        } else if (form == "ramp" || form == "square") {
            s = {form == "ramp" ? AdcSignal::Kind::Ramp : AdcSignal::Kind::Square, 0, a.value_or(0)};
            ok = ok && *a > 0;
        } else if (form == "sine") {
            const auto amplitude = has_second ? decimal(second, kVoltsMax / 2) : std::optional<double>{1.65};
            s = {AdcSignal::Kind::Sine, amplitude.value_or(0), a.value_or(0)};
            ok = ok && *a > 0 && amplitude.has_value();
        } else {
            ok = false;
        }
        if (!ok)
            fail(position,
                 quoted(key, value) +
                     ": dc:VOLTS (0 to 3.3), ramp:HZ, sine:HZ[:AMPLITUDE_VOLTS] (to 1.65) or square:HZ");
        return s;
    }

    static CounterSource source(std::size_t position, std::string_view key, std::string_view value) {
        if (value == "none") return {CounterSource::Kind::None, 0};
        if (value.starts_with("pwm"))
            if (auto n = number(value.substr(3), proto::pwm::kChannels - 1); n && value.size() > 3)
                return {CounterSource::Kind::Pwm, static_cast<int>(*n)};
        if (value.starts_with("pin"))
            if (auto n = number(value.substr(3), proto::gpio::kPins - 1); n && value.size() > 3)
                return {CounterSource::Kind::Pin, static_cast<int>(*n)};
        fail(position, quoted(key, value) + ": pwm0 to pwm7, pin0 to pin23 or none");
    }
};

// psu=none | ADDR[/ADDR...]: the PMBus supplies on SMBus channel 1 (type 1), 7-bit addresses from
// 0x08 to 0x77 but the Alert Response Address 0x0C, each once.
std::vector<uint8_t> supplies(std::size_t position, std::string_view value) {
    std::vector<uint8_t> out;
    if (value == "none") return out;
    for (std::string_view rest = value;;) {
        const auto slash = rest.find('/');
        const auto addr = number(trim(rest.substr(0, slash)), 0x77);
        if (!addr || *addr < 0x08 || *addr == 0x0C ||
            std::find(out.begin(), out.end(), static_cast<uint8_t>(*addr)) != out.end())
            fail(position, quoted("psu", value) +
                               ": none or 7-bit addresses 0x08 to 0x77 (not 0x0C) joined by '/', each once");
        out.push_back(static_cast<uint8_t>(*addr));
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    return out;
}

AdapterSpec default_adapter(std::size_t position) {
    AdapterSpec a;
    char serial[16];
    std::snprintf(serial, sizeof serial, "CV%010zu", position);
    a.serial = serial;
    return a;
}

AdapterSpec parse_entry(std::string_view entry, std::size_t position) {
    AdapterSpec a = default_adapter(position);
    std::vector<std::string_view> seen;
    CanKeys can;
    IoKeys io;
    while (true) {
        const auto comma = entry.find(',');
        const std::string_view item = trim(entry.substr(0, comma));
        const auto eq = item.find('=');
        if (eq == std::string_view::npos) fail(position, "\"" + std::string(item) + "\" is not key=value");
        const std::string_view key = trim(item.substr(0, eq));
        const std::string_view value = trim(item.substr(eq + 1));
        for (std::string_view k : seen)
            if (k == key) fail(position, std::string(key) + " given twice");
        seen.push_back(key);

        if (key == "serial") {
            if (value.empty()) fail(position, "empty serial (serial=- means none)");
            if (value.size() > kMaxSerialChars)
                fail(position, "serial longer than " + std::to_string(kMaxSerialChars) + " characters");
            a.has_serial = value != "-";
            a.serial = a.has_serial ? std::string(value) : std::string();
        } else if (key == "type") {
            auto t = number(value, 4);
            if (!t || *t < 1) fail(position, "type must be 1 to 4, got \"" + std::string(value) + "\"");
            a.personality = static_cast<int>(*t);
        } else if (key == "vid" || key == "pid") {
            auto id = number(value, 0xFFFF);
            if (!id)
                fail(position, std::string(key) + " must be 0 to 0xFFFF, got \"" + std::string(value) + "\"");
            (key == "vid" ? a.vendor : a.product) = static_cast<uint16_t>(*id);
        } else if (IoKeys::is_key(key)) {
            io.parse(position, key, value, a.io);
        } else if (key == "psu") {
            a.smbus.supplies = supplies(position, value);
        } else {
            can.parse(position, key, value, a.can);
        }
        if (comma == std::string_view::npos) break;
        entry.remove_prefix(comma + 1);
    }
    can.check(position, a);
    io.check(position, a);
    if (a.personality != proto::kDevTypeI2c && std::find(seen.begin(), seen.end(), "psu") != seen.end())
        fail(position, "psu needs the I2C type (type=1)");
    return a;
}

}  // namespace

std::vector<AdapterSpec> parse_config(std::string_view text) {
    text = trim(text);
    std::vector<AdapterSpec> out;
    if (text.empty()) {
        out.push_back(default_adapter(1));
        return out;
    }
    if (all_digits(text)) {
        auto n = number(text, kMaxAdapters);
        if (!n) throw std::invalid_argument("at most " + std::to_string(kMaxAdapters) + " adapters");
        for (std::size_t i = 1; i <= *n; ++i) out.push_back(default_adapter(i));
        return out;
    }
    while (true) {
        const auto semicolon = text.find(';');
        const std::string_view entry = trim(text.substr(0, semicolon));
        if (out.size() == kMaxAdapters)
            throw std::invalid_argument("at most " + std::to_string(kMaxAdapters) + " adapters");
        if (entry.empty()) fail(out.size() + 1, "empty entry");
        out.push_back(parse_entry(entry, out.size() + 1));
        if (semicolon == std::string_view::npos) break;
        text.remove_prefix(semicolon + 1);
    }
    return out;
}

}  // namespace corvel::sim
