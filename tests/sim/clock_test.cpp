// The virtual clock: interposed sleeps, read time-outs and scheduled events.
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "sim_fixture.hpp"

namespace corvel::sim::test {
namespace {

using Clock = SimTest;
using std::chrono::steady_clock;

double real_seconds(void (*fn)()) {
    const auto start = steady_clock::now();
    fn();
    return std::chrono::duration<double>(steady_clock::now() - start).count();
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

    errno = 0;
    timespec bad{0, 1000000000L};
    EXPECT_EQ(nanosleep(&bad, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(nanosleep(nullptr, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);

    reset_clock();
    EXPECT_EQ(now_us(), 0u);
    EXPECT_EQ(slept_us(), 0u);
}

TEST_F(Clock, SleepsAreRealWhenTheClockIsOff) {
    virtual_clock(false);
    const double took = real_seconds([] { EXPECT_EQ(usleep(30000), 0); });
    EXPECT_GE(took, 0.029);
    EXPECT_EQ(slept_us(), 0u);
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

TEST_F(Clock, ReadTimeOutAdvancesTheClockOnlyWhenItIsOn) {
    usb_dev_handle* h = open();
    EXPECT_EQ(read(h, 8, 0x82, 250).result, -ETIMEDOUT);
    EXPECT_EQ(now_us(), 250000u);
    EXPECT_EQ(slept_us(), 0u);

    virtual_clock(false);
    const auto start = steady_clock::now();
    EXPECT_EQ(read(h, 8, 0x82, 2000).result, -ETIMEDOUT);
    EXPECT_LT(std::chrono::duration<double>(steady_clock::now() - start).count(), 1.0);
    EXPECT_EQ(now_us(), 250000u);
}

TEST_F(Clock, EventWithinTheTimeOutDeliversItsAnswer) {
    usb_dev_handle* h = open();
    schedule(40000, [] { inject_in(0, 0x81, {1, 2, 3, 4, 5, 6, 7, 8}); });
    const Read r = read(h, 8, 0x81, 50);
    EXPECT_EQ(r.result, 8);
    EXPECT_EQ(r.data[7], 8);
    EXPECT_EQ(now_us(), 40000u);  // the read returned when the answer came

    schedule(now_us() + 60000, [] { inject_in(0, 0x81, {9}); });
    EXPECT_EQ(read(h, 8, 0x81, 50).result, -ETIMEDOUT);  // too late for this read
    EXPECT_EQ(now_us(), 90000u);
    EXPECT_EQ(read(h, 8, 0x81, 50).data, Bytes{9});
}

TEST_F(Clock, EventMayReconfigureTheBusUnderAWaitingRead) {
    usb_dev_handle* h = open();
    schedule(1000, [] { configure({}); });
    EXPECT_EQ(read(h, 8, 0x82, 10).result, -ENODEV);
}

}  // namespace
}  // namespace corvel::sim::test
