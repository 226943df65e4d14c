// The firmware model's SPI side driven with raw frames: the read handshake, the parts on the chip
// selects (flash, loopback), block timing, the flash and Microwire engines with right and wrong
// descriptions, slave mode, and malformed requests. What the library sends is covered by
// tests/spi/behaviour_test.cpp.
#include <algorithm>
#include <cerrno>
#include <random>

#include "CorvelMsg.h"
#include "corvel/sim_spi.hpp"
#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

constexpr uint8_t kNone = 0xEE;  // marks "no single status byte came back"

Bytes be16(uint16_t v) {
    return {uint8_t(v >> 8), uint8_t(v)};
}
// KSI_InitSPIEx's payload: channel, mode, CPOL, CPHA, master, bits, LSB first, CS polarity, clock.
Bytes config_ex(uint8_t channel, uint32_t hz, uint8_t master = 1, uint8_t lsb = 0, uint8_t bits = 8) {
    return Bytes{channel, 0, 0, 0, master, bits, lsb, 0} + be32(hz);
}
// A bare status message, as the host sends its data requests: the short header whatever the code.
Bytes bare(uint32_t code) {
    return be32(code) + Bytes{0, 0, 0};
}
Bytes seq(std::initializer_list<uint8_t> bytes) {
    return Bytes{uint8_t(bytes.size())} + Bytes(bytes);
}
// The description of the simulated chip, with one field changed by the caller if need be.
struct FlashInit {
    Bytes write_enable = seq({0x06}), read_status = seq({0x05}), chip_erase = seq({0xC7});
    Bytes write_data = seq({0x02}), read_data = seq({0x03}), first_cmd = seq({});
    uint8_t busy_bit = 0, busy_mask = 0x01;
    Bytes payload() const {
        return be32(256) + be32(16384) + write_enable + read_status + chip_erase + write_data + read_data +
               first_cmd + Bytes{busy_bit, busy_mask, 3, 8};
    }
};
// KSI_MW_Init's payload for a 93C66 (x16, 8 address bits, 256 words) on Microwire channel 0.
struct MwInit {
    uint8_t ew_enable = 3, read = 2, write = 1, start = 1;
    Bytes payload() const {
        return Bytes{2, 0, ew_enable, 1, 0, 3, read, write, 8, 0} + be32(256) + Bytes{start, 1};
    }
};

class Spi : public SimTest {
  protected:
    void SetUp() override {
        reset({adapter("CV0000000001", proto::kDevTypeSpi)});
        read_bus();
    }
    // The next answer, waiting up to `timeout_ms` of virtual time.
    Bytes answer(int timeout_ms = 100) { return read(h, 1 << 23, 0x82, timeout_ms).data; }
    uint8_t status(uint32_t code, const Bytes& payload, int timeout_ms = 100) {
        EXPECT_EQ(write(h, frame(code, payload)), int(payload.size() + (code > 32767 ? 9 : 7)));
        const Bytes a = answer(timeout_ms);
        return a.size() == 1 ? a[0] : kNone;
    }
    // A read request: its status, then the data fetched with `fetch`.
    Bytes read_data(uint32_t code, const Bytes& payload, uint8_t ok,
                    uint32_t fetch = MSG_KD_REQUEST_SPI_DATAS_REC) {
        if (status(code, payload) != ok) return {kNone};
        EXPECT_EQ(write(h, bare(fetch)), 7);
        return answer(5000);
    }
    uint8_t send(uint8_t channel, const Bytes& out) {
        return status(MSG_KD_REQUEST_SPI_DATAS_TRAN, out + Bytes{channel});
    }
    Bytes xfer(uint8_t channel, const Bytes& out, uint16_t len) {
        return read_data(MSG_KD_REQUEST_SPI_DATAS_TRAN_REC, out + be16(len) + Bytes{channel},
                         MSG_SPI_WRITE_READ_DATA_OK);
    }
    uint8_t flash_status() { return xfer(0, {0x05}, 1).at(0); }
    void program(uint32_t address, const Bytes& data) {
        ASSERT_EQ(send(0, {0x06}), MSG_SPI_WRITE_DATA_OK);
        ASSERT_EQ(
            send(0, Bytes{0x02, uint8_t(address >> 16), uint8_t(address >> 8), uint8_t(address)} + data),
            MSG_SPI_WRITE_DATA_OK);
    }
    bool nothing_waits() { return read(h, 1).result == -ETIMEDOUT; }
};

