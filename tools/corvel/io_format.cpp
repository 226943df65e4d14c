#include "io_format.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>

#include <fmt/core.h>

namespace corvel::cli {
namespace {

std::optional<int> parse_pin(std::string_view text, int max_pin) {
    int pin = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), pin);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || pin < 0 || pin > max_pin) {
        return std::nullopt;
    }
    return pin;
}

void append_utf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// The dot bit of the braille block for dot column x (0, 1) and dot row y (0 top to 3).
constexpr std::array<std::array<uint8_t, 4>, 2> kBrailleDot{
    {{0x01, 0x02, 0x04, 0x40}, {0x08, 0x10, 0x20, 0x80}}};
constexpr char32_t kBrailleBase = 0x2800;
constexpr std::array<int, 6> kColours{31, 32, 34, 33, 35, 36};  // red, green, blue, yellow, magenta, cyan

}  // namespace

Parsed<PinList> parse_pins(std::string_view text, int max_pin) {
    auto bad = [&](std::string_view item) {
        return Parsed<PinList>{
            std::nullopt, fmt::format("'{}' is not a pin or a range of pins from 0 to {}", item, max_pin)};
    };
    if (text.empty()) return bad(text);
    PinList list;
    auto add = [&](int pin) {
        if ((list.mask >> pin & 1U) != 0) return;
        list.mask |= 1U << pin;
        list.pins.push_back(pin);
    };
    while (true) {
        std::size_t comma = text.find(',');
        std::string_view item = text.substr(0, comma);
        std::size_t dash = item.find('-');
        auto first = parse_pin(item.substr(0, dash), max_pin);
        auto last = dash == std::string_view::npos ? first : parse_pin(item.substr(dash + 1), max_pin);
        if (!first || !last || *last < *first) return bad(item);
        for (int pin = *first; pin <= *last; ++pin) add(pin);
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    return {std::move(list), {}};
}

std::string format_levels(std::span<const int> pins, uint32_t levels) {
    std::string out;
    for (int pin : pins) {
        if (!out.empty()) out += ' ';
        out += fmt::format("{}={}", pin, levels >> pin & 1U);
    }
    return out;
}

std::vector<int> mask_bits(uint32_t mask) {
    std::vector<int> bits;
    for (int n = 0; n < 32; ++n) {
        if ((mask >> n & 1U) != 0) bits.push_back(n);
    }
    return bits;
}

std::vector<uint16_t> decode_samples(std::span<const uint8_t> bytes) {
    std::vector<uint16_t> values(bytes.size() / 2);
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<uint16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
    }
    return values;
}

std::string format_samples(const SampleTable& t) {
    std::string out;
    const std::size_t columns = t.channels.size();
    if (t.csv) {
        for (std::size_t c = 0; c < columns; ++c)
            out += fmt::format("{}ch{}", c == 0 ? "" : ",", t.channels[c]);
        out += '\n';
    }
    if (columns == 0) return out;
    for (std::size_t i = 0; i + columns <= t.values.size(); i += columns) {
        for (std::size_t c = 0; c < columns; ++c) {
            uint16_t v = t.values[i + c];
            std::string cell = t.raw ? fmt::format("{}", v) : fmt::format("{:.3f}", v * t.vref / 4095.0);
            if (t.csv) {
                out += (c == 0 ? "" : ",") + cell;
            } else {
                out += fmt::format("{}{:>{}}", c == 0 ? "" : " ", cell, t.raw ? 4 : 5);
            }
        }
        out += '\n';
    }
    return out;
}

