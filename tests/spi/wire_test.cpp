// The SPI family on the wire: order of checks, payload layouts, status mapping and the read
// handshake. The adapter's firmware is silenced and every answer scripted here, so these tests hold
// whatever the model's SPI side answers.
#include <cerrno>
#include <string>

#include "check_order.hpp"
#include "spi_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

class SpiWire : public SpiAdapter {
  protected:
    void SetUp() override {
        SpiAdapter::SetUp();
        sim::silence(0, true);
    }
};

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The bulk traffic in order: the codes of the frames sent, the reads with what they delivered.
std::vector<std::string> traffic() {
    std::vector<std::string> out;
    for (const auto& r : sim::records()) {
        if (r.call == Call::BulkWrite && r.data.size() >= 4)
            out.push_back("send " + std::to_string(corvel::proto::get_be32(r.data.data())));
        if (r.call == Call::BulkRead)
            out.push_back("read " + std::to_string(r.data.size()) + "/" + std::to_string(r.timeout_ms));
    }
    return out;
}

// The adapter answers once the status read waits; the data-fetch message after it then fails.
void answer_then_fail_fetch(uint8_t status, const Bytes& data) {
    sim::schedule(sim::now_us() + 1000, [=] {
        inject_bulk(status_answer(status));
        inject_bulk(data);
        sim::fail_next(Call::BulkWrite, 1, -EIO);
    });
}

uint8_t data[64];
uint16_t words[64];
int32_t bytes_num;
KSI_INIT_CONFIG init = spi_master_config();
KSI_INIT_CONFIG_EX init_ex{};
KSI_FLASH_INIT_CONFIG flash{};
KSI_MW_INIT_CONFIG mw{};
const std::vector<int32_t> kSpiType{KD_DEVTYPE_SPI};
uint8_t* bits(const char* text) {
    return reinterpret_cast<uint8_t*>(const_cast<char*>(text));
}

