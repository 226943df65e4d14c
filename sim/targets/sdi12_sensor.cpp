#include "targets/sdi12_sensor.hpp"

#include <cmath>
#include <cstdio>

namespace corvel::sim::fw {
namespace {

constexpr uint16_t kCrcPolynomial = 0xA001;
constexpr char kCrcBase = 0x40;
constexpr std::string_view kIdentification = "14CORVEL  SDI12S100SN0001";
constexpr std::size_t kMaxLineValues = 35;            // value characters of one D line after M
constexpr std::size_t kMaxConcurrentLineValues = 75;  // ... after C
constexpr int kSignificantDigits = 7;
constexpr double kLargest = 9999999;

bool is_address(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Splits the values into data lines, a value never cut across two.
std::vector<std::string> data_lines(const std::vector<double>& values, std::size_t width) {
    std::vector<std::string> lines;
    for (double v : values) {
        const std::string text = sdi12_value(v);
        if (lines.empty() || lines.back().size() + text.size() > width) lines.emplace_back();
        lines.back() += text;
    }
    return lines;
}

}  // namespace

std::array<char, 3> sdi12_crc(std::string_view line) {
    uint16_t crc = 0;
    for (char c : line) {
        crc ^= static_cast<uint8_t>(c);
        for (int i = 0; i < 8; ++i)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ kCrcPolynomial) : crc >> 1;
    }
    return {static_cast<char>(kCrcBase | (crc >> 12)), static_cast<char>(kCrcBase | ((crc >> 6) & 0x3F)),
            static_cast<char>(kCrcBase | (crc & 0x3F))};
}

std::string sdi12_value(double v) {
    const double m = std::fmin(std::fabs(v), kLargest);
    const int whole = m < 1 ? 1 : static_cast<int>(std::floor(std::log10(m))) + 1;
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.*f", std::max(0, kSignificantDigits - whole), m);
    std::string text = buf;
    if (text.find('.') != std::string::npos) {
        text.erase(text.find_last_not_of('0') + 1);
        if (text.back() == '.') text.pop_back();
    }
    return ((v < 0 && text != "0") ? "-" : "+") + text;
}

Sdi12Sensor::Sdi12Sensor(char address) : address_(address) {}

std::string Sdi12Sensor::with_crc(std::string line, bool crc) const {
    if (crc) {
        const auto c = sdi12_crc(line);
        line.append(c.begin(), c.end());
    }
    return line;
}

std::optional<std::string> Sdi12Sensor::command(std::string_view command, uint64_t now_us) {
    if (command.empty() || command.back() != '!') return std::nullopt;
    const std::string_view body = command.substr(0, command.size() - 1);
    const std::string a(1, address_);
    if (body == "?") return a;
    if (body.empty() || body[0] != address_) return std::nullopt;
    const std::string_view rest = body.substr(1);

    if (rest.empty()) return a;
    if (rest == "I") return a + std::string(kIdentification);
    if (rest.size() == 2 && rest[0] == 'A' && is_address(rest[1])) {
        address_ = rest[1];
        return std::string(1, address_);
    }
    if (rest[0] == 'M' || rest[0] == 'C') return measure(rest, now_us);
    if (rest.size() == 2 && rest[0] == 'D' && is_digit(rest[1])) {
        // Intended: before the values are ready the sensor answers its address alone, CRC or not.
        if (!measured_ || now_us < ready_at_) return a;
        const std::size_t n = static_cast<std::size_t>(rest[1] - '0');
        return with_crc(a + (n < data_.size() ? data_[n] : std::string()), crc_);
    }
    const bool rc = rest.starts_with("RC");
    const std::string_view r = rest.substr(rc ? 2 : 1);
    if (rest[0] == 'R' && r.size() == 1 && is_digit(r[0])) {
        std::string line = a;
        if (r[0] == '0')
            for (double v : continuous_) line += sdi12_value(v);
        return with_crc(line, rc);
    }
    return std::nullopt;
}

// "M", "MC", "C", "CC", each optionally followed by one digit 1-9 (an additional measurement).
std::optional<std::string> Sdi12Sensor::measure(std::string_view rest, uint64_t now_us) {
    const bool concurrent = rest[0] == 'C';
    std::string_view tail = rest.substr(1);
    const bool crc = tail.starts_with("C");
    if (crc) tail.remove_prefix(1);
    if (tail.size() > 1 || (tail.size() == 1 && (tail[0] < '1' || tail[0] > '9'))) return std::nullopt;

    const std::string a(1, address_);
    const std::vector<double> none;
    const std::vector<double>& values = tail.empty() ? values_ : none;
    data_ = data_lines(values, concurrent ? kMaxConcurrentLineValues : kMaxLineValues);
    measured_ = true;
    crc_ = crc;
    ready_at_ = now_us + (values.empty() ? 0 : kMeasurementUs);
    char count[8];
    std::snprintf(count, sizeof count, concurrent ? "%02zu" : "%zu", values.size());
    return a + (values.empty() ? "000" : "001") + count;
}

}  // namespace corvel::sim::fw
