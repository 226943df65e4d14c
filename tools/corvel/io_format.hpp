// Text forms of the GPIO, ADC, PWM and counter commands: pin lists, pin levels, sample tables and
// the terminal chart of `adc read --plot`.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "can_format.hpp"  // Parsed<T>

namespace corvel::cli {

// A pin list as written on the command line: "0,3,8-11". The pins in the order given (duplicates
// dropped) and their mask, bit n for pin n. Pins are 0 to `max_pin`; a range must not run
// backwards. Empty text, empty items and anything else are errors with a message.
struct PinList {
    std::vector<int> pins;
    uint32_t mask = 0;
};
Parsed<PinList> parse_pins(std::string_view text, int max_pin = 23);

// "0=1 8=0": each pin of `pins` with its level from `levels` (bit n for pin n), in the order given.
std::string format_levels(std::span<const int> pins, uint32_t levels);

// Indices of the set bits of `mask`, ascending.
std::vector<int> mask_bits(uint32_t mask);

// The values of a sample block as KAI_ReadDatas leaves it: 16-bit words in the adapter's byte
// order, least significant byte first, whatever the host's. Converted byte by byte.
std::vector<uint16_t> decode_samples(std::span<const uint8_t> bytes);

// One instant per line, one column per channel: volts with 3 decimals (count x vref / 4095), or
// the raw counts. CSV: a header "ch0,ch3" first and commas between the columns; else columns
// separated by spaces and right-aligned.
struct SampleTable {
    std::vector<int> channels;     // enabled channels, ascending
    std::vector<uint16_t> values;  // instant by instant, one per channel
    double vref = 3.3;
    bool raw = false;
    bool csv = false;
};
std::string format_samples(const SampleTable& table);

// A line chart of one or more series in braille characters (2 x 4 dots a cell), `width` columns by
// `height` text rows in all: the plot with the max and min labels on its y axis, the x axis, the
// first and last sample numbers under it, and a legend line naming each series. Each series is a
// line of dots, consecutive points joined vertically so that steep edges show; with `colour` each
// series has its own ANSI colour (a cell shared by several takes the last one's), named in the
// legend. Labels carry `decimals` decimals and `unit`.
struct PlotSeries {
    std::string name;
    std::vector<double> values;
};
struct PlotStyle {
    int width = 80;
    int height = 16;
    int decimals = 3;
    std::string unit = "V";
    bool colour = false;
};
std::string render_plot(std::span<const PlotSeries> series, const PlotStyle& style);

}  // namespace corvel::cli
