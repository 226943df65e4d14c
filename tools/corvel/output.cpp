#include "output.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <fmt/core.h>

#include "CorvelBoard.h"
#include "virtual_adapter.hpp"

namespace corvel::cli {

std::string hex_bytes(std::span<const uint8_t> bytes) {
    std::string out;
    out.reserve(bytes.size() * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out += ' ';
        out += fmt::format("{:02x}", bytes[i]);
    }
    return out;
}

std::string hexdump(std::span<const uint8_t> bytes, uint64_t base) {
    constexpr std::size_t kLine = 16;
    std::string out;
    bool squeezing = false;
    for (std::size_t off = 0; off < bytes.size(); off += kLine) {
        auto line = bytes.subspan(off, std::min(kLine, bytes.size() - off));
        bool repeat = off != 0 && line.size() == kLine &&
                      std::memcmp(line.data(), bytes.data() + off - kLine, kLine) == 0;
        if (repeat) {
            if (!squeezing) out += "*\n";
            squeezing = true;
            continue;
        }
        squeezing = false;
        out += fmt::format("{:08x}  ", base + off);
        for (std::size_t i = 0; i < kLine; ++i) {
            out += i < line.size() ? fmt::format("{:02x} ", line[i]) : "   ";
            if (i == 7) out += ' ';
        }
        out += " |";
        for (uint8_t b : line) out += (b >= 0x20 && b < 0x7f) ? static_cast<char>(b) : '.';
        out += "|\n";
    }
    if (!bytes.empty()) out += fmt::format("{:08x}\n", base + bytes.size());
    return out;
}

std::string error_text(int32_t code) {
    char text[64] = {};  // the library writes at most 32 bytes
    KDI_GetErrorString(code, text);
    return text;
}

namespace {
// The bar being drawn, if any: an error line ends its line first, so the two never share a line.
Progress* drawing = nullptr;

void end_progress_line() {
    if (drawing != nullptr) drawing->finish();
}
}  // namespace

int fail(std::string_view what, int32_t code) {
    end_progress_line();
    fmt::print(stderr, "corvel: {}: {} ({})\n", what, error_text(code), code);
    return kExitFailure;
}

int fail(std::string_view message) {
    end_progress_line();
    fmt::print(stderr, "corvel: {}\n", message);
    return kExitFailure;
}

std::string_view sim_hint() {
    return on_virtual_adapter() ? "" : " (corvel --sim ... runs on the virtual adapter)";
}

int fail_no_adapter() {
    return fail(fmt::format("no adapter found{}", sim_hint()));
}

int fail_open(int32_t dev, int32_t code) {
    end_progress_line();
    fmt::print(stderr, "corvel: open adapter {}: {} ({}){}\n", dev, error_text(code), code,
               code == KD_ERR_OPEN_DEVICE ? sim_hint() : std::string_view());
    return kExitFailure;
}

std::string progress_line(std::string_view label, uint64_t done, uint64_t total, int width) {
    done = std::min(done, total);
    // A job of zero units is complete from the start.
    uint64_t percent = total == 0 ? 100 : done * 100 / total;
    auto filled = total == 0 ? width : static_cast<int>(done * static_cast<uint64_t>(width) / total);
    return fmt::format("{} [{}{}] {:3}%  {}/{}", label, std::string(filled, '#'),
                       std::string(width - filled, '.'), percent, done, total);
}

Progress::Progress(std::string label, uint64_t total, std::FILE* out)
    : label_(std::move(label)), total_(total), out_(out), shown_(isatty(fileno(out)) != 0) {
    if (shown_) drawing = this;
    update(0);
}

Progress::~Progress() {
    finish();
}

void Progress::update(uint64_t done) {
    done_ = done;
    if (!shown_ || finished_) return;
    fmt::print(out_, "\r{}", progress_line(label_, done_, total_));
    std::fflush(out_);
}

void Progress::finish() {
    if (finished_) return;
    update(done_);
    finished_ = true;
    if (drawing == this) drawing = nullptr;
    if (shown_) fmt::print(out_, "\n");
}

}  // namespace corvel::cli
