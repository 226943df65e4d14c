// The ControlCAN-style interface on the wire: the checks and their codes, the channel and filter
// payloads, transmit packing and batching, and the decoding of scripted replies by the read thread
// and the status read. The firmware is silenced; every answer is scripted here.
#include <cstring>
#include <functional>
#include <optional>
#include <vector>

#include "ControlCANBuffered.h"
#include "can_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

VCI_INIT_CONFIG config(uint8_t t0, uint8_t t1, uint32_t code = 0, uint32_t mask = 0xFFFFFFFF,
                       uint8_t mode = 0) {
    return VCI_INIT_CONFIG{code, mask, 0, 1, t0, t1, mode};
}

VCI_CAN_OBJ obj(uint32_t id, uint8_t len, bool ext = false, bool remote = false, uint8_t send_type = 0) {
    VCI_CAN_OBJ f{};
    f.ID = id;
    f.DataLen = len;
    f.ExternFlag = ext;
    f.RemoteFlag = remote;
    f.SendType = send_type;
    for (uint8_t i = 0; i < 8; ++i) f.Data[i] = static_cast<uint8_t>(0xA0 + i);
    return f;
}

// Reads and clears the channel's error record; its code.
uint32_t take_error(uint32_t dev = 0, uint32_t can = 0) {
    VCI_ERR_INFO e{};
    VCI_ReadErrInfo(4, dev, can, &e);
    return e.ErrCode;
}

VCI_INIT_CONFIG init_cfg = config(0x00, 0x1C);
VCI_INIT_CONFIG_EX init_ex{};
VCI_CAN_OBJ frames[4];
VCI_CAN_STATUS status{};
VCI_ERR_INFO err{};
VCI_FILTER_CONFIG filter{};
VCI_BOARD_INFO info{};

// Each function's result and recorded error code for a bad device type (5, with no libusb call at
// all), for an index with no adapter (7, no frame sent), and its result for index 30.
struct Checked {
    const char* name;
    std::function<uint32_t(uint32_t type, uint32_t dev)> call;
    uint32_t bad_type, bad_type_code, absent, absent_code, at30;
};
constexpr uint32_t kNoType = 0x1000, kAll = 0xFFFFFFFF;
// clang-format off
const Checked kChecked[] = {
    {"OpenDevice", [](uint32_t t, uint32_t d) { return VCI_OpenDevice(t, d, 0); }, 0, kNoType, 0, 0x0200, 0},
    {"InitCAN", [](uint32_t t, uint32_t d) { return VCI_InitCAN(t, d, 0, &init_cfg); }, 0, kNoType, 0, 0, 0},
    {"InitCANEx", [](uint32_t t, uint32_t d) { return VCI_InitCANEx(t, d, 0, &init_ex); }, 0, kNoType, 0, 0, 0},
    {"StartCAN", [](uint32_t t, uint32_t d) { return VCI_StartCAN(t, d, 0); }, 0, kNoType, 0, 0, 0},
    {"ResetCAN", [](uint32_t t, uint32_t d) { return VCI_ResetCAN(t, d, 0); }, 0, kNoType, 0, 0, 0},
    {"Transmit", [](uint32_t t, uint32_t d) { return VCI_Transmit(t, d, 0, frames, 1); }, 0, 0, 0, 0, 0},
    {"Receive", [](uint32_t t, uint32_t d) { return VCI_Receive(t, d, 0, frames, 4, 0); }, kAll, kNoType, 0, kNoType, kAll},
    {"GetReceiveNum", [](uint32_t t, uint32_t d) { return VCI_GetReceiveNum(t, d, 0); }, 0, 0, 0, 0, 0},
    {"ClearBuffer", [](uint32_t t, uint32_t d) { return VCI_ClearBuffer(t, d, 0); }, 0, kNoType, 1, 0, 0},
    {"ReadCANStatus", [](uint32_t t, uint32_t d) { return VCI_ReadCANStatus(t, d, 0, &status); }, 0, 0, 0, 0, 0},
    {"ReadErrInfo", [](uint32_t t, uint32_t d) { return VCI_ReadErrInfo(t, d, 0, &err); }, 0, 0, 1, 0, 0},
    {"SetFilter", [](uint32_t t, uint32_t d) { return VCI_SetFilter(t, d, 0, &filter); }, 0, kNoType, 0, kNoType, 0},
    {"ReadBoardInfo", [](uint32_t t, uint32_t d) { return VCI_ReadBoardInfo(t, d, &info); }, 0, kNoType, 1, 0, 1},
    {"CloseDevice", [](uint32_t t, uint32_t d) { return VCI_CloseDevice(t, d); }, 0, kNoType, 0, 0x4000, 0},
};
// clang-format on

