// The GPIO text commands on the wire: the mask and data payloads, no answer awaited after init and
// write, and the levels read back, also from answers that lie about their size.
#include "text_wire.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

using GpioText = TextWire;

TEST_F(GpioText, InitAndWriteSendMaskAndDataWithoutWaiting) {
    const struct {
        TextCommand fn;
        const char* in;
        int32_t code;
        const char* out;
        std::vector<Frame> frames;
    } cases[] = {
        {KDIF_GPIO_WriteData, "0x0F|0x05", 0, "", {request(1538, {0, 0, 0, 0x0F, 0, 0, 0, 0x05})}},
        {KDIF_GPIO_Init,
         "0xFFFFFFFF|0x80000001|9",
         0,
         "",
         {request(1536, {0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0, 0, 1})}},
        {KDIF_GPIO_WriteData, "1|2|3", -2, "input data is too more!", {}},
        {KDIF_GPIO_Init, "1|2|3|4", -2, "input data is too more!", {}},
        {KDIF_GPIO_Init, "7", -3, "please input data!", {}},
        {KDIF_GPIO_WriteData, "7|", -3, "please input data!", {}},
    };
    for (const auto& c : cases) {
        settle();
        const TextResult r = call(c.fn, c.in);
        EXPECT_EQ(r.code, c.code) << c.in;
        EXPECT_EQ(r.out, c.out) << c.in;
        EXPECT_EQ(sent(), c.frames) << c.in;
        EXPECT_EQ(count(Call::BulkRead), 0u) << c.in;
    }
    sim::fail_next(Call::BulkWrite, 1, -5);
    EXPECT_EQ(call(KDIF_GPIO_WriteData, "1|1").code, -5);
}

TEST_F(GpioText, ReadWritesTheLevelsAndKeepsThemAfterAFailure) {
    inject_bulk(packet(1541, 32, {0x00, 0x00, 0x12, 0x34}));
    const TextResult ok = call(KDIF_GPIO_ReadData, "0xFFFF|5");
    EXPECT_EQ(ok.code, 0);
    EXPECT_EQ(ok.out, "0x00001234");
    EXPECT_EQ(sent(), std::vector<Frame>{request(1540, {0x00, 0x00, 0xFF, 0xFF})});

    const struct {
        Bytes answer;
        int32_t code;
        const char* out;
    } cases[] = {
        {packet(1541, 33), -6, "0x00001234"},
        {{}, -6, "0x00001234"},
        {reply(1541, 32, {1, 2, 3, 4}), -6, "0x00001234"},  // not a full packet
        {packet(1541, 32, {0xAB, 0xCD, 0xEF, 0x01, 0x55}, 60000), 0, "0xABCDEF01"},
        {packet(1541, 32, {0xAB, 0xCD, 0xEF, 0x01}, 2), 0, "0xABCD0000"},  // the missing bytes read 0
    };
    for (const auto& c : cases) {
        sim::clear_in(0);
        if (!c.answer.empty()) inject_bulk(c.answer);
        const TextResult r = call(KDIF_GPIO_ReadData, "1");
        EXPECT_EQ(r.code, c.code) << c.out;
        EXPECT_EQ(r.out, c.out);
    }
}

class GpioTextTwoAdapters : public TextWire {
  protected:
    void SetUp() override {
        reset({adapter("TX0001"), adapter("TX0002")});
        ASSERT_EQ(call(KDIF_OpenDevice, "1").code, 0);
        sim::silence(0, true);
        sim::silence(1, true);
        settle();
    }
};

TEST_F(GpioTextTwoAdapters, SelectionDecidesTheDeviceOfTheFrames) {
    EXPECT_EQ(call(KDIF_GPIO_SelectDevice, "0x01").out, "Select device 1 success!");
    EXPECT_EQ(call(KDIF_GPIO_WriteData, "1|1").code, 0);
    const TextResult r = call(KDIF_GPIO_SelectDevice, "5");
    EXPECT_EQ(r.code, -11);
    EXPECT_EQ(r.out, "Device 5 isn't exist or isn't opened!");
    EXPECT_EQ(call(KDIF_GPIO_WriteData, "1|1").code, 0);
    const auto writes = calls(Call::BulkWrite);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].adapter, 1);
    EXPECT_EQ(writes[1].adapter, 0) << "a failed selection makes device 0 current";
}

}  // namespace
