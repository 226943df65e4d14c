// Board enumeration, open/close and the command channel, through the exported functions only.
#include <array>
#include <cerrno>

#include "CorvelBoard.h"
#include "adapter_fixture.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

// Each test starts with one adapter on the bus and nothing enumerated or opened.
class Enumeration : public VirtualAdapters {};
class OpenClose : public VirtualAdapters {};

TEST_F(Enumeration, CountsMatchingDevicesOnly) {
    auto foreign = adapter("F");
    foreign.product = 0x0667;
    auto other_vendor = adapter("V");
    other_vendor.vendor = 0x1234;
    const struct {
        std::vector<sim::AdapterSpec> bus;
        int32_t expected;
    } cases[] = {
        {{}, 0},
        {{adapter("A")}, 1},
        {{other_vendor, adapter("A"), foreign, adapter("B", 2)}, 2},
        {{adapter("A"), adapter("A")}, 2},  // devices seen, even when their serials merge
    };
    for (const auto& c : cases) {
        reset(c.bus);
        EXPECT_EQ(KD_EnumBoard(1), c.expected);
    }
}

TEST_F(Enumeration, NeedInitDecidesWhetherTheBusesAreReadAgain) {
    EXPECT_EQ(KD_EnumBoard(0), 1);
    EXPECT_EQ(KD_EnumBoard(0), 1);
    EXPECT_EQ(count(Call::Init), 1u);
    EXPECT_EQ(count(Call::FindBusses), 1u);
    EXPECT_EQ(count(Call::FindDevices), 1u);
    EXPECT_EQ(KD_EnumBoard(1), 1);
    EXPECT_EQ(KD_EnumBoard(1), 1);
    EXPECT_EQ(count(Call::FindBusses), 3u);
    EXPECT_EQ(count(Call::FindDevices), 3u);
}

TEST_F(Enumeration, NewAdapterAppearsAtTheNextScanWithANewIndex) {
    reset({adapter("A")});
    ASSERT_EQ(KD_EnumBoard(1), 1);
    EXPECT_EQ(KD_OpenBoard(1), -8);
    sim::configure({adapter("A"), adapter("B")});
    EXPECT_EQ(KD_EnumBoard(0), 1);  // the buses are not read again: the new device is not seen
    EXPECT_EQ(KD_OpenBoard(1), -8);
    EXPECT_EQ(KD_EnumBoard(1), 2);
    EXPECT_EQ(KD_OpenBoard(1), 0);
}

TEST_F(OpenClose, OpenEnumeratesFirstWhenNothingWasEnumerated) {
    EXPECT_EQ(KD_OpenBoard(0), 0);
    const auto r = sim::records();
    ASSERT_GE(r.size(), 4u);
    EXPECT_EQ(r[0].call, Call::Init);
    EXPECT_EQ(r[1].call, Call::FindBusses);
    EXPECT_EQ(r[2].call, Call::FindDevices);
    EXPECT_EQ(r.back().call, Call::GetString);
    EXPECT_EQ(count(Call::Reset), 1u);
}

TEST_F(OpenClose, UnknownIndicesAndDoubleCloses) {
    reset({adapter("A"), adapter("B")});
    ASSERT_EQ(KD_EnumBoard(1), 2);
    EXPECT_EQ(KD_OpenBoard(5), -8);
    EXPECT_EQ(KD_CloseBoard(5), -9);
    EXPECT_EQ(KD_OpenBoard(-1), -8);
    EXPECT_EQ(KD_OpenBoard(1), 0);
    EXPECT_EQ(KD_CloseBoard(0), 0);
    EXPECT_EQ(KD_CloseBoard(0), -9);
    // One node is left (index 1), so the length bound hides it until a rescan.
    EXPECT_EQ(KD_OpenBoard(1), -8);
    EXPECT_EQ(KD_CloseBoard(1), -9);
    EXPECT_EQ(KD_EnumBoard(1), 2);
    EXPECT_EQ(KD_OpenBoard(1), 0);   // B kept its index
    EXPECT_EQ(KD_OpenBoard(0), -8);  // A's old index stays a gap:
    EXPECT_EQ(KD_OpenBoard(2), -8);  // A came back as index 2, beyond the length bound of two nodes
}