TEST_F(CanWire, ChecksAndTheirCodes) {
    for (const Checked& c : kChecked) {
        SCOPED_TRACE(c.name);
        settle();
        EXPECT_EQ(c.call(5, 0), c.bad_type);
        EXPECT_TRUE(sim::records().empty());
        EXPECT_EQ(take_error(0), c.bad_type_code);
        EXPECT_EQ(c.call(4, 7), c.absent);
        EXPECT_TRUE(sent().empty());
        EXPECT_EQ(take_error(7), c.absent_code);
        EXPECT_EQ(c.call(4, 30), c.at30);
        EXPECT_TRUE(sent().empty());
    }
    EXPECT_EQ(VCI_RegisterReceiveCallback(30, [](uint32_t, uint32_t, uint32_t) {}), 0u);
    EXPECT_EQ(VCI_RegisterReceiveCallback(0, nullptr), 0u);
    EXPECT_EQ(VCI_LogoutReceiveCallback(30), 0u);
    EXPECT_EQ(VCI_GetReference(4, 0, 0, 1, &err), 0u);
    EXPECT_EQ(VCI_Transmit(4, 0, 0, frames, 0), 0u);
    EXPECT_EQ(CAN_ReadBuffer(3, nullptr, 1), 0);
    EXPECT_EQ(CAN_Transmit(nullptr, 1, 0), 0);
    EXPECT_TRUE(sent().empty());
}

TEST_F(CanWire, InitSendsTheTimingRowAndTheFilter) {
    const struct {
        VCI_INIT_CONFIG c;
        uint32_t can;
        Bytes init, filter;
    } cases[] = {
        // 500 kbit/s, accept all: row 4.
        {config(0x00, 0x1C),
         0,
         {1, 0, 0, 0, 1, 1, 1, 0, 0, 2, 1, 0x00, 0x0C, 0},
         {1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1}},
        // An unknown pair is 1 Mbit/s (row 0); silent mode; channel 2 uses bank 14.
        {config(0x12, 0x34, 0, 0xFFFFFFFF, 1),
         1,
         {2, 0, 0, 0, 1, 1, 1, 2, 0, 4, 2, 0x00, 0x04, 0},
         {2, 14, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1}},
        // 5 kbit/s, standard identifier 0x123: IDE must match, RTR free.
        {config(0xBF, 0xFF, 0x24600000, 0x001FFFFF),
         0,
         {1, 0, 0, 0, 1, 1, 1, 0, 1, 5, 3, 0x02, 0x58, 0},
         {1, 0, 0, 1, 0x24, 0x60, 0x00, 0x00, 0xFF, 0xE0, 0x00, 0x04, 0, 1, 1}},
        // 125 kbit/s, extended identifier 0x12345678 exactly, data frames only; self-test mode.
        {config(0x03, 0x1C, 0x12345678u << 3, 0x00000003, 2),
         0,
         {1, 0, 0, 0, 1, 1, 1, 3, 0, 2, 1, 0x00, 0x30, 0},
         {1, 0, 0, 1, 0x91, 0xA2, 0xB3, 0xC4, 0xFF, 0xFF, 0xFF, 0xFE, 0, 1, 1}},
    };
    for (const auto& k : cases) {
        settle();
        inject_bulk(status_answer(41));
        inject_bulk(status_answer(41));
        VCI_INIT_CONFIG c = k.c;
        EXPECT_EQ(VCI_InitCAN(4, 0, k.can, &c), 1u);
        ASSERT_EQ(sent().size(), 2u);
        EXPECT_EQ(sent()[0], request(2816, k.init));
        EXPECT_EQ(sent()[1], request(2818, k.filter));
    }
}

TEST_F(CanWire, InitExSendsRegisterValues) {
    const struct {
        VCI_INIT_CONFIG_EX c;
        uint32_t can;
        Bytes init;
    } cases[] = {
        {{1025, 1, 17, 1, 1, 3, 2, 1, 1, 7, 0}, 0, {1, 0, 1, 0, 0, 1, 1, 1, 0, 0, 0, 0x00, 0x00, 7}},
        {{0, 0, 0, 8, 7, 0, 0, 0, 0, 0, 0}, 1, {2, 0, 0, 0, 0, 0, 0, 3, 0, 0, 7, 0x00, 0x01, 0}},
        {{9, 4, 4, 1, 0, 0, 1, 0, 1, 0, 0}, 0, {1, 0, 0, 0, 1, 0, 1, 0, 3, 3, 0, 0x00, 0x09, 0}},
    };
    for (const auto& k : cases) {
        settle();
        inject_bulk(status_answer(41));
        VCI_INIT_CONFIG_EX c = k.c;
        EXPECT_EQ(VCI_InitCANEx(4, 0, k.can, &c), 1u);
        EXPECT_EQ(sent(), std::vector<Frame>{request(2816, k.init)});
    }
}

