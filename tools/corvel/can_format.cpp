#include "can_format.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <span>

#include <fmt/core.h>

#include "corvel/protocol.hpp"

namespace corvel::cli {
namespace {

namespace can = proto::can;

constexpr std::size_t kStdIdDigits = 3;
constexpr std::size_t kExtIdDigits = 8;

std::optional<uint32_t> parse_hex(std::string_view text) {
    if (text.empty() || text.size() > 8) return std::nullopt;
    uint32_t value = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// An identifier of 3 hex digits (standard) or 8 (extended), within its range.
Parsed<CanFilter> parse_id(std::string_view text) {
    if (text.size() != kStdIdDigits && text.size() != kExtIdDigits) {
        return {{}, fmt::format("identifier '{}' must have 3 hex digits (standard) or 8 (extended)", text)};
    }
    auto id = parse_hex(text);
    if (!id) return {{}, fmt::format("identifier '{}' is not hexadecimal", text)};
    bool extended = text.size() == kExtIdDigits;
    if (*id > (extended ? can::kExtIdMask : can::kStdIdMask)) {
        return {
            {},
            fmt::format("identifier {} is above {:X}", text, extended ? can::kExtIdMask : can::kStdIdMask)};
    }
    return {CanFilter{*id, 0, extended}, {}};
}

// Hex bytes, two digits each, with '.' allowed between bytes; at most `max` of them.
Parsed<std::vector<uint8_t>> parse_data(std::string_view text, std::size_t max) {
    std::vector<uint8_t> bytes;
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] == '.') {
            ++i;
            continue;
        }
        if (i + 1 >= text.size() || text[i + 1] == '.') {
            return {{}, fmt::format("data '{}' has a byte with one hex digit", text)};
        }
        int hi = hex_digit(text[i]), lo = hex_digit(text[i + 1]);
        if (hi < 0 || lo < 0) return {{}, fmt::format("data '{}' is not hexadecimal", text)};
        if (bytes.size() == max) return {{}, fmt::format("data '{}' has more than {} bytes", text, max)};
        bytes.push_back(static_cast<uint8_t>(hi << 4 | lo));
        i += 2;
    }
    return {std::move(bytes), {}};
}

std::string hex_upper(std::span<const uint8_t> bytes, std::string_view separator) {
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out += separator;
        out += fmt::format("{:02X}", bytes[i]);
    }
    return out;
}

std::string id_text(const CanFrame& frame) {
    return frame.extended ? fmt::format("{:08X}", frame.id) : fmt::format("{:03X}", frame.id);
}

std::span<const uint8_t> payload(const CanFrame& frame) {
    return {frame.data.data(), frame.remote ? 0u : std::min<std::size_t>(frame.len, frame.data.size())};
}

}  // namespace

Parsed<CanFrame> parse_frame(std::string_view text) {
    auto hash = text.find('#');
    if (hash == std::string_view::npos) {
        return {{},
                fmt::format("'{}' is not a frame: write ID#DATA (123#DEADBEEF), or ID#R for a remote frame",
                            text)};
    }
    std::string_view rest = text.substr(hash + 1);
    if (!rest.empty() && rest[0] == '#')
        return {{}, fmt::format("'{}': CAN FD frames (##) are not supported", text)};
    auto id = parse_id(text.substr(0, hash));
    if (!id) return {{}, fmt::format("'{}': {}", text, id.error)};

    CanFrame frame;
    frame.id = id.value->id;
    frame.extended = id.value->extended;
    if (!rest.empty() && (rest[0] == 'R' || rest[0] == 'r')) {
        frame.remote = true;
        if (rest.size() > 2 || (rest.size() == 2 && (rest[1] < '0' || rest[1] > '8'))) {
            return {{}, fmt::format("'{}': a remote frame takes a length of 0 to 8 after R", text)};
        }
        if (rest.size() == 2) frame.len = static_cast<uint8_t>(rest[1] - '0');
        return {frame, {}};
    }
    auto data = parse_data(rest, frame.data.size());
    if (!data) return {{}, fmt::format("'{}': {}", text, data.error)};
    frame.len = static_cast<uint8_t>(data.value->size());
    std::copy(data.value->begin(), data.value->end(), frame.data.begin());
    return {frame, {}};
}

