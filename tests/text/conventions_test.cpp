// What every text command shares, run once against each of them from one table: NULL arguments,
// inputs without a field, the field count that is too many and the one below it, the input that no
// longer fits the command's copy, the number syntax, and empty fields vanishing.
#include <algorithm>

#include "text_wire.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

enum class Split { Copy, InPlace, WholeNumber, Ignores };

struct Answer {
    const char* text;
    int32_t code;
};

// Where the number 16 given to a command shows: a byte of the first frame's payload, or the text.
constexpr int kInText = -1;
constexpr int kNotShown = -2;

struct Row {
    const char* name;
    TextCommand fn;
    Split split;
    Answer none;           // for "" and "|||"
    std::size_t too_many;  // the field count refused as too many; 0 when there is none
    Answer many;
    std::size_t copy;   // the command's input copy (characters with the terminator); 0 when none
    const char* valid;  // an accepted input; '#' stands for the number probed
    int shows;          // where the probed number shows
    void (*prepare)();  // state the command needs first, or nullptr
};

void adc_mask() {
    inject_bulk(status_answer(36));
    call(KDIF_ADC_Init, "1|1");
}

// The bit commands need the software-driven SPI mode.
void spi_soft() {
    inject_bulk(status_answer(17));
    call(KDIF_SPI_Init, "2|0|0|0|8|0|0|1000000");
}

constexpr Answer kPlease{"please input data!", -3};
constexpr Answer kTooMore{"input data is too more!", -2};
constexpr Answer kDataError{"input data error!", -2};
constexpr Answer kSpiLess{"Data input is too less!", -3};
constexpr Answer kSpiMore{"Data input is too more!", -2};

// clang-format off
const Row kRows[] = {
    {"USB_EnumBoard", KDIF_USB_EnumBoard, Split::WholeNumber, {"1,0", 1}, 0, {}, 0, "#", kNotShown, nullptr},
    {"OpenDevice", KDIF_OpenDevice, Split::Copy, {"No input data!", -3}, 2, kSpiMore, 512, "1", kNotShown, nullptr},
    {"CloseDevice", KDIF_CloseDevice, Split::Copy, {"No input data!", -3}, 2, kSpiMore, 512, "1", kNotShown, nullptr},
    {"I2C_SelectDevice", KDIF_I2C_SelectDevice, Split::InPlace, kPlease, 2, kTooMore, 0, "#", kInText, nullptr},
    {"I2C_Init", KDIF_I2C_Init, Split::Copy, kPlease, 63, kDataError, 512, "0|100000|0|1|0|#", 8, nullptr},
    {"I2C_WriteData", KDIF_I2C_WriteData, Split::Copy, kPlease, 102801, kDataError, 514100, "0xA0|0|#|1", 6, nullptr},
    {"I2C_ReadData", KDIF_I2C_ReadData, Split::Copy, kPlease, 5, kDataError, 200, "0xA0|0|#|1", 6, nullptr},
    {"I2C_SoftTimeSet", KDIF_I2C_SoftTimeSet, Split::Copy, kPlease, 63, kTooMore, 512, "#|1|1|1|1|1|1", 1, nullptr},
    {"SPI_SelectDevice", KDIF_SPI_SelectDevice, Split::InPlace, kPlease, 2, kTooMore, 0, "#", kInText, nullptr},
    {"SPI_Init", KDIF_SPI_Init, Split::Copy, {"Data input too less!", -3}, 9, {"Data input too much!", -2}, 512, "0|0|0|0|8|0|0|#", 10, nullptr},
    {"SPI_WriteData", KDIF_SPI_WriteData, Split::Copy, kSpiLess, 102802, kSpiMore, 514100, "#|0", 0, nullptr},
    {"SPI_ReadData", KDIF_SPI_ReadData, Split::Copy, kSpiLess, 63, kSpiMore, 512, "#|0", 1, nullptr},
    {"SPI_WriteReadData", KDIF_SPI_WriteReadData, Split::Copy, kSpiLess, 102802, kSpiMore, 514100, "#|1|0", 0, nullptr},
    {"SPI_WriteBits", KDIF_SPI_WriteBits, Split::Copy, kSpiLess, 3, kSpiMore, 514100, "1|#", 5, spi_soft},
    {"SPI_ReadBits", KDIF_SPI_ReadBits, Split::Copy, kSpiLess, 3, kSpiMore, 514100, "#|0", 3, spi_soft},
    {"SPI_WriteReadBits", KDIF_SPI_WriteReadBits, Split::Copy, kSpiLess, 4, kSpiMore, 514100, "1|#|0", 8, spi_soft},
    {"GPIO_SelectDevice", KDIF_GPIO_SelectDevice, Split::InPlace, kPlease, 2, kTooMore, 0, "#", kInText, nullptr},
    {"GPIO_Init", KDIF_GPIO_Init, Split::Copy, kPlease, 4, kTooMore, 64, "#|1", 3, nullptr},
    {"GPIO_WriteData", KDIF_GPIO_WriteData, Split::Copy, kPlease, 3, kTooMore, 64, "#|1", 3, nullptr},
    {"GPIO_ReadData", KDIF_GPIO_ReadData, Split::Copy, kPlease, 63, kTooMore, 64, "#", 3, nullptr},
    {"ADC_SelectDevice", KDIF_ADC_SelectDevice, Split::InPlace, kPlease, 2, kTooMore, 0, "#", kInText, nullptr},
    {"ADC_Init", KDIF_ADC_Init, Split::InPlace, kPlease, 3, kTooMore, 0, "#|1", 0, nullptr},
    {"ADC_ReadData", KDIF_ADC_ReadData, Split::WholeNumber, {"number of requests to read data size is 0", -4}, 0, {}, 0, "#", 3, adc_mask},
    {"USART_Init", KDIF_USART_Init, Split::Copy, kPlease, 8, kDataError, 512, "#|115200|0|0|0|12", 9, nullptr},
    {"USART_WriteData", KDIF_USART_WriteData, Split::Copy, kPlease, 20481, kDataError, 102500, "#|2", 0, nullptr},
    {"USART_ReadData", KDIF_USART_ReadData, Split::Ignores, {"no data", -7}, 0, {}, 0, "", kNotShown, nullptr},
};
// clang-format on

