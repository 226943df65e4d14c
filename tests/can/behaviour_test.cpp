// The CAN interfaces end to end against the virtual adapter's CAN side: frames between the two
// channels through the read threads, bit rates, self-test, error counters, the echo node and the
// buffered interface. The read threads poll on the virtual clock; a test waits by sleeping on it.
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "ControlCANBuffered.h"
#include "can_fixture.hpp"
#include "corvel/sim_can.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

constexpr uint32_t kCan2 = 4;
VCI_INIT_CONFIG k500k{0, 0xFFFFFFFF, 0, 0, 0x00, 0x1C, 0};
VCI_INIT_CONFIG k250k{0, 0xFFFFFFFF, 0, 0, 0x01, 0x1C, 0};

VCI_CAN_OBJ obj(uint32_t id, std::initializer_list<uint8_t> data, bool ext = false, uint8_t send_type = 0) {
    VCI_CAN_OBJ f{};
    f.ID = id;
    f.ExternFlag = ext;
    f.SendType = send_type;
    f.DataLen = static_cast<uint8_t>(data.size());
    std::copy(data.begin(), data.end(), f.Data);
    return f;
}

// Sleeps on the virtual clock until `done` holds; false after ten virtual seconds without it. The
// read threads need real processor time too, which a busy machine may give them late: the bound
// is wide so that it is never reached on a working library (a poll takes 10 ms of virtual time).
template <typename Pred>
bool within(Pred done) {
    const uint64_t end = sim::now_us() + 10000000;
    while (!done()) {
        if (sim::now_us() >= end) return false;
        usleep(1000);
    }
    return true;
}

class CanBus : public VirtualAdapters {
  protected:
    // A CAN adapter of this type, open.
    void start(uint32_t type, sim::CanSpec can = {}) {
        sim::AdapterSpec a = adapter("CAN0001", static_cast<int>(type));
        a.can = can;
        reset({a});
        ASSERT_EQ(VCI_OpenDevice(type, 0, 0), 1u);
        settle();
    }
    static bool arrived(uint32_t type, uint32_t can, uint32_t n) {
        return within([&] { return VCI_GetReceiveNum(type, 0, can) >= n; });
    }
};

std::atomic<uint32_t> last_len{0}, calls{0};
void on_receive(uint32_t dev, uint32_t can, uint32_t len) {
    if (dev == 0 && can == 1) last_len = len;
    ++calls;
}

TEST_F(CanBus, FrameFromChannel1ArrivesOnChannel2ThroughReceiveAndCallback) {
    ASSERT_NO_FATAL_FAILURE(start(kCan2));
    ASSERT_EQ(VCI_InitCAN(kCan2, 0, 0, &k500k), 1u);
    ASSERT_EQ(VCI_InitCAN(kCan2, 0, 1, &k500k), 1u);
    ASSERT_EQ(VCI_RegisterReceiveCallback(0, on_receive), 1u);
    ASSERT_EQ(VCI_StartCAN(kCan2, 0, 1), 1u);
    VCI_CAN_OBJ out[2] = {obj(0x123, {0x11, 0x22, 0x33}), obj(0x1ABCDEF0, {0xAA}, true)};
    const uint64_t sent_at = sim::can_time_us(0);
    ASSERT_EQ(VCI_Transmit(kCan2, 0, 0, out, 1), 1u);
    ASSERT_TRUE(within([] { return last_len == 1; }));
    // Nobody reads: the count the callback gets grows with the queue.
    ASSERT_EQ(VCI_Transmit(kCan2, 0, 0, out + 1, 1), 1u);
    ASSERT_TRUE(within([] { return last_len == 2; }));
    VCI_CAN_OBJ in[4]{};
    ASSERT_EQ(VCI_Receive(kCan2, 0, 1, in, 4, 0), 2u);
    EXPECT_EQ(in[0].ID, 0x123u);
    EXPECT_EQ(in[0].DataLen, 3);
    EXPECT_EQ(std::memcmp(in[0].Data, out[0].Data, 3), 0);
    EXPECT_EQ(in[0].TimeFlag, 1);
    EXPECT_GE(in[0].TimeStamp, sent_at / 100);
    EXPECT_LE(in[0].TimeStamp, in[1].TimeStamp);
    EXPECT_EQ(in[1].ID, 0x1ABCDEF0u);
    EXPECT_EQ(in[1].ExternFlag, 1);
    EXPECT_EQ(in[1].Data[0], 0xAA);
    EXPECT_EQ(sim::can_controller(0, 1).waiting, 0u);  // a sender does not get its own frames
    EXPECT_EQ(VCI_LogoutReceiveCallback(0), 1u);
    EXPECT_EQ(VCI_CloseDevice(kCan2, 0), 1u);
}