std::string compact_frame(const CanFrame& frame) {
    if (frame.remote) return id_text(frame) + (frame.len == 0 ? "#R" : fmt::format("#R{}", frame.len));
    return id_text(frame) + "#" + hex_upper(payload(frame), "");
}

std::string long_frame(const CanFrame& frame) {
    // As candump: each data byte is a space and two digits, so a frame without data ends in "] ".
    std::string out = fmt::format("{}   [{}] ", id_text(frame), std::min<unsigned>(frame.len, 8));
    if (frame.remote) return out + " remote request";
    for (uint8_t b : payload(frame)) out += fmt::format(" {:02X}", b);
    return out;
}

std::string interface_name(int channel) {
    return fmt::format("can{}", channel);
}

std::string dump_line(std::string_view time_column, int channel, const CanFrame& frame) {
    return fmt::format(" {} {}  {}", time_column, interface_name(channel), long_frame(frame));
}

std::string log_line(uint64_t time_us, int channel, const CanFrame& frame) {
    return fmt::format("({:010}.{:06}) {} {}", time_us / 1000000, time_us % 1000000, interface_name(channel),
                       compact_frame(frame));
}

CanFrame frame_of(const VCI_CAN_OBJ& obj) {
    CanFrame frame;
    frame.extended = obj.ExternFlag != 0;
    frame.remote = obj.RemoteFlag != 0;
    frame.id = obj.ID & (frame.extended ? can::kExtIdMask : can::kStdIdMask);
    frame.len = std::min<uint8_t>(obj.DataLen, can::kMaxDataLength);
    if (!frame.remote) std::copy_n(obj.Data, frame.len, frame.data.begin());
    return frame;
}

VCI_CAN_OBJ transmit_record(const CanFrame& frame) {
    VCI_CAN_OBJ obj{};
    obj.ID = frame.id;
    obj.SendType = 0;
    obj.RemoteFlag = frame.remote ? 1 : 0;
    obj.ExternFlag = frame.extended ? 1 : 0;
    obj.DataLen = frame.len;
    std::copy(frame.data.begin(), frame.data.end(), obj.Data);
    return obj;
}

// ---- Time stamps ----

std::optional<TimeMode> parse_time_mode(std::string_view text) {
    if (text == "a") return TimeMode::absolute;
    if (text == "d") return TimeMode::delta;
    if (text == "z") return TimeMode::zero;
    return std::nullopt;
}

uint64_t Timeline::place(uint32_t stamp, uint64_t host_now_us) {
    constexpr int64_t kStampUs = 100;
    if (!last_) {
        anchor_us_ = host_now_us;
    } else {
        offset_us_ += static_cast<int32_t>(stamp - *last_) * kStampUs;
    }
    last_ = stamp;
    int64_t time = static_cast<int64_t>(anchor_us_) + offset_us_;
    return time < 0 ? 0 : static_cast<uint64_t>(time);
}

std::string TimeColumn::next(uint64_t time_us) {
    if (!first_us_) {
        first_us_ = time_us;
        previous_us_ = time_us;
    }
    uint64_t shown = time_us;
    switch (mode_) {
        case TimeMode::none:
            return {};
        case TimeMode::absolute:
            return fmt::format("({:010}.{:06}) ", time_us / 1000000, time_us % 1000000);
        case TimeMode::delta:
            shown = time_us > previous_us_ ? time_us - previous_us_ : 0;
            previous_us_ = time_us;
            break;
        case TimeMode::zero:
            shown = time_us > *first_us_ ? time_us - *first_us_ : 0;
            break;
    }
    return fmt::format("({:03}.{:06}) ", shown / 1000000, shown % 1000000);
}

// ---- Filters ----

bool passes(const CanFilter& filter, const CanFrame& frame) {
    return frame.extended == filter.extended && (frame.id & filter.mask) == (filter.id & filter.mask);
}

bool passes(const std::vector<CanFilter>& filters, const CanFrame& frame) {
    return filters.empty() ||
           std::any_of(filters.begin(), filters.end(), [&](const CanFilter& f) { return passes(f, frame); });
}

