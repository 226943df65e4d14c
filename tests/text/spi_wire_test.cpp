// The SPI text commands on the wire, every answer scripted (the adapter's firmware silenced).
#include <string>

#include "text_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

class SpiText : public TextAdapter {
  protected:
    void SetUp() override { open_silenced(KD_DEVTYPE_SPI); }

    // Configures software-driven SPI (ControlMode 2), which the bit commands need.
    void soft_mode() {
        inject_bulk(status_answer(MSG_SPI_NINT_OK));
        ASSERT_EQ(call(KDIF_SPI_Init, "2|0|0|1|8|0|0|1000000").code, 0);
        settle();
    }
};

TEST_F(SpiText, InitSendsItsWireOrder) {
    inject_bulk(status_answer(MSG_SPI_NINT_OK));
    EXPECT_EQ(call(KDIF_SPI_Init, "1|2|3|4|5|6|7|0x01020304").code, 0);
    inject_bulk(status_answer(MSG_SPI_NINT_ERROR));
    const TextResult refused = call(KDIF_SPI_Init, "1|2|3|4|5|6|7|0x01020304");
    EXPECT_EQ(refused.code, -10);
    EXPECT_EQ(refused.out, "status 18");
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0], request(1280, {1, 2, 3, 4, 5, 6, 7, 0x01, 0x02, 0x03, 0x04}));

    EXPECT_EQ(call(KDIF_SPI_Init, "1|2|3|4|5|6|7").out, "Data input too less!");
}

TEST_F(SpiText, WriteData) {
    inject_bulk(status_answer(MSG_SPI_WRITE_DATA_OK));
    EXPECT_EQ(call(KDIF_SPI_WriteData, "0x9F|0x00|0x00|1").code, 0);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0], request(1282, {0x9F, 0x00, 0x00, 0x01}));
    inject_bulk(status_answer(MSG_SPI_WRITE_DATA_ERROR));
    const TextResult refused = call(KDIF_SPI_WriteData, "1|0");
    EXPECT_EQ(refused.code, -10);
    EXPECT_EQ(refused.out, "spi send data error!");
    EXPECT_EQ(call(KDIF_SPI_WriteData, "|").out, "Data input is too less!");
}

TEST_F(SpiText, ReadAndWriteReadData) {
    inject_bulk(status_answer(MSG_SPI_READ_DATA_OK));
    inject_bulk({0x12, 0x34, 0x56});
    const TextResult read = call(KDIF_SPI_ReadData, "3|2", 15);
    EXPECT_EQ(read.code, 0);
    EXPECT_EQ(read.out, "0x12|0x34|0x56");
    EXPECT_TRUE(read.guards_intact);

    inject_bulk(status_answer(MSG_SPI_WRITE_READ_DATA_OK));
    inject_bulk({0xAB, 0xCD});
    EXPECT_EQ(call(KDIF_SPI_WriteReadData, "0x01|0x02|2|1").out, "0xAB|0xCD");
    ASSERT_EQ(sent().size(), 4u);
    EXPECT_EQ(sent()[0], request(1284, {0x00, 0x03, 0x02}));
    EXPECT_EQ(sent()[1], request(1286, {}));
    EXPECT_EQ(sent()[2], request(1292, {0x01, 0x02, 0x00, 0x02, 0x01}));
    EXPECT_EQ(sent()[3], request(1286, {}));

    // Fewer bytes than asked.
    inject_bulk(status_answer(MSG_SPI_READ_DATA_OK));
    inject_bulk({0x12});
    const TextResult short_read = call(KDIF_SPI_ReadData, "3|0");
    EXPECT_EQ(short_read.code, -6);
    EXPECT_EQ(short_read.out, "data read error!");
    EXPECT_EQ(call(KDIF_SPI_ReadData, "3").out, "Data input is too less!");
    EXPECT_EQ(call(KDIF_SPI_WriteReadData, "1|102801|0").code, -4);
}

TEST_F(SpiText, BitCommandsNeedSoftControl) {
    for (const TextCommand command : {KDIF_SPI_WriteBits, KDIF_SPI_ReadBits, KDIF_SPI_WriteReadBits}) {
        const TextResult r = call(command, "1011|1|0");
        EXPECT_EQ(r.code, -4);
        EXPECT_EQ(r.out, "SPI is not soft control mode!");
    }
    EXPECT_TRUE(frames().empty());
}

TEST_F(SpiText, WriteBitsPacksFirstBitHighest) {
    soft_mode();
    inject_bulk(status_answer(MSG_SPI_WRITE_DATA_OK));
    EXPECT_EQ(call(KDIF_SPI_WriteBits, "1011|1").code, 0);
    inject_bulk(status_answer(MSG_SPI_WRITE_DATA_OK));
    EXPECT_EQ(call(KDIF_SPI_WriteBits, "100000001|0").code, 0);
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0], request(1294, {0xB0, 0x00, 0x00, 0x00, 0x04, 0x01}));
    EXPECT_EQ(sent()[1], request(1294, {0x80, 0x80, 0x00, 0x00, 0x00, 0x09, 0x00}));

    const TextResult bad = call(KDIF_SPI_WriteBits, "10x1|0");
    EXPECT_EQ(bad.code, -4);
    EXPECT_EQ(bad.out, "In put data error!");
    EXPECT_EQ(call(KDIF_SPI_WriteBits, "1|0|0").out, "Data input is too more!");
    EXPECT_EQ(sent().size(), 2u);
}

TEST_F(SpiText, ReadBitsPrintsTheBitsAsked) {
    soft_mode();
    inject_bulk(status_answer(MSG_SPI_READ_DATA_OK));
    inject_bulk({0xA5, 0xF0});
    const TextResult r = call(KDIF_SPI_ReadBits, "12|3", 13);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "101001011111");
    EXPECT_TRUE(r.guards_intact);
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0], request(1296, {0x00, 0x00, 0x00, 0x0C, 0x03}));
    EXPECT_EQ(sent()[1], request(1286, {}));
    // 65548 bits are kept to 16 bits: 12.
    settle();
    inject_bulk(status_answer(MSG_SPI_READ_DATA_OK));
    EXPECT_EQ(call(KDIF_SPI_ReadBits, "65548|3").out, "data send error!");
    EXPECT_EQ(sent().at(0), request(1296, {0x00, 0x00, 0x00, 0x0C, 0x03}));
}

TEST_F(SpiText, WriteReadBits) {
    soft_mode();
    inject_bulk(status_answer(MSG_SPI_WRITE_READ_DATA_OK));
    inject_bulk({0x80});
    EXPECT_EQ(call(KDIF_SPI_WriteReadBits, "11|3|5").out, "100");
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0], request(1298, {0xC0, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x03, 0x05}));
    // More than 512 packed bytes: refused before anything is sent.
    const TextResult r = call(KDIF_SPI_WriteReadBits, std::string(4033, '1') + "|8|0");
    EXPECT_EQ(r.code, -2);
    EXPECT_EQ(r.out, "spi write read data error!");
    EXPECT_EQ(sent().size(), 2u);
}

}  // namespace
