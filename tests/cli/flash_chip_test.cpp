#include <gtest/gtest.h>

#include <iterator>
#include <optional>
#include <string>

#include "flash_chip.hpp"

namespace corvel::cli {
namespace {

// The two ways an id is named (a series by its capacity byte, a part listed on its own) and where
// the tables stop: a capacity byte outside the series' range, an unknown manufacturer.
TEST(IdentifyFlash, SeriesPartsAndUnknowns) {
    const struct {
        JedecId id;
        std::string manufacturer, part;
        std::optional<uint64_t> size;
    } cases[] = {
        {{0xEF, 0x40, 0x16}, "Winbond", "W25Q32", 4u << 20},
        {{0xEF, 0x40, 0x14}, "Winbond", "W25Q80", 1u << 20},
        {{0x20, 0xBA, 0x18}, "Micron/Numonyx", "N25Q128", 16u << 20},
        {{0xC2, 0x20, 0x17}, "Macronix", "MX25L64xx", 8u << 20},
        {{0x01, 0x02, 0x15}, "Spansion/Cypress", "S25FL032P", 4u << 20},
        {{0x1F, 0x47, 0x01}, "Adesto/Atmel", "AT25DF321A", 4u << 20},
        {{0xEF, 0x40, 0x25}, "Winbond", "unknown", std::nullopt},
        {{0x12, 0x40, 0x16}, "unknown", "unknown", std::nullopt},
    };
    for (const auto& c : cases) {
        auto chip = identify_flash(c.id);
        EXPECT_EQ(chip.manufacturer, c.manufacturer) << c.part;
        EXPECT_EQ(chip.part, c.part);
        EXPECT_EQ(chip.size, c.size) << c.part;
        EXPECT_TRUE(chip.page_program) << c.part;
    }
    EXPECT_FALSE(identify_flash({0xBF, 0x25, 0x4A}).page_program);
}

// A range rounded out to sectors, with the aligned 64 KiB blocks inside it erased as blocks.
TEST(PlanErase, BlocksWhereWholeSectorsElsewhere) {
    auto steps = plan_erase(0xE800, 0x21FF0 - 0xE800);
    const EraseStep expected[] = {{flash_cmd::kSectorErase, 0xE000, 0x1000},
                                  {flash_cmd::kSectorErase, 0xF000, 0x1000},
                                  {flash_cmd::kBlockErase, 0x10000, 0x10000},
                                  {flash_cmd::kSectorErase, 0x20000, 0x1000},
                                  {flash_cmd::kSectorErase, 0x21000, 0x1000}};
    ASSERT_EQ(steps.size(), std::size(expected));
    for (std::size_t i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(steps[i].opcode, expected[i].opcode) << i;
        EXPECT_EQ(steps[i].addr, expected[i].addr) << i;
        EXPECT_EQ(steps[i].size, expected[i].size) << i;
    }
    EXPECT_TRUE(plan_erase(0x1000, 0).empty());
    // A block-aligned range is blocks only, up to the last one that 3-byte addresses reach.
    auto top = plan_erase(0xFE0000, 0x20000);
    ASSERT_EQ(top.size(), 2u);
    EXPECT_EQ(top[1].addr, 0xFF0000u);
    EXPECT_EQ(top[1].opcode, flash_cmd::kBlockErase);
}

}  // namespace
}  // namespace corvel::cli