TEST_F(CanBus, NothingArrivesAtAnotherBitRate) {
    ASSERT_NO_FATAL_FAILURE(start(kCan2));
    ASSERT_EQ(VCI_InitCAN(kCan2, 0, 0, &k500k), 1u);
    ASSERT_EQ(VCI_InitCAN(kCan2, 0, 1, &k250k), 1u);
    ASSERT_EQ(VCI_StartCAN(kCan2, 0, 1), 1u);
    VCI_CAN_OBJ f = obj(0x123, {1});
    ASSERT_EQ(VCI_Transmit(kCan2, 0, 0, &f, 1), 1u);  // taken, but nobody at 500 kbit/s answers
    EXPECT_EQ(sim::can_controller(0, 1).tec, 8u);
    EXPECT_EQ(sim::can_controller(0, 2).rec, 1u);  // channel 2 saw noise
    // A frame from outside at 250 kbit/s marks a poll made after the transmission.
    ASSERT_TRUE(sim::can_inject(0, 2, sim::CanFrame{0x321, false, false, 0, {}}, 250000));
    ASSERT_TRUE(arrived(kCan2, 1, 1));
    VCI_CAN_OBJ in[2]{};
    ASSERT_EQ(VCI_Receive(kCan2, 0, 1, in, 2, 0), 1u);
    EXPECT_EQ(in[0].ID, 0x321u);
}

TEST_F(CanBus, SelfTestTransmitReceivesItsOwnFrame) {
    ASSERT_NO_FATAL_FAILURE(start(kCan2));
    ASSERT_EQ(VCI_InitCAN(kCan2, 0, 0, &k500k), 1u);
    ASSERT_EQ(VCI_InitCAN(kCan2, 0, 1, &k500k), 1u);
    ASSERT_EQ(VCI_StartCAN(kCan2, 0, 0), 1u);
    VCI_CAN_OBJ f = obj(0x55, {9, 8}, false, 2);
    ASSERT_EQ(VCI_Transmit(kCan2, 0, 0, &f, 1), 1u);
    ASSERT_TRUE(arrived(kCan2, 0, 1));
    VCI_CAN_OBJ in{};
    ASSERT_EQ(VCI_Receive(kCan2, 0, 0, &in, 1, 0), 1u);
    EXPECT_EQ(in.ID, 0x55u);
    EXPECT_EQ(in.Data[1], 8);
    EXPECT_EQ(sim::can_controller(0, 1).mode, 3);      // silent loop-back
    EXPECT_EQ(sim::can_controller(0, 2).waiting, 0u);  // nothing reached the bus
}

