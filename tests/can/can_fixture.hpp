// An open two-channel CAN adapter whose firmware is silenced: every answer is scripted by the test,
// so the tests hold whatever the adapter model's CAN side answers.
#pragma once

#include <sched.h>

#include "ControlCAN.h"
#include "CorvelBoard.h"
#include "adapter_fixture.hpp"

namespace corvel::test {

inline const Opener kCanOpen{[](int32_t dev) { return static_cast<int32_t>(VCI_OpenDevice(4, dev, 0)); }, 1};

class CanWire : public VirtualAdapters {
  protected:
    void SetUp() override { start(KD_DEVTYPE_CAN2); }

    void start(int type) {
        reset({adapter("CAN0001", type)});
        ASSERT_NO_FATAL_FAILURE(open(kCanOpen));
        sim::silence(0, true);
        settle();
    }
};

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The codes of the frames sent, in order.
inline std::vector<uint32_t> codes() {
    std::vector<uint32_t> out;
    for (const auto& f : sent()) out.push_back(f.code);
    return out;
}

// Lets other threads run until `done` holds; false when it never did within a generous number of
// turns (the read threads run on the virtual clock, so this bounds effort, not time).
template <typename Pred>
bool until(Pred done) {
    for (long i = 0; i < 20000000; ++i) {
        if (done()) return true;
        sched_yield();
    }
    return false;
}

}  // namespace corvel::test
