// The process-wide lock: one mutex, taken only for indices below 21, and held by the families
// documented to lock for their whole exchange.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "ControlSPI.h"
#include "lock.h"
#include "wire.hpp"

namespace {

bool held_elsewhere() {
    bool busy = false;
    std::thread([&] {
        busy = pthread_mutex_trylock(&m_Mutex) != 0;
        if (!busy) pthread_mutex_unlock(&m_Mutex);
    }).join();
    return busy;
}

TEST(Lock, IndicesBelowTheLimitTakeTheOneMutex) {
    for (int32_t index : {20, 0, -1, -100}) {
        lock(index);
        EXPECT_TRUE(held_elsewhere()) << index;
        unlock(index);
        EXPECT_FALSE(held_elsewhere()) << index;
    }
}

TEST(Lock, IndicesFromTheLimitOnTakeNoLock) {
    lock(0);
    for (int32_t index : {21, 22, 1000}) {
        unlock(index);  // must not release the mutex held for index 0
        EXPECT_TRUE(held_elsewhere()) << index;
    }
    unlock(0);
    lock(21);
    EXPECT_FALSE(held_elsewhere());
    unlock(21);
}

TEST(Lock, InitCreatesTheMutexOnce) {
    EXPECT_EQ(CriticalInitFlag, 0);
    lock_init(21);
    EXPECT_EQ(CriticalInitFlag, 0);
    lock_init(3);
    EXPECT_EQ(CriticalInitFlag, 1);
    lock(3);
    lock_init(3);  // a second init must not reset a held mutex
    EXPECT_TRUE(held_elsewhere());
    unlock(3);
}

// Looked at from inside the status read and the data read of an SPI read.
TEST(Lock, SpiHoldsItFromTheRequestToTheEndOfTheDataRead) {
    using namespace corvel::test;
    namespace sim = corvel::sim;
    sim::configure({adapter("S", KD_DEVTYPE_SPI)});
    ASSERT_EQ(KSI_OpenDevice(KD_DEVTYPE_SPI, 0, 0), 0);
    sim::silence(0, true);
    std::vector<bool> held;
    const uint64_t t = sim::now_us();
    sim::schedule(t + 1000, [&] {
        held.push_back(held_elsewhere());
        inject_bulk(status_answer(MSG_SPI_READ_DATA_OK));
    });
    sim::schedule(t + 2000, [&] {
        held.push_back(held_elsewhere());
        inject_bulk({1, 2});
    });
    uint8_t out[2];
    EXPECT_EQ(KSI_ReadBytes(KD_DEVTYPE_SPI, 0, 0, out, 2), 0);
    EXPECT_EQ(held, (std::vector<bool>{true, true}));
    EXPECT_FALSE(held_elsewhere());
    EXPECT_EQ(KSI_ReadBytes(KD_DEVTYPE_SPI, 0, 0, out, 2), -10);  // no status: released all the same
    EXPECT_FALSE(held_elsewhere());
}

}  // namespace
