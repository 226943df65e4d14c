#include "firmware/clock.hpp"

#include <cstdio>
#include <exception>

#include "firmware/bytes.hpp"

namespace corvel::sim::fw {

void Clock::schedule(uint64_t at_us, std::function<void()> fn) {
    if (fn) events_.emplace(std::make_pair(at_us, sequence_++), std::move(fn));
}

bool Clock::run_next(uint64_t limit_us) {
    auto first = events_.begin();
    if (first == events_.end() || first->first.first > limit_us) return false;
    // Take the event out before running it: it may schedule, sleep or fire further events itself.
    const uint64_t at = first->first.first;
    std::function<void()> fn = std::move(first->second);
    events_.erase(first);
    move_to(at);
    try {
        fn();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "corvel-sim: scheduled event failed: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "corvel-sim: scheduled event failed\n");
    }
    return true;
}

void Clock::advance_to(uint64_t t_us) {
    while (run_next(t_us)) {
    }
    move_to(t_us);
}

void Clock::move_to(uint64_t t) {
    if (t <= now_) return;
    elapsed_ = saturating_add(elapsed_, t - now_);
    now_ = t;
}

void Clock::sleep(uint64_t us) {
    slept_ = saturating_add(slept_, us);
    advance_to(saturating_add(now_, us));
}

}  // namespace corvel::sim::fw
