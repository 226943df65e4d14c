// The virtual clock and its scheduled events.
//
// Time moves only when someone moves it: a virtual sleep, or a read that waits out its time-out.
// Events run in time order (events due at the same time in the order they were scheduled), each
// with the clock set to its own time. Not thread-safe: the front door serialises access, except for
// the on/off switch, which sleeps read without the lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>

namespace corvel::sim::fw {

class Clock {
  public:
    // On, the front door moves the clock (virtual sleeps, reads waiting out their time-out). Off,
    // nothing moves it: sleeps are real and reads do not wait, so an engine must not leave work
    // to a time the clock will never reach.
    void set_on(bool on) { on_ = on; }
    bool on() const { return on_; }

    uint64_t now_us() const { return now_; }
    uint64_t slept_us() const { return slept_; }
    // All the time the clock has moved forward, which reset() does not set back: a time line for
    // models that keep time across a reset.
    uint64_t elapsed_us() const { return elapsed_; }
    std::size_t pending() const { return events_.size(); }

    // Sets now and slept back to zero. Scheduled events keep their times.
    void reset() { now_ = slept_ = 0; }

    void schedule(uint64_t at_us, std::function<void()> fn);

    // Runs the earliest event due at or before `limit_us`, first moving the clock forward to its
    // time (never backwards). Returns false when no event is due by then.
    bool run_next(uint64_t limit_us);

    // Runs every event due by `t_us`, then leaves the clock at `t_us` (or later, should an event
    // have moved it further).
    void advance_to(uint64_t t_us);

    // A virtual sleep: advances by `us` and counts it as time slept.
    void sleep(uint64_t us);

  private:
    void move_to(uint64_t t);  // forward only

    std::atomic<bool> on_{false};
    uint64_t now_ = 0;
    uint64_t slept_ = 0;
    uint64_t elapsed_ = 0;
    uint64_t sequence_ = 0;
    std::map<std::pair<uint64_t, uint64_t>, std::function<void()>> events_;  // (time, sequence) -> event
};

}  // namespace corvel::sim::fw
