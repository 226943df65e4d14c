// Numbers on the command line: decimal, or hexadecimal after "0x", as register addresses and data
// bytes are usually written.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include <CLI/CLI.hpp>

namespace corvel::cli {

// The value of `text` ("16", "0x10", "0X1f"), or nothing when it is not a number in one of these
// forms or does not fit in 64 bits. No sign, no spaces, no octal: "010" is ten.
std::optional<uint64_t> parse_number(std::string_view text);

// A CLI11 transform for options and positionals taking a number from `min` to `max`: it accepts
// both forms and hands the value on in decimal, so the option's own conversion sees plain digits.
// `hex` writes the range in hexadecimal in the help text and in the error message.
CLI::Validator number_in(uint64_t min, uint64_t max, bool hex = false);

}  // namespace corvel::cli