TEST_F(CanWire, TransmitPacksFramesLittleEndian) {
    VCI_CAN_OBJ batch[] = {obj(0x123, 2), obj(0x12345678, 1, true), obj(0x7FF, 4, false, true), obj(0x1, 12)};
    inject_bulk(status_answer(43));
    EXPECT_EQ(VCI_Transmit(4, 0, 1, batch, 4), 4u);
    EXPECT_EQ(sent(),
              std::vector<Frame>{request(2820, {0x22, 0x23, 0x01, 0xA0, 0xA1,              // standard
                                                0x1A, 0x78, 0x56, 0x34, 0x12, 0xA0,        // extended
                                                0x06, 0xFF, 0x07,                          // remote
                                                0x82, 0x01, 0x00, 0xA0, 0xA1, 0xA2, 0xA3,  // DataLen 12
                                                0xA4, 0xA5, 0xA6, 0xA7})});
    settle();
    VCI_CAN_OBJ alternative = obj(0x5, 1, false, false, 5);
    inject_bulk(status_answer(43));
    EXPECT_EQ(VCI_Transmit(4, 0, 0, &alternative, 1), 1u);
    EXPECT_EQ(sent(), std::vector<Frame>{request(2828, {0x11, 0x05, 0x00, 0xA0})});
}

TEST_F(CanWire, TransmitSplitsBatchesAt102793Bytes) {
    const struct {
        VCI_CAN_OBJ frame;
        uint32_t count;
        std::vector<std::size_t> payloads;
        std::vector<uint8_t> packets;
    } cases[] = {
        {obj(0x100, 8), 9345, {102784, 11}, {0, 0}},  // 9344 records of 11 bytes, then one
        // 34264 records of 3 bytes are staged, but the last one needs room for 5: it waits for the
        // next message, and the packet number says so.
        {obj(0x100, 0), 34265, {102789, 6}, {1, 0}},
    };
    for (const auto& k : cases) {
        settle();
        std::vector<VCI_CAN_OBJ> batch(k.count, k.frame);
        inject_bulk(status_answer(43));
        inject_bulk(status_answer(43));
        EXPECT_EQ(VCI_Transmit(4, 0, 0, batch.data(), k.count), k.count);
        const auto out = sent();
        ASSERT_EQ(out.size(), k.payloads.size());
        for (std::size_t i = 0; i < out.size(); ++i) {
            EXPECT_EQ(out[i].payload.size(), k.payloads[i]);
            EXPECT_EQ(out[i].packet, k.packets[i]);
        }
    }
}

TEST_F(CanWire, RefusalsFailWithCommandFailed) {
    const struct {
        const char* name;
        std::function<uint32_t()> call;
        std::vector<uint8_t> answers;
        std::size_t frames;
    } cases[] = {
        {"init", [] { return VCI_InitCAN(4, 0, 1, &init_cfg); }, {42}, 1},
        {"filter of init", [] { return VCI_InitCAN(4, 0, 1, &init_cfg); }, {41, 42}, 2},
        {"init ex", [] { return VCI_InitCANEx(4, 0, 1, &init_ex); }, {42}, 1},
        {"set filter", [] { return VCI_SetFilter(4, 0, 1, &filter); }, {42}, 1},
        {"transmit", [] { return VCI_Transmit(4, 0, 1, frames, 1); }, {44}, 1},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        settle();
        for (uint8_t a : k.answers) inject_bulk(status_answer(a));
        EXPECT_EQ(k.call(), 0u);
        EXPECT_EQ(sent().size(), k.frames);
        EXPECT_EQ(take_error(0, 1), 0x4000u);
    }
}

TEST_F(CanWire, SetFilterProgramsTheChannelsBank) {
    const struct {
        VCI_FILTER_CONFIG f;
        uint32_t can;
        Bytes payload;
    } cases[] = {
        // Bank 15 mod 14 + 14 on channel 2; an odd bank goes to FIFO 0.
        {{1, 15, 0, 1, 0x12345678, 1, 0, 0x1FFFFFFF, 1, 1, 0},
         1,
         {2, 15, 0, 1, 0x91, 0xA2, 0xB3, 0xC4, 0xFF, 0xFF, 0xFF, 0xFE, 0x00, 0x00, 1}},
        // List mode: the mask's identifier is dropped.
        {{1, 2, 1, 0, 0x123, 0, 1, 0x7FF, 0, 0, 0},
         0,
         {1, 2, 1, 1, 0x24, 0x60, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 1}},
    };
    for (const auto& k : cases) {
        settle();
        inject_bulk(status_answer(41));
        VCI_FILTER_CONFIG f = k.f;
        EXPECT_EQ(VCI_SetFilter(4, 0, k.can, &f), 1u);
        EXPECT_EQ(sent(), std::vector<Frame>{request(2818, k.payload)});
    }
}