Parsed<ChannelSpec> parse_channel_spec(std::string_view text) {
    ChannelSpec wanted;
    auto comma = text.find(',');
    std::string_view channel = text.substr(0, comma);
    if (channel != "1" && channel != "2") {
        return {{}, fmt::format("'{}': the channel is 1 or 2 (then ,ID:MASK filters)", text)};
    }
    wanted.channel = channel[0] - '0';
    while (comma != std::string_view::npos) {
        text.remove_prefix(comma + 1);
        comma = text.find(',');
        std::string_view item = text.substr(0, comma);
        auto colon = item.find(':');
        if (colon == std::string_view::npos) {
            return {{}, fmt::format("filter '{}' is not ID:MASK (hexadecimal, e.g. 123:7FF)", item)};
        }
        auto id = parse_id(item.substr(0, colon));
        if (!id) return {{}, fmt::format("filter '{}': {}", item, id.error)};
        auto mask = parse_hex(item.substr(colon + 1));
        if (!mask) return {{}, fmt::format("filter '{}': the mask is not 1 to 8 hex digits", item)};
        CanFilter filter = *id.value;
        filter.mask = *mask & (filter.extended ? can::kExtIdMask : can::kStdIdMask);
        if (wanted.filters.size() == static_cast<std::size_t>(can::kBanksPerChannel)) {
            return {{},
                    fmt::format("more than {} filters on channel {}", can::kBanksPerChannel, wanted.channel)};
        }
        wanted.filters.push_back(filter);
    }
    return {std::move(wanted), {}};
}

VCI_FILTER_CONFIG filter_bank(const CanFilter& filter, int bank) {
    VCI_FILTER_CONFIG config{};
    config.Enable = 1;
    config.FilterIndex = static_cast<uint8_t>(bank);
    config.FilterMode = 0;  // identifier and mask
    config.ExtFrame = filter.extended ? 1 : 0;
    config.ID_Std_Ext = filter.id;
    config.ID_IDE = filter.extended ? 1 : 0;
    config.ID_RTR = 0;
    config.MASK_Std_Ext = filter.mask;
    config.MASK_IDE = 1;  // standard and extended frames never pass each other's filters
    config.MASK_RTR = 0;  // remote and data frames alike
    return config;
}

VCI_FILTER_CONFIG open_bank(int bank) {
    VCI_FILTER_CONFIG config{};
    config.Enable = 1;
    config.FilterIndex = static_cast<uint8_t>(bank);
    return config;
}

VCI_FILTER_CONFIG disabled_bank(int bank) {
    VCI_FILTER_CONFIG config = open_bank(bank);
    config.Enable = 0;
    return config;
}

// ---- Bit rates ----

std::optional<uint32_t> parse_bitrate(std::string_view text) {
    double scale = 1;
    if (!text.empty() && (text.back() == 'k' || text.back() == 'K')) scale = 1e3;
    if (!text.empty() && text.back() == 'M') scale = 1e6;
    if (scale != 1) text.remove_suffix(1);
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string_view::npos ||
        std::count(text.begin(), text.end(), '.') > 1 || text.front() == '.' || text.back() == '.') {
        return std::nullopt;
    }
    double value = std::strtod(std::string(text).c_str(), nullptr) * scale;
    if (value < 1 || value > 1e6) return std::nullopt;
    return static_cast<uint32_t>(std::lround(value));
}

namespace {

constexpr int kMinQuanta = 8;   // fewer leave no room for a sample point near 87.5 %
constexpr int kMaxQuanta = 25;  // 1 + 16 + 8
constexpr int kMaxBs1 = 16;
constexpr int kMaxBs2 = 8;
constexpr uint32_t kMaxPrescaler = 1024;
constexpr double kSamplePoint = 0.875;
constexpr double kTolerance = 0.01;

}  // namespace

