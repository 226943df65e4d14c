// Text forms of the CAN commands, in the notation of can-utils: frames as cansend takes them and as
// candump prints and logs them, acceptance filters, bit rates and their bit timing, the cangen
// traffic patterns and the controller status in words.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "ControlCAN.h"

namespace corvel::cli {

// A value, or the reason there is none (one line, without the input's name).
template <typename T>
struct Parsed {
    std::optional<T> value;
    std::string error;

    explicit operator bool() const { return value.has_value(); }
};

struct CanFrame {
    uint32_t id = 0;
    bool extended = false;
    bool remote = false;
    uint8_t len = 0;  // data length, 0 to 8; for a remote frame the length requested
    std::array<uint8_t, 8> data{};

    bool operator==(const CanFrame&) const = default;
};

// cansend's frame syntax: "123#DEADBEEF" (3 hex digits: standard identifier up to 7FF; 0 to 8 data
// bytes, two hex digits each, '.' allowed between bytes), "12345678#00" (8 digits: extended, up to
// 1FFFFFFF), "123#R" (remote), "123#R4" (remote asking for 4 bytes).
Parsed<CanFrame> parse_frame(std::string_view text);

// The frame in candump's compact log form: "123#DEADBEEF", "12345678#00", "123#R", "123#R4".
std::string compact_frame(const CanFrame& frame);

// The frame in candump's screen form: "123   [4]  DE AD BE EF", "12345678   [1]  00",
// "123   [0]  remote request".
std::string long_frame(const CanFrame& frame);

// Interface names of the channels in dump lines and logs: "can1" and "can2", as the command line
// numbers the channels.
std::string interface_name(int channel);

// One line of `corvel can dump`: candump's "  can1  123   [4]  DE AD BE EF", with the time column
// (see TimeColumn) in front when there is one.
std::string dump_line(std::string_view time_column, int channel, const CanFrame& frame);

// One line of a candump log: "(1700000000.123456) can1 123#DEADBEEF".
std::string log_line(uint64_t time_us, int channel, const CanFrame& frame);

// The frame of a received record.
CanFrame frame_of(const VCI_CAN_OBJ& obj);
// The record VCI_Transmit takes for a frame (SendType 0).
VCI_CAN_OBJ transmit_record(const CanFrame& frame);

// ---- Time stamps ----

enum class TimeMode { none, absolute, delta, zero };

// candump's -t letter: 'a', 'd' or 'z'.
std::optional<TimeMode> parse_time_mode(std::string_view text);

// Places the adapter's time stamps (32 bits in units of 100 us, wrapping after about five days) on
// the host's time line in microseconds since the epoch: the first frame is anchored at the host
// time it was taken in, the others follow by the difference of their stamps. Differences are read
// as signed 32-bit values, so a stamp a little older than the last one (the other channel's, read
// later) moves back rather than five days on.
class Timeline {
  public:
    uint64_t place(uint32_t stamp, uint64_t host_now_us);

  private:
    std::optional<uint32_t> last_;
    int64_t offset_us_ = 0;  // of the last stamp from the anchor
    uint64_t anchor_us_ = 0;
};

// candump's time column for -t a, d and z: "(1700000000.123456) ", the absolute time; "(000.100000) ",
// the time since the frame before (0 for the first; never negative); "(002.500000) ", the time since
// the first frame. Empty for TimeMode::none.
class TimeColumn {
  public:
    explicit TimeColumn(TimeMode mode) : mode_(mode) {}
    std::string next(uint64_t time_us);

  private:
    TimeMode mode_;
    std::optional<uint64_t> first_us_;
    uint64_t previous_us_ = 0;
};

// ---- Filters ----

// candump's ID:MASK filter: a frame passes when (its identifier AND mask) equals (ID AND mask). An
// ID of 8 hex digits filters extended frames, a shorter one standard frames.
struct CanFilter {
    uint32_t id = 0;
    uint32_t mask = 0;
    bool extended = false;