TEST_F(Spi, MalformedRequestsGetTheirOperationsErrorStatus) {
    const struct {
        uint32_t code;
        std::vector<std::size_t> sizes;  // of a zero payload: all wrong
        uint8_t status;
    } sizes[] = {{1280, {10, 12}, MSG_SPI_NINT_ERROR},       {1318, {11, 13}, MSG_SPI_NINT_ERROR},
                 {1282, {0}, MSG_SPI_WRITE_DATA_ERROR},      {1284, {2, 4}, MSG_SPI_READ_DATA_ERROR},
                 {1292, {2}, MSG_SPI_WRITE_READ_DATA_ERROR}, {32768, {4}, MSG_SPI_WRITE_READ_DATA_ERROR},
                 {1294, {4}, MSG_SPI_WRITE_DATA_ERROR},      {1296, {4, 6}, MSG_SPI_READ_DATA_ERROR},
                 {1298, {8}, MSG_SPI_WRITE_READ_DATA_ERROR}, {1302, {0}, MSG_SPI_WRITE_DATA_ERROR},
                 {1304, {17}, MSG_SPI_NINT_ERROR},           {1306, {3}, MSG_SPI_WRITE_DATA_ERROR},
                 {1308, {7, 9}, MSG_SPI_READ_DATA_ERROR},    {1310, {8}, MSG_SPI_WRITE_DATA_ERROR},
                 {1312, {8, 10}, MSG_SPI_READ_DATA_ERROR},   {1314, {10}, MSG_SPI_WRITE_READ_DATA_ERROR},
                 {1320, {15, 17}, MSG_SPI_NINT_ERROR},       {1322, {9}, MSG_SPI_WRITE_DATA_ERROR},
                 {1324, {9, 11}, MSG_SPI_READ_DATA_ERROR}};
    for (const auto& c : sizes)
        for (std::size_t n : c.sizes) EXPECT_EQ(status(c.code, Bytes(n, 0)), c.status) << c.code << "/" << n;
    const struct {
        uint32_t code;
        Bytes payload;
        uint8_t status;
    } values[] = {
        {1280, Bytes{4, 0, 0, 1, 8, 0, 0} + be32(1000000), MSG_SPI_NINT_ERROR},   // control mode 4
        {1280, Bytes{0, 0, 0, 1, 17, 0, 0} + be32(1000000), MSG_SPI_NINT_ERROR},  // 17 bits
        {1280, Bytes{0, 0, 0, 1, 8, 0, 0} + be32(42000001), MSG_SPI_NINT_ERROR},
        {1318, config_ex(0, 36000001), MSG_SPI_NINT_ERROR},
        {1318, config_ex(0, 999), MSG_SPI_NINT_ERROR},
        {1318, config_ex(16, 1000000), MSG_SPI_NINT_ERROR},
        {1282, {0x9F, 16}, MSG_SPI_WRITE_DATA_ERROR},                        // channels 0 to 15
        {1284, {0, 1, 255}, MSG_SPI_READ_DATA_ERROR},                        // a negative index's low byte
        {1294, Bytes{0xB0} + be32(9) + Bytes{1}, MSG_SPI_WRITE_DATA_ERROR},  // 9 bits need two bytes
        {1296, be32(822401) + Bytes{1}, MSG_SPI_READ_DATA_ERROR},
        {32768, be32(4194305) + Bytes{1}, MSG_SPI_WRITE_READ_DATA_ERROR},
        {1310, Bytes{1} + be16(2) + be16(0) + be32(0), MSG_SPI_WRITE_DATA_ERROR},  // no block
        {1310, Bytes{1} + be16(2) + be16(2) + be32(0) + Bytes{1, 2, 3}, MSG_SPI_WRITE_DATA_ERROR},
        {1312, be16(1024) + be16(101) + be32(0) + Bytes{1}, MSG_SPI_READ_DATA_ERROR},  // above 102800
        {1306, be32(0) + Bytes{1}, MSG_SPI_WRITE_DATA_ERROR},  // no flash description yet
        {1308, be32(0) + be32(1), MSG_SPI_READ_DATA_ERROR},
        {1322, be32(0) + be32(0) + be16(0), MSG_SPI_WRITE_DATA_ERROR},  // no Microwire description
        {1320, Bytes(9, 0) + Bytes{33} + be32(256) + Bytes{1, 1}, MSG_SPI_NINT_ERROR},    // channel 33
        {1320, Bytes(8, 0) + Bytes{8, 0} + be32(256) + Bytes{1, 0}, MSG_SPI_NINT_ERROR},  // ORG x8
        {1302, {1}, MSG_SPI_WRITE_DATA_ERROR},                                            // not a slave
    };
    for (const auto& c : values) EXPECT_EQ(status(c.code, c.payload), c.status) << c.code;
    EXPECT_TRUE(nothing_waits());
    EXPECT_TRUE(unknown_messages(0).empty());
    EXPECT_FALSE(spi_channel(0, 0).configured);  // refused configurations change nothing
}

