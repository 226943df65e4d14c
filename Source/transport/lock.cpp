#include "lock.h"

pthread_mutex_t m_Mutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<int> CriticalInitFlag{0};

namespace {

// Two threads whose first lock comes at the same moment must not both create the mutex: the
// creation runs once, whoever gets there first (a function-local static is initialised once).
void create_once() {
    [[maybe_unused]] static const bool created = [] {
        pthread_mutex_init(&m_Mutex, nullptr);
        CriticalInitFlag = 1;
        return true;
    }();
}

}  // namespace

// The mutex is the same for every device index; the index only decides whether to lock. An index of
// 21 or more takes no lock at all: that limit is intended, callers with such indices serialise
// themselves.
void lock_init(int32_t DevIndex) {
    if (DevIndex < kLockIndexLimit && !CriticalInitFlag) create_once();
}

void lock(int32_t DevIndex) {
    if (DevIndex < kLockIndexLimit) {
        if (!CriticalInitFlag) create_once();
        pthread_mutex_lock(&m_Mutex);
    }
}

void unlock(int32_t DevIndex) {
    if (DevIndex < kLockIndexLimit) pthread_mutex_unlock(&m_Mutex);
}
