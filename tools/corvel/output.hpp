// Output conventions shared by the subcommands: byte formatting, dumps, error lines, progress.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>

namespace corvel::cli {

// Exit statuses: a failed operation, and a command line that could not be used.
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// "de ad be ef": two lowercase hex digits per byte, separated by single spaces.
std::string hex_bytes(std::span<const uint8_t> bytes);

// The layout of `hexdump -C`: 16 bytes a line with offsets starting at `base`, an ASCII column,
// repeated full lines collapsed into "*", and a last line holding the end offset.
std::string hexdump(std::span<const uint8_t> bytes, uint64_t base = 0);

// The library's text for a return code (KDI_GetErrorString).
std::string error_text(int32_t code);

// Prints "corvel: <what>: <library text> (<code>)" on stderr and returns kExitFailure.
int fail(std::string_view what, int32_t code);
// Prints "corvel: <message>" on stderr and returns kExitFailure.
int fail(std::string_view message);
// The error lines of an adapter that is not there: "corvel: no adapter found", and the open
// failure "corvel: open adapter <dev>: <library text> (<code>)". On USB hardware the line ends with
// a hint that --sim runs the command on the virtual adapter.
int fail_no_adapter();
// The end of those lines: " (corvel --sim ... runs on the virtual adapter)" on USB hardware, empty on
// the virtual adapter.
std::string_view sim_hint();
int fail_open(int32_t dev, int32_t code);

// One line of a progress bar: "label [#####.....]  50%  512/1024" with a bar `width` cells wide.
std::string progress_line(std::string_view label, uint64_t done, uint64_t total, int width = 30);

// A progress bar for long jobs, redrawn in place on stderr. It shows only when stderr is a
// terminal, so scripts and logs see nothing of it. The error lines of fail() and fail_open() end
// the bar's line first.
class Progress {
  public:
    Progress(std::string label, uint64_t total, std::FILE* out = stderr);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(uint64_t done);
    void finish();  // draws the last state and ends the line; also done by the destructor

  private:
    std::string label_;
    uint64_t total_;
    std::FILE* out_;
    bool shown_;
    bool finished_ = false;
    uint64_t done_ = 0;
};

}  // namespace corvel::cli
