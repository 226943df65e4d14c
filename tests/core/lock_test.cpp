// The process-wide lock: one mutex, taken only for indices below 21.
#include <gtest/gtest.h>

#include <thread>

#include "lock.h"

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

}  // namespace
