// The I2C text commands on the wire, every answer scripted (the adapter's firmware silenced).
#include <cerrno>
#include <string>

#include "text_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

class I2cText : public TextAdapter {
  protected:
    void SetUp() override { open_silenced(KD_DEVTYPE_I2C); }
};

std::string fields(int n) {
    std::string s = "1";
    for (int i = 1; i < n; ++i) s += "|1";
    return s;
}

Bytes counting(std::size_t n, uint8_t first) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(first + i);
    return b;
}

TEST_F(I2cText, RefusedInputsSendNothing) {
    const struct {
        TextCommand command;
        std::string in;
        int32_t code;
        std::string out;
    } cases[] = {
        {KDIF_I2C_Init, "0|100000|0|1|0", -3, "input data error!"},
        {KDIF_I2C_Init, fields(63), -2, "input data error!"},
        {KDIF_I2C_WriteData, "0xA0|0", -3, kUntouched},
        {KDIF_I2C_ReadData, "0xA0|0|0|3|9", -2, "input data error!"},
        {KDIF_I2C_SoftTimeSet, "1|2|3|4|5|6", -3, "input data error!"},
        {KDIF_I2C_SoftTimeSet, fields(63), -2, "input data is too more!"},
    };
    for (const auto& c : cases) {
        const TextResult r = call(c.command, c.in);
        EXPECT_EQ(r.code, c.code) << c.in;
        EXPECT_EQ(r.out, c.out) << c.in;
    }
    EXPECT_TRUE(frames().empty());
}

TEST_F(I2cText, InitSendsTheShortConfiguration) {
    inject_bulk(status_answer(MSG_I2C_NINT_OK));
    const TextResult r = call(KDIF_I2C_Init, "0|100000|0|1|0|0|7|7");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "I2C Adapter initialize success!");
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0], request(768, {0x00, 0x00, 0x01, 0x86, 0xA0, 0x00, 0x01, 0x00, 0x00}));
    // 62 fields are still taken.
    inject_bulk(status_answer(MSG_I2C_NINT_OK));
    EXPECT_EQ(call(KDIF_I2C_Init, fields(62)).code, 0);
}

TEST_F(I2cText, InitResendsUntilTheAdapterTakesIt) {
    inject_bulk(status_answer(MSG_I2C_NINT_ERROR));
    inject_bulk(status_answer(MSG_I2C_NINT_OK));
    EXPECT_EQ(call(KDIF_I2C_Init, "0|100000|0|1|0|0").code, 0);
    EXPECT_EQ(sent().size(), 2u);

    settle();
    const TextResult r = call(KDIF_I2C_Init, "0|100000|0|1|0|0");
    EXPECT_EQ(r.code, -10);
    EXPECT_EQ(r.out, "I2C Adapter initialize faild!");
    EXPECT_EQ(sent().size(), 6u);  // the first send and five more

    // The first send's failure is not looked at; a failed resend is -5.
    settle();
    sim::fail_next(Call::BulkWrite, 10000, -EIO);
    EXPECT_EQ(call(KDIF_I2C_Init, "0|100000|0|1|0|0").code, -5);
}

TEST_F(I2cText, WriteKeepsTheRefusalText) {
    inject_bulk(status_answer(MSG_I2C_WRITE_DATA_ERROR));
    inject_bulk(status_answer(MSG_I2C_WRITE_DATA_OK));
    const TextResult refused = call(KDIF_I2C_WriteData, "0xA0|0x10|0|0x55|0xAA");
    EXPECT_EQ(refused.code, -10);
    EXPECT_EQ(refused.out, "Write data error!");
    const TextResult good = call(KDIF_I2C_WriteData, "0xA0|0x10|0|0x155|0xAA");
    EXPECT_EQ(good.code, 0);
    EXPECT_EQ(good.out, "Write data error!");  // intended: the old text stays
    const Frame expected = request(772, {0x00, 0xA0, 0x00, 0x00, 0x00, 0x10, 0x00, 0x55, 0xAA});
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0], expected);
    EXPECT_EQ(sent()[1], expected);
}