TEST_F(Spi, ReadDataWaitsForItsOwnDataRequest) {
    ASSERT_EQ(status(1284, {0, 3, 4}), MSG_SPI_READ_DATA_OK);  // channel 4: nothing attached
    EXPECT_TRUE(nothing_waits());
    for (uint32_t wrong : {MSG_KD_REQUEST_SPI_DATAS_LONG_TRAN_READ_REQUEST, MSG_KD_REQUEST_MW_DATAS_REC})
        EXPECT_EQ(ask(bare(wrong)), Bytes{}) << wrong;
    EXPECT_EQ(ask(bare(MSG_KD_REQUEST_SPI_DATAS_REC)), (Bytes{0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(ask(bare(MSG_KD_REQUEST_SPI_DATAS_REC)), Bytes{});  // sent once
    // The long write-read (9-byte header) and its own data request (7-byte header).
    EXPECT_EQ(read_data(32768, Bytes{0x9F} + be32(3) + Bytes{0}, MSG_SPI_WRITE_READ_DATA_OK,
                        MSG_KD_REQUEST_SPI_DATAS_LONG_TRAN_READ_REQUEST),
              (Bytes{0xEF, 0x40, 0x16}));
}

TEST_F(Spi, FlashProgramsOnlyWithWriteEnableAndOnlyClearsBits) {
    EXPECT_EQ(xfer(0, {0x9F}, 3), (Bytes{0xEF, 0x40, 0x16}));
    EXPECT_EQ(send(0, {0x02, 0x00, 0x01, 0x00, 0x12}), MSG_SPI_WRITE_DATA_OK);  // no WEL: ignored
    EXPECT_EQ(send(0, {0x06}), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(flash_status(), 0x02);
    EXPECT_EQ(send(0, {0x04}), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(flash_status(), 0x00);
    // 20 bytes at column 0xF8 of page 0x0100: 8 to the page's end, 12 wrapped to its start.
    Bytes data(20);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(0xA0 + i);
    program(0x0001F8, data);
    EXPECT_EQ(flash_status(), 0x03);                              // busy, WEL still set
    EXPECT_EQ(xfer(0, {0x03, 0, 1, 0}, 2), (Bytes{0xFF, 0xFF}));  // ignored while busy
    usleep(700);
    EXPECT_EQ(flash_status(), 0x00);
    EXPECT_EQ(xfer(0, {0x03, 0x00, 0x01, 0xF6}, 4), (Bytes{0xFF, 0xFF, 0xA0, 0xA1}));
    EXPECT_EQ(xfer(0, {0x0B, 0x00, 0x01, 0x00, 0x00}, 3), (Bytes{0xA8, 0xA9, 0xAA}));
    EXPECT_EQ(spi_flash(0, 0x100, 13),
              (Bytes{0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF, 0xB0, 0xB1, 0xB2, 0xB3, 0xFF}));
    program(0x0001F8, {0x0F});  // A0 AND 0F: bits only ever clear
    usleep(700);
    EXPECT_EQ(spi_flash(0, 0x1F8, 1), Bytes{0x00});
    EXPECT_EQ(spi_flash_state(0).page_programs, 2u);
}

TEST_F(Spi, EraseKeepsTheChipBusyForItsTime) {
    const struct {
        Bytes command;  // at address 0x012345 where it takes one
        uint64_t busy_us;
        uint32_t first, size;
    } erases[] = {{{0x20, 0x01, 0x23, 0x45}, 45000, 0x012000, 0x1000},
                  {{0xD8, 0x01, 0x23, 0x45}, 150000, 0x010000, 0x10000},
                  {{0xC7}, 2000000, 0, 4 << 20},
                  {{0x60}, 2000000, 0, 4 << 20}};
    for (const auto& e : erases) {
        set_spi_flash(0, 0, Bytes(4 << 20, 0x00));
        EXPECT_EQ(send(0, e.command), MSG_SPI_WRITE_DATA_OK);  // no WEL: nothing happens
        EXPECT_EQ(spi_flash_state(0).status, 0x00);
        usleep(100);  // the bus is idle again
        const uint64_t start = now_us();
        ASSERT_EQ(send(0, {0x06}), MSG_SPI_WRITE_DATA_OK);
        ASSERT_EQ(send(0, e.command), MSG_SPI_WRITE_DATA_OK);
        // Bus time at 1 MHz, 8 us a byte, for the two commands, then the erase.
        const uint64_t done = start + 8 * (1 + e.command.size()) + e.busy_us;
        usleep(uint32_t(done - 1 - now_us()));
        EXPECT_EQ(spi_flash_state(0).status, 0x03) << int(e.command[0]);
        usleep(1);
        EXPECT_EQ(spi_flash_state(0).status, 0x00) << int(e.command[0]);
        const Bytes erased = spi_flash(0, e.first, e.size);
        EXPECT_EQ(std::count(erased.begin(), erased.end(), 0xFF), e.size) << int(e.command[0]);
        if (e.first > 0) {
            EXPECT_EQ(spi_flash(0, e.first - 1, 1), Bytes{0x00});
        }
    }
    EXPECT_EQ(spi_flash_state(0).erases, 4u);
}

TEST_F(Spi, LoopbackReturnsTheBitsThatWentOut) {
    EXPECT_EQ(status(1294, Bytes{0xB4} + be32(6) + Bytes{1}), MSG_SPI_WRITE_DATA_OK);  // 101101
    EXPECT_EQ(spi_loopback_bits(0), "101101");
    // Four of them back, then the bits of a write-read's write phase, then empty: 1s.
    EXPECT_EQ(read_data(1296, be32(4) + Bytes{1}, MSG_SPI_READ_DATA_OK), Bytes{0xB0});
    EXPECT_EQ(read_data(1298, Bytes{0x00} + be32(3) + be32(9) + Bytes{1}, MSG_SPI_WRITE_READ_DATA_OK),
              (Bytes{0x47, 0x80}));  // 01 000 1111
    EXPECT_EQ(send(1, {0x12, 0x34}), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(read_data(1284, {0, 3, 1}, MSG_SPI_READ_DATA_OK), (Bytes{0x12, 0x34, 0xFF}));
    // Bounded: the oldest bits go.
    EXPECT_EQ(send(1, Bytes(100000, 0x00)), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(send(1, Bytes(100000, 0xFF)), MSG_SPI_WRITE_DATA_OK);
    const std::string bits = spi_loopback_bits(0);
    EXPECT_EQ(bits.size(), 1u << 20);
    EXPECT_EQ(std::count(bits.begin(), bits.end(), '0'), 248576);
    EXPECT_EQ(bits.back(), '1');
}

TEST_F(Spi, BitOrderAndDetachedPartsAsOnTheWire) {
    ASSERT_EQ(status(1318, config_ex(0, 1000000, 1, 1)), MSG_SPI_NINT_OK);
    EXPECT_EQ(xfer(0, {0xF9}, 3), (Bytes{0xF7, 0x02, 0x68}));  // 9F and EF 40 16, least significant bit first
    EXPECT_EQ(spi_channel(0, 0).lsb_first, 1);
    EXPECT_EQ(spi_channel(0, 1).lsb_first, 0);
    spi_detach(0, 1);
    EXPECT_EQ(send(1, {0x55}), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(xfer(1, {}, 2), (Bytes{0xFF, 0xFF}));
    spi_attach_defaults(0);
    EXPECT_EQ(send(1, {0x55}), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(xfer(1, {}, 1), Bytes{0x55});
}

TEST_F(Spi, BlockDataComeWhenTheLastBlockIsDone) {
    // 3 blocks of 4 bytes at 1 MHz (32 us each), 1000 us apart.
    EXPECT_EQ(read_data(1312, be16(4) + be16(3) + be32(1000) + Bytes{5}, MSG_SPI_READ_DATA_OK),
              Bytes(12, 0xFF));
    EXPECT_EQ(now_us(), 2096u);
    reset_clock();
    // Each block written, then read, in one assertion: the loopback gives each block back.
    EXPECT_EQ(read_data(1314, be16(2) + be16(2) + be16(3) + be32(10) + Bytes{1, 1, 2, 3, 4, 5, 6},
                        MSG_SPI_WRITE_READ_DATA_OK),
              (Bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(now_us(), 116u);
    // A block write answers at once; the next transfer starts when its blocks are done.
    reset_clock();
    EXPECT_EQ(status(1310, Bytes{1} + be16(1) + be16(2) + be32(500) + Bytes{7, 8}), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(now_us(), 0u);
    EXPECT_EQ(xfer(1, {}, 2), (Bytes{7, 8}));
    EXPECT_EQ(now_us(), 532u);
}

TEST_F(Spi, FlashEngineRunsTheDescriptionAsGiven) {
    ASSERT_EQ(status(1280, Bytes{0, 0, 0, 1, 8, 0, 0} + be32(36000000)), MSG_SPI_NINT_OK);
    Bytes data(512);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7);
    FlashInit right, no_enable, bad_read, no_busy, bad_status;
    no_enable.write_enable = seq({0x04});
    bad_read.read_data = seq({0x13});
    no_busy.busy_mask = 0x00;              // goes on while the chip is busy: the second page is ignored
    bad_status.read_status = seq({0x9F});  // EF: always "busy"
    const struct {
        const char* name;
        FlashInit init;
        uint8_t write_status;
        bool first_page, second_page, read_back;
        uint64_t write_us;
    } cases[] = {// At 36 MHz a page takes 1 us (write enable) + 58 us (command, address, 256 bytes), then the
                 // status is polled every 51 us until the 700 us program is over: 774 us.
                 {"right", right, MSG_SPI_WRITE_DATA_OK, true, true, true, 1548},
                 {"write enable", no_enable, MSG_SPI_WRITE_DATA_OK, false, false, true, 120},
                 {"read", bad_read, MSG_SPI_WRITE_DATA_OK, true, true, false, 1548},
                 {"busy mask", no_busy, MSG_SPI_WRITE_DATA_OK, true, false, true, 120},
                 {"read status", bad_status, MSG_SPI_WRITE_DATA_ERROR, true, false, true, 2500080}};
    for (const auto& c : cases) {
        erase_spi_flash(0);
        usleep(1000000);
        ASSERT_EQ(status(1304, c.init.payload()), MSG_SPI_NINT_OK) << c.name;
        reset_clock();
        EXPECT_EQ(status(1306, be32(0x10) + data, 3000), c.write_status) << c.name;
        EXPECT_EQ(now_us(), c.write_us) << c.name;
        const Bytes first(data.begin(), data.begin() + 256), second(data.begin() + 256, data.end());
        EXPECT_EQ(spi_flash(0, 0x1000, 256), c.first_page ? first : Bytes(256, 0xFF)) << c.name;
        EXPECT_EQ(spi_flash(0, 0x1100, 256), c.second_page ? second : Bytes(256, 0xFF)) << c.name;
        usleep(3000000);
        const Bytes back = read_data(1308, be32(0x10) + be16(0) + be16(4), MSG_SPI_READ_DATA_OK);
        EXPECT_EQ(back, c.read_back ? spi_flash(0, 0x1000, 4) : Bytes(4, 0xFF)) << c.name;
    }
    // Page addresses beyond page_num are refused; a write of no data erases the chip.
    ASSERT_EQ(status(1304, right.payload()), MSG_SPI_NINT_OK);
    EXPECT_EQ(status(1306, be32(16383) + Bytes(257, 0)), MSG_SPI_WRITE_DATA_ERROR);
    reset_clock();
    EXPECT_EQ(status(1306, be32(0), 3000), MSG_SPI_WRITE_DATA_OK);
    EXPECT_GE(now_us(), 2000000u);
    EXPECT_EQ(spi_flash(0, 0x1000, 1), Bytes{0xFF});
}

TEST_F(Spi, FlashEngineFirstCommandWakesThePart) {
    ASSERT_EQ(send(0, {0xB9}), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(xfer(0, {0x9F}, 1), Bytes{0xFF});  // powered down
    FlashInit init;
    init.first_cmd = seq({0xAB});
    ASSERT_EQ(status(1304, init.payload()), MSG_SPI_NINT_OK);
    EXPECT_FALSE(spi_flash_state(0).powered_down);
    EXPECT_EQ(xfer(0, {0xAB, 0, 0, 0}, 1), Bytes{0x15});
}

TEST_F(Spi, FlashWritesThroughOnlyWhatChanged) {
    ASSERT_EQ(status(1304, FlashInit{}.payload()), MSG_SPI_NINT_OK);
    ASSERT_EQ(status(1306, be32(0) + Bytes{1}, 3000), MSG_SPI_WRITE_DATA_OK);  // creates the file
    const uint64_t before = spi_flash_state(0).bytes_written;
    ASSERT_EQ(status(1306, be32(16) + Bytes(16 * 256, 0x5A), 3000), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(spi_flash_state(0).bytes_written - before, 16u * 256);
    rebuild({adapter("CV0000000001", proto::kDevTypeSpi)});
    EXPECT_EQ(spi_flash(0, 0x1000, 2), (Bytes{0x5A, 0x5A}));
}

TEST_F(Spi, MicrowireEngineSpeaksTheDescribedOpcodes) {
    const Bytes words{0x12, 0x34, 0xAB, 0xCD};
    MwInit right, no_enable, bad_read, bad_start;
    no_enable.ew_enable = 0;  // EWDS instead: writes do not land
    bad_read.read = 3;        // ERASE instead: the part sends nothing
    bad_start.start = 0;      // the opcode's first bit is taken for the start bit
    const struct {
        const char* name;
        MwInit init;
        Bytes stored, read;
    } cases[] = {// At 36 MHz a page takes 1 us (write enable) + 58 us (command, address, 256 bytes), then the
                 // status is polled every 51 us until the 700 us program is over: 774 us.
                 {"right", right, words, words},
                 {"write enable", no_enable, Bytes(4, 0xFF), Bytes(4, 0xFF)},
                 {"read", bad_read, words, Bytes(4, 0xFF)},
                 {"start bit", bad_start, Bytes(4, 0xFF), Bytes(4, 0xFF)}};
    for (const auto& c : cases) {
        set_spi_microwire(0, std::vector<uint16_t>(256, 0xFFFF));
        ASSERT_EQ(status(1320, c.init.payload()), MSG_SPI_NINT_OK) << c.name;
        EXPECT_EQ(status(1322, be32(0) + be32(5) + be16(2) + words, 3000), MSG_SPI_WRITE_DATA_OK) << c.name;
        const auto stored = spi_microwire(0);
        EXPECT_EQ(
            (Bytes{uint8_t(stored[5] >> 8), uint8_t(stored[5]), uint8_t(stored[6] >> 8), uint8_t(stored[6])}),
            c.stored)
            << c.name;
        EXPECT_EQ(
            read_data(1324, be32(0) + be32(5) + be16(2), MSG_SPI_READ_DATA_OK, MSG_KD_REQUEST_MW_DATAS_REC),
            c.read)
            << c.name;
    }
    ASSERT_EQ(status(1320, right.payload()), MSG_SPI_NINT_OK);
    set_spi_microwire(0, {1, 2, 3});
    EXPECT_EQ(status(1322, be32(0) + be32(255) + be16(2) + words), MSG_SPI_WRITE_DATA_ERROR);  // past SIZE
    EXPECT_EQ(status(1322, be32(0) + be32(0) + be16(0), 3000), MSG_SPI_WRITE_DATA_OK);         // ERAL
    EXPECT_EQ(spi_microwire(0), std::vector<uint16_t>(256, 0xFFFF));
}

TEST_F(Spi, SlaveClocksOutWhatWasLoadedAndKeepsWhatCameIn) {
    EXPECT_TRUE(spi_master_transfer(0, {1}).empty());
    ASSERT_EQ(status(1280, Bytes{0, 0, 0, 0, 8, 0, 0} + be32(1000000)), MSG_SPI_NINT_OK);
    EXPECT_EQ(send(1, {0x55}), MSG_SPI_WRITE_DATA_ERROR);  // a slave makes no transfers
    EXPECT_EQ(status(1302, {0xA1, 0xA2}), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(spi_master_transfer(0, {1, 2, 3}), (Bytes{0xA1, 0xA2, 0xFF}));
    EXPECT_EQ(ask(MSG_KD_SLAVE_GET_SPI_DATA, {}), (Bytes{1, 2, 3}));
    EXPECT_EQ(ask(MSG_KD_SLAVE_GET_SPI_DATA, {}), Bytes{});  // nothing collected: no answer
    spi_master_transfer(0, Bytes(10300, 9));
    EXPECT_EQ(ask(MSG_KD_SLAVE_GET_SPI_DATA, {}).size(), 10240u);
    EXPECT_EQ(ask(MSG_KD_SLAVE_GET_SPI_DATA, {}).size(), 60u);
}

TEST_F(Spi, ClockOffAnswersAtOnceAndBusyPeriodsStillEnd) {
    virtual_clock(false);
    ASSERT_EQ(status(1304, FlashInit{}.payload()), MSG_SPI_NINT_OK);
    ASSERT_EQ(status(1306, be32(2) + Bytes(600, 0x11)), MSG_SPI_WRITE_DATA_OK);
    EXPECT_EQ(read_data(1308, be32(2) + be16(0) + be16(2), MSG_SPI_READ_DATA_OK), (Bytes{0x11, 0x11}));
    EXPECT_EQ(read_data(1312, be16(1) + be16(3) + be32(1000000) + Bytes{5}, MSG_SPI_READ_DATA_OK),
              Bytes(3, 0xFF));
    program(0, {0x22});
    int polls = 1;
    while (flash_status() != 0 && polls < 1000) ++polls;
    EXPECT_LT(polls, 1000);
    EXPECT_EQ(now_us(), 0u);
}

TEST_F(Spi, AnyPayloadIsAnsweredAndTheAdapterCarriesOn) {
    std::minstd_rand random(11);
    for (uint32_t code : {1280, 1282, 1284, 1286, 1292, 1294, 1296, 1298, 1300, 1302,  1304, 1306,
                          1308, 1310, 1312, 1314, 1318, 1320, 1322, 1324, 1326, 32768, 32770}) {
        for (std::size_t size : {0, 1, 3, 5, 8, 9, 10, 11, 12, 16, 18, 40, 3000}) {
            Bytes payload(size);
            for (uint8_t& b : payload) b = uint8_t(random());
            ASSERT_GT(write(h, frame(code, payload)), 0);
            int answers = 0;
            while (read(h, 1 << 23, 0x82, 5000).result >= 0) ++answers;
            EXPECT_LE(answers, 1) << code << "/" << size;
        }
    }
    EXPECT_TRUE(unknown_messages(0).empty());
    ASSERT_EQ(status(1280, Bytes{0, 0, 0, 1, 8, 0, 0} + be32(1000000)), MSG_SPI_NINT_OK);
    usleep(3000000);
    EXPECT_EQ(xfer(0, {0x9F}, 3), (Bytes{0xEF, 0x40, 0x16}));
}

TEST_F(Spi, ControlApiIsHarmlessWithoutSpi) {
    rebuild({adapter("CV0000000001"), adapter("CV0000000002", proto::kDevTypeSpi)});
    for (int adapter : {-1, 0, 7}) {
        EXPECT_FALSE(spi_channel(adapter, 0).configured);
        EXPECT_TRUE(spi_flash(adapter, 0, 4).empty());
        EXPECT_TRUE(spi_loopback_bits(adapter).empty());
        EXPECT_TRUE(spi_microwire(adapter).empty());
        EXPECT_TRUE(spi_master_transfer(adapter, {1}).empty());
        set_spi_flash(adapter, 0, {1});
        erase_spi_flash(adapter);
        spi_detach(adapter, 0);
    }
    EXPECT_EQ(spi_channel(1, 16).clock_hz, 1000000u);  // a default record
    spi_detach(1, 16);
    spi_detach(1, 0);
    EXPECT_TRUE(spi_flash(1, 0, 4).empty());
    spi_attach_defaults(1);
    EXPECT_EQ(spi_flash(1, 4194302, 4), Bytes(4, 0xFF));  // past the end reads erased
}

}  // namespace
}  // namespace corvel::sim::test
