// The CORVEL_SIM grammar: which adapters sit on the virtual bus.
//
//   ""                       one default adapter
//   "N"                      N default adapters (serials CV0000000001 ... ), 0 for none
//   "k=v,k=v;k=v,..."        one adapter per ';'-separated entry, keys serial, type, vid, pid
//
// An entry's unspecified keys take the defaults of its position (the second entry's serial is
// CV0000000002). "serial=-" means the adapter has no serial-number string.
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "corvel/sim.hpp"

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
        } else {
            fail(position, "unknown key \"" + std::string(key) + "\" (serial, type, vid, pid)");
        }
        if (comma == std::string_view::npos) break;
        entry.remove_prefix(comma + 1);
    }
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
