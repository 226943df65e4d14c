// The board-wide text commands and the I2C and SPI device selection, on the virtual adapters.
#include <string>

#include "text_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

using TextDevices = VirtualAdapters;

TEST_F(TextDevices, EnumBoardListsTheAdapters) {
    const struct {
        std::vector<sim::AdapterSpec> bus;
        std::string out;
    } cases[] = {
        {{}, ""},
        {{adapter("A1")}, "1,0"},
        {{adapter("A1"), adapter("A2", KD_DEVTYPE_SPI), adapter("A3")}, "1,0|1,1|1,2"},
    };
    for (const auto& c : cases) {
        reset(c.bus);
        const TextResult r = call(KDIF_USB_EnumBoard, "100");
        EXPECT_EQ(r.code, static_cast<int32_t>(c.bus.size()));
        EXPECT_EQ(r.out, c.out);
    }
    const TextResult over = call(KDIF_USB_EnumBoard, "101");
    EXPECT_EQ(over.code, -4);
    EXPECT_EQ(over.out, kUntouched);
}

TEST_F(TextDevices, OpenAndClose) {
    const struct {
        TextCommand command;
        std::string in;
        int32_t code;
        std::string out;
    } cases[] = {
        {KDIF_OpenDevice, "", -3, "No input data!"},
        {KDIF_OpenDevice, "|||", -3, "No input data!"},
        {KDIF_OpenDevice, "1|2", -2, "Data input is too more!"},
        {KDIF_OpenDevice, "0x01", -8, "Open device faild! "},
        {KDIF_OpenDevice, "25", -8, "Open device faild! "},
        {KDIF_OpenDevice, "0", 0, "Open device 0 success!"},
        {KDIF_CloseDevice, "|0|", 0, "Close device 0 success!"},
        {KDIF_CloseDevice, "0", -8, "Close device faild! "},
        {KDIF_CloseDevice, "1|2", -2, "Data input is too more!"},
    };
    for (const auto& c : cases) {
        const TextResult r = call(c.command, c.in);
        EXPECT_EQ(r.code, c.code) << c.in;
        EXPECT_EQ(r.out, c.out) << c.in;
    }
}

TEST_F(TextDevices, SelectionPerFamily) {
    reset({adapter("A0"), adapter("A1"), adapter("A2"), adapter("A3", KD_DEVTYPE_SPI), adapter("A4")});
    for (const char* dev : {"0", "3"}) ASSERT_EQ(call(KDIF_OpenDevice, dev).code, 0);
    ASSERT_EQ(call(KDIF_CloseDevice, "4").code, 0);

    const struct {
        TextCommand command;
        std::string in;
        int32_t code;
        std::string out;
    } cases[] = {
        {KDIF_I2C_SelectDevice, "3", 0, "Select device 3 success!"},
        {KDIF_SPI_SelectDevice, "0x3", 0, "Select device 3 success!"},
        {KDIF_I2C_SelectDevice, "4", -11, "Device 4 isn't exist or isn't opened!"},
        {KDIF_I2C_SelectDevice, "150", -11, "Device 99 isn't exist or isn't opened!"},
        {KDIF_SPI_SelectDevice, "1|2", -2, "input data is too more!"},
        {KDIF_I2C_SelectDevice, "|", -3, "please input data!"},
    };
    for (const auto& c : cases) {
        const TextResult r = call(c.command, c.in);
        EXPECT_EQ(r.code, c.code) << c.in;
        EXPECT_EQ(r.out, c.out) << c.in;
    }

    // The failed I2C selection made I2C's device 0; SPI stays on device 3.
    settle();
    sim::silence(0, true);
    sim::silence(3, true);
    call(KDIF_I2C_WriteData, "0xA0|0|0|1");
    call(KDIF_SPI_WriteData, "1|0");
    std::vector<int> adapters;
    for (const auto& r : calls(Call::BulkWrite))
        if (!r.data.empty()) adapters.push_back(r.adapter);
    EXPECT_EQ(adapters, (std::vector<int>{0, 3}));
}

}  // namespace
