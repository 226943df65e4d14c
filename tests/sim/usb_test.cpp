// The drop-in libusb-0.1: the bus, descriptors and strings, handle discipline, read semantics,
// faults and capture.
#include <cerrno>
#include <cstring>

#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

using Usb = SimTest;

TEST_F(Usb, BusListsConfiguredDevicesAndCountsChanges) {
    auto foreign = adapter("F");
    foreign.vendor = 0x1234;
    auto anonymous = adapter("");
    anonymous.has_serial = false;
    rebuild({adapter("A", 2), foreign, anonymous});
    EXPECT_EQ(usb_find_busses(), 0);  // the bus was listed by rebuild()
    EXPECT_EQ(usb_find_devices(), 0);

    ASSERT_NE(usb_get_busses(), nullptr);
    EXPECT_STREQ(usb_get_busses()->dirname, "001");
    const char* names[] = {"001", "002", "003"};
    for (int i = 0; i < 3; ++i) {
        ASSERT_NE(device(i), nullptr);
        EXPECT_STREQ(device(i)->filename, names[i]);
        EXPECT_EQ(device(i)->bus, usb_get_busses());
    }
    EXPECT_EQ(device(3), nullptr);

    const usb_device_descriptor& d = device(0)->descriptor;
    EXPECT_EQ(d.bLength, 18);
    EXPECT_EQ(d.bDescriptorType, 1);
    EXPECT_EQ(d.bcdUSB, 0x0200);
    EXPECT_EQ(d.idVendor, 0x0483);
    EXPECT_EQ(d.idProduct, 0x0666);
    EXPECT_EQ(d.iSerialNumber, 3);
    EXPECT_EQ(d.bNumConfigurations, 1);
    EXPECT_EQ(device(1)->descriptor.idVendor, 0x1234);
    EXPECT_EQ(device(2)->descriptor.iSerialNumber, 0);

    const usb_interface_descriptor& alt = device(0)->config[0].interface[0].altsetting[0];
    ASSERT_EQ(alt.bNumEndpoints, 4);
    const uint8_t addresses[] = {0x02, 0x01, 0x82, 0x81};
    const uint8_t types[] = {USB_ENDPOINT_TYPE_BULK, USB_ENDPOINT_TYPE_INTERRUPT, USB_ENDPOINT_TYPE_BULK,
                             USB_ENDPOINT_TYPE_INTERRUPT};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(alt.endpoint[i].bEndpointAddress, addresses[i]);
        EXPECT_EQ(alt.endpoint[i].bmAttributes, types[i]);
        EXPECT_EQ(alt.endpoint[i].wMaxPacketSize, 64);
    }

    // Unplugging leaves the bus at the next scan; replugging brings back the same record.
    struct usb_device* first = device(0);
    unplug(0);
    EXPECT_EQ(usb_find_devices(), 1);
    EXPECT_NE(device(0), first);
    EXPECT_EQ(device(2), nullptr);
    replug(0);
    EXPECT_EQ(usb_find_devices(), 1);
    EXPECT_EQ(device(0), first);
    configure({adapter("B")});
    EXPECT_EQ(usb_find_devices(), 4);    // three gone, one new
    EXPECT_EQ(first->filename[2], '1');  // old records stay readable
}

TEST_F(Usb, StringsAreCopiedWithinTheBuffer) {
    auto anonymous = adapter("");
    anonymous.has_serial = false;
    rebuild({adapter("SERIAL-42", 4), anonymous});
    usb_dev_handle* h = open(0);
    char buf[64];
    EXPECT_EQ(usb_get_string_simple(h, 3, buf, sizeof buf), 9);
    EXPECT_STREQ(buf, "SERIAL-42");
    EXPECT_EQ(usb_get_string_simple(h, 1, buf, sizeof buf), 6);
    EXPECT_STREQ(buf, "Corvel");
    EXPECT_EQ(usb_get_string_simple(h, 2, buf, sizeof buf), 23);
    EXPECT_STREQ(buf, "Corvel Dual CAN Adapter");

    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(usb_get_string_simple(h, 3, buf, 4), 3);
    EXPECT_STREQ(buf, "SER");
    EXPECT_EQ(buf[4], 'x');
    EXPECT_EQ(usb_get_string_simple(h, 4, buf, sizeof buf), -EPIPE);
    EXPECT_EQ(usb_get_string_simple(open(1), 3, buf, sizeof buf), -EPIPE);

    const auto r = records();
    ASSERT_GE(r.size(), 2u);
    EXPECT_EQ(r[1].call, Call::GetString);
    EXPECT_EQ(r[1].endpoint, 3);
    const std::string serial = "SERIAL-42";
    EXPECT_EQ(r[1].data, Bytes(serial.begin(), serial.end()));
}

