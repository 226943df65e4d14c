// The CAN read threads next to the application's own calls: both channels polling while the main
// thread transmits, receives and swaps the callback, then a close that joins them; and two
// adapters polled at once. Every frame a generator or the main thread sent must be accounted for,
// read or still waiting, on the right adapter and channel. Run under ThreadSanitizer by
// scripts/test (label "threads").
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <thread>

#include "ControlCAN.h"
#include "corvel/sim_can.hpp"
#include "wire.hpp"

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

constexpr uint32_t kCan2 = 4;
VCI_INIT_CONFIG k500k{0, 0xFFFFFFFF, 0, 0, 0x00, 0x1C, 0};

// Opens the adapter, initialises and starts both channels, then puts a generator on its bus: an
// init empties its channel's FIFO, so the generator starts once no init is to come.
void open_and_start(uint32_t dev, uint32_t generator_id) {
    ASSERT_EQ(VCI_OpenDevice(kCan2, dev, 0), 1u);
    for (uint32_t can : {0u, 1u}) {
        ASSERT_EQ(VCI_InitCAN(kCan2, dev, can, &k500k), 1u);
        ASSERT_EQ(VCI_StartCAN(kCan2, dev, can), 1u);
    }
    sim::CanGeneratorSpec g;
    // A slow rate: the read threads' sleeps move the one virtual clock on, and while a slow process
    // (a sanitizer build on a busy machine) keeps a draining thread off the processor they can move
    // it seconds ahead; at this rate that still leaves the library's queues far from full.
    g.rate = 50;
    g.id_first = g.id_last = generator_id;
    sim::set_can_generator(static_cast<int>(dev), g);
}

std::atomic<uint32_t> callbacks{0};
void count_callback(uint32_t, uint32_t, uint32_t) {
    ++callbacks;
}

// What one adapter's channels received: frames counted by identifier.
struct Tally {
    std::array<uint64_t, 2> generator{}, transmitted{}, foreign{};
    // Takes all that waits on both channels; `mine` is the generator's identifier, 0x300 + dev the
    // transmitted frames'.
    void take(uint32_t dev, uint32_t mine) {
        std::array<VCI_CAN_OBJ, 256> buf{};
        for (uint32_t can : {0u, 1u}) {
            uint32_t n;
            while ((n = VCI_Receive(kCan2, dev, can, buf.data(), buf.size(), 0)) != 0 && n != 0xFFFFFFFF) {
                for (uint32_t i = 0; i < n; ++i) {
                    if (buf[i].ID == mine) {
                        ++generator[can];
                    } else if (buf[i].ID == 0x300 + dev && can == 1) {
                        ++transmitted[can];
                    } else {
                        ++foreign[can];
                    }
                }
            }
        }
    }
    // With the threads joined: read, plus left in the library's queues, plus left in the adapter.
    uint64_t accounted(uint32_t dev, uint32_t can, const std::array<uint64_t, 2>& read) const {
        return read[can] + VCI_GetReceiveNum(kCan2, dev, can) +
               sim::can_controller(static_cast<int>(dev), static_cast<int>(can) + 1).waiting;
    }
};

VCI_CAN_OBJ frame_of(uint32_t dev) {
    VCI_CAN_OBJ f{};
    f.ID = 0x300 + dev;
    f.DataLen = 1;
    f.Data[0] = static_cast<uint8_t>(dev);
    return f;
}

TEST(CanThreads, BothChannelsPollWhileTheMainThreadTransmitsReceivesAndSwapsTheCallback) {
    sim::capture(false);
    sim::configure({adapter("C0", kCan2)});
    ASSERT_NO_FATAL_FAILURE(open_and_start(0, 0x100));
    constexpr int kRounds = 300;
    Tally tally;
    for (int round = 0; round < kRounds; ++round) {
        VCI_CAN_OBJ f = frame_of(0);
        ASSERT_EQ(VCI_Transmit(kCan2, 0, 0, &f, 1), 1u);
        if (round % 2 == 0) {
            EXPECT_EQ(VCI_RegisterReceiveCallback(0, count_callback), 1u);
        } else {
            EXPECT_EQ(VCI_LogoutReceiveCallback(0), 1u);
        }
        tally.take(0, 0x100);
        usleep(1000);
    }
    EXPECT_EQ(VCI_CloseDevice(kCan2, 0), 1u);  // stops and joins both read threads
    const uint64_t generated = sim::can_generated(0, 1);
    EXPECT_GT(generated, 0u);
    EXPECT_EQ(tally.accounted(0, 0, tally.generator), generated);
    EXPECT_EQ(tally.accounted(0, 1, {0, tally.generator[1] + tally.transmitted[1]}), generated + kRounds);
    EXPECT_EQ(tally.foreign, (std::array<uint64_t, 2>{}));
    EXPECT_EQ(sim::can_controller(0, 1).lost + sim::can_controller(0, 2).lost, 0u);
    EXPECT_GT(callbacks.load(), 0u);
}

TEST(CanThreads, TwoAdaptersPolledAtOnceKeepTheirOwnFrames) {
    sim::capture(false);
    sim::configure({adapter("C0", kCan2), adapter("C1", kCan2)});
    for (uint32_t dev : {0u, 1u}) ASSERT_NO_FATAL_FAILURE(open_and_start(dev, 0x100 * (dev + 1)));
    constexpr int kRounds = 200;
    std::array<Tally, 2> tallies;
    std::array<uint64_t, 2> sent{};
    auto work = [&](uint32_t dev) {
        for (int round = 0; round < kRounds; ++round) {
            VCI_CAN_OBJ f = frame_of(dev);
            sent[dev] += VCI_Transmit(kCan2, dev, 0, &f, 1);
            tallies[dev].take(dev, 0x100 * (dev + 1));
            usleep(1000);
        }
    };
    std::thread other(work, 1);
    work(0);
    other.join();
    // The last adapter first: a close renumbers nothing, but hides the adapters after it.
    EXPECT_EQ(VCI_CloseDevice(kCan2, 1), 1u);
    EXPECT_EQ(VCI_CloseDevice(kCan2, 0), 1u);
    for (uint32_t dev : {0u, 1u}) {
        const Tally& t = tallies[dev];
        const uint64_t generated = sim::can_generated(static_cast<int>(dev), 1);
        EXPECT_EQ(sent[dev], uint64_t{kRounds}) << dev;
        EXPECT_EQ(t.foreign, (std::array<uint64_t, 2>{})) << dev;
        EXPECT_EQ(t.accounted(dev, 0, t.generator), generated) << dev;
        EXPECT_EQ(t.accounted(dev, 1, {0, t.generator[1] + t.transmitted[1]}), generated + kRounds) << dev;
    }
}

}  // namespace