TEST_F(CanWire, StatusRegistersAndTheErrorBitsTheySet) {
    const Bytes regs = {0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18};
    const struct {
        Bytes payload;
        std::optional<std::size_t> announced;
        uint32_t esr, code;
        uint8_t passive0, arlost;
    } cases[] = {
        {Bytes{0x00, 0x10, 0, 0, 0, 0x36, 0x00, 0x03, 0x02, 0x01} + regs, {}, 0x36, 0x34, 0x01, 0},
        {Bytes{0x00, 0x01, 0, 0, 0, 0x51, 0x00, 0x00, 0x00, 0x04} + regs, {}, 0x51, 0x1B, 0, 5},
        // A size field of 2 carries BufferSize only: the rest reads zero.
        {Bytes{0x01, 0x00, 0, 0, 0, 0x36, 0x00, 0x03, 0x02, 0x01} + regs, 2, 0, 0, 0, 0},
    };
    for (const auto& k : cases) {
        settle();
        inject_bulk(reply(2830, 50, k.payload, k.announced));
        EXPECT_EQ(VCI_ReadCANStatus(4, 0, 1, &status), 1u);
        EXPECT_EQ(sent(), std::vector<Frame>{request(2830, {2})});
        EXPECT_EQ(status.regESR, k.esr);
        EXPECT_EQ(status.regTECounter, k.announced ? 0 : 0x18);
        EXPECT_EQ(status.regMode, k.announced ? 0 : 0x15);
        VCI_ERR_INFO e{};
        EXPECT_EQ(VCI_ReadErrInfo(4, 0, 1, &e), 1u);
        EXPECT_EQ(e.ErrCode, k.code);
        EXPECT_EQ(e.Passive_ErrData[0], k.passive0);
        EXPECT_EQ(e.ArLost_ErrData, k.arlost);
        EXPECT_EQ(VCI_ReadErrInfo(4, 0, 1, &e), 1u);  // cleared by the first read
        EXPECT_EQ(e.ErrCode, 0u);
        EXPECT_EQ(e.Passive_ErrData[0], 0);
    }
    EXPECT_EQ(status.BufferSize, 0x0100u);
    // A reply cut short fails, recorded on the first channel whatever the CAN index.
    inject_bulk(reply(2830, 50, Bytes(18), {}, 24));
    EXPECT_EQ(VCI_ReadCANStatus(4, 0, 1, &status), 0u);
    EXPECT_EQ(take_error(0, 0), 0x4000u);
}

TEST_F(CanWire, ReadBoardInfoIsFixed) {
    EXPECT_EQ(VCI_ReadBoardInfo(4, 0, &info), 1u);
    EXPECT_EQ(info.can_Num, 2);
    EXPECT_EQ(info.hw_Version, 0x0200);
    EXPECT_EQ(info.fw_Version, 0x0193);
    EXPECT_EQ(info.dr_Version, 0x0200);
    EXPECT_EQ(info.in_Version, 0x0173);
    EXPECT_STREQ(info.str_hw_Type, "CANalyst-II");
    EXPECT_EQ(std::memcmp(info.str_Serial_Num, "00070428\x10\x02\x29\x00", 12), 0);
    EXPECT_EQ(VCI_ReadBoardInfo(3, 0, &info), 1u);
    EXPECT_EQ(info.can_Num, 1);
    EXPECT_TRUE(sim::records().empty());
}

Bytes receive_reply(const Bytes& records, std::optional<std::size_t> announced = {}) {
    return reply(2822, 45, records, announced);
}

