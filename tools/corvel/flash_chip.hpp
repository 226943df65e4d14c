// Serial NOR flash chips as `corvel flash` sees them: what a JEDEC id names, and which erase commands
// clear a range.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvel::cli {

// The common command set of 3-byte-address SPI NOR flash (25-series).
namespace flash_cmd {
inline constexpr uint8_t kReadJedecId = 0x9F;
inline constexpr uint8_t kReadStatus = 0x05;
inline constexpr uint8_t kWriteEnable = 0x06;
inline constexpr uint8_t kPageProgram = 0x02;
inline constexpr uint8_t kRead = 0x03;
inline constexpr uint8_t kSectorErase = 0x20;  // 4 KiB
inline constexpr uint8_t kBlockErase = 0xD8;   // 64 KiB
inline constexpr uint8_t kChipErase = 0xC7;
inline constexpr uint8_t kStatusBusy = 0x01;
inline constexpr uint8_t kStatusWriteEnabled = 0x02;
}  // namespace flash_cmd

inline constexpr uint32_t kFlashPageSize = 256;
inline constexpr uint32_t kFlashSectorSize = 4096;
inline constexpr uint32_t kFlashBlockSize = 65536;
// Three address bytes reach 16 MiB; larger chips are used up to there.
inline constexpr uint64_t kFlashAddressableSize = uint64_t{1} << 24;

using JedecId = std::array<uint8_t, 3>;

// What a JEDEC id tells: the names are "unknown" when the id is not in the tool's tables, and the
// size is missing when it cannot be told from the id.
struct FlashChip {
    std::string manufacturer;
    std::string part;
    std::optional<uint64_t> size;  // bytes
    bool page_program = true;      // false: the part has no 256-byte page program (0x02)
};

FlashChip identify_flash(const JedecId& id);

// "4 MiB", "512 KiB", "100 bytes".
std::string size_text(uint64_t bytes);

// One erase command of a plan: the opcode, the address it is sent with and the bytes it clears.
struct EraseStep {
    uint8_t opcode;
    uint32_t addr;
    uint32_t size;
};

// The erase commands that clear [addr, addr + len) rounded out to whole 4 KiB sectors: a 64 KiB
// block erase for every aligned block inside that range, sector erases for the rest, in address
// order.
std::vector<EraseStep> plan_erase(uint32_t addr, uint32_t len);

}  // namespace corvel::cli
