#include "numbers.hpp"

#include <charconv>
#include <string>

#include <fmt/core.h>

namespace corvel::cli {

std::optional<uint64_t> parse_number(std::string_view text) {
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    // Unsigned from_chars takes no sign, and nothing from an empty text.
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value, base);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return value;
}

CLI::Validator number_in(uint64_t min, uint64_t max, bool hex) {
    const std::string range =
        hex ? fmt::format("0x{:02x} to 0x{:02x}", min, max) : fmt::format("{} to {}", min, max);
    const std::string help =
        hex ? fmt::format("0x{:02x}..0x{:02x}", min, max) : fmt::format("{}..{}", min, max);
    return CLI::Validator(
        [min, max, range](std::string& text) -> std::string {
            auto value = parse_number(text);
            if (!value) return fmt::format("{} is not a number (decimal, or hexadecimal after 0x)", text);
            if (*value < min || *value > max) return fmt::format("{} is out of range ({})", text, range);
            text = std::to_string(*value);
            return {};
        },
        help);
}

}  // namespace corvel::cli
