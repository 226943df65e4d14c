// The device list from inside: handles refreshed by a rescan, merge by serial, the re-opens of an open
// and of a connection test. Indices, gaps and the length bound are checked through the board functions
// (tests/api/board_test.cpp).
#include <gtest/gtest.h>

#include <string>

#include "CorvelBoard.h"
#include "libusb_driver.h"
#include "usb_list.h"
#include "wire.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

void enumerate() {
    usb_init();
    usb_find_busses();
    usb_find_devices();
}

std::string serial_of(int index) {
    const kd_list* n = list_post(index);
    return n ? std::string(n->Serial) : std::string("<none>");
}

TEST(DeviceList, RescanKeepsIndicesAndRefreshesHandles) {
    sim::configure({adapter("A"), adapter("B")});
    enumerate();
    ASSERT_EQ(scan_dev(), 2);
    usb_dev_handle* before = list_post(1)->pDevHandle;
    ASSERT_EQ(scan_dev(), 2);
    EXPECT_EQ(list_length(), 2);
    EXPECT_EQ(serial_of(0), "A");
    EXPECT_EQ(serial_of(1), "B");
    EXPECT_NE(list_post(1)->pDevHandle, before);
}

TEST(DeviceList, EqualSerialsMergeIntoOneNode) {
    sim::configure({adapter("SAME"), adapter("SAME"), adapter("C")});
    enumerate();
    EXPECT_EQ(scan_dev(), 3);  // devices seen, not nodes listed
    EXPECT_EQ(list_length(), 2);
    EXPECT_EQ(serial_of(0), "SAME");
    EXPECT_EQ(serial_of(1), "C");
}

TEST(DeviceList, OpenReopensResetsAndReadsTheSerial) {
    sim::configure({adapter("A"), adapter("B")});
    enumerate();
    ASSERT_EQ(scan_dev(), 2);
    sim::clear_records();
    EXPECT_TRUE(open_dev(1));
    EXPECT_FALSE(open_dev(2));
    const auto opens = calls(Call::Open);
    ASSERT_GE(opens.size(), 1u);
    EXPECT_EQ(opens[0].adapter, 1);
    EXPECT_EQ(count(Call::Reset), 1u);
}

TEST(DeviceList, ConnectionTestClosesAndReopens) {
    sim::configure({adapter("A")});
    enumerate();
    ASSERT_EQ(scan_dev(), 1);
    sim::clear_records();
    EXPECT_TRUE(check_dev(0));
    const auto r = sim::records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].call, Call::Close);
    EXPECT_EQ(r[1].call, Call::Open);

    sim::unplug(0);
    EXPECT_FALSE(check_dev(0));
    EXPECT_FALSE(check_dev(0));  // the failed re-open left no handle
    sim::replug(0);
    EXPECT_FALSE(check_dev(0));
    EXPECT_FALSE(check_dev(7));
}

}  // namespace
