#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "can_format.hpp"

namespace corvel::cli {
namespace {

CanFrame frame(const char* text) {
    auto parsed = parse_frame(text);
    EXPECT_TRUE(parsed) << text << ": " << parsed.error;
    return parsed.value.value_or(CanFrame{});
}

// cansend's syntax in; candump's log and screen forms out.
TEST(CanFrameText, ParsedAndPrinted) {
    const struct {
        const char* in;
        const char* compact;
        const char* screen;
    } cases[] = {
        {"123#DEADBEEF", "123#DEADBEEF", "123   [4]  DE AD BE EF"},
        {"7ff#de.ad.be.ef", "7FF#DEADBEEF", "7FF   [4]  DE AD BE EF"},
        {"12345678#00", "12345678#00", "12345678   [1]  00"},
        {"00000001#0102030405060708", "00000001#0102030405060708", "00000001   [8]  01 02 03 04 05 06 07 08"},
        {"000#", "000#", "000   [0] "},
        {"123#R", "123#R", "123   [0]  remote request"},
        {"1FFFFFFF#r4", "1FFFFFFF#R4", "1FFFFFFF   [4]  remote request"},
    };
    for (const auto& c : cases) {
        CanFrame f = frame(c.in);
        EXPECT_EQ(compact_frame(f), c.compact) << c.in;
        EXPECT_EQ(long_frame(f), c.screen) << c.in;
    }
    EXPECT_TRUE(frame("12345678#00").extended);
    EXPECT_TRUE(frame("123#R").remote);
}

TEST(CanFrameText, Refused) {
    const std::pair<const char*, const char*> cases[] = {
        {"123", "'123' is not a frame: write ID#DATA (123#DEADBEEF), or ID#R for a remote frame"},
        {"12#00", "'12#00': identifier '12' must have 3 hex digits (standard) or 8 (extended)"},
        {"800#00", "'800#00': identifier 800 is above 7FF"},
        {"20000000#", "'20000000#': identifier 20000000 is above 1FFFFFFF"},
        {"12G#00", "'12G#00': identifier '12G' is not hexadecimal"},
        {"123#DEA", "'123#DEA': data 'DEA' has a byte with one hex digit"},
        {"123#D.EA", "'123#D.EA': data 'D.EA' has a byte with one hex digit"},
        {"123#XY", "'123#XY': data 'XY' is not hexadecimal"},
        {"123#000102030405060708",
         "'123#000102030405060708': data '000102030405060708' has more than 8 bytes"},
        {"123#R9", "'123#R9': a remote frame takes a length of 0 to 8 after R"},
        {"123##100", "'123##100': CAN FD frames (##) are not supported"},
    };
    for (const auto& [in, error] : cases) EXPECT_EQ(parse_frame(in).error, error);
}

TEST(CanDumpLines, ScreenAndLog) {
    EXPECT_EQ(dump_line("", 1, frame("123#DEADBEEF")), "  can1  123   [4]  DE AD BE EF");
    EXPECT_EQ(dump_line("(1700000000.123456) ", 2, frame("123#R")),
              " (1700000000.123456)  can2  123   [0]  remote request");
    EXPECT_EQ(log_line(1700000000123456, 1, frame("123#DEADBEEF")), "(1700000000.123456) can1 123#DEADBEEF");
    EXPECT_EQ(log_line(5, 2, frame("12345678#00")), "(0000000000.000005) can2 12345678#00");
}

TEST(CanTimes, ColumnsAndStampsAcrossTheWrap) {
    const std::pair<TimeMode, std::vector<std::string>> columns[] = {
        {TimeMode::absolute, {"(1700000000.000000) ", "(1700000000.100000) ", "(1700000002.500000) "}},
        {TimeMode::delta, {"(000.000000) ", "(000.100000) ", "(002.400000) "}},
        {TimeMode::zero, {"(000.000000) ", "(000.100000) ", "(002.500000) "}},
        {TimeMode::none, {"", "", ""}}};
    for (const auto& [mode, expected] : columns) {
        TimeColumn column(mode);
        std::vector<std::string> got;
        for (uint64_t t : {1700000000000000u, 1700000000100000u, 1700000002500000u})
            got.push_back(column.next(t));
        EXPECT_EQ(got, expected);
    }
    // Stamps in 100 us units: anchored at the host time of the first, then by their differences,
    // across the 32-bit wrap and back for a slightly older stamp. Later host times do not count.
    Timeline line;
    EXPECT_EQ(line.place(0xFFFFFFF0, 1000000), 1000000u);
    EXPECT_EQ(line.place(0x00000010, 9999999), 1003200u);
    EXPECT_EQ(line.place(0x00000008, 9999999), 1002400u);
}

TEST(CanFilters, ParsedMatchedAndPutInBanks) {
    auto wanted = parse_channel_spec("2,123:7FF,12345678:1FFFFFF0");
    ASSERT_TRUE(wanted) << wanted.error;
    EXPECT_EQ(wanted.value->channel, 2);
    ASSERT_EQ(wanted.value->filters.size(), 2u);
    const CanFilter std_filter{0x123, 0x7FF, false}, ext_filter{0x12345678, 0x1FFFFFF0, true};
    EXPECT_EQ(wanted.value->filters[0], std_filter);
    EXPECT_EQ(wanted.value->filters[1], ext_filter);

    EXPECT_TRUE(passes(wanted.value->filters, frame("123#R")));
    EXPECT_TRUE(passes(wanted.value->filters, frame("1234567F#00")));
    EXPECT_FALSE(passes(wanted.value->filters, frame("124#00")));
    EXPECT_FALSE(
        passes(wanted.value->filters, frame("00000123#00")));  // an extended frame, a standard filter
    EXPECT_TRUE(passes(std::vector<CanFilter>{}, frame("124#00")));

    for (const char* bad :
         {"3", "1,123", "1,12:7FF", "1,800:7FF", "1,123:XYZ",
          "1,001:0,002:0,003:0,004:0,005:0,006:0,007:0,008:0,009:0,00a:0,00b:0,00c:0,00d:0,00e:0,00f:0"}) {
        EXPECT_FALSE(parse_channel_spec(bad)) << bad;
    }
    VCI_FILTER_CONFIG bank = filter_bank(ext_filter, 3);
    EXPECT_EQ(
        std::vector<uint32_t>({bank.Enable, bank.FilterIndex, bank.FilterMode, bank.ExtFrame, bank.ID_Std_Ext,
                               bank.ID_IDE, bank.ID_RTR, bank.MASK_Std_Ext, bank.MASK_IDE, bank.MASK_RTR}),
        std::vector<uint32_t>({1, 3, 0, 1, 0x12345678, 1, 0, 0x1FFFFFF0, 1, 0}));
}

TEST(CanBitRates, TablePairsAndComputedTimings) {
    const std::pair<const char*, uint32_t> rates[] = {
        {"500k", 500000}, {"1M", 1000000}, {"83.333k", 83333}, {"125000", 125000}};
    for (const auto& [text, bps] : rates) EXPECT_EQ(parse_bitrate(text), bps) << text;
    for (const char* bad : {"0", "2M", "k", "1.2.3k", "-5", "500 k", ".5k"})
        EXPECT_FALSE(parse_bitrate(bad)) << bad;

    const std::pair<uint32_t, BitTiming> timings[] = {
        {500000, {true, 0x00, 0x1C}},
        {666000, {true, 0x80, 0xB6}},
        {5000, {true, 0xBF, 0xFF}},
        {1000000, {true, 0x00, 0x14}},
        {83333, {false, 0, 0, 27, 13, 2, 1}},   // 16 quanta, sampled at 87.5 %
        {33333, {false, 0, 0, 135, 6, 1, 1}},   // 8 quanta: the only split at 87.5 %
        {2000, {false, 0, 0, 1000, 15, 2, 1}},  // 18 quanta, sampled at 88.9 %: the nearest to 87.5 %
    };
    for (const auto& [bps, timing] : timings) EXPECT_EQ(bit_timing(bps).value, timing) << bps;
    EXPECT_EQ(bit_timing(1000).error, "no bit timing of the 36 MHz CAN clock comes within 1 % of 1000 bit/s");
}

TEST(CanGenerator, IncrementAndFixedPatterns) {
    auto wanted = parse_gen_spec("i", "i", "i", false, false);
    ASSERT_TRUE(wanted) << wanted.error;
    FrameGenerator counting(*wanted.value, 1);
    for (const char* expected : {"000#", "001#01", "002#0200"})
        EXPECT_EQ(compact_frame(counting.next()), expected);

    FrameGenerator padded(*parse_gen_spec("1ABCDEF0", "6", "DEADBEEF", true, false).value, 1);
    EXPECT_EQ(compact_frame(padded.next()), "1ABCDEF0#DEADBEEF0000");
    FrameGenerator fixed(*parse_gen_spec("7FF", "", "01.02", false, false).value, 1);
    EXPECT_EQ(compact_frame(fixed.next()), "7FF#0102");

    const struct {
        const char *id, *len, *data;
    } refused[] = {{"800", "", "r"}, {"r", "9", "r"}, {"r", "r", "X"}, {"r", "r", ""}};
    for (const auto& r : refused)
        EXPECT_FALSE(parse_gen_spec(r.id, r.len, r.data, false, false)) << r.id << r.len;
}

TEST(CanStatus, InWords) {
    VCI_CAN_STATUS status{};
    status.regESR = 0x00000036;  // last error 3, bus-off, error passive
    status.regTSR = 0x1C000000;
    status.regTECounter = 255;
    status.regRECounter = 12;
    status.BufferSize = 3;
    VCI_ERR_INFO errors{0x0034, {1, 2, 3}, 0};
    EXPECT_EQ(status_text(status, errors),
              "state:       bus-off\n"
              "TEC:         255\n"
              "REC:         12\n"
              "last error:  acknowledgement\n"
              "FIFO space:  3\n"
              "errors:      error passive, bus error, bus-off (mailbox states 1 2 3)\n"
              "registers:   ESR 00000036  TSR 1c000000  mode 00  status 00\n");
    EXPECT_EQ(bus_state(0x2), "error passive");
    EXPECT_EQ(bus_state(0x1), "error warning");
    EXPECT_EQ(last_error(0x60), "CRC");
    EXPECT_EQ(error_words(0), "none");
    EXPECT_EQ(error_words(0x4000 | 0x8000), "the adapter refused the command, code 0x8000");
}

}  // namespace
}  // namespace corvel::cli
