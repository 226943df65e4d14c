// A test on the virtual adapter, starting from a known state.
//
// The library's process-wide state (device list, lock, current board handle) is fresh in every
// test because each test runs in a process of its own (CTest with gtest_discover_tests); running a
// whole test binary in one process is not supported. This fixture resets the virtual adapter's
// side, so that a test starts from the adapters it names and nothing else.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "wire.hpp"

namespace corvel::test {

// How a family opens an adapter, and what its open function returns on success.
struct Opener {
    std::function<int32_t(int32_t dev)> open;
    int32_t ok = 0;
};

class VirtualAdapters : public testing::Test {
  protected:
    // One I2C-type adapter with the default serial, nothing opened.
    void SetUp() override { reset({adapter("CV0000000001")}); }

    // Puts `bus` on the virtual USB bus in a known state: a fresh state directory (under the one the
    // test entry point made), no pending faults, nothing waiting on the IN endpoints, capture and
    // virtual clock on, an empty capture and the clock at zero.
    static void reset(const std::vector<sim::AdapterSpec>& bus) {
        static const std::filesystem::path root = sim::state_dir();
        std::string dir = (root / "test-XXXXXX").string();
        ASSERT_NE(mkdtemp(dir.data()), nullptr) << dir;
        sim::set_state_dir(dir);
        sim::clear_faults();
        sim::virtual_clock(true);
        sim::capture(true);
        sim::configure(bus);
        for (std::size_t i = 0; i < bus.size(); ++i) sim::clear_in(static_cast<int>(i));
        settle();
    }

    // Opens adapters 0 to n-1 with the family's open function; any failure fails the test.
    static void open(const Opener& family, int32_t n = 1) {
        for (int32_t dev = 0; dev < n; ++dev)
            ASSERT_EQ(family.open(dev), family.ok) << "open adapter " << dev;
    }

    // Forgets what the set-up did (empty capture, clock at zero): a test checks what it does itself.
    static void settle() {
        sim::clear_records();
        sim::reset_clock();
    }
};

}  // namespace corvel::test
