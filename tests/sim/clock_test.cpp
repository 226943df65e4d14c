// The virtual clock: interposed sleeps, the clock switched off, and scheduled events.
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

using Clock = SimTest;

template <class Fn>
double real_seconds(Fn fn) {
    const auto start = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(Clock, SleepsAddToTheVirtualClockAndReturnAtOnce) {
    const double took = real_seconds([] {
        EXPECT_EQ(usleep(2500000), 0);
        EXPECT_EQ(sleep(3), 0u);
        timespec req{1, 1500}, rem{9, 9};
        EXPECT_EQ(nanosleep(&req, &rem), 0);  // 1.5 us rounds up to 2
        EXPECT_EQ(rem.tv_sec, 0);
    });
    EXPECT_LT(took, 1.0);
    EXPECT_EQ(slept_us(), 6500002u);
    EXPECT_EQ(now_us(), 6500002u);

    timespec bad{0, 1000000000L};
    EXPECT_EQ(nanosleep(&bad, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(nanosleep(nullptr, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
}

// Off, sleeps reach the C library and a read finding nothing returns at once; the clock stands.
TEST_F(Clock, SwitchedOffSleepsAreRealAndReadsDoNotWait) {
    virtual_clock(false);
    EXPECT_GE(real_seconds([] { EXPECT_EQ(usleep(30000), 0); }), 0.029);
    EXPECT_LT(real_seconds([&] { EXPECT_EQ(read(h, 8, 0x82, 2000).result, -ETIMEDOUT); }), 1.0);
    EXPECT_EQ(now_us() + slept_us(), 0u);
}

TEST_F(Clock, EventsRunInTimeOrderInsideASleep) {
    std::vector<std::pair<int, uint64_t>> ran;
    schedule(300, [&] { ran.emplace_back(2, now_us()); });
    schedule(100, [&] { ran.emplace_back(1, now_us()); });
    schedule(300, [&] { ran.emplace_back(3, now_us()); });
    schedule(900, [&] { ran.emplace_back(4, now_us()); });
    usleep(500);
    EXPECT_EQ(ran, (std::vector<std::pair<int, uint64_t>>{{1, 100}, {2, 300}, {3, 300}}));
    EXPECT_EQ(now_us(), 500u);
    usleep(400);
    EXPECT_EQ(ran.size(), 4u);
}

TEST_F(Clock, EventMayReconfigureTheBusUnderAWaitingRead) {
    schedule(1000, [] { configure({}); });
    EXPECT_EQ(read(h, 8, 0x82, 10).result, -ENODEV);
}

}  // namespace
}  // namespace corvel::sim::test