// Every function that checks type, connection, a pointer and (where it has one) its channel. The
// block functions check their total before the pointer (BlockSizeComesBeforeThePointer); the
// Microwire init's channel is in its record; InitSPIEx leaves its channel unchecked.
// clang-format off
const CheckedFunction kChecked[] = {
    {"InitSPI", [](int32_t t, int32_t d, int32_t, bool n) { return KSI_InitSPI(t, d, n ? nullptr : &init); },
     kSpiType, kNoChannelCheck},
    {"InitSPIEx", [](int32_t t, int32_t d, int32_t c, bool n) {
         init_ex = {uint8_t(c), 0, 8, 1, 0, 0, 0, 0, 1000000}; return KSI_InitSPIEx(t, d, n ? nullptr : &init_ex); },
     kSpiType, kNoChannelCheck},
    {"WriteBytes", [](int32_t t, int32_t d, int32_t c, bool n) { return KSI_WriteBytes(t, d, c, n ? nullptr : data, 1); },
     kSpiType, 15},
    {"ReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) { return KSI_ReadBytes(t, d, c, n ? nullptr : data, 1); },
     kSpiType, 4},
    {"WriteReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_WriteReadBytes(t, d, c, data, 1, n ? nullptr : data, 1); }, kSpiType, 15},
    {"WriteReadBytesEx", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_WriteReadBytesEx(t, d, c, n ? nullptr : data, 1, data, 1); }, kSpiType, 15},
    {"WriteBits", [](int32_t t, int32_t d, int32_t c, bool n) { return KSI_WriteBits(t, d, c, n ? nullptr : bits("1")); },
     kSpiType, 4},
    {"ReadBits", [](int32_t t, int32_t d, int32_t c, bool n) { return KSI_ReadBits(t, d, c, n ? nullptr : data, 8); },
     kSpiType, 4},
    {"WriteReadBits", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_WriteReadBits(t, d, c, bits("1"), n ? nullptr : data, 8); }, kSpiType, 4},
    {"SlaveReadBytes", [](int32_t t, int32_t d, int32_t, bool n) {
         static uint8_t slave[10240]; return KSI_SlaveReadBytes(t, d, n ? nullptr : slave, &bytes_num, 10); },
     kSpiType, kNoChannelCheck},
    {"SlaveWriteBytes", [](int32_t t, int32_t d, int32_t, bool n) { return KSI_SlaveWriteBytes(t, d, n ? nullptr : data, 1); },
     kSpiType, kNoChannelCheck},
    {"BlockWriteBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_BlockWriteBytes(t, d, c, n ? nullptr : data, 1, 1, 0); }, kSpiType, 4},
    {"BlockReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_BlockReadBytes(t, d, c, n ? nullptr : data, 1, 1, 0); }, kSpiType, 4},
    {"BlockWriteReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_BlockWriteReadBytes(t, d, c, data, 1, n ? nullptr : data, 1, 1, 0); }, kSpiType, 4},
    {"FlashInit", [](int32_t t, int32_t d, int32_t, bool n) { return KSI_FlashInit(t, d, n ? nullptr : &flash); },
     kSpiType, kNoChannelCheck},
    {"FlashWriteBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_FlashWriteBytes(t, d, c, n ? nullptr : data, 1); }, kSpiType, kNoChannelCheck},
    {"FlashReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_FlashReadBytes(t, d, c, n ? nullptr : data, 1); }, kSpiType, kNoChannelCheck},
    {"MW_Init", [](int32_t t, int32_t d, int32_t c, bool n) {
         mw.MWIndex = int8_t(c); return KSI_MW_Init(t, d, n ? nullptr : &mw); }, kSpiType, 32},
    {"MW_WriteBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_MW_WriteBytes(t, d, c, 0, n ? nullptr : words, 1); }, kSpiType, 15},
    {"MW_ReadBytes", [](int32_t t, int32_t d, int32_t c, bool n) {
         return KSI_MW_ReadBytes(t, d, c, 0, n ? nullptr : words, 1); }, kSpiType, 15},
};
// clang-format on

TEST_F(SpiWire, OrderOfChecks) {
    expect_check_order(kChecked);
}

TEST_F(SpiWire, DeviceManagementAndTheSlaveSettersThatDoNothing) {
    EXPECT_EQ(KSI_OpenDevice(1, 0, 0), -15);
    EXPECT_EQ(KSI_CloseDevice(1, 0), -15);
    for (int32_t type : {-1, 1, 2}) {
        EXPECT_EQ(KSI_SlaveModeSet(type, 9, 1, 2, 3), 0);
        EXPECT_EQ(KSI_SlaveCmdTableSet(type, 9, nullptr, 5, nullptr, 5), 0);
    }
    EXPECT_TRUE(sim::records().empty());
    EXPECT_EQ(KSI_ScanDevice(0), 1);
    EXPECT_EQ(KSI_OpenDevice(2, 3, 0), -8);
    KSI_BOARD_INFO info;
    EXPECT_EQ(KSI_ReadBoardInfo(0, nullptr), -1);  // no device type; the exchange is the kit's
    EXPECT_EQ(KSI_CloseDevice(2, 0), 0);
    EXPECT_EQ(KSI_CloseDevice(2, 0), -9);
    EXPECT_EQ(KSI_ReadBoardInfo(0, &info), -8);
}

TEST_F(SpiWire, ConfigurationRanges) {
    const struct {
        void (*edit)(KSI_INIT_CONFIG&);
        bool sent, sent_ex;  // by InitSPI, by InitSPIEx
    } cases[] = {
        {[](auto& c) { c.ClockSpeed = 999; }, false, false},
        {[](auto& c) { c.ClockSpeed = 36000000; }, true, true},
        {[](auto& c) { c.ClockSpeed = 36000001; }, true, false},
        {[](auto& c) { c.ClockSpeed = 42000001; }, false, false},
        {[](auto& c) { c.TranBits = 0; }, false, false},
        {[](auto& c) { c.TranBits = 17; }, false, false},
        {[](auto& c) { c.ControlMode = 4; }, false, false},
        {[](auto& c) { c.CPOL = 2; }, false, false},
        {[](auto& c) { c.CPHA = 2; }, false, false},
        {[](auto& c) { c.MasterMode = 2; }, false, false},
        {[](auto& c) { c.LSBFirst = 2; }, false, false},
        {[](auto& c) { c.SelPolarity = 2; }, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        KSI_INIT_CONFIG k = spi_master_config();
        c.edit(k);
        KSI_INIT_CONFIG_EX x{0,      k.ControlMode, k.TranBits,    k.MasterMode, k.CPOL,
                             k.CPHA, k.LSBFirst,    k.SelPolarity, k.ClockSpeed};
        for (int ex = 0; ex < 2; ++ex) {
            sim::clear_in(0);
            sim::clear_records();
            inject_bulk(status_answer(17));
            EXPECT_EQ(ex ? KSI_InitSPIEx(2, 0, &x) : KSI_InitSPI(2, 0, &k),
                      (ex ? c.sent_ex : c.sent) ? 0 : -4);
            EXPECT_EQ(frames().size(), (ex ? c.sent_ex : c.sent) ? 1u : 0u);
        }
    }
}

// The functions answered by a status byte: their payloads, the status they expect, and what a
// request that did not go out returns.
struct StatusCase {
    const char* name;
    std::function<int32_t()> call;
    Frame frame;
    uint8_t ok;
    int32_t unsent = -5;
};

// clang-format off
const StatusCase kStatusCases[] = {
    {"InitSPI", [] { KSI_INIT_CONFIG c{3, 16, 1, 0, 1, 1, 0, 42000000}; return KSI_InitSPI(2, 0, &c); },
     request(1280, {3, 0, 1, 1, 16, 1, 0, 0x02, 0x80, 0xDE, 0x80}), 17},
    {"InitSPIEx", [] { KSI_INIT_CONFIG_EX c{7, 3, 16, 1, 0, 1, 1, 0, 36000000}; return KSI_InitSPIEx(2, 0, &c); },
     request(1318, {7, 3, 0, 1, 1, 16, 1, 0, 0x02, 0x25, 0x51, 0x00}), 17},
    {"WriteBytes, Len 0", [] { return KSI_WriteBytes(2, 0, 15, data, 0); }, request(1282, {0x0F}), 19},
    {"WriteBytes, channel -1", [] { uint8_t d[] = {0xDE, 0xAD}; return KSI_WriteBytes(2, 0, -1, d, 2); },
     request(1282, {0xDE, 0xAD, 0xFF}), 19},
    {"WriteBits 1011", [] { return KSI_WriteBits(2, 0, 3, bits("1011")); }, request(1294, {0xB0, 0, 0, 0, 4, 3}), 19},
    {"WriteBits, 9 bits", [] { return KSI_WriteBits(2, 0, 0, bits("101100111")); },
     request(1294, {0xB3, 0x80, 0, 0, 0, 9, 0}), 19},
    {"WriteBits, empty", [] { return KSI_WriteBits(2, 0, 0, bits("")); }, request(1294, {0, 0, 0, 0, 0}), 19},
    {"SlaveWriteBytes", [] { uint8_t d[] = {1, 2, 3}; return KSI_SlaveWriteBytes(2, 0, d, 3); },
     request(1302, {1, 2, 3}), 19, 1},
    {"BlockWriteBytes", [] { uint8_t d[] = {0xA, 0xB, 0xC, 0xD}; return KSI_BlockWriteBytes(2, 0, 2, d, 2, 2, 0x01020304); },
     request(1310, {2, 0, 2, 0, 2, 1, 2, 3, 4, 0xA, 0xB, 0xC, 0xD}), 19},
    {"FlashInit", [] {
         KSI_FLASH_INIT_CONFIG f{256, 0x2000, {1, 0x06}, {1, 0x05}, {0, 0xEE}, {}, {9, 1, 2, 3, 4, 5, 6, 7},
                                 {2, 0xAB, 0xCD}, 0, 1, 3, 8, 0x55};
         return KSI_FlashInit(2, 0, &f); },
     request(1304, {0, 0, 1, 0, 0, 0, 0x20, 0, 1, 6, 1, 5, 0, 0, 9, 1, 2, 3, 4, 5, 6, 7, 2, 0xAB, 0xCD, 0, 1, 3, 8}), 17},
    {"FlashWriteBytes", [] { uint8_t d[] = {1, 2}; return KSI_FlashWriteBytes(2, 0, 0x100, d, 2); },
     request(1306, {0, 0, 1, 0, 1, 2}), 19},
    {"MW_Init", [] {
         KSI_MW_INIT_CONFIG m{1, 2, 0x01020304, 32, 0x1234, {0x10, 0x11, 0x12, 0x13}, {0x20, 0x21, 0x22, 0x23}};
         return KSI_MW_Init(2, 0, &m); },
     request(1320, {0x12, 0x10, 0x13, 0x11, 0x20, 0x23, 0x22, 0x21, 0x34, 32, 1, 2, 3, 4, 1, 2}), 17},
    {"MW_WriteBytes", [] { uint16_t w[] = {0x1234, 0xABCD}; return KSI_MW_WriteBytes(2, 0, 0, 5, w, 2); },
     request(1322, {0, 0, 0, 0, 0, 0, 0, 5, 0, 2, 0x12, 0x34, 0xAB, 0xCD}), 19},
};
// clang-format on

TEST_F(SpiWire, StatusAnsweredRequests) {
    for (const auto& c : kStatusCases) {
        SCOPED_TRACE(c.name);
        sim::clear_records();
        inject_bulk(status_answer(c.ok));
        EXPECT_EQ(c.call(), 0);
        EXPECT_EQ(sent().at(0), c.frame);
        inject_bulk(status_answer(c.ok + 1));
        EXPECT_EQ(c.call(), -10);
        sim::clear_records();
        sim::fail_next(Call::BulkWrite, 1, -EIO);
        EXPECT_EQ(c.call(), c.unsent);
        EXPECT_EQ(count(Call::BulkRead), 0u) << "no status read after a failed send";
    }
}

TEST_F(SpiWire, BitStringsAreCutBeforeTheirCharactersAreChecked) {
    std::string text(822336, '1');
    text += "x";
    static uint8_t in[1000001];
    EXPECT_EQ(KSI_WriteBits(2, 0, 0, bits("10x1")), -4);
    EXPECT_EQ(KSI_WriteReadBits(2, 0, 0, bits("2"), in, 8), -4);
    EXPECT_TRUE(frames().empty());
    // Sent whole, though the 16-bit size field holds only the low bits of their sizes.
    KSI_WriteBits(2, 0, 4, bits(text.c_str()));
    EXPECT_EQ(sent().at(0).payload, (Bytes(102792, 0xFF) + Bytes{0x00, 0x0C, 0x8C, 0x40, 4}));
    EXPECT_EQ(sent().at(0).size, 37261u);
    KSI_WriteReadBits(2, 0, 4, bits(text.c_str()), in, 1000000);  // the longest frame: 102808 bytes
    EXPECT_EQ(sent().at(1).payload,
              (Bytes(102792, 0xFF) + Bytes{0x00, 0x0C, 0x8C, 0x40, 0x00, 0x0C, 0x8C, 0x80, 4}));
    EXPECT_EQ(frames().at(1).size(), 102808u);
}

TEST_F(SpiWire, LongWriteReadCutsItsWriteBytes) {
    static uint8_t out[200000];
    std::fill_n(out, sizeof out, 0x5A);
    KSI_WriteReadBytesEx(2, 0, 2, out, 200000, out, 4);
    EXPECT_EQ(sent().at(0), request(32768, Bytes(102790, 0x5A) + Bytes{0, 0, 0, 4, 2}));
    EXPECT_EQ(sent().at(0).header, 9u);
}

TEST_F(SpiWire, BlockTotalComesBeforeThePointer) {
    static uint8_t block[102800];
    using Block = int32_t (*)(uint8_t * p, uint16_t size, uint16_t num);
    const Block write = [](uint8_t* p, uint16_t s, uint16_t n) {
        return KSI_BlockWriteBytes(2, 0, 0, p, s, n, 0);
    };
    const Block read = [](uint8_t* p, uint16_t s, uint16_t n) {
        return KSI_BlockReadBytes(2, 0, 0, p, s, n, 0);
    };
    const Block write_read = [](uint8_t* p, uint16_t s, uint16_t n) {
        return KSI_BlockWriteReadBytes(2, 0, 0, p, s, p, 1, n, 0);
    };
    const struct {
        Block call;
        uint16_t size, num;
        bool null;
        int32_t refused;  // 0: sent
    } cases[] = {
        {write, 1024, 100, false, 0}, {write, 1024, 101, true, -4},     {write, 65535, 65535, true, -4},
        {write, 4, 0, false, -4},     {read, 4, 25700, false, 0},       {read, 3, 34267, true, -4},
        {read, 4, 0, true, -1},       {write_read, 2, 51391, false, 0}, {write_read, 3, 34261, true, -4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        sim::clear_records();
        const int32_t r = c.call(c.null ? nullptr : block, c.size, c.num);
        if (c.refused != 0) {
            EXPECT_EQ(r, c.refused);
        }
        EXPECT_EQ(frames().size(), c.refused == 0 ? 1u : 0u);
    }
    // The read total is not limited, but 4294836225 bytes cannot be asked for in one read.
    sim::clear_records();
    inject_bulk(status_answer(23));
    EXPECT_EQ(KSI_BlockWriteReadBytes(2, 0, 0, block, 1, block, 65535, 65535, 0), -6);
    EXPECT_EQ(count(Call::BulkRead), 1u);
}

// The functions that bring data back: request, status byte, data-fetch message, raw read.
struct ReadCase {
    const char* name;
    std::function<int32_t(uint8_t* out)> call;
    Frame frame;
    uint8_t ok;
    uint32_t fetch;
    Bytes raw;       // what the adapter sends, exactly what is asked for
    Bytes expected;  // what the caller's buffer then holds
    bool fetch_checked = false;
    int timeout_ms = 5000;
    const char* printed = "";
};

// clang-format off
const ReadCase kReadCases[] = {
    {"ReadBytes", [](uint8_t* o) { return KSI_ReadBytes(2, 0, 4, o, 3); }, request(1284, {0, 3, 4}), 21, 1286,
     {1, 2, 3}, {1, 2, 3}, true},
    {"WriteReadBytes", [](uint8_t* o) { uint8_t d[] = {0xDE, 0xAD}; return KSI_WriteReadBytes(2, 0, 15, d, 2, o, 3); },
     request(1292, {0xDE, 0xAD, 0, 3, 15}), 23, 1286, {1, 2, 3}, {1, 2, 3}, true, 5000, "ReadLen: 3\r\n"},
    {"WriteReadBytesEx", [](uint8_t* o) { uint8_t d[] = {0xDE}; return KSI_WriteReadBytesEx(2, 0, 2, d, 1, o, 2); },
     request(32768, {0xDE, 0, 0, 0, 2, 2}), 23, 32770, {1, 2}, {1, 2}, true, 5000, "ReadLen: 2\r\n"},
    {"ReadBits", [](uint8_t* o) { return KSI_ReadBits(2, 0, 3, o, 10); }, request(1296, {0, 0, 0, 10, 3}), 21, 1286,
     {0xC0, 0x40}, {'1', '1', '0', '0', '0', '0', '0', '0', '0', '1', 0}},
    {"WriteReadBits", [](uint8_t* o) { return KSI_WriteReadBits(2, 0, 1, bits("1011"), o, 3); },
     request(1298, {0xB0, 0, 0, 0, 4, 0, 0, 0, 3, 1}), 23, 1286, {0xA0}, {'1', '0', '1', 0}},
    {"BlockReadBytes", [](uint8_t* o) { return KSI_BlockReadBytes(2, 0, 0, o, 4, 3, 1000); },
     request(1312, {0, 4, 0, 3, 0, 0, 3, 0xE8, 0}), 21, 1286, Bytes(12, 7), Bytes(12, 7)},
    {"BlockWriteReadBytes", [](uint8_t* o) { uint8_t d[] = {1, 2, 3, 4}; return KSI_BlockWriteReadBytes(2, 0, 4, d, 2, o, 3, 2, 5); },
     request(1314, {0, 2, 0, 3, 0, 2, 0, 0, 0, 5, 4, 1, 2, 3, 4}), 23, 1286, Bytes(6, 9), Bytes(6, 9)},
    {"FlashReadBytes", [](uint8_t* o) { return KSI_FlashReadBytes(2, 0, 0x100, o, 256); },
     request(1308, {0, 0, 1, 0, 0, 0, 1, 0}), 21, 1286, Bytes(256, 0x33), Bytes(256, 0x33), false, 2000},
};
// clang-format on

TEST_F(SpiWire, ReadHandshake) {
    for (const auto& c : kReadCases) {
        SCOPED_TRACE(c.name);
        uint8_t out[300] = {};
        sim::clear_in(0);
        sim::clear_records();
        inject_bulk(status_answer(c.ok));
        inject_bulk(c.raw + Bytes{0xEE});  // a byte more than asked for stays behind
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.call(out), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
        EXPECT_EQ(Bytes(out, out + c.expected.size()), c.expected);
        EXPECT_EQ(sent().at(0), c.frame);
        EXPECT_EQ(frames().at(1),
                  (Bytes{0, 0, uint8_t(c.fetch >> 8), uint8_t(c.fetch), 0, 0, 0}));  // short header
        const std::string data_read =
            "read " + std::to_string(c.raw.size()) + "/" + std::to_string(c.timeout_ms);
        EXPECT_EQ(traffic(), (std::vector<std::string>{"send " + std::to_string(c.frame.code), "read 1/3000",
                                                       "send " + std::to_string(c.fetch), data_read}));

        sim::clear_in(0);
        inject_bulk(status_answer(c.ok));
        inject_bulk(Bytes(c.raw.begin(), c.raw.end() - 1));
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.call(out), -6);
        testing::internal::GetCapturedStdout();

        sim::clear_records();
        inject_bulk(status_answer(c.ok + 1));
        EXPECT_EQ(c.call(out), -10);
        EXPECT_EQ(frames().size(), 1u) << "no data-fetch message after a refusal";

        // A data-fetch message that did not go out ends the byte reads; the others read on.
        sim::clear_in(0);
        answer_then_fail_fetch(c.ok, c.raw);
        testing::internal::CaptureStdout();
        EXPECT_EQ(c.call(out), c.fetch_checked ? -5 : 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    }
}

TEST_F(SpiWire, ReadLenLineComesBeforeTheDataReadAndTwiceFor256) {
    static uint8_t out[256];
    uint8_t one[1] = {0};
    std::string before_data;
    inject_bulk(status_answer(23));
    sim::schedule(sim::now_us() + 1000, [&] {
        before_data = testing::internal::GetCapturedStdout();
        inject_bulk(Bytes(256, 1));
    });
    testing::internal::CaptureStdout();
    EXPECT_EQ(KSI_WriteReadBytesEx(2, 0, 0, one, 1, out, 256), 0);
    EXPECT_EQ(before_data, "ReadLen: 256\r\nReadLen: 256\r\n");
}

TEST_F(SpiWire, ReadBitCountsAreBounded) {
    static uint8_t text[822402];
    inject_bulk(status_answer(21));
    EXPECT_EQ(KSI_ReadBits(2, 0, 0, text, -3), 0);  // asks for no bits, reads nothing
    EXPECT_EQ(sent().at(0), request(1296, {0, 0, 0, 0, 0}));
    EXPECT_EQ(count(Call::BulkRead), 1u);
    EXPECT_STREQ(reinterpret_cast<char*>(text), "");
    sim::clear_records();
    inject_bulk(status_answer(21));
    inject_bulk(Bytes(102800, 0x80));
    EXPECT_EQ(KSI_ReadBits(2, 0, 0, text, 2000000), 0);
    EXPECT_EQ(sent().at(0), request(1296, {0x00, 0x0C, 0x8C, 0x80, 0}));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(text) + 822392), "10000000");
}

TEST_F(SpiWire, MicrowireReadFillsTwiceLenWordsAndComparesWithTheWordCount) {
    const struct {
        Bytes raw;
        int32_t expected;
        std::array<uint16_t, 5> words;
    } cases[] = {
        {{0x12, 0x34}, 0, {0x1234, 0, 0, 0, 0xEEEE}},
        {{0x12, 0x34, 0xAB, 0xCD, 0x99}, -6, {0x1234, 0xABCD, 0, 0, 0xEEEE}},  // 4 bytes asked for
    };
    for (const auto& c : cases) {
        sim::clear_in(0);
        sim::clear_records();
        std::array<uint16_t, 5> w;
        w.fill(0xEEEE);
        inject_bulk(status_answer(21));
        inject_bulk(c.raw);
        EXPECT_EQ(KSI_MW_ReadBytes(2, 0, 15, 0x0A, w.data(), 2), c.expected);
        EXPECT_EQ(w, c.words);
        EXPECT_EQ(sent().at(0), request(1324, {0, 0, 0, 15, 0, 0, 0, 0x0A, 0, 2}));
        EXPECT_EQ(sent().at(1), request(1326, {}));
    }
    std::array<uint16_t, 4> w;
    w.fill(0xEEEE);
    sim::clear_in(0);
    answer_then_fail_fetch(21, {1, 2});
    EXPECT_EQ(KSI_MW_ReadBytes(2, 0, 0, 0, w.data(), 2), -5);
    EXPECT_EQ(w[0], 0xEEEE) << "untouched when no data was read";
}

TEST_F(SpiWire, SlaveReadReportsThroughTheCount) {
    static uint8_t in[10240];
    inject_bulk({1, 2, 3});
    int32_t got = 0;
    EXPECT_EQ(KSI_SlaveReadBytes(2, 0, in, &got, 250), 0);
    EXPECT_EQ(got, 3);
    EXPECT_EQ(sent().at(0), request(1300, {}));
    EXPECT_EQ(calls(Call::BulkRead).at(0).timeout_ms, 250);
    sim::clear_records();
    EXPECT_EQ(KSI_SlaveReadBytes(2, 0, in, &got, 40), 0);  // nothing came: one attempt
    EXPECT_EQ(got, -ETIMEDOUT);
    EXPECT_EQ(count(Call::BulkRead), 1u);
    EXPECT_EQ(KSI_SlaveReadBytes(2, 0, in, nullptr, 40), 0);
    sim::fail_next(Call::BulkWrite, 1, -EIO);
    EXPECT_EQ(KSI_SlaveReadBytes(2, 0, in, &got, 40), -5);
    uint8_t one[1] = {1};
    EXPECT_EQ(KSI_SlaveWriteBytes(2, 0, one, 0), -1);
    EXPECT_EQ(KSI_SlaveWriteBytes(2, 0, one, -4), -1);
}

}  // namespace
