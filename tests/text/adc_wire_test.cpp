// The ADC text commands on the wire: the set-up payload, the read request and its raw packets of
// 512 bytes, the samples' 12 bits, partial data and the refused sizes.
#include "text_wire.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

class AdcText : public TextWire {
  protected:
    // Sets the channel mask the reads are sized by, then forgets the set-up.
    void init(const char* mask) {
        inject_bulk(status_answer(36));
        ASSERT_EQ(call(KDIF_ADC_Init, std::string(mask) + "|1").code, 0);
        settle();
    }
    // The sizes of the data the reads delivered (reads that found nothing left out).
    static std::vector<std::size_t> reads() {
        std::vector<std::size_t> sizes;
        for (const auto& r : calls(Call::BulkRead))
            if (!r.data.empty()) sizes.push_back(r.data.size());
        return sizes;
    }
};

TEST_F(AdcText, InitSendsMaskAndPeriodAndLeavesOutAlone) {
    inject_bulk(status_answer(36));
    std::string in = "0x03|1000";
    std::string out = kUntouched;
    EXPECT_EQ(KDIF_ADC_Init(in.data(), out.data()), 0);
    EXPECT_EQ(out, kUntouched);
    EXPECT_STREQ(in.c_str(), "0x03") << "split in place";
    EXPECT_EQ(sent(), std::vector<Frame>{request(2560, {0x03, 0x00, 0x00, 0x03, 0xE8})});

    const struct {
        const char* in;
        Bytes answer;
        int32_t code;
        const char* out;
        std::vector<Frame> frames;
    } cases[] = {
        {"0x103|0x12345678", {37}, -10, "adc init error!", {request(2560, {0x03, 0x12, 0x34, 0x56, 0x78})}},
        {"1|-1", {}, -10, "adc init error!", {request(2560, {0x01, 0xFF, 0xFF, 0xFF, 0xFF})}},
        {"0|1000", {}, -4, "please select channels!", {}},
        {"0x100|1000", {}, -4, "please select channels!", {}},  // the mask is a byte
        {"3", {}, -3, "please input data!", {}},
        {"3|1|2", {}, -2, "input data is too more!", {}},
    };
    for (const auto& c : cases) {
        settle();
        if (!c.answer.empty()) inject_bulk(c.answer);
        const TextResult r = call(KDIF_ADC_Init, c.in);
        EXPECT_EQ(r.code, c.code) << c.in;
        EXPECT_EQ(r.out, c.out) << c.in;
        EXPECT_EQ(sent(), c.frames) << c.in;
    }
}

TEST_F(AdcText, ReadTakesTwoChannelsInOnePacket) {
    init("0x03");
    Bytes raw(100, 0xFF);
    raw[0] = 0x34, raw[1] = 0x12, raw[2] = 0x00, raw[3] = 0x80;
    inject_bulk(raw);
    const TextResult r = call(KDIF_ADC_ReadData, "10");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(sent(), std::vector<Frame>{request(2562, {0, 0, 0, 0x0A})});
    EXPECT_EQ(reads(), std::vector<std::size_t>{40});
    EXPECT_EQ(calls(Call::BulkRead).at(0).timeout_ms, 10000);
    std::string expected = "0x0234|0x0000";
    for (int i = 2; i < 20; ++i) expected += "|0x0FFF";
    EXPECT_EQ(r.out, expected);
}

TEST_F(AdcText, ReadCutsTheTotalIntoPackets) {
    init("0x01");
    const struct {
        const char* in;
        std::size_t available;
        std::vector<std::size_t> reads;
        int32_t code;
        std::size_t entries;
    } cases[] = {
        {"256", 1000, {512}, 0, 256},
        {"300", 1000, {512, 88}, 0, 300},
        {"0x200", 1024, {512, 512}, 0, 512},
        {"300", 512, {512}, 0, 256},  // the second packet never comes: what came counts
    };
    for (const auto& c : cases) {
        sim::clear_in(0);
        settle();
        inject_bulk(Bytes(c.available, 0x01));
        const TextResult r = call(KDIF_ADC_ReadData, c.in);
        EXPECT_EQ(r.code, c.code) << c.in;
        EXPECT_EQ(reads(), c.reads) << c.in;
        EXPECT_EQ(r.out.size(), c.entries * 7 - 1) << c.in;
        EXPECT_EQ(r.out.substr(0, 13), "0x0101|0x0101") << c.in;
    }
}

TEST_F(AdcText, ReadRefusalsAndFailures) {
    const struct {
        const char* mask;
        const char* in;
        int32_t code;
        const char* out;
        std::size_t frames;
    } cases[] = {
        {nullptr, "10", -4, "number of requests to read data size is 0", 0},  // no mask set yet
        {"1", "0", -4, "number of requests to read data size is 0", 0},
        {"1", "4097", -4, "number of requests to read data size is too large", 0},
        {"3", "2049", -4, "number of requests to read data size is too large", 0},
        {"3", "-1", -4, "number of requests to read data size is too large", 0},
        {"1", "5", -6, "data read error!", 1},
    };
    for (const auto& c : cases) {
        if (c.mask != nullptr) init(c.mask);
        settle();
        const TextResult r = call(KDIF_ADC_ReadData, c.in);
        EXPECT_EQ(r.code, c.code) << c.in;
        EXPECT_EQ(r.out, c.out) << c.in;
        EXPECT_EQ(frames().size(), c.frames) << c.in;
    }
    init("0xFF");
    inject_bulk(Bytes(8192, 0x22));
    const TextResult all = call(KDIF_ADC_ReadData, "512", 1 << 15);
    EXPECT_EQ(all.code, 0);
    EXPECT_EQ(reads().size(), 16u);
    EXPECT_EQ(all.out.size(), 4096u * 7 - 1);
}

}  // namespace
