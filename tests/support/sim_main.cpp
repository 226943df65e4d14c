// Test entry point shared by the suites that run on the virtual adapter: every test process gets a
// fresh state directory, the virtual clock and capture switched on.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "corvel/sim.hpp"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    std::string dir = (std::filesystem::temp_directory_path() / "corvel-test-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr) return 2;
    setenv("CORVEL_SIM_STATE", dir.c_str(), 1);
    corvel::sim::set_state_dir(dir);
    corvel::sim::virtual_clock(true);
    corvel::sim::capture(true);
    const int rc = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return rc;
}