TEST_F(CanWire, ReadThreadPollsDecodesAndStops) {
    EXPECT_EQ(VCI_ResetCAN(4, 0, 1), 0u);  // never started on device 0
    const Bytes standard = {0x81, 0x23, 0x01, 0x10, 0x27, 0x00, 0x00, 1, 2, 3, 4, 5, 6, 7, 8};
    const Bytes extended = {0x2A, 0x78, 0x56, 0x34, 0x12, 0x01, 0x00, 0x00, 0x00, 0xAA, 0xBB};
    const Bytes remote = {0x45, 0xFF, 0x07, 0x02, 0x00, 0x00, 0x00};
    inject_bulk(status_answer(3));
    inject_bulk(receive_reply(standard + extended + remote));
    // The size field claims 40 bytes; the second record is cut short after 3.
    inject_bulk(status_answer(1));
    inject_bulk(receive_reply(standard + Bytes{0x81, 0x23, 0x01}, 40));
    ASSERT_EQ(VCI_StartCAN(4, 0, 0), 1u);
    ASSERT_TRUE(until([] { return VCI_GetReceiveNum(4, 0, 0) == 4; }));
    EXPECT_EQ(VCI_ResetCAN(4, 0, 0), 1u);
    EXPECT_EQ(sent()[0], request(2824, {1}));
    EXPECT_EQ(sent()[1], request(2822, {1}));
    EXPECT_EQ(sent()[2], request(2824, {1}));
    VCI_CAN_OBJ got[5]{};
    ASSERT_EQ(VCI_Receive(4, 0, 0, got, 5, 0), 4u);
    const uint8_t data8[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(got[0].ID, 0x123u);
    EXPECT_EQ(got[0].TimeStamp, 10000u);
    EXPECT_EQ(got[0].DataLen, 8);
    EXPECT_EQ(std::memcmp(got[0].Data, data8, 8), 0);
    EXPECT_EQ(got[0].TimeFlag, 1);
    EXPECT_EQ(got[1].ID, 0x12345678u);
    EXPECT_EQ(got[1].ExternFlag, 1);
    EXPECT_EQ(got[1].DataLen, 2);
    EXPECT_EQ(got[1].Data[1], 0xBB);
    EXPECT_EQ(got[2].ID, 0x7FFu);
    EXPECT_EQ(got[2].RemoteFlag, 1);
    EXPECT_EQ(got[2].DataLen, 4);
    EXPECT_EQ(got[2].TimeStamp, 2u);
    EXPECT_EQ(got[3].ID, 0x123u);
}

// The buffered interface's decoding keeps DLC as sent and takes that many bytes, remote or not.
TEST_F(CanWire, BufferedThreadDecodesItsOwnForm) {
    const Bytes remote = {0x2E, 0x78, 0x56, 0x34, 0x12, 0x05, 0x00, 0x00, 0x00, 0xC1, 0xC2};
    const Bytes standard = {0x11, 0x23, 0x01, 0x00, 0x00, 0x00, 0x00, 0x99};
    inject_bulk(status_answer(2));
    inject_bulk(receive_reply(remote + standard));
    ASSERT_EQ(CAN_StartThreadRead(1), 1);
    ASSERT_TRUE(until([] { return CAN_GetReceiveNum(1) == 2; }));
    EXPECT_EQ(CAN_StopThreadRead(1), 1);
    EXPECT_EQ(sent()[0], request(2824, {1}));
    EXPECT_EQ(sent()[1], request(2822, {1}));
    CanRxMsg got[3]{};
    ASSERT_EQ(CAN_ReadBuffer(1, got, 3), 2);
    EXPECT_EQ(got[0].ExtId, 0x12345678u);
    EXPECT_EQ(got[0].IDE, 4);
    EXPECT_EQ(got[0].RTR, 2);
    EXPECT_EQ(got[0].DLC, 2);
    EXPECT_EQ(got[0].Channel, 2);
    EXPECT_EQ(got[0].Data[1], 0xC2);
    EXPECT_EQ(got[0].CAN_Time, 5u);
    EXPECT_EQ(got[1].StdId, 0x123u);
    EXPECT_EQ(got[1].DLC, 1);
    EXPECT_EQ(got[1].Data[0], 0x99);
}

class CanWireOneChannel : public CanWire {
  protected:
    void SetUp() override { start(KD_DEVTYPE_CAN1); }
};

TEST_F(CanWireOneChannel, CanIndexOneIsTheFirstChannel) {
    inject_bulk(status_answer(41));
    inject_bulk(status_answer(41));
    EXPECT_EQ(VCI_InitCAN(3, 0, 1, &init_cfg), 1u);
    inject_bulk(status_answer(43));
    VCI_CAN_OBJ f = obj(0x2, 0);
    EXPECT_EQ(VCI_Transmit(3, 0, 1, &f, 1), 1u);
    const auto out = sent();
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].payload.at(0), 1);
    EXPECT_EQ(out[1], request(2818, {1, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1}));
    EXPECT_EQ(out[2], request(2820, {0x01, 0x02, 0x00}));
}

}  // namespace
