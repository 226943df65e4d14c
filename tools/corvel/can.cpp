// CAN commands with the habits of can-utils: set a channel up, send frames as cansend does, watch
// and log the bus as candump does, generate traffic as cangen does, and read a channel's status.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "can_adapter.hpp"
#include "can_format.hpp"
#include "context.hpp"
#include "corvel/protocol.hpp"
#include "numbers.hpp"
#include "output.hpp"

namespace corvel::cli {
namespace {

namespace can = proto::can;

constexpr uint32_t kReceiveFailed = 0xFFFFFFFF;       // VCI_Receive's answer to a bad device index or type
constexpr std::size_t kReceiveChunk = 1000;           // frames taken per VCI_Receive
constexpr uint64_t kDumpPassUs = can::kPollPeriodUs;  // the read threads fill the queues no faster
constexpr std::size_t kBurst = 100;                   // frames per VCI_Transmit when generating without a gap

// ---- Stopping and waiting ----

volatile std::sig_atomic_t stop_requested = 0;

extern "C" void request_stop(int) {
    stop_requested = 1;
}

// Ctrl-C and SIGTERM end a dump or a generator at its next pass; the adapter is then closed, which
// stops the read threads. Without SA_RESTART a wait in progress ends at once. A reader of the
// output that goes away (dump | head) ends the dump the same way, instead of killing the process.
class StopOnSignal {
  public:
    StopOnSignal() {
        struct sigaction action {};
        action.sa_handler = request_stop;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &old_int_);
        sigaction(SIGTERM, &action, &old_term_);
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, &old_pipe_);
    }
    ~StopOnSignal() {
        sigaction(SIGINT, &old_int_, nullptr);
        sigaction(SIGTERM, &old_term_, nullptr);
        sigaction(SIGPIPE, &old_pipe_, nullptr);
    }
    StopOnSignal(const StopOnSignal&) = delete;
    StopOnSignal& operator=(const StopOnSignal&) = delete;

  private:
    struct sigaction old_int_ {};
    struct sigaction old_term_ {};
    struct sigaction old_pipe_ {};
};

// The time a job has run, for -T and -g. On the virtual adapter with its clock on, sleeps return at
// once and the steady clock hardly moves, so the time slept counts instead: the job then lasts as
// long in virtual time as it would in real time.
class Pacer {
  public:
    uint64_t elapsed_us() const {
        auto real = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start_).count();
        return std::max(static_cast<uint64_t>(real), slept_us_);
    }
    void sleep_until(uint64_t target_us) {
        uint64_t now = elapsed_us();
        if (target_us <= now) return;
        usleep(static_cast<useconds_t>(target_us - now));
        slept_us_ += target_us - now;
    }

  private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_ = Clock::now();
    uint64_t slept_us_ = 0;
};

uint64_t wall_clock_us() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

// A count on stderr, redrawn in place, when stderr is a terminal: a bar with a known total, else
// the count alone.
class Counter {
  public:
    Counter(std::string label, uint64_t total) : label_(std::move(label)) {
        if (total != 0) bar_.emplace(label_, total);
    }
    ~Counter() {
        if (!bar_ && shown_) fmt::print(stderr, "\n");
    }
    Counter(const Counter&) = delete;
    Counter& operator=(const Counter&) = delete;

    void update(uint64_t done) {
        if (bar_) return bar_->update(done);
        if (!isatty(STDERR_FILENO)) return;
        fmt::print(stderr, "\r{} {}", label_, done);
        shown_ = true;
    }

  private:
    std::string label_;
    std::optional<Progress> bar_;
    bool shown_ = false;
};

// ---- Arguments ----

struct Target {
    int32_t dev = kAnyCanAdapter;
    int channel = 1;
};

void add_device_option(CLI::App& cmd, int32_t& dev) {
    cmd.add_option("-d,--device", dev, "Device index (see `corvel list`); default: the first CAN adapter")
        ->transform(number_in(0, can::kDevices - 1));
}

