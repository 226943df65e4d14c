#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "output.hpp"

namespace corvel::cli {
namespace {

using Bytes = std::vector<uint8_t>;

// What `hexdump -C` prints where `corvel i2c dump` does not go: the printable range's edges, a short
// last line equal to the one before (still shown, not collapsed), a base offset, no bytes.
TEST(Hexdump, EdgesOfThePrintableRangeAndOfTheCollapse) {
    const struct {
        Bytes bytes;
        uint64_t base;
        std::string expected;
    } cases[] = {
        {{0x1f, 0x20, 0x7e, 0x7f, 0x80, 0xff, 0x41, 0x7a, 0x30},
         0,
         "00000000  1f 20 7e 7f 80 ff 41 7a  30                       |. ~...Az0|\n"
         "00000009\n"},
        {Bytes(40, 0xff), 0,
         "00000000  ff ff ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  |................|\n"
         "*\n"
         "00000020  ff ff ff ff ff ff ff ff                           |........|\n"
         "00000028\n"},
        {{0x01, 0x02}, 0x1f0, "000001f0  01 02                                             |..|\n000001f2\n"},
        {{}, 0, ""}};
    for (const auto& c : cases) EXPECT_EQ(hexdump(c.bytes, c.base), c.expected);
}

// Random data with runs, compared with the system's hexdump when it is installed.
TEST(Hexdump, AgreesWithSystemHexdumpOnRandomData) {
    if (std::system("command -v hexdump >/dev/null") != 0) GTEST_SKIP() << "hexdump is not installed";
    const std::string path = testing::TempDir() + "hexdump_input_" + std::to_string(getpid()) + ".bin";
    std::mt19937 rng(7);
    for (int round = 0; round < 20; ++round) {
        Bytes data;
        for (std::size_t blocks = rng() % 12; blocks > 0; --blocks) {
            const bool run = rng() % 2 == 0;
            const uint8_t v = static_cast<uint8_t>(rng());
            for (std::size_t len = rng() % 80; len > 0; --len) data.push_back(run ? v : uint8_t(rng()));
        }
        std::FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        if (!data.empty()) std::fwrite(data.data(), 1, data.size(), f);
        std::fclose(f);
        std::FILE* p = popen(("hexdump -C " + path).c_str(), "r");
        ASSERT_NE(p, nullptr);
        std::string expected;
        char chunk[4096];
        for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, p)) > 0;) expected.append(chunk, n);
        pclose(p);
        ASSERT_EQ(hexdump(data), expected) << "round " << round << ", " << data.size() << " bytes";
    }
    std::remove(path.c_str());
}

// Drawn on a terminal only, so the end-to-end runs never see it.
TEST(ProgressLine, BarPercentAndCount) {
    const struct {
        uint64_t done, total;
        const char* expected;
    } cases[] = {
        {0, 1024, "read [..........]   0%  0/1024"},
        {512, 1024, "read [#####.....]  50%  512/1024"},
        {2000, 1024, "read [##########] 100%  1024/1024"},  // more than announced: complete, not past it
        {0, 0, "read [##########] 100%  0/0"}};
    for (const auto& c : cases) EXPECT_EQ(progress_line("read", c.done, c.total, 10), c.expected);
}

}  // namespace
}  // namespace corvel::cli
