// Raw transfers: endpoints, zero-length packets, the retry discipline and its pauses.
#include <gtest/gtest.h>

#include <cerrno>

#include "libusb_driver.h"
#include "usb_list.h"
#include "wire.hpp"

namespace {

using namespace corvel::test;
using namespace corvel::proto;
namespace sim = corvel::sim;

class RawTransfer : public testing::Test {
  protected:
    void SetUp() override {
        sim::configure({adapter("A"), adapter("B")});
        usb_init();
        usb_find_busses();
        usb_find_devices();
        ASSERT_EQ(scan_dev(), 2);
        sim::clear_records();
        sim::reset_clock();
    }
    char buf[256] = {};
};

// Any pipe but 1 writes to the bulk endpoint, inside a claim and a release of interface 0; a bulk
// write of a packet multiple is followed by a zero-length packet with the caller's time-out, an
// interrupt write never is. (Frame lengths around 64 and 128 and the zero-length write of a frame:
// FrameZlp in message_test.cpp.)
TEST_F(RawTransfer, ZeroLengthPacketFollowsABulkWriteOfAPacketMultiple) {
    EXPECT_EQ(LibUSBWriteData(0, 7, buf, 64, 700), 64);
    const auto r = sim::records();
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(r[0].call, Call::ClaimInterface);
    for (const auto& [write, bytes] : {std::pair{r[1], 64u}, std::pair{r[2], 0u}}) {
        EXPECT_EQ(write.call, Call::BulkWrite);
        EXPECT_EQ(write.endpoint, kEndpointBulkOut);
        EXPECT_EQ(write.data.size(), bytes);
        EXPECT_EQ(write.timeout_ms, 700);
    }
    EXPECT_EQ(r[3].call, Call::ReleaseInterface);

    sim::clear_records();
    EXPECT_EQ(LibUSBWriteData(0, 1, buf, 64, 700), 64);
    const auto writes = calls(Call::InterruptWrite);
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].endpoint, kEndpointIntOut);
    EXPECT_EQ(count(Call::BulkWrite), 0u);
}

struct RetryCase {
    Call call;
    int code;
    int fails;
    int32_t expected;
    std::size_t attempts;
    uint64_t paused_us;
};

class Retries : public RawTransfer, public testing::WithParamInterface<RetryCase> {};

TEST_P(Retries, StopOnSuccessOrMinusFiveAndPauseAfterEachFailure) {
    const RetryCase c = GetParam();
    sim::fail_next(c.call, c.fails, c.code);
    int32_t r = 0;
    if (c.call == Call::BulkWrite) {
        r = LibUSBWriteData(0, 2, buf, 10, 5000);
    } else {
        sim::inject_in(0, kEndpointBulkIn, {0x0a});
        r = LibUSBReadData(0, 130, buf, 1, 3000);
    }
    EXPECT_EQ(r, c.expected);
    EXPECT_EQ(count(c.call), c.attempts);
    EXPECT_EQ(sim::slept_us(), c.paused_us);
    EXPECT_EQ(count(Call::ClaimInterface), 1u);
    EXPECT_EQ(count(Call::ReleaseInterface), 1u);
}

INSTANTIATE_TEST_SUITE_P(Storms, Retries,
                         testing::Values(RetryCase{Call::BulkWrite, -5, 1, -5, 1, 0},  // -5 ends at once
                                         RetryCase{Call::BulkWrite, -110, 3, 10, 4, 300000},
                                         RetryCase{Call::BulkWrite, -110, 100, -110, 100,
                                                   10000000},  // 100 attempts, 10 s of pauses
                                         RetryCase{Call::BulkWrite, -19, 99, 10, 100, 9900000},
                                         RetryCase{Call::BulkRead, -5, 1, -5, 1, 0},
                                         RetryCase{Call::BulkRead, -32, 2, 1, 3, 200000},
                                         RetryCase{Call::BulkRead, -110, 100, -110, 100, 10000000}));