    bool operator==(const CanFilter&) const = default;
};

bool passes(const CanFilter& filter, const CanFrame& frame);
// True when there are no filters or one of them lets the frame pass.
bool passes(const std::vector<CanFilter>& filters, const CanFrame& frame);

// What `corvel can dump` takes for each channel: "1", or "1,123:7FF,12345678:1FFFFFF0" (at most 14
// filters, one per filter bank of the channel).
struct ChannelSpec {
    int channel = 1;
    std::vector<CanFilter> filters;
};
Parsed<ChannelSpec> parse_channel_spec(std::string_view text);

// The filter bank for VCI_SetFilter: mask mode, the identifier type always compared, remote frames
// and data frames alike. `bank` counts within the channel (0 to 13).
VCI_FILTER_CONFIG filter_bank(const CanFilter& filter, int bank);
// A bank that lets every frame pass, and one switched off.
VCI_FILTER_CONFIG open_bank(int bank);
VCI_FILTER_CONFIG disabled_bank(int bank);

// ---- Bit rates ----

// "500000", "500k", "83.333k", "1M" (bit/s; k and M multiply by 1000 and 1000000). Nothing for other
// text, a rate of 0 or one above 1 Mbit/s.
std::optional<uint32_t> parse_bitrate(std::string_view text);

// How a channel reaches a bit rate: a Timing0/Timing1 pair of the ControlCAN baud-rate table
// (VCI_InitCAN) when the rate is one of the table's, else a prescaler and segment lengths in time
// quanta of the 36 MHz controller clock (VCI_InitCANEx).
struct BitTiming {
    bool from_table = false;
    uint8_t timing0 = 0;
    uint8_t timing1 = 0;
    uint32_t prescaler = 0;  // 1 to 1024
    uint8_t bs1 = 0;         // 1 to 16
    uint8_t bs2 = 0;         // 1 to 8
    uint8_t sjw = 1;

    bool operator==(const BitTiming&) const = default;
};

// The table's pair, or the computed timing nearest the rate (within 1 %), its sample point as near
// 87.5 % as the segments allow.
Parsed<BitTiming> bit_timing(uint32_t bits_per_second);

// ---- Traffic patterns (cangen) ----

// One of cangen's -I, -L and -D choices: a fixed value, 'i' (increment) or 'r' (random).
enum class Pattern { fixed, increment, random };

struct GenSpec {
    Pattern id_mode = Pattern::random;
    uint32_t id = 0;
    Pattern len_mode = Pattern::random;
    uint8_t len = 0;
    Pattern data_mode = Pattern::random;
    std::vector<uint8_t> data;  // fixed data
    bool extended = false;
    bool remote = false;
};

// -I: "i", "r" or a hex identifier (up to 7FF, or 1FFFFFFF with `extended`).
Parsed<GenSpec> parse_gen_spec(std::string_view id, std::string_view len, std::string_view data,
                               bool extended, bool remote);

// The frames of a GenSpec, one after the other. Increment: identifiers count up from 0 (wrapping at
// the identifier's range), lengths cycle 0 to 8, and the data bytes hold a frame counter, least
// significant byte first. A fixed data pattern sets the length unless -L gives one: shorter data is
// padded with zeros, longer data cut.
class FrameGenerator {
  public:
    FrameGenerator(GenSpec wanted, uint32_t seed);
    CanFrame next();

  private:
    GenSpec spec_;
    std::mt19937 random_;
    uint64_t count_ = 0;
};

// ---- Status ----

// The controller's state from its error status register: "bus-off", "error passive", "error warning"
// or "error active".
std::string_view bus_state(uint32_t esr);
// The last error code (bits 4-6) in words: "none", "stuff", "form", "acknowledgement", "bit recessive",
// "bit dominant", "CRC", "set by software".
std::string_view last_error(uint32_t esr);
// The bits of an error record in words, comma-separated; "none" for 0.
std::string error_words(uint32_t err_code);
// The lines of `corvel can status`.
std::string status_text(const VCI_CAN_STATUS& status, const VCI_ERR_INFO& errors);

}  // namespace corvel::cli