void add_target(CLI::App& cmd, Target& t) {
    add_device_option(cmd, t.dev);
    cmd.add_option("CH", t.channel, "CAN channel, 1 or 2")->required()->transform(number_in(1, 2));
}

BitTiming timing_of(const std::string& text, const char* name) {
    auto rate = parse_bitrate(text);
    if (!rate) {
        throw CLI::ValidationError(name,
                                   fmt::format("'{}' is not a bit rate up to 1M (500000, 500k, 1M)", text));
    }
    auto timing = bit_timing(*rate);
    if (!timing) throw CLI::ValidationError(name, timing.error);
    return *timing.value;
}

// ---- can init ----

struct InitArgs {
    Target target;
    std::string bitrate;
    std::string mode = "normal";
    BitTiming timing;
};

int init(const InitArgs& a) {
    const CanMode mode = a.mode == "silent"     ? CanMode::silent
                         : a.mode == "loopback" ? CanMode::loopback
                                                : CanMode::normal;
    return with_can_adapter(a.target.dev, [&](const CanAdapter& adapter) {
        if (int status = check_channel(adapter, a.target.channel); status != 0) return status;
        return init_channel(adapter, a.target.channel, a.timing, mode);
    });
}

// ---- can send ----

struct SendArgs {
    Target target;
    std::vector<std::string> texts;
    std::vector<VCI_CAN_OBJ> frames;
};

int send(SendArgs& a) {
    return with_can_adapter(a.target.dev, [&](const CanAdapter& adapter) {
        const int ch = a.target.channel;
        if (int status = check_channel(adapter, ch); status != 0) return status;
        const auto n = static_cast<uint32_t>(a.frames.size());
        if (VCI_Transmit(adapter.type, adapter.dev, can_index(ch), a.frames.data(), n) != n) {
            return fail_vci(fmt::format("send on CAN channel {}", ch), adapter, ch);
        }
        return 0;
    });
}

// ---- can dump ----

struct DumpArgs {
    int32_t dev = kAnyCanAdapter;
    std::vector<std::string> texts;
    std::string time;
    uint64_t count = 0;
    uint64_t timeout_ms = 0;
    std::string bitrate;
    std::string log_file;
    bool log_stdout = false;
    // From the texts:
    std::vector<ChannelSpec> channels;
    TimeMode time_mode = TimeMode::none;
    std::optional<BitTiming> timing;
};

struct Received {
    uint64_t time_us;
    int channel;
    CanFrame frame;
};

// Programs the channel's filter banks: one per filter, the rest of its 14 switched off.
int set_filters(const CanAdapter& adapter, const ChannelSpec& wanted) {
    for (int bank = 0; bank < can::kBanksPerChannel; ++bank) {
        auto i = static_cast<std::size_t>(bank);
        VCI_FILTER_CONFIG config =
            i < wanted.filters.size() ? filter_bank(wanted.filters[i], bank) : disabled_bank(bank);
        if (VCI_SetFilter(adapter.type, adapter.dev, can_index(wanted.channel), &config) != STATUS_OK) {
            return fail_vci(fmt::format("set the filters of CAN channel {}", wanted.channel), adapter,
                            wanted.channel);
        }
    }
    return 0;
}

class DumpOutput {
  public:
    explicit DumpOutput(const DumpArgs& a) : a_(a), column_(a.time_mode) {}
    ~DumpOutput() {
        if (file_ != nullptr) std::fclose(file_);
    }
    DumpOutput(const DumpOutput&) = delete;
    DumpOutput& operator=(const DumpOutput&) = delete;

    int open() {
        if (a_.log_file.empty()) return 0;
        file_ = std::fopen(a_.log_file.c_str(), "w");
        if (file_ == nullptr)
            return fail(fmt::format("cannot write {}: {}", a_.log_file, std::strerror(errno)));
        counter_.emplace("logged", a_.count);
        return 0;
    }

