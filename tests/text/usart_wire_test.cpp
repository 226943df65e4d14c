// The USART text commands on the wire: the line settings' layout, long writes cut into packets
// numbered with the packets still to follow, and the two-step read with its lying answers.
#include "text_wire.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

using UsartText = TextWire;

TEST_F(UsartText, InitLaysOutTheLineSettings) {
    const struct {
        const char* in;
        uint8_t status;
        int32_t code;
        const char* out;
        std::vector<Frame> frames;
    } cases[] = {
        {"0|115200|0|0|0|12",
         51,
         0,
         "",
         {request(3072, {0x00, 0x01, 0xC2, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x00})}},
        // Stop bits before word length; only their low bytes; the mode in 16 bits.
        {"0x101|9600|0x102|0x301|2|0x1234C|77",
         51,
         0,
         "",
         {request(3072, {0x00, 0x00, 0x25, 0x80, 0x02, 0x01, 0x02, 0x23, 0x4C, 0x01})}},
        {"1|4500001|0|0|0|12",
         52,
         -10,
         "",
         {request(3072, {0x00, 0x44, 0xAA, 0x21, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x01})}},
        {"0|115200|0|0|0", 51, -3, "input data error!", {}},
        {"0|115200|0|0|0|12|1|1", 51, -2, "input data error!", {}},
        {"|", 51, -3, "please input data!", {}},
    };
    for (const auto& c : cases) {
        sim::clear_in(0);
        settle();
        inject_bulk(status_answer(c.status));
        const TextResult r = call(KDIF_USART_Init, c.in);
        EXPECT_EQ(r.code, c.code) << c.in;
        EXPECT_EQ(r.out, c.code == 0 || c.code == -10 ? kUntouched : c.out) << c.in;
        EXPECT_EQ(sent(), c.frames) << c.in;
    }
}

TEST_F(UsartText, WriteCutsPacketsOf510CountingDown) {
    const struct {
        std::size_t n;
        std::vector<std::size_t> sizes;
        std::vector<uint8_t> numbers;
    } cases[] = {
        {509, {509}, {0}},
        {510, {510}, {0}},
        {1020, {510, 510}, {1, 0}},
        {1021, {510, 510, 1}, {2, 1, 0}},
    };
    for (const auto& c : cases) {
        sim::clear_in(0);
        settle();
        for (std::size_t i = 0; i < c.sizes.size(); ++i) inject_bulk(status_answer(53));
        const TextResult r = call(KDIF_USART_WriteData, fields(c.n));
        EXPECT_EQ(r.code, 0) << c.n;
        EXPECT_EQ(r.out, kUntouched) << c.n;
        const auto got = sent();
        ASSERT_EQ(got.size(), c.sizes.size()) << c.n;
        for (std::size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i], request(3074, Bytes(c.sizes[i], 0x01), c.numbers[i])) << c.n << " packet " << i;
        }
    }
}

TEST_F(UsartText, WriteBytesStopsAtTheFirstRefusal) {
    inject_bulk(status_answer(53));
    EXPECT_EQ(call(KDIF_USART_WriteData, "1|0x80|0777|300|-1").code, 0);
    EXPECT_EQ(sent().at(0), request(3074, {0x01, 0x80, 0xFF, 0x2C, 0xFF}));
    settle();
    inject_bulk(status_answer(53));
    inject_bulk(status_answer(54));
    const TextResult r = call(KDIF_USART_WriteData, fields(1021));
    EXPECT_EQ(r.code, -10);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(frames().size(), 2u);
    settle();
    sim::fail_next(Call::BulkWrite, 1, -5);
    EXPECT_EQ(call(KDIF_USART_WriteData, "1").code, -5);
    const TextResult many = call(KDIF_USART_WriteData, fields(20481));
    EXPECT_EQ(many.code, -2);
    EXPECT_EQ(many.out, "input data error!");
}

TEST_F(UsartText, ReadAsksThenReceives) {
    const struct {
        Bytes status;
        Bytes answer;
        int32_t code;
        std::string out;
        std::size_t frames;
    } cases[] = {
        {{55}, packet(3079, 55, {0x41, 0x42, 0x0D}), 0, "0x41|0x42|0x0D", 2},
        {{55}, packet(3079, 57), 0, "0x00", 2},  // an empty answer shows the cleared buffer's first byte
        {{0}, {}, -7, "no data", 1},
        {{}, {}, -7, "no data", 1},
        {{55}, {}, 1, "no data", 2},  // the receive's own failure
        {{55}, packet(3079, 55, {0x7E, 0x7F}, 1), 0, "0x7E", 2},
    };
    for (const auto& c : cases) {
        sim::clear_in(0);
        settle();
        if (!c.status.empty()) inject_bulk(c.status);
        if (!c.answer.empty()) inject_bulk(c.answer);
        const TextResult r = call(KDIF_USART_ReadData, "ignored");
        EXPECT_EQ(r.code, c.code) << c.out;
        EXPECT_EQ(r.out, c.out);
        const std::vector<Frame> asked{request(3076, {}), request(3078, {})};
        EXPECT_EQ(sent(), std::vector<Frame>(asked.begin(), asked.begin() + c.frames)) << c.out;
    }
}

TEST_F(UsartText, ReadWritesNoMoreThanOneReplyHolds) {
    Bytes payload(505);
    for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i);
    inject_bulk({55});
    inject_bulk(packet(3079, 55, payload, 60000));
    char out[4096];
    EXPECT_EQ(KDIF_USART_ReadData(nullptr, out), 0) << "in may be NULL";
    const std::string text = out;
    EXPECT_EQ(text.size(), 505u * 5 - 1);
    EXPECT_EQ(text.substr(text.size() - 9), "0xF7|0xF8");
    EXPECT_EQ(KDIF_USART_ReadData(nullptr, nullptr), -1);
}

}  // namespace
