// Serial NOR flash on an SPI channel: identify the chip, read, write and erase it. The 25-series
// commands go out as plain SPI transfers, so any such chip works without being described to the
// adapter's flash engine first, and erasing is under the tool's control.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "context.hpp"
#include "corvel/protocol.hpp"
#include "flash_chip.hpp"
#include "numbers.hpp"
#include "output.hpp"
#include "spi_adapter.hpp"

namespace corvel::cli {
namespace {

constexpr uint32_t kReadChunk = 65536;
constexpr uint32_t kDefaultSpeed = 12000000;

// How long a busy chip is polled: the pause between two status reads and the most the pauses may
// add up to before the chip counts as stuck. Generous against the data sheets' maximum times.
struct BusyWait {
    useconds_t interval_us;
    uint64_t budget_us;
};
constexpr BusyWait kPageWait{100, 100'000};
constexpr BusyWait kSectorWait{1'000, 5'000'000};
constexpr BusyWait kBlockWait{5'000, 10'000'000};
constexpr BusyWait kChipWait{50'000, 400'000'000};

struct Args {
    int32_t dev = kAnyAdapter;
    int32_t channel = 0;
    uint32_t speed = kDefaultSpeed;
    uint32_t addr = 0;
    uint32_t len = 0;
    std::string file;
    bool verify = false;
};

// One chip on one channel of an open adapter.
struct Flash {
    int32_t dev;
    int32_t channel;
    JedecId id{};
    FlashChip chip;
};

std::vector<uint8_t> command(uint8_t opcode, uint32_t addr) {
    return {opcode, static_cast<uint8_t>(addr >> 16), static_cast<uint8_t>(addr >> 8),
            static_cast<uint8_t>(addr)};
}

// "corvel: <message>" and the usage status: the command line asked for something this chip cannot do.
int refuse(std::string_view message) {
    fail(message);
    return kExitUsage;
}

int read_status(const Flash& f, uint8_t& status, std::string_view what) {
    const uint8_t cmd = flash_cmd::kReadStatus;
    if (int32_t rc = spi_write_read(f.dev, f.channel, {&cmd, 1}, {&status, 1}); rc != 0) {
        return fail(fmt::format("read the flash status {}", what), rc);
    }
    return 0;
}

// Polls the status until BUSY clears, sleeping between polls; a chip still busy when the budget is
// spent is reported, so a stuck or absent chip never hangs the tool.
int wait_ready(const Flash& f, const BusyWait& wait, std::string_view what) {
    uint64_t waited = 0;
    for (;;) {
        uint8_t status = 0;
        if (int status_rc = read_status(f, status, fmt::format("after {}", what)); status_rc != 0)
            return status_rc;
        if ((status & flash_cmd::kStatusBusy) == 0) return 0;
        if (waited >= wait.budget_us) {
            return fail(fmt::format("{}: the flash is still busy after {} ms (status 0x{:02x})", what,
                                    wait.budget_us / 1000, status));
        }
        usleep(wait.interval_us);
        waited += wait.interval_us;
    }
}

// Write enable before a program or an erase. Before an erase the status is read back: a chip that
// does not set WEL (absent, write-protected) is reported there instead of failing without a word.
int write_enable(const Flash& f, bool check, std::string_view what) {
    const uint8_t cmd = flash_cmd::kWriteEnable;
    if (int32_t rc = spi_write(f.dev, f.channel, {&cmd, 1}); rc != 0) {
        return fail(fmt::format("write enable for {}", what), rc);
    }
    if (!check) return 0;
    uint8_t status = 0;
    if (int rc = read_status(f, status, fmt::format("for {}", what)); rc != 0) return rc;
    if ((status & flash_cmd::kStatusWriteEnabled) == 0) {
        return fail(
            fmt::format("{}: the flash does not take write enable (status 0x{:02x}); is it write-protected?",
                        what, status));
    }
    return 0;
}

int read_flash(const Flash& f, uint32_t addr, std::span<uint8_t> out, std::string_view label) {
    Progress progress(std::string(label), out.size());
    for (std::size_t done = 0; done < out.size(); done += kReadChunk) {
        auto chunk = out.subspan(done, std::min<std::size_t>(kReadChunk, out.size() - done));
        const uint32_t at = addr + static_cast<uint32_t>(done);
        if (int32_t rc = spi_write_read(f.dev, f.channel, command(flash_cmd::kRead, at), chunk); rc != 0) {
            return fail(fmt::format("read the flash at 0x{:06x}", at), rc);
        }
        progress.update(done + chunk.size());
    }
    return 0;
}

int erase_steps(const Flash& f, const std::vector<EraseStep>& steps) {
    uint64_t total = 0;
    for (const auto& s : steps) total += s.size;
    Progress progress("erase", total);
    uint64_t done = 0;
    for (const auto& s : steps) {
        const bool chip = s.opcode == flash_cmd::kChipErase;
        const std::string what = chip ? std::string("chip erase") : fmt::format("erase at 0x{:06x}", s.addr);
        int rc = write_enable(f, true, what);
        if (rc == 0) {
            auto cmd = command(s.opcode, s.addr);
            if (chip) cmd.resize(1);
            if (int32_t sent = spi_write(f.dev, f.channel, cmd); sent != 0) rc = fail(what, sent);
        }
        if (rc == 0) {
            rc = wait_ready(f, chip ? kChipWait : s.size == kFlashBlockSize ? kBlockWait : kSectorWait, what);
        }
        if (rc != 0) return rc;
        done += s.size;
        progress.update(done);
    }
    return 0;
}

// Programs `image` from `addr` (page aligned) on erased flash, a page per command. Pages that are
// all 0xFF are what the erase left and are skipped.
int program(const Flash& f, uint32_t addr, std::span<const uint8_t> image) {
    Progress progress("write", image.size());
    std::vector<uint8_t> cmd;
    for (std::size_t off = 0; off < image.size(); off += kFlashPageSize) {
        auto page = image.subspan(off, std::min<std::size_t>(kFlashPageSize, image.size() - off));
        if (off % kFlashSectorSize == 0) progress.update(off);
        if (std::all_of(page.begin(), page.end(), [](uint8_t b) { return b == 0xFF; })) continue;
        const uint32_t at = addr + static_cast<uint32_t>(off);
        const std::string what = fmt::format("program the page at 0x{:06x}", at);
        cmd = command(flash_cmd::kPageProgram, at);
        cmd.insert(cmd.end(), page.begin(), page.end());
        int rc = write_enable(f, false, what);
        if (rc == 0) {
            if (int32_t sent = spi_write(f.dev, f.channel, cmd); sent != 0) rc = fail(what, sent);
        }
        if (rc == 0) rc = wait_ready(f, kPageWait, what);
        if (rc != 0) return rc;
    }
    progress.update(image.size());
    return 0;
}

// Opens the adapter, sets the channel up for the chip (mode 0, MSB first, 8 bits), reads the JEDEC
// id and runs `body`. An id of all zeros or all ones is no chip at all.
int on_flash(const Args& a, const std::function<int(Flash&)>& body) {
    return with_spi_adapter(a.dev, [&](int32_t dev) {
        SpiSetup setup;
        setup.speed = a.speed;
        if (int32_t rc = spi_init(dev, a.channel, setup); rc != 0) {
            return fail(fmt::format("set up SPI channel {}", a.channel), rc);
        }
        Flash f{dev, a.channel, {}, {}};
        const uint8_t cmd = flash_cmd::kReadJedecId;
        if (int32_t rc = spi_write_read(dev, a.channel, {&cmd, 1}, f.id); rc != 0) {
            return fail("read the JEDEC id", rc);
        }
        if (f.id == JedecId{0, 0, 0} || f.id == JedecId{0xFF, 0xFF, 0xFF}) {
            return fail(
                fmt::format("no flash answers on SPI channel {} (JEDEC id {})", a.channel, hex_bytes(f.id)));
        }
        f.chip = identify_flash(f.id);
        return body(f);
    });
}

// The part of the chip that 3-byte addresses reach; nothing (after an error line) when the id
// does not tell the size.
std::optional<uint64_t> usable_size(const Flash& f) {
    if (!f.chip.size) {
        fail(fmt::format("cannot tell the size of the flash from its JEDEC id {}", hex_bytes(f.id)));
        return std::nullopt;
    }
    return std::min(*f.chip.size, kFlashAddressableSize);
}

// Checks that [addr, addr + len) lies on the chip.
int check_range(const Flash& f, uint64_t addr, uint64_t len, uint64_t size) {
    if (addr + len <= size) return 0;
    return refuse(fmt::format("0x{:06x} + {} bytes runs past the end of the flash ({}{})", addr, len,
                              size_text(size), size < *f.chip.size ? " that 3-byte addresses reach" : ""));
}

int show_id(const Args& a) {
    return on_flash(a, [](Flash& f) {
        fmt::print("jedec id:     {}\n", hex_bytes(f.id));
        fmt::print("manufacturer: {}\n", f.chip.manufacturer);
        fmt::print("part:         {}\n", f.chip.part);
        fmt::print("size:         {}\n", f.chip.size ? size_text(*f.chip.size) : "unknown");
        return 0;
    });
}

int read_command(const Args& a) {
    std::vector<uint8_t> data(a.len);
    int status = on_flash(a, [&](Flash& f) {
        auto size = usable_size(f);
        if (!size) return kExitFailure;
        if (int rc = check_range(f, a.addr, a.len, *size); rc != 0) return rc;
        return read_flash(f, a.addr, data, "read");
    });
    if (status != 0) return status;
    if (a.file.empty()) {
        fmt::print("{}", hexdump(data, a.addr));
        return 0;
    }
    std::ofstream out(a.file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    out.close();
    if (!out) return fail(fmt::format("cannot write {}", a.file));
    return 0;
}

// Erases the 4 KiB sectors the data touch and programs them again: the bytes of those sectors
// outside the data are read first and written back, so only the data change.
int write_command(const Args& a) {
    std::ifstream in(a.file, std::ios::binary);
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) return fail(fmt::format("cannot read {}", a.file));
    if (data.size() > kFlashAddressableSize) {
        return refuse(
            fmt::format("{} holds {} bytes, more than any flash this tool writes", a.file, data.size()));
    }
    if (data.empty()) return 0;
    return on_flash(a, [&](Flash& f) {
        auto size = usable_size(f);
        if (!size) return kExitFailure;
        if (int rc = check_range(f, a.addr, data.size(), *size); rc != 0) return rc;
        if (!f.chip.page_program) {
            return refuse(
                fmt::format("the {} has no page program command; writing it is not supported", f.chip.part));
        }
        const uint32_t start = a.addr / kFlashSectorSize * kFlashSectorSize;
        const uint64_t data_end = uint64_t{a.addr} + data.size();
        const auto end =
            static_cast<uint32_t>((data_end + kFlashSectorSize - 1) / kFlashSectorSize * kFlashSectorSize);
        std::vector<uint8_t> image(end - start);
        const std::size_t head = a.addr - start;
        const std::size_t tail_at = head + data.size();
        if (head != 0) {
            if (int rc = read_flash(f, start, std::span(image).first(head), "read"); rc != 0) return rc;
        }
        if (tail_at != image.size()) {
            auto tail = std::span(image).subspan(tail_at);
            if (int rc = read_flash(f, start + static_cast<uint32_t>(tail_at), tail, "read"); rc != 0)
                return rc;
        }
        std::copy(data.begin(), data.end(), image.begin() + static_cast<std::ptrdiff_t>(head));

        if (int rc = erase_steps(f, plan_erase(start, end - start)); rc != 0) return rc;
        if (int rc = program(f, start, image); rc != 0) return rc;
        if (!a.verify) return 0;
        std::vector<uint8_t> back(image.size());
        if (int rc = read_flash(f, start, back, "verify"); rc != 0) return rc;
        auto [mine, theirs] = std::mismatch(image.begin(), image.end(), back.begin());
        if (mine != image.end()) {
            return fail(fmt::format("verify: the flash holds 0x{:02x} at 0x{:06x} where 0x{:02x} was written",
                                    *theirs, start + (mine - image.begin()), *mine));
        }
        return 0;
    });
}

int erase_command(const Args& a, bool whole_chip) {
    return on_flash(a, [&](Flash& f) {
        auto size = usable_size(f);
        if (!size) return kExitFailure;
        if (whole_chip) return erase_steps(f, {{flash_cmd::kChipErase, 0, static_cast<uint32_t>(*size)}});
        if (int rc = check_range(f, a.addr, a.len, *size); rc != 0) return rc;
        return erase_steps(f, plan_erase(a.addr, a.len));
    });
}

void add_target_options(CLI::App& cmd, Args& a) {
    cmd.add_option("-d,--device", a.dev, "Device index (see `corvel list`); default: the first SPI adapter");
    cmd.add_option("-c,--channel", a.channel, "SPI channel (chip select) the flash is on")
        ->capture_default_str()
        ->transform(number_in(0, proto::spi::kMaxChannel));
    cmd.add_option("--speed", a.speed, "SPI clock in Hz")
        ->capture_default_str()
        ->transform(number_in(proto::spi::kMinClockHz, proto::spi::kMaxClockHzEx));
}

CLI::Option* add_address(CLI::App& cmd, Args& a) {
    return cmd.add_option("ADDR", a.addr, "Start address in the flash")
        ->transform(number_in(0, kFlashAddressableSize - 1, true));
}

CLI::Option* add_length(CLI::App& cmd, Args& a) {
    return cmd.add_option("LEN", a.len, "Number of bytes")->transform(number_in(1, kFlashAddressableSize));
}

}  // namespace

void add_flash_commands(CLI::App& app, Context& ctx) {
    auto* flash = app.add_subcommand("flash", "Serial NOR flash (25-series) on an SPI channel");
    flash->require_subcommand(1);
    flash->footer("Addresses and lengths are decimal, or hexadecimal after 0x.");

    {
        auto* cmd = flash->add_subcommand("id", "Show the JEDEC id, manufacturer, part and size");
        auto a = std::make_shared<Args>();
        add_target_options(*cmd, *a);
        cmd->callback([&ctx, a] { ctx.run = [a] { return show_id(*a); }; });
    }
    {
        auto* cmd =
            flash->add_subcommand("read", "Read LEN bytes from ADDR: a hex dump, or raw bytes to a file");
        auto a = std::make_shared<Args>();
        add_target_options(*cmd, *a);
        add_address(*cmd, *a)->required();
        add_length(*cmd, *a)->required();
        cmd->add_option("-o,--output", a->file, "Write the bytes to FILE instead of a hex dump");
        cmd->callback([&ctx, a] { ctx.run = [a] { return read_command(*a); }; });
    }
    {
        auto* cmd =
            flash->add_subcommand("write", "Write FILE at ADDR: erase what it covers, program, verify");
        auto a = std::make_shared<Args>();
        add_target_options(*cmd, *a);
        add_address(*cmd, *a)->required();
        cmd->add_option("FILE", a->file, "The bytes to write")->required()->check(CLI::ExistingFile);
        cmd->add_flag("--verify", a->verify, "Read the written sectors back and compare");
        cmd->callback([&ctx, a] { ctx.run = [a] { return write_command(*a); }; });
    }
    {
        auto* cmd =
            flash->add_subcommand("erase", "Erase LEN bytes from ADDR (4 KiB aligned), or the whole chip");
        auto a = std::make_shared<Args>();
        add_target_options(*cmd, *a);
        auto* addr = add_address(*cmd, *a);
        auto* len = add_length(*cmd, *a);
        cmd->callback([&ctx, a, addr, len] {
            if (addr->count() != len->count())
                throw CLI::ValidationError("LEN", "give both ADDR and LEN, or neither");
            const bool whole_chip = addr->count() == 0;
            if (!whole_chip && (a->addr % kFlashSectorSize != 0 || a->len % kFlashSectorSize != 0)) {
                throw CLI::ValidationError(
                    "ADDR", fmt::format("0x{:x} + 0x{:x} is not a range of whole 4 KiB sectors (both must be "
                                        "multiples of 0x1000)",
                                        a->addr, a->len));
            }
            ctx.run = [a, whole_chip] { return erase_command(*a, whole_chip); };
        });
    }
}

}  // namespace corvel::cli
