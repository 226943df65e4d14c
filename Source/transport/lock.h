// The one process-wide lock of the board-level operations.
#pragma once

#include <pthread.h>
#include <atomic>
#include <cstdint>

// Indices at or above this value are opened, closed and tested without the lock.
inline constexpr int32_t kLockIndexLimit = 21;

extern pthread_mutex_t m_Mutex;
extern std::atomic<int> CriticalInitFlag;

// Creates the mutex once per process (only for indices below the limit).
void lock_init(int32_t DevIndex);
// Takes the mutex for indices below the limit, creating it first if needed. Negative indices lock.
void lock(int32_t DevIndex);
// Releases the mutex for indices below the limit.
void unlock(int32_t DevIndex);