TEST_F(Usb, BadHandlesBuffersAndEndpointsAreRefused) {
    usb_dev_handle* h = open();
    usb_dev_handle* closed = open();
    ASSERT_EQ(usb_close(closed), 0);
    int local = 0;
    auto* bogus = reinterpret_cast<usb_dev_handle*>(&local);
    char buf[8] = {};
    for (usb_dev_handle* bad : {static_cast<usb_dev_handle*>(nullptr), bogus, closed}) {
        EXPECT_EQ(usb_bulk_write(bad, 0x02, buf, 1, 10), -EBADF);
        EXPECT_EQ(usb_bulk_read(bad, 0x82, buf, 1, 10), -EBADF);
        EXPECT_EQ(usb_interrupt_write(bad, 0x01, buf, 8, 10), -EBADF);
        EXPECT_EQ(usb_interrupt_read(bad, 0x81, buf, 8, 10), -EBADF);
        EXPECT_EQ(usb_claim_interface(bad, 0), -EBADF);
        EXPECT_EQ(usb_release_interface(bad, 0), -EBADF);
        EXPECT_EQ(usb_reset(bad), -EBADF);
        EXPECT_EQ(usb_get_string_simple(bad, 1, buf, sizeof buf), -EBADF);
        EXPECT_EQ(usb_control_msg(bad, 0, 0, 0, 0, buf, 0, 10), -EBADF);
    }
    EXPECT_EQ(usb_close(closed), -1);
    EXPECT_EQ(usb_close(bogus), -EBADF);
    EXPECT_EQ(usb_device(bogus), nullptr);
    EXPECT_EQ(usb_device(closed), device(0));
    EXPECT_EQ(usb_open(nullptr), nullptr);
    EXPECT_EQ(usb_open(reinterpret_cast<struct usb_device*>(&local)), nullptr);

    EXPECT_EQ(usb_bulk_write(h, 0x02, nullptr, 4, 10), -EFAULT);
    EXPECT_EQ(usb_bulk_read(h, 0x82, nullptr, 4, 10), -EFAULT);
    EXPECT_EQ(usb_bulk_write(h, 0x02, buf, -1, 10), -EINVAL);
    EXPECT_EQ(usb_bulk_read(h, 0x82, buf, -1, 10), -EINVAL);
    EXPECT_EQ(usb_bulk_write(h, 0x02, nullptr, 0, 10), 0);
    EXPECT_EQ(usb_bulk_write(h, 0x03, buf, 1, 10), -EINVAL);
    EXPECT_EQ(usb_interrupt_write(h, 0x02, buf, 1, 10), -EINVAL);
    EXPECT_EQ(usb_interrupt_read(h, 0x82, buf, 1, 10), -EINVAL);
    EXPECT_EQ(usb_get_string_simple(h, 1, nullptr, 8), -EFAULT);
    EXPECT_EQ(usb_get_string_simple(h, 1, buf, 0), -EINVAL);
    EXPECT_EQ(usb_claim_interface(h, 1), -EINVAL);

    // One handle at a time holds interface 0; closing the holder frees it.
    usb_dev_handle* other = open();
    EXPECT_EQ(usb_claim_interface(h, 0), 0);
    EXPECT_EQ(usb_claim_interface(h, 0), 0);
    EXPECT_EQ(usb_claim_interface(other, 0), -EBUSY);
    EXPECT_EQ(usb_close(h), 0);
    EXPECT_EQ(usb_claim_interface(other, 0), 0);
    EXPECT_EQ(usb_release_interface(other, 0), 0);
}

TEST_F(Usb, ReadTakesFromTheFrontAnswerAndLeavesTheRest) {
    usb_dev_handle* h = open();
    inject_in(0, 0x82, {1, 2, 3, 4, 5});
    inject_in(0, 0x82, {6, 7});
    EXPECT_EQ(read(h, 2).data, (Bytes{1, 2}));
    EXPECT_EQ(read(h, 64).data, (Bytes{3, 4, 5}));  // never runs into the next answer
    EXPECT_EQ(read(h, 0).result, 0);
    EXPECT_EQ(read(h, 64).data, (Bytes{6, 7}));
    EXPECT_EQ(read(h, 64).result, -ETIMEDOUT);

    // A bulk read on 0x02 means 0x82, as libusb sets the direction bit.
    inject_in(0, 0x82, {9});
    EXPECT_EQ(read(h, 1, 0x02).data, Bytes{9});
    // A USB reset drops whatever waits.
    inject_in(0, 0x82, {1});
    inject_in(0, 0x81, {2});
    EXPECT_EQ(usb_reset(h), 0);
    EXPECT_EQ(read(h, 1, 0x82).result, -ETIMEDOUT);
    EXPECT_EQ(read(h, 1, 0x81).result, -ETIMEDOUT);
}

