#include "lock.h"

pthread_mutex_t m_Mutex;
int CriticalInitFlag = 0;

// The mutex is the same for every device index; the index only decides whether to lock. An index of
// 21 or more takes no lock at all: that limit is intended, callers with such indices serialise
// themselves.
void lock_init(int32_t DevIndex) {
    if (DevIndex < kLockIndexLimit && !CriticalInitFlag) {
        CriticalInitFlag = 1;
        pthread_mutex_init(&m_Mutex, nullptr);
    }
}

void lock(int32_t DevIndex) {
    if (DevIndex < kLockIndexLimit) {
        if (!CriticalInitFlag) {
            pthread_mutex_init(&m_Mutex, nullptr);
            CriticalInitFlag = 1;
        }
        pthread_mutex_lock(&m_Mutex);
    }
}

void unlock(int32_t DevIndex) {
    if (DevIndex < kLockIndexLimit) pthread_mutex_unlock(&m_Mutex);
}