TEST_F(RawTransfer, MissingHandleIsMinusOneWithoutTraffic) {
    EXPECT_EQ(LibUSBWriteData(5, 2, buf, 4, 100), -1);
    EXPECT_EQ(LibUSBReadData(5, 130, buf, 4, 100), -1);
    EXPECT_EQ(LibUSBReadDataFast(5, 130, buf, 4, 100), -1);
    EXPECT_EQ(pCorvelBoardHandle, nullptr);
    EXPECT_TRUE(sim::records().empty());
}

TEST_F(RawTransfer, ReadsSelectEndpointByPipe) {
    sim::inject_in(0, kEndpointIntIn, {1, 2, 3, 4, 5, 6, 7, 8});
    sim::inject_in(0, kEndpointBulkIn, {9});
    EXPECT_EQ(LibUSBReadData(0, 129, buf, 8, 500), 8);
    EXPECT_EQ(LibUSBReadData(0, 42, buf + 8, 1, 500), 1);
    EXPECT_EQ(buf[7], 8);
    EXPECT_EQ(buf[8], 9);
    EXPECT_EQ(calls(Call::InterruptRead).at(0).endpoint, kEndpointIntIn);
    EXPECT_EQ(calls(Call::BulkRead).at(0).endpoint, kEndpointBulkIn);
}

TEST_F(RawTransfer, FastReadMakesOneAttemptOnTheLastUsedHandle) {
    // The last transfer went to adapter 1, so a fast read for index 0 reads adapter 1.
    sim::inject_in(1, kEndpointBulkIn, {0x42});
    ASSERT_EQ(LibUSBWriteData(1, 2, buf, 3, 100), 3);
    EXPECT_EQ(LibUSBReadDataFast(0, 130, buf, 1, 250), 1);
    EXPECT_EQ(buf[0], 0x42);
    const auto reads = calls(Call::BulkRead);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].adapter, 1);
    EXPECT_EQ(reads[0].timeout_ms, 250);

    sim::clear_records();
    sim::reset_clock();
    EXPECT_EQ(LibUSBReadDataFast(0, 130, buf, 1, 250), -ETIMEDOUT);
    EXPECT_EQ(count(Call::BulkRead), 1u);
    EXPECT_EQ(sim::slept_us(), 0u);
}

TEST_F(RawTransfer, FailedClaimClosesTheHandleWhichIsNeverUsedAgain) {
    sim::fail_next(Call::ClaimInterface, 1, -EBUSY);
    EXPECT_EQ(LibUSBWriteData(0, 2, buf, 4, 100), -5);
    EXPECT_EQ(count(Call::Close), 1u);
    EXPECT_EQ(count(Call::BulkWrite), 0u);
    // Many transfers on another adapter later, the node still knows its handle is closed: later
    // transfers fail the claim without reaching libusb, and nothing closes it a second time.
    for (int i = 0; i < 100; ++i) ASSERT_EQ(LibUSBWriteData(1, 2, buf, 4, 100), 4);
    sim::clear_records();
    EXPECT_EQ(LibUSBWriteData(0, 2, buf, 4, 100), -5);
    EXPECT_EQ(LibUSBReadData(0, 130, buf, 1, 100), -5);
    EXPECT_TRUE(sim::records().empty());
    EXPECT_FALSE(check_dev(0));                              // closing a closed handle fails
    EXPECT_EQ(LibUSBReadDataFast(0, 130, buf, 1, 100), -5);  // the current board handle is that one too
    EXPECT_TRUE(sim::records().empty());
    // Index 1 is unaffected; closing index 0 fails without a second usb_close.
    EXPECT_EQ(LibUSBWriteData(1, 2, buf, 4, 100), 4);
    sim::clear_records();
    EXPECT_FALSE(close_dev(0));
    EXPECT_EQ(count(Call::Close), 0u);
}

}  // namespace