    // Writes one frame; false when the output cannot take it.
    bool write(const Received& r) {
        std::string line = a_.log_stdout || file_ != nullptr
                               ? log_line(r.time_us, r.channel, r.frame)
                               : dump_line(column_.next(r.time_us), r.channel, r.frame);
        line += '\n';
        std::FILE* out = file_ != nullptr ? file_ : stdout;
        return std::fputs(line.c_str(), out) >= 0;
    }

    // Ends a pass: everything written so far goes out. Returns an exit status: 0, or 1 after an error
    // line. A reader of stdout that has gone away is not an error: the dump just ends.
    std::optional<int> flush(uint64_t shown) {
        if (counter_) counter_->update(shown);
        std::FILE* out = file_ != nullptr ? file_ : stdout;
        if (std::fflush(out) == 0 && std::ferror(out) == 0) return std::nullopt;
        if (out == stdout && errno == EPIPE) return 0;
        return fail(fmt::format("cannot write {}: {}",
                                out == stdout ? "standard output" : a_.log_file.c_str(),
                                std::strerror(errno)));
    }

  private:
    const DumpArgs& a_;
    TimeColumn column_;
    std::FILE* file_ = nullptr;
    std::optional<Counter> counter_;
};

int dump_frames(const CanAdapter& adapter, DumpArgs& a) {
    if (a.channels.empty()) {
        for (int ch = 1; ch <= adapter.channels; ++ch) a.channels.push_back({ch, {}});
    }
    for (const auto& wanted : a.channels) {
        if (int status = check_channel(adapter, wanted.channel); status != 0) return status;
        if (a.timing) {
            if (int status = init_channel(adapter, wanted.channel, *a.timing, CanMode::normal); status != 0)
                return status;
        }
        if (!wanted.filters.empty()) {
            if (int status = set_filters(adapter, wanted); status != 0) return status;
        }
    }
    DumpOutput output(a);
    if (int status = output.open(); status != 0) return status;
    StopOnSignal stop_on_signal;
    for (const auto& wanted : a.channels) {
        if (VCI_StartCAN(adapter.type, adapter.dev, can_index(wanted.channel)) != STATUS_OK) {
            return fail_vci(fmt::format("start CAN channel {}", wanted.channel), adapter, wanted.channel);
        }
    }

    std::vector<VCI_CAN_OBJ> chunk(kReceiveChunk);
    std::vector<Received> pass;
    Timeline timeline;
    Pacer pacer;
    uint64_t shown = 0;
    while (stop_requested == 0) {
        pass.clear();
        const uint64_t host_now = wall_clock_us();
        for (const auto& wanted : a.channels) {
            uint32_t n = 0;
            do {
                n = VCI_Receive(adapter.type, adapter.dev, can_index(wanted.channel), chunk.data(),
                                kReceiveChunk, 0);
                if (n == kReceiveFailed || n > kReceiveChunk) {
                    return fail_vci(fmt::format("receive on CAN channel {}", wanted.channel), adapter,
                                    wanted.channel);
                }
                for (uint32_t i = 0; i < n; ++i) {
                    CanFrame frame = frame_of(chunk[i]);
                    if (!passes(wanted.filters, frame)) continue;
                    uint64_t time =
                        chunk[i].TimeFlag != 0 ? timeline.place(chunk[i].TimeStamp, host_now) : host_now;
                    pass.push_back({time, wanted.channel, frame});
                }
            } while (n == kReceiveChunk);
        }
        // The two channels' queues are read one after the other: their frames go out in time order.
        std::stable_sort(pass.begin(), pass.end(),
                         [](const Received& x, const Received& y) { return x.time_us < y.time_us; });
        bool done = false;
        for (const auto& r : pass) {
            if (!output.write(r)) break;
            if (++shown == a.count) {
                done = true;
                break;
            }
        }
        if (auto status = output.flush(shown)) return *status;
        if (done || (a.timeout_ms != 0 && pacer.elapsed_us() >= a.timeout_ms * 1000)) break;
        pacer.sleep_until(pacer.elapsed_us() + kDumpPassUs);
    }
    return 0;
}

