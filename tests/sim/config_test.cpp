// The CORVEL_SIM grammar, and the fall-back at start-up when it is malformed.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "corvel/sim.hpp"

namespace corvel::sim {
namespace {

struct Expected {
    std::string serial;
    bool has_serial;
    int type;
    uint16_t vid;
    uint16_t pid;
};

struct GoodCase {
    const char* text;
    std::vector<Expected> adapters;
};

TEST(ParseConfig, AcceptsTheGrammar) {
    const GoodCase cases[] = {
        {"", {{"CV0000000001", true, 1, 0x0483, 0x0666}}},
        {"  ", {{"CV0000000001", true, 1, 0x0483, 0x0666}}},
        {"0", {}},
        {"3",
         {{"CV0000000001", true, 1, 0x0483, 0x0666},
          {"CV0000000002", true, 1, 0x0483, 0x0666},
          {"CV0000000003", true, 1, 0x0483, 0x0666}}},
        {"serial=A,type=1;serial=B,type=2;vid=0x1234,pid=0x5678",
         {{"A", true, 1, 0x0483, 0x0666},
          {"B", true, 2, 0x0483, 0x0666},
          {"CV0000000003", true, 1, 0x1234, 0x5678}}},
        {" type = 4 , serial = X Y ", {{"X Y", true, 4, 0x0483, 0x0666}}},
        {"serial=-;vid=1155,pid=0X0667",
         {{"", false, 1, 0x0483, 0x0666}, {"CV0000000002", true, 1, 1155, 0x0667}}},
        {"vid=0,pid=65535", {{"CV0000000001", true, 1, 0, 0xFFFF}}},
    };
    for (const GoodCase& c : cases) {
        SCOPED_TRACE(c.text);
        const auto got = parse_config(c.text);
        ASSERT_EQ(got.size(), c.adapters.size());
        for (std::size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].serial, c.adapters[i].serial);
            EXPECT_EQ(got[i].has_serial, c.adapters[i].has_serial);
            EXPECT_EQ(got[i].personality, c.adapters[i].type);
            EXPECT_EQ(got[i].vendor, c.adapters[i].vid);
            EXPECT_EQ(got[i].product, c.adapters[i].pid);
        }
    }
}

TEST(ParseConfig, RejectsMalformedTexts) {
    const char* cases[] = {
        "type=0",        "type=5",  "type=",     "type=two",   "vid=0x10000", "pid=-1", "pid=0x",
        "vid=12a",       "serial=", "serial",    "colour=red", "type=1;",     ";",      "serial=A;;serial=B",
        "type=1,type=2", "128",     "serial=A,", "-1",
    };
    for (const char* text : cases) {
        SCOPED_TRACE(text);
        try {
            parse_config(text);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);
            EXPECT_GT(std::string(e.what()).size(), 0u);
        }
    }
    EXPECT_EQ(parse_config("127").size(), 127u);
    EXPECT_THROW(parse_config(std::string(127, 'x').insert(0, "serial=")), std::invalid_argument);
}

// Runs in a child process started afresh, so that the environment is read at first use.
TEST(StartUp, MalformedEnvironmentFallsBackToOneDefaultAdapter) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("CORVEL_SIM", "type=9", 1);
    setenv("CORVEL_SIM_CLOCK", "virtual", 1);
    EXPECT_EXIT(
        {
            const auto a = adapters();
            const bool ok = a.size() == 1 && a[0].serial == "CV0000000001" && virtual_clock_enabled();
            _exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "corvel-sim: CORVEL_SIM: adapter 1: type must be 1 to 4");
    unsetenv("CORVEL_SIM");
    unsetenv("CORVEL_SIM_CLOCK");
}

TEST(StartUp, EnvironmentConfiguresTheBus) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("CORVEL_SIM", "serial=A,type=3;serial=-", 1);
    unsetenv("CORVEL_SIM_CLOCK");
    EXPECT_EXIT(
        {
            const auto a = adapters();
            const bool ok =
                a.size() == 2 && a[0].personality == 3 && !a[1].has_serial && !virtual_clock_enabled();
            _exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    unsetenv("CORVEL_SIM");
}

}  // namespace
}  // namespace corvel::sim