std::string render_plot(std::span<const PlotSeries> series, const PlotStyle& style) {
    double lo = INFINITY, hi = -INFINITY;
    std::size_t samples = 0;
    for (const auto& s : series) {
        for (double v : s.values) {
            lo = std::min(lo, v);
            hi = std::max(hi, v);
        }
        samples = std::max(samples, s.values.size());
    }
    if (samples == 0) return {};
    if (hi - lo < 1e-9) {  // a flat line sits in the middle of a range of one unit
        lo -= 0.5;
        hi += 0.5;
    }
    const std::string top = fmt::format("{:.{}f}{}", hi, style.decimals, style.unit);
    const std::string bottom = fmt::format("{:.{}f}{}", lo, style.decimals, style.unit);
    const int label = static_cast<int>(std::max(top.size(), bottom.size()));
    const int cols = std::max(8, style.width - label - 2);
    const int rows = std::max(2, style.height - 3);
    const int dots_x = 2 * cols, dots_y = 4 * rows;

    std::vector<uint8_t> cells(static_cast<std::size_t>(cols * rows), 0);
    std::vector<int> owner(cells.size(), -1);
    auto dot = [&](int x, int y, int who) {
        std::size_t cell = static_cast<std::size_t>((y / 4) * cols + x / 2);
        cells[cell] |= kBrailleDot[static_cast<std::size_t>(x % 2)][static_cast<std::size_t>(y % 4)];
        owner[cell] = who;
    };
    for (std::size_t k = 0; k < series.size(); ++k) {
        const auto& values = series[k].values;
        int prev_x = -1, prev_y = 0;
        for (std::size_t i = 0; i < values.size(); ++i) {
            int x = values.size() == 1
                        ? 0
                        : static_cast<int>(std::lround(static_cast<double>(i) * (dots_x - 1) /
                                                       static_cast<double>(values.size() - 1)));
            int y = static_cast<int>(std::lround((hi - values[i]) / (hi - lo) * (dots_y - 1)));
            y = std::clamp(y, 0, dots_y - 1);
            if (prev_x < 0 || x == prev_x) {
                const int from = prev_x < 0 ? y : std::min(y, prev_y);
                const int to = prev_x < 0 ? y : std::max(y, prev_y);
                for (int yy = from; yy <= to; ++yy) dot(x, yy, static_cast<int>(k));
            } else {
                // A line to the previous point: each dot column between them gets the part of the
                // line that crosses it, so steep edges stay joined and no column is skipped.
                const double span = x - prev_x;
                for (int xx = prev_x; xx <= x; ++xx) {
                    const double t0 = std::clamp((xx - 0.5 - prev_x) / span, 0.0, 1.0);
                    const double t1 = std::clamp((xx + 0.5 - prev_x) / span, 0.0, 1.0);
                    const double ya = prev_y + t0 * (y - prev_y), yb = prev_y + t1 * (y - prev_y);
                    const int from = static_cast<int>(std::lround(std::min(ya, yb)));
                    const int to = static_cast<int>(std::lround(std::max(ya, yb)));
                    for (int yy = from; yy <= to; ++yy) dot(xx, yy, static_cast<int>(k));
                }
            }
            prev_x = x;
            prev_y = y;
        }
    }

    auto colour_on = [&](int who) {
        return fmt::format("\x1b[{}m", kColours[static_cast<std::size_t>(who) % kColours.size()]);
    };
    std::string out;
    for (int r = 0; r < rows; ++r) {
        const std::string& text = r == 0 ? top : r == rows - 1 ? bottom : std::string();
        out += fmt::format("{:>{}} ", text, label);
        out += (r == 0 || r == rows - 1) ? "┤" : "│";
        int current = -1;
        for (int c = 0; c < cols; ++c) {
            std::size_t cell = static_cast<std::size_t>(r * cols + c);
            if (style.colour && owner[cell] >= 0 && owner[cell] != current) {
                current = owner[cell];
                out += colour_on(current);
            }
            if (cells[cell] == 0) {
                out += ' ';
            } else {
                append_utf8(out, kBrailleBase + cells[cell]);
            }
        }
        if (style.colour && current >= 0) out += "\x1b[0m";
        out += '\n';
    }
    out += fmt::format("{:>{}} └", "", label);
    for (int c = 0; c < cols; ++c) out += "─";
    out += '\n';
    const std::string last = fmt::format("{}", samples - 1);
    out += fmt::format("{:>{}}  0{:>{}}\n", "", label, last, std::max<int>(1, cols - 1));
    out += fmt::format("{:>{}}  ", "", label);
    for (std::size_t k = 0; k < series.size(); ++k) {
        if (k != 0) out += "  ";
        if (style.colour) out += colour_on(static_cast<int>(k));
        out += "⣿ " + series[k].name;
        if (style.colour) out += "\x1b[0m";
    }
    out += '\n';
    return out;
}

}  // namespace corvel::cli