TEST_F(CanBus, UnacknowledgedFramesShowInStatusAndErrorInfo) {
    ASSERT_NO_FATAL_FAILURE(start(3));  // a lone channel
    ASSERT_EQ(VCI_InitCAN(3, 0, 0, &k500k), 1u);
    VCI_CAN_OBJ frames[16];
    std::fill(std::begin(frames), std::end(frames), obj(0x10, {1, 2}));
    ASSERT_EQ(VCI_Transmit(3, 0, 0, frames, 16), 16u);
    VCI_CAN_STATUS st{};
    ASSERT_EQ(VCI_ReadCANStatus(3, 0, 0, &st), 1u);
    EXPECT_EQ(st.regTECounter, 128);
    EXPECT_EQ(st.regESR, 0x00800033u);  // TEC 128, LEC 3, error passive, warning
    EXPECT_EQ(st.regTSR, 0x09u);
    EXPECT_EQ(st.BufferSize, 4096u);
    VCI_ERR_INFO e{};
    ASSERT_EQ(VCI_ReadErrInfo(3, 0, 0, &e), 1u);
    EXPECT_EQ(e.ErrCode, 0x16u);  // warning, passive, bus error
    EXPECT_EQ(e.Passive_ErrData[0], 9);
    // Sixteen more take it past 255: bus-off, and the adapter refuses the next.
    ASSERT_EQ(VCI_Transmit(3, 0, 0, frames, 16), 16u);
    EXPECT_EQ(VCI_Transmit(3, 0, 0, frames, 1), 0u);
    ASSERT_EQ(VCI_ReadErrInfo(3, 0, 0, &e), 1u);
    EXPECT_EQ(e.ErrCode, 0x4000u);
    ASSERT_EQ(VCI_ReadCANStatus(3, 0, 0, &st), 1u);
    EXPECT_EQ(st.regStatus & 0x80, 0x80);
    ASSERT_EQ(VCI_ReadErrInfo(3, 0, 0, &e), 1u);
    EXPECT_EQ(e.ErrCode, 0x36u);
}

TEST_F(CanBus, EchoNodeAnswersWithTheNextIdentifier) {
    sim::CanSpec can;
    can.echo.bus = 1;
    ASSERT_NO_FATAL_FAILURE(start(3, can));
    ASSERT_EQ(VCI_InitCAN(3, 0, 0, &k500k), 1u);
    ASSERT_EQ(VCI_StartCAN(3, 0, 0), 1u);
    VCI_CAN_OBJ out[2] = {obj(0x100, {5, 6, 7}), obj(0x1FFFFFFF, {}, true)};
    ASSERT_EQ(VCI_Transmit(3, 0, 0, out, 2), 2u);
    ASSERT_TRUE(arrived(3, 0, 2));
    VCI_CAN_OBJ in[2]{};
    ASSERT_EQ(VCI_Receive(3, 0, 0, in, 2, 0), 2u);
    EXPECT_EQ(in[0].ID, 0x101u);
    EXPECT_EQ(in[0].DataLen, 3);
    EXPECT_EQ(in[0].Data[2], 7);
    EXPECT_EQ(in[1].ID, 0u);  // wraps within 29 bits
    EXPECT_EQ(in[1].ExternFlag, 1);
    EXPECT_EQ(sim::can_controller(0, 1).tec, 0u);
}

TEST_F(CanBus, BufferedInterfaceEndToEnd) {
    ASSERT_NO_FATAL_FAILURE(start(kCan2));
    ASSERT_EQ(VCI_InitCAN(kCan2, 0, 1, &k500k), 1u);  // the buffered interface serves device 0 now
    ASSERT_EQ(CAN_StartThreadRead(2), 1);
    CanTxMsg out[2]{};
    out[0] = CanTxMsg{0x7FF, 0, 0, 0, 2, {0xC1, 0xC2}, 1};
    out[1] = CanTxMsg{0, 0x1234567, 4, 0, 1, {0xD1}, 1};
    ASSERT_EQ(CAN_Transmit(out, 1, 0), 1);
    ASSERT_EQ(CAN_Transmit(out + 1, 1, 1), 1);  // the alternative write message
    ASSERT_TRUE(within([] { return CAN_GetReceiveNum(2) == 2; }));
    EXPECT_EQ(CAN_StopThreadRead(2), 1);
    CanRxMsg in[3]{};
    ASSERT_EQ(CAN_ReadBuffer(2, in, 3), 2);
    EXPECT_EQ(in[0].StdId, 0x7FFu);
    EXPECT_EQ(in[0].IDE, 0);
    EXPECT_EQ(in[0].DLC, 2);
    EXPECT_EQ(in[0].Data[1], 0xC2);
    EXPECT_EQ(in[0].Channel, 2);
    EXPECT_EQ(in[1].ExtId, 0x1234567u);
    EXPECT_EQ(in[1].IDE, 4);
    EXPECT_EQ(in[1].Data[0], 0xD1);
    EXPECT_EQ(CAN_GetReceiveNum(2), 0);
}

}  // namespace
