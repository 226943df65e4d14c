// The SPI family against the simulated parts: the serial flash on chip select 0 through raw
// commands and through the adapter's flash engine, the loopback part on chip select 1 for bits and
// blocks, the Microwire EEPROM, and an external master for slave mode. These tests are also the
// firmware model's tests for what the library sends; tests/sim/spi_engine_test.cpp covers the
// requests the library never makes.
#include <string>
#include <vector>

#include "corvel/sim_spi.hpp"
#include "spi_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

constexpr int32_t kSpi = KD_DEVTYPE_SPI;

// The description of the simulated chip (W25Q32-style): 256-byte pages, 3 address bytes.
KSI_FLASH_INIT_CONFIG w25q32() {
    KSI_FLASH_INIT_CONFIG c{};
    c.page_size = 256;
    c.page_num = 16384;
    c.write_enable[0] = 1, c.write_enable[1] = 0x06;
    c.read_status[0] = 1, c.read_status[1] = 0x05;
    c.chip_erase[0] = 1, c.chip_erase[1] = 0xC7;
    c.write_data[0] = 1, c.write_data[1] = 0x02;
    c.read_data[0] = 1, c.read_data[1] = 0x03;
    c.busy_bit = 0;
    c.busy_mask = 0x01;
    c.addr_bytes = 3;
    c.addr_shift = 8;
    return c;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes counting(std::size_t n, uint8_t from = 0) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(from + i);
    return b;
}

class SpiParts : public SpiAdapter {
  protected:
    // A raw flash command on chip select 0 and `n` bytes read after it.
    Bytes flash(Bytes command, uint16_t n) {
        Bytes out(n);
        EXPECT_EQ(KSI_WriteReadBytes(kSpi, 0, 0, command.data(), uint16_t(command.size()), out.data(), n), 0);
        return out;
    }
    void send(Bytes command) {
        ASSERT_EQ(KSI_WriteBytes(kSpi, 0, 0, command.data(), uint16_t(command.size())), 0);
    }
    // Write enable, page program, then status reads until the chip is no longer busy.
    void program(uint32_t address, const Bytes& data) {
        send({0x06});
        send(Bytes{0x02, uint8_t(address >> 16), uint8_t(address >> 8), uint8_t(address)} + data);
        int polls = 0;
        while (flash({0x05}, 1)[0] & 0x01) ASSERT_LT(++polls, 100);
    }
    std::string read_bits(int32_t n) {
        std::string text(std::size_t(n) + 1, 'x');
        EXPECT_EQ(KSI_ReadBits(kSpi, 0, 1, reinterpret_cast<uint8_t*>(text.data()), n), 0);
        return text.c_str();
    }
};

TEST_F(SpiParts, FlashThroughRawCommands) {
    EXPECT_EQ(flash({0x9F}, 3), (Bytes{0xEF, 0x40, 0x16}));
    uint8_t id[] = {0x9F};
    Bytes out(3);
    ASSERT_EQ(KSI_WriteReadBytesEx(kSpi, 0, 0, id, 1, out.data(), 3), 0);
    EXPECT_EQ(out, (Bytes{0xEF, 0x40, 0x16}));

    program(0x001000, counting(256));
    EXPECT_EQ(flash({0x03, 0x00, 0x10, 0x00}, 256), counting(256));
    EXPECT_EQ(sim::spi_flash(0, 0x1000, 256), counting(256));
    // Programming clears bits only: 0x02 over 0x01 leaves 0x00, 0xFF over 0x02 leaves 0x02.
    program(0x001001, {0x02, 0xFF});
    EXPECT_EQ(flash({0x03, 0x00, 0x10, 0x01}, 2), (Bytes{0x00, 0x02}));
}

TEST_F(SpiParts, FlashEngineWritesReadsAndErases) {
    KSI_FLASH_INIT_CONFIG c = w25q32();
    ASSERT_EQ(KSI_FlashInit(kSpi, 0, &c), 0);
    Bytes data = counting(600, 7);
    ASSERT_EQ(KSI_FlashWriteBytes(kSpi, 0, 0x20, data.data(), uint16_t(data.size())), 0);
    EXPECT_EQ(sim::spi_flash(0, 0x2000, 600), data);
    Bytes out(600);
    ASSERT_EQ(KSI_FlashReadBytes(kSpi, 0, 0x20, out.data(), 600), 0);
    EXPECT_EQ(out, data);
    EXPECT_GE(sim::now_us(), 3 * 700u);  // three pages programmed, one after the other

    uint8_t mask = 0x0F;
    ASSERT_EQ(KSI_FlashWriteBytes(kSpi, 0, 0x20, &mask, 1), 0);
    EXPECT_EQ(sim::spi_flash(0, 0x2000, 1), Bytes{0x07});  // 07 AND 0F

    sim::reset_clock();
    ASSERT_EQ(KSI_FlashWriteBytes(kSpi, 0, 0, data.data(), 0), 0);  // no data: chip erase
    EXPECT_GE(sim::now_us(), 2000000u);
    ASSERT_EQ(KSI_FlashReadBytes(kSpi, 0, 0x20, out.data(), 2), 0);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 2), (Bytes{0xFF, 0xFF}));

    // A description whose status command is wrong: the busy poll never ends, and the engine gives
    // up while the library still waits for the status.
    c.read_status[1] = 0x9F;
    ASSERT_EQ(KSI_FlashInit(kSpi, 0, &c), 0);
    EXPECT_EQ(KSI_FlashWriteBytes(kSpi, 0, 0x20, data.data(), 1), -10);
}

