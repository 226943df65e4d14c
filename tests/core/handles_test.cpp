// Handles the library opens are closed again: repeated enumeration, opens, board information,
// connection tests and closes keep the number of open handles bounded, and a closed handle never
// reaches libusb again.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "ControlI2C.h"
#include "wire.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

struct HandleCount {
    long open = 0;
    long opened = 0;  // handles opened in all
    long peak = 0;
    long stale_uses = 0;  // calls the virtual adapter refused because the handle was closed

    // Takes in what was captured since the last call, then drops it so memory stays flat.
    void take() {
        for (const auto& r : sim::records()) {
            if (r.call == Call::Open && r.result == 1) ++open, ++opened;
            if (r.call == Call::Close) --open;
            if (r.result == -EBADF) ++stale_uses;
            peak = std::max(peak, open);
        }
        sim::clear_records();
    }
};

TEST(Handles, StayBoundedOverManyMixedCalls) {
    sim::configure({adapter("H0"), adapter("H1")});
    HandleCount handles;
    KII_BOARD_INFO info{};
    uint8_t data[4] = {1, 2, 3, 4};
    for (int i = 0; i < 10000; ++i) {
        // Closes shift the indices up until the length bound hides them all; clearing the list now
        // and then starts them at 0 again.
        if (i % 100 == 0) list_clear();
        switch (i % 5) {
            case 0:
                KD_EnumBoard(1);
                break;
            case 1:
                KD_OpenBoard(i % 2);
                break;
            case 2:
                KII_ReadBoardInfo(0, &info);
                break;
            case 3:
                KII_WriteBytes(1, 1, 0, 0xA0, 0, data, 4);
                break;  // connection test first
            case 4:
                KD_CloseBoard(i % 2);
                break;
        }
        handles.take();
        ASSERT_LE(handles.peak, 4) << "after call " << i;
    }
    EXPECT_EQ(handles.stale_uses, 0);
    EXPECT_GT(handles.opened, 4000);  // the calls did reach the adapters
    // Closing an adapter closes its handle; clearing the list closes the rest.
    list_clear();
    KD_EnumBoard(1);
    KD_CloseBoard(0);
    handles.take();
    EXPECT_EQ(handles.open, 1);
    list_clear();
    handles.take();
    EXPECT_EQ(handles.open, 0);
}

// A command is the integer a C caller passed, whatever KD_CMD_ENUM lists.
TEST(Commands, AnyIntegerGoesOutAsItIs) {
    sim::configure({adapter("C0")});
    ASSERT_EQ(KD_OpenBoard(0), 0);
    sim::clear_records();
    uint8_t answer[8];
    KD_ExecuteCommand(static_cast<KD_CMD_ENUM>(-2), 7, 0, answer);
    KD_ExecuteCommand(static_cast<KD_CMD_ENUM>(0x7FFFFFFF), 7, 0, answer);
    const auto writes = calls(Call::InterruptWrite);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].data, (Bytes{0xFF, 0xFF, 0xFF, 0xFE, 0, 0, 0, 7}));
    EXPECT_EQ(writes[1].data, (Bytes{0x7F, 0xFF, 0xFF, 0xFF, 0, 0, 0, 7}));
}

}  // namespace