// ---- can gen ----

struct GenArgs {
    Target target;
    double gap_ms = 200;
    std::string id = "r";
    std::string len;
    std::string data = "r";
    uint64_t count = 0;
    bool extended = false;
    bool remote = false;
    GenSpec wanted;
};

int generate(const GenArgs& a) {
    return with_can_adapter(a.target.dev, [&](const CanAdapter& adapter) {
        const int ch = a.target.channel;
        if (int status = check_channel(adapter, ch); status != 0) return status;
        StopOnSignal stop_on_signal;
        FrameGenerator generator(a.wanted, std::random_device{}());
        std::vector<VCI_CAN_OBJ> batch;
        Counter counter("sent", a.count);
        Pacer pacer;
        const auto gap_us = static_cast<uint64_t>(a.gap_ms * 1000);
        uint64_t sent = 0;
        while (stop_requested == 0 && (a.count == 0 || sent < a.count)) {
            std::size_t n = gap_us == 0 ? kBurst : 1;
            if (a.count != 0) n = static_cast<std::size_t>(std::min<uint64_t>(n, a.count - sent));
            batch.clear();
            for (std::size_t i = 0; i < n; ++i) batch.push_back(transmit_record(generator.next()));
            const auto want = static_cast<uint32_t>(n);
            if (VCI_Transmit(adapter.type, adapter.dev, can_index(ch), batch.data(), want) != want) {
                return fail_vci(fmt::format("send on CAN channel {}", ch), adapter, ch);
            }
            sent += n;
            counter.update(sent);
            if (gap_us != 0 && (a.count == 0 || sent < a.count)) pacer.sleep_until(sent * gap_us);
        }
        return 0;
    });
}

// ---- can status ----

int status(const Target& t) {
    return with_can_adapter(t.dev, [&](const CanAdapter& adapter) {
        if (int rc = check_channel(adapter, t.channel); rc != 0) return rc;
        VCI_CAN_STATUS st{};
        if (VCI_ReadCANStatus(adapter.type, adapter.dev, can_index(t.channel), &st) != STATUS_OK) {
            return fail_vci(fmt::format("read the status of CAN channel {}", t.channel), adapter, t.channel);
        }
        VCI_ERR_INFO errors{};
        VCI_ReadErrInfo(adapter.type, adapter.dev, can_index(t.channel), &errors);
        fmt::print("{}", status_text(st, errors));
        return 0;
    });
}

}  // namespace

