// usleep, sleep and nanosleep for every module loaded after the drop-in (the host library, the
// program, its other libraries). With the virtual clock on they add to it, run the events that
// fall due, and return at once; with it off they are the C library's own.
#include <dlfcn.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <mutex>

#include "corvel/sim.hpp"
#include "cpu_meter.hpp"
#include "simulator.hpp"

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#endif

namespace corvel::sim {
namespace {

// ThreadSanitizer runs the sleep functions it intercepts (these, when the drop-in comes after it)
// with its own view of locks switched off, so it would not see the simulator's lock taken below
// and would take the virtual clock's updates for races. This tells it of the lock by hand.
class LockSeen {
  public:
    explicit LockSeen([[maybe_unused]] std::recursive_mutex& m) : m_(m) {
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(m_.native_handle());
#endif
    }
    ~LockSeen() {
#if defined(__SANITIZE_THREAD__)
        __tsan_release(m_.native_handle());
#endif
    }
    LockSeen(const LockSeen&) = delete;
    LockSeen& operator=(const LockSeen&) = delete;

  private:
    [[maybe_unused]] std::recursive_mutex& m_;
};

// True when the virtual clock took the sleep. The lock is never held while really sleeping; after
// a virtual sleep the thread yields, so that a host thread polling in a sleep loop lets the
// others run.
bool sleep_virtually(uint64_t us) {
    Simulator& s = Simulator::instance();
    if (!s.clock.on()) return false;
    {
        const CpuMeter meter;
        std::lock_guard<std::recursive_mutex> lock(s.mutex());
        const LockSeen seen(s.mutex());
        s.clock.sleep(us);
    }
    sched_yield();
    return true;
}

template <typename Fn>
Fn c_library(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

// A real sleep without going through any interposed symbol, should the C library's not be found.
int sleep_really(const timespec* request, timespec* remaining) {
    const int r = clock_nanosleep(CLOCK_REALTIME, 0, request, remaining);
    if (r == 0) return 0;
    errno = r;
    return -1;
}

uint64_t microseconds(const timespec& t) {
    // Rounded up, so that any nonzero sleep moves the clock.
    return static_cast<uint64_t>(t.tv_sec) * 1000000u + (static_cast<uint64_t>(t.tv_nsec) + 999u) / 1000u;
}

}  // namespace
}  // namespace corvel::sim

using corvel::sim::c_library;
using corvel::sim::sleep_really;
using corvel::sim::sleep_virtually;

extern "C" {

CORVEL_SIM_API int usleep(useconds_t usec) {
    if (sleep_virtually(usec)) return 0;
    static const auto real = c_library<int (*)(useconds_t)>("usleep");
    if (real != nullptr) return real(usec);
    const timespec t{static_cast<time_t>(usec / 1000000), static_cast<long>(usec % 1000000) * 1000};
    return sleep_really(&t, nullptr);
}

CORVEL_SIM_API unsigned int sleep(unsigned int seconds) {
    if (sleep_virtually(uint64_t{seconds} * 1000000u)) return 0;
    static const auto real = c_library<unsigned int (*)(unsigned int)>("sleep");
    if (real != nullptr) return real(seconds);
    const timespec t{static_cast<time_t>(seconds), 0};
    timespec left{};
    return sleep_really(&t, &left) == 0 ? 0 : static_cast<unsigned int>(left.tv_sec);
}

CORVEL_SIM_API int nanosleep(const struct timespec* req, struct timespec* rem) {
    if (corvel::sim::Simulator::instance().clock.on()) {
        if (req == nullptr) {
            errno = EFAULT;
            return -1;
        }
        if (req->tv_sec < 0 || req->tv_nsec < 0 || req->tv_nsec >= 1000000000L) {
            errno = EINVAL;
            return -1;
        }
        if (sleep_virtually(corvel::sim::microseconds(*req))) {
            if (rem != nullptr) *rem = timespec{0, 0};
            return 0;
        }
    }
    static const auto real = c_library<int (*)(const timespec*, timespec*)>("nanosleep");
    if (real != nullptr) return real(req, rem);
    if (req == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return sleep_really(req, rem);
}

}  // extern "C"