TEST_F(SpiParts, BitsComeBackThroughTheLoopback) {
    uint8_t written[] = "1011001";
    ASSERT_EQ(KSI_WriteBits(kSpi, 0, 1, written), 0);
    EXPECT_EQ(sim::spi_loopback_bits(0), "1011001");
    EXPECT_EQ(read_bits(10), "1011001111");  // then the FIFO is empty: 1s
    uint8_t more[] = "0110";
    std::string text(7, 'x');
    ASSERT_EQ(KSI_WriteReadBits(kSpi, 0, 1, more, reinterpret_cast<uint8_t*>(text.data()), 6), 0);
    EXPECT_EQ(std::string(text.c_str()), "011011");
}

TEST_F(SpiParts, BlocksArriveWhenTheLastIsDone) {
    Bytes six = counting(6, 1);
    ASSERT_EQ(KSI_WriteBytes(kSpi, 0, 1, six.data(), 6), 0);  // 48 us on the bus at 1 MHz
    Bytes out(6);
    ASSERT_EQ(KSI_BlockReadBytes(kSpi, 0, 1, out.data(), 2, 3, 1000), 0);
    EXPECT_EQ(out, six);
    EXPECT_EQ(sim::now_us(), 48 + 3 * 16 + 2 * 1000u);  // IntervalTime in microseconds

    Bytes blocks{0xA, 0xB, 0xC, 0xD};
    ASSERT_EQ(KSI_BlockWriteReadBytes(kSpi, 0, 1, blocks.data(), 2, out.data(), 2, 2, 10), 0);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 4), blocks);
}

TEST_F(SpiParts, MicrowireWordsRoundTrip) {
    KSI_MW_INIT_CONFIG c{};
    c.MW_START = 1;
    c.ORG = 1;
    c.SIZE = 256;
    c.MWAddr = 8;
    c.CC_CMD = {0, 1, 2, 3};  // EWDS, WRAL, ERAL, EWEN in the address's top bits
    c.OP_CMD = {0, 1, 2, 3};  // control, WRITE, READ, ERASE
    ASSERT_EQ(KSI_MW_Init(kSpi, 0, &c), 0);
    uint16_t words[] = {0x1234, 0xABCD};
    ASSERT_EQ(KSI_MW_WriteBytes(kSpi, 0, 0, 5, words, 2), 0);
    EXPECT_EQ(sim::spi_microwire(0).at(6), 0xABCD);
    std::vector<uint16_t> out(4, 0x5555);
    // All 2 x Len bytes arrive, which the library counts against the word count: -6, words in place.
    EXPECT_EQ(KSI_MW_ReadBytes(kSpi, 0, 0, 5, out.data(), 2), -6);
    EXPECT_EQ(out, (std::vector<uint16_t>{0x1234, 0xABCD, 0, 0}));
}

TEST_F(SpiParts, SlaveRoundTrip) {
    KSI_INIT_CONFIG c = spi_master_config();
    c.MasterMode = 0;
    ASSERT_EQ(KSI_InitSPI(kSpi, 0, &c), 0);
    uint8_t load[] = {0xA1, 0xA2};
    ASSERT_EQ(KSI_SlaveWriteBytes(kSpi, 0, load, 2), 0);
    EXPECT_EQ(sim::spi_master_transfer(0, {1, 2, 3}), (Bytes{0xA1, 0xA2, 0xFF}));
    Bytes got(10240);
    int32_t n = 0;
    ASSERT_EQ(KSI_SlaveReadBytes(kSpi, 0, got.data(), &n, 100), 0);
    ASSERT_EQ(n, 3);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 3), (Bytes{1, 2, 3}));
    ASSERT_EQ(KSI_SlaveReadBytes(kSpi, 0, got.data(), &n, 100), 0);
    EXPECT_LT(n, 0);  // nothing collected: the read times out
    uint8_t byte = 0;
    EXPECT_EQ(KSI_ReadBytes(kSpi, 0, 0, &byte, 1), -10);  // a slave makes no master transfers
}

}  // namespace