void add_can_commands(CLI::App& app, Context& ctx) {
    auto* can_cmd = app.add_subcommand("can", "CAN bus on a CAN adapter, with the habits of can-utils");
    can_cmd->require_subcommand(1);
    can_cmd->footer(
        "Channels are 1 and 2. Frames as cansend writes them: 123#DEADBEEF, 12345678#00 (extended), 123#R "
        "(remote).");

    {
        auto* cmd = can_cmd->add_subcommand("init", "Set a channel up: bit rate and mode");
        auto a = std::make_shared<InitArgs>();
        add_target(*cmd, a->target);
        cmd->add_option("BITRATE", a->bitrate, "Bit rate: 500000, 500k, 1M, ...")->required();
        cmd->add_option("--mode", a->mode, "normal, silent (listen only) or loopback (self-test)")
            ->capture_default_str()
            ->check(CLI::IsMember({"normal", "silent", "loopback"}));
        cmd->callback([&ctx, a] {
            a->timing = timing_of(a->bitrate, "BITRATE");
            ctx.run = [a] { return init(*a); };
        });
    }
    {
        auto* cmd = can_cmd->add_subcommand("send", "Send frames (cansend syntax), all in one transmission");
        auto a = std::make_shared<SendArgs>();
        add_target(*cmd, a->target);
        cmd->add_option("FRAME", a->texts, "Frames: 123#DEADBEEF, 12345678#00, 123#R")->required();
        cmd->callback([&ctx, a] {
            for (const auto& text : a->texts) {
                auto frame = parse_frame(text);
                if (!frame) throw CLI::ValidationError("FRAME", frame.error);
                a->frames.push_back(transmit_record(*frame.value));
            }
            ctx.run = [a] { return send(*a); };
        });
    }
    {
        auto* cmd = can_cmd->add_subcommand("dump", "Print or log the frames received, as candump does");
        auto a = std::make_shared<DumpArgs>();
        add_device_option(*cmd, a->dev);
        cmd->add_option("CH", a->texts,
                        "Channels, each with optional filters: 1, 2, 1,123:7FF,12345678:1FFFFFFF");
        cmd->add_option("-t", a->time, "Time stamps: a absolute, d delta, z from the first frame")
            ->check(CLI::IsMember({"a", "d", "z"}));
        cmd->add_option("-n", a->count, "Stop after this many frames")->transform(number_in(1, UINT32_MAX));
        cmd->add_option("-T", a->timeout_ms, "Stop after this many milliseconds")
            ->transform(number_in(1, UINT32_MAX));
        cmd->add_option("-b,--bitrate", a->bitrate, "Set the channels up at this bit rate first")
            ->type_name("RATE");
        cmd->add_option("-l", a->log_file,
                        "Log the frames to FILE in candump's log format instead of printing them")
            ->type_name("FILE");
        cmd->add_flag("-L", a->log_stdout, "Print the frames in candump's log format");
        cmd->callback([&ctx, a] {
            for (const auto& text : a->texts) {
                auto wanted = parse_channel_spec(text);
                if (!wanted) throw CLI::ValidationError("CH", wanted.error);
                for (const auto& other : a->channels) {
                    if (other.channel == wanted.value->channel) {
                        throw CLI::ValidationError("CH",
                                                   fmt::format("channel {} given twice", other.channel));
                    }
                }
                a->channels.push_back(*wanted.value);
            }
            if (!a->time.empty()) a->time_mode = *parse_time_mode(a->time);
            if (!a->bitrate.empty()) a->timing = timing_of(a->bitrate, "--bitrate");
            ctx.sim_clock = "real";
            ctx.run = [a] {
                return with_can_adapter(a->dev, [a](const CanAdapter& ad) { return dump_frames(ad, *a); });
            };
        });
    }
    {
        auto* cmd = can_cmd->add_subcommand("gen", "Send generated frames, as cangen does");
        auto a = std::make_shared<GenArgs>();
        add_target(*cmd, a->target);
        cmd->add_option("-g", a->gap_ms,
                        "Gap between frames in milliseconds (0: as fast as the adapter takes them)")
            ->capture_default_str()
            ->check(CLI::Range(0.0, 3600000.0));
        cmd->add_option("-I", a->id, "Identifier: i increment, r random, or a hex identifier")
            ->capture_default_str();
        cmd->add_option("-L", a->len, "Data length: i increment, r random (default), or 0 to 8");
        cmd->add_option("-D", a->data, "Data: i increment, r random, or hex bytes (DEADBEEF)")
            ->capture_default_str();
        cmd->add_option("-n", a->count, "Stop after this many frames")->transform(number_in(1, UINT32_MAX));
        cmd->add_flag("-e", a->extended, "Extended (29-bit) identifiers");
        cmd->add_flag("-R", a->remote, "Remote frames");
        cmd->callback([&ctx, a] {
            auto wanted = parse_gen_spec(a->id, a->len, a->data, a->extended, a->remote);
            if (!wanted) throw CLI::ValidationError(wanted.error);
            a->wanted = *wanted.value;
            ctx.sim_clock = "real";
            ctx.run = [a] { return generate(*a); };
        });
    }
    {
        auto* cmd = can_cmd->add_subcommand("status", "Show a channel's controller state and errors");
        auto t = std::make_shared<Target>();
        add_target(*cmd, *t);
        cmd->callback([&ctx, t] { ctx.run = [t] { return status(*t); }; });
    }
}

}  // namespace corvel::cli