TEST_F(I2cText, ReadCollectsTheFetchedBytes) {
    inject_bulk(status_answer(MSG_I2C_READ_DATA_OK));
    inject_bulk(reply(777, MSG_I2C_READ_DATA_OK, {0x12, 0x34, 0x56}));
    const TextResult r = call(KDIF_I2C_ReadData, "0xA0|0x20|1|3", 15);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "0x12|0x34|0x56");
    EXPECT_TRUE(r.guards_intact);
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0], request(774, {0x00, 0xA0, 0x00, 0x00, 0x00, 0x20, 0x01, 0x00, 0x03}));
    EXPECT_EQ(sent()[1], request(776, {}));
}

TEST_F(I2cText, ReadGoesOnWhileRepliesAreFull) {
    inject_bulk(status_answer(MSG_I2C_READ_DATA_OK));
    inject_bulk(reply(777, MSG_I2C_READ_DATA_OK, counting(506, 0)));
    inject_bulk(reply(777, MSG_I2C_READ_DATA_OK, counting(506, 0)));
    inject_bulk(reply(777, MSG_I2C_READ_DATA_OK, counting(10, 0xF0), std::nullopt, 513));
    const TextResult r = call(KDIF_I2C_ReadData, "0xA0|0|0|506", 1022 * 5);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out.size(), 1022u * 5 - 1);
    EXPECT_EQ(r.out.substr(0, 15), "0x00|0x01|0x02|");
    EXPECT_EQ(r.out.substr(r.out.size() - 9), "0xF8|0xF9");
    EXPECT_TRUE(r.guards_intact);

    // A reply of 505 bytes is the last one.
    settle();
    inject_bulk(status_answer(MSG_I2C_READ_DATA_OK));
    inject_bulk(reply(777, MSG_I2C_READ_DATA_OK, counting(505, 0), std::nullopt, 1007));
    EXPECT_EQ(call(KDIF_I2C_ReadData, "0xA0|0|0|1000").out.size(), 505u * 5 - 1);
    EXPECT_EQ(count(Call::BulkRead), 2u);
}

TEST_F(I2cText, ReadTakesNoMoreThanAsked) {
    // The header claims 600 bytes for a read of 3.
    inject_bulk(status_answer(MSG_I2C_READ_DATA_OK));
    inject_bulk(reply(777, MSG_I2C_READ_DATA_OK, {0x01, 0x02, 0x03}, 600));
    const TextResult r = call(KDIF_I2C_ReadData, "0xA0|0|0|3", 15);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "0x01|0x02|0x03");
    EXPECT_TRUE(r.guards_intact);
}

TEST_F(I2cText, ReadFailures) {
    const struct {
        Bytes fetched;  // empty: no answer to the fetch
        int32_t code;
        std::string out;
    } cases[] = {
        {{}, -6, "data send error!"},
        {reply(777, MSG_I2C_NO_DATA), -7, "data send error!"},
        {reply(777, MSG_I2C_READ_DATA_ERROR), -10, "data send error!"},
        {reply(777, MSG_I2C_READ_DATA_OK), 0, "data size is 0!"},
    };
    for (const auto& c : cases) {
        sim::clear_in(0);
        inject_bulk(status_answer(MSG_I2C_READ_DATA_OK));
        if (!c.fetched.empty()) inject_bulk(c.fetched);
        const TextResult r = call(KDIF_I2C_ReadData, "0xA0|0|0|0");
        EXPECT_EQ(r.code, c.code) << c.out;
        EXPECT_EQ(r.out, c.out);
    }
}

TEST_F(I2cText, SoftTimeSetSendsLowBytesInItsFieldOrder) {
    inject_bulk(status_answer(MSG_I2C_NINT_OK));
    const TextResult r = call(KDIF_I2C_SoftTimeSet, "300|2|3|4|5|6|0x107|9");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "");
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0], request(770, {0x00, 0x2C, 0x00, 0x02, 0x00, 0x03, 0x00, 0x04, 0x00, 0x05, 0x00, 0x06,
                                       0x00, 0x07}));
    inject_bulk(status_answer(MSG_I2C_NINT_ERROR));
    EXPECT_EQ(call(KDIF_I2C_SoftTimeSet, "1|2|3|4|5|6|7").code, -10);
    sim::fail_next(Call::BulkWrite, 10000, -EIO);
    EXPECT_EQ(call(KDIF_I2C_SoftTimeSet, "1|2|3|4|5|6|7").code, -6);
}

}  // namespace