TEST_F(OpenClose, AdapterWithoutSerialIsListedButCannotBeOpened) {
    auto anonymous = adapter("");
    anonymous.has_serial = false;
    reset({anonymous, adapter("A")});
    EXPECT_EQ(KD_EnumBoard(1), 2);
    EXPECT_EQ(KD_OpenBoard(0), -8);
    EXPECT_EQ(KD_OpenBoard(1), 0);  // it holds index 0
}

TEST_F(OpenClose, UnpluggedAdapterCannotBeOpened) {
    ASSERT_EQ(KD_EnumBoard(1), 1);
    sim::unplug(0);
    EXPECT_EQ(KD_OpenBoard(0), -8);
    sim::replug(0);
    EXPECT_EQ(KD_OpenBoard(0), 0);
}

class Command : public VirtualAdapters {
  protected:
    void SetUp() override {
        VirtualAdapters::SetUp();
        ASSERT_NO_FATAL_FAILURE(open({KD_OpenBoard}));
        settle();
        answer.fill(0xEE);
    }
    std::array<uint8_t, 8> answer{};
};

TEST_F(Command, RequestIsEightBigEndianBytesOnTheInterruptEndpoint) {
    ASSERT_EQ(KD_ExecuteCommand(KD_CMD_GET_CORVEL_VN, 0x01020304, 0, answer.data()), 0);
    const auto w = calls(Call::InterruptWrite);
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].endpoint, 0x01);
    EXPECT_EQ(w[0].timeout_ms, 500);
    EXPECT_EQ(w[0].data, (Bytes{0x00, 0x00, 0x0B, 0x00, 0x01, 0x02, 0x03, 0x04}));
    const auto r = calls(Call::InterruptRead);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].endpoint, 0x81);
    EXPECT_EQ(Bytes(answer.begin(), answer.end()), r[0].data);
    EXPECT_EQ(count(Call::BulkWrite), 0u);
}

TEST_F(Command, TheTenthReadIsTheLastAndItsSuccessReturnsEight) {
    const struct {
        int failing_reads;
        int32_t expected;
    } cases[] = {{0, 0}, {1, 0}, {8, 0}, {9, 8}, {10, -5}};
    for (const auto& c : cases) {
        settle();
        sim::clear_in(0);
        sim::fail_next(Call::InterruptRead, c.failing_reads, -5);  // -5 ends each read at once
        EXPECT_EQ(KD_ExecuteCommand(KD_CMD_GET_CORVEL_VN, 0, 0, answer.data()), c.expected)
            << c.failing_reads;
        EXPECT_EQ(count(Call::InterruptRead), static_cast<std::size_t>(std::min(c.failing_reads + 1, 10)));
    }
}

TEST_F(Command, SilentAdapterCostsTenTimesTheRetryLoop) {
    sim::drop_next_answers(0, 1);
    EXPECT_EQ(KD_ExecuteCommand(KD_CMD_GET_CORVEL_VN, 0, 0, answer.data()), -ETIMEDOUT);
    EXPECT_EQ(count(Call::InterruptRead), 1000u);
    EXPECT_EQ(sim::slept_us(), 1000u * 100000u);
}

TEST_F(Command, UnwrittenRequestReturnsTwo) {
    sim::fail_next(Call::InterruptWrite, 1, -5);
    EXPECT_EQ(KD_ExecuteCommand(KD_CMD_GET_CORVEL_VN, 0, 0, answer.data()), 2);
    EXPECT_EQ(count(Call::InterruptRead), 0u);
    EXPECT_EQ(KD_ExecuteCommand(KD_CMD_GET_CORVEL_VN, 0, 3, answer.data()), 2);  // no such adapter
    EXPECT_EQ(KD_ExecuteCommand(KD_CMD_GET_CORVEL_VN, 0, 0, nullptr), -1);
}

TEST_F(Command, ShortAnswerIsNoAnswer) {
    sim::drop_next_answers(0, 1);
    inject_interrupt({1, 2, 3});
    // The 3-byte answer is read once, then nine more reads find nothing.
    EXPECT_EQ(KD_ExecuteCommand(KD_CMD_CAN_GET_DATA_FLAG, 0, 0, answer.data()), -ETIMEDOUT);
    EXPECT_EQ(answer[0], 1);
}

}  // namespace
