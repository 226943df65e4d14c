#include "flash_chip.hpp"

#include <fmt/core.h>

namespace corvel::cli {
namespace {

struct Manufacturer {
    uint8_t id;
    std::string_view name;
};

constexpr Manufacturer kManufacturers[] = {
    {0x01, "Spansion/Cypress"},
    {0x1F, "Adesto/Atmel"},
    {0x20, "Micron/Numonyx"},
    {0x9D, "ISSI"},
    {0xBF, "SST"},
    {0xC2, "Macronix"},
    {0xC8, "GigaDevice"},
    {0xEF, "Winbond"},
};

// A series whose third id byte is the capacity as a power of two (0x16: 2^22 bytes, 32 Mbit). The
// part is named by the series' prefix, its density in Mbit and the suffix. Short names write
// densities below 10 Mbit with a trailing 0 (W25Q80 is 8 Mbit); the others use three digits
// (N25Q032).
struct Series {
    uint8_t manufacturer;
    uint8_t type;
    std::string_view prefix;
    std::string_view suffix;
    bool three_digits;
};

constexpr Series kSeries[] = {
    {0xEF, 0x40, "W25Q", "", false},    {0xEF, 0x60, "W25Q", "FW", false}, {0xEF, 0x30, "W25X", "", false},
    {0xC2, 0x20, "MX25L", "xx", false}, {0xC8, 0x40, "GD25Q", "", false},  {0xC8, 0x60, "GD25LQ", "", false},
    {0x20, 0x20, "M25P", "", false},    {0x20, 0xBA, "N25Q", "", true},    {0x20, 0xBB, "N25Q", "", true},
    {0x9D, 0x60, "IS25LP", "", true},   {0x9D, 0x70, "IS25WP", "", true},  {0x01, 0x40, "S25FL1", "K", false},
    {0x01, 0x60, "S25FL", "L", true},
};
constexpr uint8_t kSmallestCapacity = 0x11;  // 1 Mbit
constexpr uint8_t kLargestCapacity = 0x19;   // 256 Mbit

// Parts whose id does not follow that rule.
struct Part {
    JedecId id;
    std::string_view name;
    uint64_t size;
    bool page_program = true;
};

constexpr uint64_t kKiB = 1024;
constexpr uint64_t kMiB = 1024 * kKiB;

constexpr Part kParts[] = {
    {{0x01, 0x02, 0x14}, "S25FL016A", 2 * kMiB},
    {{0x01, 0x02, 0x15}, "S25FL032P", 4 * kMiB},
    {{0x01, 0x02, 0x16}, "S25FL064P", 8 * kMiB},
    {{0x01, 0x20, 0x18}, "S25FL128S", 16 * kMiB},
    {{0x01, 0x02, 0x19}, "S25FL256S", 32 * kMiB},
    // The SST25VF016B and 032B program a byte or a word at a time (auto address increment).
    {{0xBF, 0x25, 0x41}, "SST25VF016B", 2 * kMiB, false},
    {{0xBF, 0x25, 0x4A}, "SST25VF032B", 4 * kMiB, false},
    {{0xBF, 0x25, 0x4B}, "SST25VF064C", 8 * kMiB},
    {{0xBF, 0x26, 0x41}, "SST26VF016B", 2 * kMiB},
    {{0xBF, 0x26, 0x42}, "SST26VF032B", 4 * kMiB},
    {{0xBF, 0x26, 0x43}, "SST26VF064B", 8 * kMiB},
    {{0x1F, 0x44, 0x01}, "AT25DF041A", 512 * kKiB},
    {{0x1F, 0x47, 0x00}, "AT25DF321", 4 * kMiB},
    {{0x1F, 0x47, 0x01}, "AT25DF321A", 4 * kMiB},
    {{0x1F, 0x48, 0x00}, "AT25DF641", 8 * kMiB},
    {{0x1F, 0x84, 0x01}, "AT25SF041", 512 * kKiB},
    {{0x1F, 0x85, 0x01}, "AT25SF081", 1 * kMiB},
    {{0x1F, 0x86, 0x01}, "AT25SF161", 2 * kMiB},
    {{0x1F, 0x87, 0x01}, "AT25SF321", 4 * kMiB},
};

std::string series_name(const Series& s, uint64_t mbit) {
    if (s.three_digits) return fmt::format("{}{:03}{}", s.prefix, mbit, s.suffix);
    return fmt::format("{}{}{}", s.prefix, mbit < 10 ? mbit * 10 : mbit, s.suffix);
}

}  // namespace

FlashChip identify_flash(const JedecId& id) {
    FlashChip chip{"unknown", "unknown", std::nullopt};
    for (const auto& m : kManufacturers) {
        if (m.id == id[0]) chip.manufacturer = m.name;
    }
    for (const auto& p : kParts) {
        if (p.id == id) {
            chip.part = p.name;
            chip.size = p.size;
            chip.page_program = p.page_program;
            return chip;
        }
    }
    if (id[2] < kSmallestCapacity || id[2] > kLargestCapacity) return chip;
    for (const auto& s : kSeries) {
        if (s.manufacturer == id[0] && s.type == id[1]) {
            uint64_t size = uint64_t{1} << id[2];
            chip.part = series_name(s, size * 8 / kMiB);
            chip.size = size;
            return chip;
        }
    }
    return chip;
}

std::string size_text(uint64_t bytes) {
    if (bytes != 0 && bytes % kMiB == 0) return fmt::format("{} MiB", bytes / kMiB);
    if (bytes != 0 && bytes % kKiB == 0) return fmt::format("{} KiB", bytes / kKiB);
    return fmt::format("{} bytes", bytes);
}

std::vector<EraseStep> plan_erase(uint32_t addr, uint32_t len) {
    std::vector<EraseStep> steps;
    uint64_t pos = addr / kFlashSectorSize * kFlashSectorSize;
    const uint64_t end = (uint64_t{addr} + len + kFlashSectorSize - 1) / kFlashSectorSize * kFlashSectorSize;
    while (pos < end) {
        bool whole_block = pos % kFlashBlockSize == 0 && pos + kFlashBlockSize <= end;
        uint32_t size = whole_block ? kFlashBlockSize : kFlashSectorSize;
        steps.push_back({whole_block ? flash_cmd::kBlockErase : flash_cmd::kSectorErase,
                         static_cast<uint32_t>(pos), size});
        pos += size;
    }
    return steps;
}

}  // namespace corvel::cli
