#include "adapter_fixture.hpp"

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace corvel::test {

namespace {

// The process's state directory (set up by the test entry point), under which each reset makes
// a new one.
std::filesystem::path state_root() {
    static const std::filesystem::path root = sim::state_dir();
    return root;
}

}  // namespace

void VirtualAdapters::reset(const std::vector<sim::AdapterSpec>& bus) {
    std::string dir = (state_root() / "test-XXXXXX").string();
    ASSERT_NE(mkdtemp(dir.data()), nullptr) << dir;
    sim::set_state_dir(dir);
    sim::clear_faults();
    sim::virtual_clock(true);
    sim::capture(true);
    sim::configure(bus);
    for (std::size_t i = 0; i < bus.size(); ++i) sim::clear_in(static_cast<int>(i));
    settle();
}

void VirtualAdapters::open(const Opener& family, int32_t n) {
    for (int32_t dev = 0; dev < n; ++dev) ASSERT_EQ(family.open(dev), family.ok) << "open adapter " << dev;
}

void VirtualAdapters::settle() {
    sim::clear_records();
    sim::reset_clock();
}

}  // namespace corvel::test
