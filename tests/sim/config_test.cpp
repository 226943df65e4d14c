// The CORVEL_SIM grammar, and the fall-back at start-up when it is malformed.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "corvel/sim.hpp"

namespace corvel::sim {
namespace {

// "serial type vid:pid" per adapter ("-" for no serial string), or "error" when the text is refused
// with a one-line reason.
std::string parsed(const std::string& text) {
    std::string out;
    try {
        for (const AdapterSpec& a : parse_config(text)) {
            char ids[16];
            std::snprintf(ids, sizeof ids, "%04x:%04x", a.vendor, a.product);
            out += (out.empty() ? "" : "; ") + (a.has_serial ? a.serial : "-") + " " +
                   std::to_string(a.personality) + " " + ids;
        }
    } catch (const std::invalid_argument& e) {
        const std::string why = e.what();
        return why.empty() || why.find('\n') != std::string::npos ? "bad reason" : "error";
    }
    return out;
}

TEST(ParseConfig, GoodAndBadTexts) {
    const struct {
        std::string text;
        std::string adapters;
    } cases[] = {{"", "CV0000000001 1 0483:0666"},
                 {"  ", "CV0000000001 1 0483:0666"},
                 {"0", ""},
                 {"3", "CV0000000001 1 0483:0666; CV0000000002 1 0483:0666; CV0000000003 1 0483:0666"},
                 {"serial=A,type=1;serial=B,type=2;vid=0x1234,pid=0x5678",
                  "A 1 0483:0666; B 2 0483:0666; CV0000000003 1 1234:5678"},
                 {" type = 4 , serial = X Y ", "X Y 4 0483:0666"},
                 {"serial=-;vid=1155,pid=0X0667", "- 1 0483:0666; CV0000000002 1 0483:0667"},
                 {"vid=0,pid=65535", "CV0000000001 1 0000:ffff"},
                 {"serial=" + std::string(126, 'x'), std::string(126, 'x') + " 1 0483:0666"},
                 {"serial=" + std::string(127, 'x'), "error"}};
    for (const auto& c : cases) EXPECT_EQ(parsed(c.text), c.adapters) << c.text;
    EXPECT_EQ(parse_config("127").size(), 127u);

    for (const char* text : {"type=0", "type=5", "type=", "type=two", "vid=0x10000", "pid=-1", "pid=0x",
                             "vid=12a", "serial=", "serial", "colour=red", "type=1;", ";",
                             "serial=A;;serial=B", "type=1,type=2", "128", "serial=A,", "-1"}) {
        EXPECT_EQ(parsed(text), "error") << text;
    }
}

// Runs in a child process started afresh, so that the environment is read at first use.
TEST(StartUp, MalformedEnvironmentFallsBackToOneDefaultAdapter) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("CORVEL_SIM", "type=9", 1);
    setenv("CORVEL_SIM_CLOCK", "virtual", 1);
    EXPECT_EXIT(
        {
            const auto a = adapters();
            _exit(a.size() == 1 && a[0].serial == "CV0000000001" && virtual_clock_enabled() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "corvel-sim: CORVEL_SIM: adapter 1: type must be 1 to 4");
    unsetenv("CORVEL_SIM");
    unsetenv("CORVEL_SIM_CLOCK");
}

}  // namespace
}  // namespace corvel::sim