TEST_F(Usb, ForeignDeviceSwallowsWritesAndNeverAnswers) {
    auto foreign = adapter("F");
    foreign.product = 0x0667;
    rebuild({foreign});
    usb_dev_handle* h = open();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(write(h, frame(260, {})), 7);
    EXPECT_EQ(read(h, 512).result, -ETIMEDOUT);
    EXPECT_TRUE(unknown_messages(0).empty());
}

TEST_F(Usb, FailNextFailsThatManyCallsWithoutReachingTheAdapter) {
    usb_dev_handle* h = open();
    fail_next(Call::BulkWrite, 2, -EIO);
    EXPECT_EQ(write(h, frame(260, {})), -EIO);
    EXPECT_EQ(write(h, frame(260, {})), -EIO);
    EXPECT_EQ(read(h, 512).result, -ETIMEDOUT);  // neither request arrived
    EXPECT_EQ(write(h, frame(260, {})), 7);

    fail_next(Call::BulkRead, 1, -EPIPE);
    EXPECT_EQ(read(h, 512).result, -EPIPE);  // consumes nothing
    EXPECT_EQ(read(h, 512).result, 512);

    fail_next(Call::Open, 1, 0);
    EXPECT_EQ(open(), nullptr);
    EXPECT_NE(open(), nullptr);
    fail_next(Call::ClaimInterface, 1, -EBUSY);
    clear_faults();
    EXPECT_EQ(usb_claim_interface(h, 0), 0);
}

TEST_F(Usb, AnswerFaults) {
    usb_dev_handle* h = open();
    const Bytes info = frame(260, {});

    short_read_next(0, 10);
    ASSERT_EQ(write(h, info), 7);
    EXPECT_EQ(read(h, 512).result, 10);
    EXPECT_EQ(read(h, 512).result, -ETIMEDOUT);  // the rest of that answer is lost

    drop_next_answers(0, 1);
    ASSERT_EQ(write(h, info + info), 14);
    EXPECT_EQ(read(h, 512).result, 512);
    EXPECT_EQ(read(h, 512).result, -ETIMEDOUT);

    override_next_status(0, 0x33);
    ASSERT_EQ(write(h, info), 7);
    ASSERT_EQ(write(h, frame(268, be32(0) + Bytes{1})), 12);
    EXPECT_EQ(read(h, 512).data[4], 0x33);
    EXPECT_EQ(read(h, 512).data, Bytes{6});  // only the next answer
}

TEST_F(Usb, UnpluggedAdapterRefusesOpensAndTransfers) {
    usb_dev_handle* h = open();
    struct usb_device* d = device(0);
    unplug(0);
    EXPECT_EQ(usb_open(d), nullptr);
    EXPECT_EQ(write(h, frame(260, {})), -ENODEV);
    EXPECT_EQ(read(h, 512).result, -ENODEV);
    EXPECT_EQ(usb_claim_interface(h, 0), -ENODEV);
    EXPECT_EQ(usb_reset(h), -ENODEV);
    replug(0);
    ASSERT_NE(usb_open(d), nullptr);
    EXPECT_EQ(write(h, frame(260, {})), 7);
    EXPECT_EQ(read(h, 512).result, 512);
}

TEST_F(Usb, CaptureRecordsEachCall) {
    usb_dev_handle* h = open();
    inject_in(0, 0x81, {5, 6});
    usleep(1000);
    write(h, Bytes{1, 2, 3}, 0x01);
    read(h, 8, 0x81, 77);
    capture(false);
    read(h, 8, 0x81, 77);
    const auto r = records();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].call, Call::Open);
    EXPECT_EQ(r[0].result, 1);
    EXPECT_EQ(r[1].call, Call::InterruptWrite);
    EXPECT_EQ(r[1].endpoint, 0x01);
    EXPECT_EQ(r[1].data, (Bytes{1, 2, 3}));
    EXPECT_EQ(r[1].time_us, 1000u);
    EXPECT_EQ(r[2].call, Call::InterruptRead);
    EXPECT_EQ(r[2].adapter, 0);
    EXPECT_EQ(r[2].timeout_ms, 77);
    EXPECT_EQ(r[2].data, (Bytes{5, 6}));
    EXPECT_EQ(r[2].result, 2);
    EXPECT_STREQ(call_name(r[2].call), "usb_interrupt_read");
}

}  // namespace
}  // namespace corvel::sim::test
