// The drop-in libusb-0.1 where the library never takes it: records kept across bus changes, string
// buffers, misused handles, partial reads, failures before the adapter, capture switched off.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

using Usb = SimTest;

TEST_F(Usb, BusFollowsPlugsAndConfigurationsAndKeepsOldRecords) {
    rebuild({adapter("A"), adapter("B"), adapter("C")});
    EXPECT_EQ(usb_find_devices(), 0);  // nothing changed since rebuild() read the bus
    // Unplugged, open handles fail and the next scan drops the device; replugged, the same record
    // comes back and the handle works again.
    struct usb_device* first = device(0);
    unplug(0);
    EXPECT_EQ(usb_open(first), nullptr);
    EXPECT_EQ(write(h, frame(260, {})), -ENODEV);
    EXPECT_EQ(read(h, 512).result, -ENODEV);
    EXPECT_EQ(usb_find_devices(), 1);
    EXPECT_NE(device(0), first);
    replug(0);
    EXPECT_EQ(usb_find_devices(), 1);
    EXPECT_EQ(device(0), first);
    EXPECT_EQ(write(h, frame(260, {})), 7);
    EXPECT_EQ(read(h, 512).result, 512);
    configure({adapter("D")});
    EXPECT_EQ(usb_find_devices(), 4);      // three gone, one new
    EXPECT_STREQ(first->filename, "001");  // old records stay readable
}

TEST_F(Usb, StringsStayWithinTheBuffer) {
    char buf[16];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(usb_get_string_simple(h, 3, buf, 4), 3);
    EXPECT_STREQ(buf, "CV0");
    EXPECT_EQ(buf[4], 'x');
    EXPECT_EQ(usb_get_string_simple(h, 4, buf, sizeof buf), -EPIPE);
}

// The handle checks live in two routines, one for transfers and one for the other calls, and in
// usb_close: a call through each stands for the rest.
TEST_F(Usb, BadHandlesBuffersAndEndpointsAreRefused) {
    usb_dev_handle* closed = open();
    ASSERT_EQ(usb_close(closed), 0);
    int local = 0;
    auto* bogus = reinterpret_cast<usb_dev_handle*>(&local);
    char buf[8] = {};
    for (usb_dev_handle* bad : {static_cast<usb_dev_handle*>(nullptr), bogus, closed}) {
        EXPECT_EQ(usb_bulk_write(bad, 0x02, buf, 1, 10), -EBADF);
        EXPECT_EQ(usb_interrupt_read(bad, 0x81, buf, 8, 10), -EBADF);
        EXPECT_EQ(usb_claim_interface(bad, 0), -EBADF);
    }
    EXPECT_EQ(usb_close(closed), -1);
    EXPECT_EQ(usb_close(bogus), -EBADF);
    EXPECT_EQ(usb_open(reinterpret_cast<struct usb_device*>(&local)), nullptr);
    EXPECT_EQ(usb_bulk_write(h, 0x02, nullptr, 4, 10), -EFAULT);
    EXPECT_EQ(usb_bulk_read(h, 0x82, buf, -1, 10), -EINVAL);
    EXPECT_EQ(usb_interrupt_read(h, 0x82, buf, 1, 10), -EINVAL);
    EXPECT_EQ(usb_claim_interface(h, 1), -EINVAL);
    // One handle at a time holds interface 0; closing the holder frees it.
    usb_dev_handle* other = open();
    EXPECT_EQ(usb_claim_interface(h, 0), 0);
    EXPECT_EQ(usb_claim_interface(other, 0), -EBUSY);
    EXPECT_EQ(usb_close(h), 0);
    EXPECT_EQ(usb_claim_interface(other, 0), 0);
}

TEST_F(Usb, ReadLeavesTheRestOfAnAnswerAndResetDropsWhatWaits) {
    inject_in(0, 0x82, {1, 2, 3, 4, 5});
    EXPECT_EQ(read(h, 2).data, (Bytes{1, 2}));
    EXPECT_EQ(read(h, 64).data, (Bytes{3, 4, 5}));
    inject_in(0, 0x82, {1});
    inject_in(0, 0x81, {2});
    EXPECT_EQ(usb_reset(h), 0);
    EXPECT_EQ(read(h, 1, 0x82).result, -ETIMEDOUT);
    EXPECT_EQ(read(h, 1, 0x81).result, -ETIMEDOUT);
}

TEST_F(Usb, SilencedFirmwareAnswersNothingButInjectedAnswersArrive) {
    silence(0, true);
    EXPECT_EQ(write(h, frame(260, {})), 7);
    EXPECT_EQ(read(h, 512).result, -ETIMEDOUT);
    inject_in(0, 0x82, {7});
    EXPECT_EQ(read(h, 512).data, Bytes{7});
    clear_faults();
    EXPECT_EQ(write(h, frame(260, {})), 7);
    EXPECT_EQ(read(h, 512).result, 512);
}

TEST_F(Usb, InjectedFailuresNeverReachTheAdapterAndClearFaultsDropsThem) {
    fail_next(Call::BulkWrite, 1, -EIO);
    EXPECT_EQ(write(h, frame(260, {})), -EIO);
    EXPECT_EQ(read(h, 512).result, -ETIMEDOUT);  // the request did not arrive
    fail_next(Call::Open, 1, 0);
    EXPECT_EQ(open(), nullptr);
    fail_next(Call::ClaimInterface, 1, -EBUSY);
    clear_faults();
    EXPECT_EQ(usb_claim_interface(h, 0), 0);
}

// The drop-in's processor time grows with the work done inside it, and only there.
TEST_F(Usb, CpuTimeCountsTheWorkInsideTheDropIn) {
    const uint64_t before = cpu_time_ns();
    volatile uint64_t outside = 0;
    for (int i = 0; i < 2000000; ++i) outside = outside + uint64_t(i);
    EXPECT_EQ(cpu_time_ns(), before);  // the loop ran outside the drop-in
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(write(h, frame(260, {})), 7);
        ASSERT_EQ(read(h, 512).result, 512);
    }
    EXPECT_GT(cpu_time_ns(), before);
}

}  // namespace
}  // namespace corvel::sim::test