static_assert(std::size(kRows) == 26, "every exported text command");

// Starts a row's step from a known state: nothing waiting, the state it needs, an empty capture.
void start(const Row& row) {
    sim::clear_in(0);
    if (row.prepare != nullptr) row.prepare();
    sim::clear_in(0);
    sim::clear_records();
}

std::string with(const char* valid, const std::string& number) {
    std::string s = valid;
    if (const auto at = s.find('#'); at != std::string::npos) s.replace(at, 1, number);
    return s;
}

using TextConventions = TextWire;

TEST_F(TextConventions, NullArgumentsWriteAndSendNothing) {
    for (const Row& row : kRows) {
        start(row);
        std::string out = kUntouched;
        std::string in = with(row.valid, "1");
        if (row.split != Split::Ignores) {
            EXPECT_EQ(row.fn(nullptr, out.data()), -1) << row.name;
        }
        EXPECT_EQ(row.fn(in.data(), nullptr), -1) << row.name;
        EXPECT_EQ(out, kUntouched) << row.name;
        EXPECT_EQ(in, with(row.valid, "1")) << row.name;
        EXPECT_TRUE(frames().empty()) << row.name;
    }
    char out[64];
    EXPECT_EQ(KDIF_USART_ReadData(nullptr, out), -7) << "NULL in is allowed";
}

TEST_F(TextConventions, InputsWithoutAFieldGetTheNoFieldAnswer) {
    for (const Row& row : kRows) {
        for (const char* in : {"", "|||"}) {
            start(row);
            const TextResult r = call(row.fn, in);
            EXPECT_EQ(r.code, row.none.code) << row.name << " '" << in << "'";
            EXPECT_EQ(r.out, row.none.text) << row.name << " '" << in << "'";
            if (row.split == Split::Copy || row.split == Split::InPlace) {
                EXPECT_TRUE(frames().empty()) << row.name;
            }
        }
    }
}

TEST_F(TextConventions, TooManyFieldsAreRefusedOneLessIsNot) {
    for (const Row& row : kRows) {
        if (row.too_many == 0) continue;
        start(row);
        const TextResult r = call(row.fn, fields(row.too_many));
        EXPECT_EQ(r.code, row.many.code) << row.name;
        EXPECT_EQ(r.out, row.many.text) << row.name;
        EXPECT_TRUE(frames().empty()) << row.name;
        // GPIO_ReadData: 62 fields do not fit its 63 characters, so only the copy refuses them.
        const std::string less_in = fields(row.too_many - 1);
        if (row.copy != 0 && less_in.size() >= row.copy) continue;
        const TextResult less = call(row.fn, less_in);
        EXPECT_FALSE(less.code == row.many.code && less.out == row.many.text) << row.name;
    }
}

// Leading zeros grow the input to the limit without adding a field.
TEST_F(TextConventions, InputLongerThanTheCopyIsRefusedWithNothingSent) {
    for (const Row& row : kRows) {
        if (row.copy == 0) continue;
        const std::string valid = with(row.valid, "1");
        start(row);
        const TextResult fits = call(row.fn, std::string(row.copy - 1 - valid.size(), '0') + valid);
        EXPECT_FALSE(fits.code == row.many.code && fits.out == row.many.text) << row.name;
        start(row);
        const TextResult r = call(row.fn, std::string(row.copy - valid.size(), '0') + valid);
        EXPECT_EQ(r.code, row.many.code) << row.name;
        EXPECT_EQ(r.out, row.many.text) << row.name;
        EXPECT_TRUE(frames().empty()) << row.name;
    }
}

TEST_F(TextConventions, NumbersReadAsHexOctalOrDecimal) {
    for (const Row& row : kRows) {
        if (row.shows == kNotShown) continue;
        for (const char* number : {"0x10", "020", "16", "0X10"}) {
            start(row);
            const TextResult r = call(row.fn, with(row.valid, number));
            if (row.shows == kInText) {
                EXPECT_NE(r.out.find(" 16 "), std::string::npos)
                    << row.name << " " << number << ": " << r.out;
                continue;
            }
            const auto got = sent();
            ASSERT_FALSE(got.empty()) << row.name << " " << number;
            ASSERT_GT(got[0].payload.size(), static_cast<std::size_t>(row.shows)) << row.name;
            EXPECT_EQ(got[0].payload[row.shows], 0x10) << row.name << " " << number;
        }
    }
}

TEST_F(TextConventions, EmptyFieldsVanish) {
    for (const Row& row : kRows) {
        if (row.split != Split::Copy && row.split != Split::InPlace) continue;
        std::string plain = with(row.valid, "1");
        std::string spread = "|";
        for (char c : plain) spread += c == '|' ? std::string("||") : std::string(1, c);
        spread += "||";
        start(row);
        const TextResult a = call(row.fn, plain);
        const auto a_frames = sent();
        start(row);
        const TextResult b = call(row.fn, spread);
        EXPECT_EQ(b.code, a.code) << row.name << " " << spread;
        EXPECT_EQ(b.out, a.out) << row.name << " " << spread;
        EXPECT_EQ(sent(), a_frames) << row.name << " " << spread;
    }
}

}  // namespace