Parsed<BitTiming> bit_timing(uint32_t bits_per_second) {
    for (const auto& row : corvel::proto::can::kTimingPairs) {
        if (row.kbps * 1000 == bits_per_second) return {BitTiming{true, row.timing0, row.timing1}, {}};
    }
    std::optional<BitTiming> best;
    double best_error = 0, best_distance = 0;
    for (int quanta = kMaxQuanta; quanta >= kMinQuanta; --quanta) {
        double ideal = static_cast<double>(can::kClockHz) / (static_cast<double>(bits_per_second) * quanta);
        auto prescaler = static_cast<uint32_t>(std::lround(ideal));
        if (prescaler < 1 || prescaler > kMaxPrescaler) continue;
        double error =
            std::fabs(static_cast<double>(can::kClockHz) / (prescaler * quanta) - bits_per_second) /
            bits_per_second;
        int bs2 = std::max(1, static_cast<int>(std::lround(quanta * (1 - kSamplePoint))));
        int bs1 = std::min(kMaxBs1, quanta - 1 - bs2);
        bs2 = quanta - 1 - bs1;
        if (bs2 > kMaxBs2) continue;
        double distance = std::fabs(static_cast<double>(1 + bs1) / quanta - kSamplePoint);
        // Nearest rate first; among equally near ones the better sample point, then more quanta.
        constexpr double kSame = 1e-12;
        if (!best || error < best_error - kSame ||
            (error < best_error + kSame && distance < best_distance - kSame)) {
            best = BitTiming{false, 0, 0, prescaler, static_cast<uint8_t>(bs1), static_cast<uint8_t>(bs2), 1};
            best_error = error;
            best_distance = distance;
        }
    }
    if (!best || best_error > kTolerance) {
        return {{},
                fmt::format("no bit timing of the {} MHz CAN clock comes within 1 % of {} bit/s",
                            can::kClockHz / 1000000, bits_per_second)};
    }
    return {best, {}};
}

// ---- Traffic patterns ----

Parsed<GenSpec> parse_gen_spec(std::string_view id, std::string_view len, std::string_view data,
                               bool extended, bool remote) {
    GenSpec wanted;
    wanted.extended = extended;
    wanted.remote = remote;
    const uint32_t id_max = extended ? can::kExtIdMask : can::kStdIdMask;
    if (id == "i" || id == "r") {
        wanted.id_mode = id == "i" ? Pattern::increment : Pattern::random;
    } else {
        auto value = parse_hex(id);
        if (!value || *value > id_max) {
            return {{}, fmt::format("-I: '{}' is not i, r or a hex identifier up to {:X}", id, id_max)};
        }
        wanted.id_mode = Pattern::fixed;
        wanted.id = *value;
    }
    if (len == "i" || len == "r") {
        wanted.len_mode = len == "i" ? Pattern::increment : Pattern::random;
    } else if (len.size() == 1 && len[0] >= '0' && len[0] <= '8') {
        wanted.len_mode = Pattern::fixed;
        wanted.len = static_cast<uint8_t>(len[0] - '0');
    } else if (!len.empty()) {
        return {{}, fmt::format("-L: '{}' is not i, r or a length of 0 to 8", len)};
    }
    if (data == "i" || data == "r") {
        wanted.data_mode = data == "i" ? Pattern::increment : Pattern::random;
    } else {
        auto bytes = parse_data(data, can::kMaxDataLength);
        if (!bytes || data.empty()) {
            return {{}, fmt::format("-D: '{}' is not i, r or 1 to 8 data bytes in hex", data)};
        }
        wanted.data_mode = Pattern::fixed;
        wanted.data = std::move(*bytes.value);
        if (len.empty()) {
            wanted.len_mode = Pattern::fixed;
            wanted.len = static_cast<uint8_t>(wanted.data.size());
        }
    }
    return {std::move(wanted), {}};
}

FrameGenerator::FrameGenerator(GenSpec wanted, uint32_t seed) : spec_(std::move(wanted)), random_(seed) {}

