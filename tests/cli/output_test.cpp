#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "output.hpp"

namespace corvel::cli {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes repeat(std::size_t n, uint8_t value) {
    return Bytes(n, value);
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST(HexBytes, TwoLowercaseDigitsSeparatedBySpaces) {
    EXPECT_EQ(hex_bytes(Bytes{}), "");
    EXPECT_EQ(hex_bytes(Bytes{0x0b}), "0b");
    EXPECT_EQ(hex_bytes(Bytes{0x00, 0x00, 0x0b, 0x00, 0x02, 0x01, 0x00, 0x05}), "00 00 0b 00 02 01 00 05");
    EXPECT_EQ(hex_bytes(Bytes{0xde, 0xAD, 0xff}), "de ad ff");
}

struct DumpCase {
    const char* name;
    Bytes bytes;
    uint64_t base;
    std::string expected;  // as `hexdump -C` prints it
    friend void PrintTo(const DumpCase& c, std::ostream* os) { *os << c.name; }
};

class Hexdump : public testing::TestWithParam<DumpCase> {};

TEST_P(Hexdump, MatchesHexdumpC) {
    EXPECT_EQ(hexdump(GetParam().bytes, GetParam().base), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Hexdump,
    testing::Values(
        DumpCase{"empty", {}, 0, ""},
        DumpCase{"printable_edges",
                 {0x1f, 0x20, 0x7e, 0x7f, 0x80, 0xff, 0x41, 0x7a, 0x30},
                 0,
                 "00000000  1f 20 7e 7f 80 ff 41 7a  30                       |. ~...Az0|\n"
                 "00000009\n"},
        DumpCase{"squeeze", concat({repeat(32, 0), {0x78}, repeat(16, 0)}), 0,
                 "00000000  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |................|\n"
                 "*\n"
                 "00000020  78 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  |x...............|\n"
                 "00000030  00                                                |.|\n"
                 "00000031\n"},
        // A short last line equal in its bytes to the line before is still shown.
        DumpCase{"short_tail_not_squeezed", repeat(40, 0xff), 0,
                 "00000000  ff ff ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  |................|\n"
                 "*\n"
                 "00000020  ff ff ff ff ff ff ff ff                           |........|\n"
                 "00000028\n"},
        DumpCase{"base_offset",
                 {0x01, 0x02},
                 0x1f0,
                 "000001f0  01 02                                             |..|\n"
                 "000001f2\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// Random data with runs, compared with the system's hexdump when it is installed.
TEST(Hexdump, AgreesWithSystemHexdumpOnRandomData) {
    std::FILE* probe = popen("command -v hexdump", "r");
    char found[256] = {};
    bool have = probe != nullptr && std::fgets(found, sizeof found, probe) != nullptr;
    if (probe != nullptr) pclose(probe);
    if (!have) GTEST_SKIP() << "hexdump is not installed";

    std::mt19937 rng(7);
    for (int round = 0; round < 20; ++round) {
        Bytes data;
        std::size_t blocks = rng() % 12;
        for (std::size_t b = 0; b < blocks; ++b) {
            std::size_t len = rng() % 80;  // runs long enough to repeat whole lines
            bool run = rng() % 2 == 0;
            uint8_t v = static_cast<uint8_t>(rng());
            for (std::size_t i = 0; i < len; ++i) data.push_back(run ? v : static_cast<uint8_t>(rng()));
        }
        std::string path = testing::TempDir() + "hexdump_input_" + std::to_string(getpid()) + ".bin";
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
        std::remove(path.c_str());
        ASSERT_EQ(hexdump(data), expected) << "round " << round << ", " << data.size() << " bytes";
    }
}

struct ProgressCase {
    uint64_t done, total;
    std::string expected;
    friend void PrintTo(const ProgressCase& c, std::ostream* os) { *os << c.done << "/" << c.total; }
};

class ProgressLine : public testing::TestWithParam<ProgressCase> {};

TEST_P(ProgressLine, BarPercentAndCount) {
    EXPECT_EQ(progress_line("read", GetParam().done, GetParam().total, 10), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, ProgressLine,
                         testing::Values(ProgressCase{0, 1024, "read [..........]   0%  0/1024"},
                                         ProgressCase{512, 1024, "read [#####.....]  50%  512/1024"},
                                         ProgressCase{1024, 1024, "read [##########] 100%  1024/1024"},
                                         // More than announced is shown as complete, not past it.
                                         ProgressCase{2000, 1024, "read [##########] 100%  1024/1024"},
                                         ProgressCase{0, 0, "read [##########] 100%  0/0"}));

TEST(Progress, DrawsNothingWhenNotOnATerminal) {
    std::FILE* sink = std::tmpfile();
    ASSERT_NE(sink, nullptr);
    {
        Progress progress("job", 10, sink);
        progress.update(5);
    }
    EXPECT_EQ(std::ftell(sink), 0);
    std::fclose(sink);
}

}  // namespace
}  // namespace corvel::cli