CanFrame FrameGenerator::next() {
    CanFrame frame;
    frame.extended = spec_.extended;
    frame.remote = spec_.remote;
    const uint32_t id_max = spec_.extended ? can::kExtIdMask : can::kStdIdMask;
    switch (spec_.id_mode) {
        case Pattern::fixed:
            frame.id = spec_.id;
            break;
        case Pattern::increment:
            frame.id = static_cast<uint32_t>(count_ % (uint64_t{id_max} + 1));
            break;
        case Pattern::random:
            frame.id = random_() & id_max;
            break;
    }
    switch (spec_.len_mode) {
        case Pattern::fixed:
            frame.len = spec_.len;
            break;
        case Pattern::increment:
            frame.len = static_cast<uint8_t>(count_ % (can::kMaxDataLength + 1));
            break;
        case Pattern::random:
            frame.len = static_cast<uint8_t>(random_() % (can::kMaxDataLength + 1));
            break;
    }
    if (!frame.remote) {
        for (std::size_t i = 0; i < frame.len; ++i) {
            switch (spec_.data_mode) {
                case Pattern::fixed:
                    frame.data[i] = i < spec_.data.size() ? spec_.data[i] : 0;
                    break;
                case Pattern::increment:
                    frame.data[i] = static_cast<uint8_t>(count_ >> (8 * i));
                    break;
                case Pattern::random:
                    frame.data[i] = static_cast<uint8_t>(random_());
                    break;
            }
        }
    }
    ++count_;
    return frame;
}

// ---- Status ----

namespace {
constexpr uint32_t kEsrWarning = 1u << 0;
constexpr uint32_t kEsrPassive = 1u << 1;
constexpr uint32_t kEsrBusOff = 1u << 2;
constexpr unsigned kEsrLastErrorShift = 4;
}  // namespace

std::string_view bus_state(uint32_t esr) {
    if (esr & kEsrBusOff) return "bus-off";
    if (esr & kEsrPassive) return "error passive";
    if (esr & kEsrWarning) return "error warning";
    return "error active";
}

std::string_view last_error(uint32_t esr) {
    static constexpr std::array<std::string_view, 8> kCodes{
        "none",          "stuff",        "form", "acknowledgement",
        "bit recessive", "bit dominant", "CRC",  "set by software"};
    return kCodes[(esr >> kEsrLastErrorShift) & 7];
}

std::string error_words(uint32_t err_code) {
    static constexpr std::pair<uint32_t, std::string_view> kBits[] = {
        {ERR_CAN_OVERFLOW, "receive FIFO nearly full"},
        {ERR_CAN_ERRALARM, "error warning"},
        {ERR_CAN_PASSIVE, "error passive"},
        {ERR_CAN_LOSE, "arbitration lost"},
        {ERR_CAN_BUSERR, "bus error"},
        {ERR_CAN_BUSOFF, "bus-off"},
        {ERR_DEVICEOPEN, "the adapter could not be opened"},
        {ERR_DEVICENOTEXIST, "no such adapter, or it is not connected"},
        {ERR_CMDFAILED, "the adapter refused the command"}};
    std::string out;
    for (auto [bit, words] : kBits) {
        if ((err_code & bit) == 0) continue;
        if (!out.empty()) out += ", ";
        out += words;
        err_code &= ~bit;
    }
    if (err_code != 0) out += fmt::format("{}code 0x{:04x}", out.empty() ? "" : ", ", err_code);
    return out.empty() ? "none" : out;
}

std::string status_text(const VCI_CAN_STATUS& s, const VCI_ERR_INFO& e) {
    std::string errors = error_words(e.ErrCode);
    if (e.ErrCode & ERR_CAN_PASSIVE) {
        errors += fmt::format(" (mailbox states {} {} {})", e.Passive_ErrData[0], e.Passive_ErrData[1],
                              e.Passive_ErrData[2]);
    }
    return fmt::format(
        "state:       {}\n"
        "TEC:         {}\n"
        "REC:         {}\n"
        "last error:  {}\n"
        "FIFO space:  {}\n"
        "errors:      {}\n"
        "registers:   ESR {:08x}  TSR {:08x}  mode {:02x}  status {:02x}\n",
        bus_state(s.regESR), s.regTECounter, s.regRECounter, last_error(s.regESR), s.BufferSize, errors,
        s.regESR, s.regTSR, s.regMode, s.regStatus);
}

}  // namespace corvel::cli
