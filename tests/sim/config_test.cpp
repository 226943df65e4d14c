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

// The CAN keys: "bitrate split echo/rate gen/bus/rate ids first-last ext dlc data" per CAN adapter.
std::string can_parsed(const std::string& text) {
    std::string out;
    try {
        for (const AdapterSpec& a : parse_config(text)) {
            const CanSpec& c = a.can;
            const CanGeneratorSpec& g = c.generator;
            char line[160];
            std::snprintf(line, sizeof line, "%u %s %d/%u %u/%d/%u %d %x-%x %d %u %d%02x", c.bitrate,
                          c.split ? "split" : "shared", c.echo.bus, c.echo.bitrate, g.rate, g.bus, g.bitrate,
                          int(g.ids), g.id_first, g.id_last, g.extended, g.dlc, int(g.data), g.fixed[0]);
            out += (out.empty() ? "" : "; ") + std::string(line);
        }
    } catch (const std::invalid_argument&) {
        return "error";
    }
    return out;
}

TEST(ParseConfig, CanKeys) {
    const struct {
        std::string text;
        std::string can;
    } cases[] = {
        {"type=4", "500000 shared 0/0 0/1/0 0 100-100 0 8 000"},
        {"type=1;type=2;type=4,gen=10",
         "500000 shared 0/0 0/1/0 0 100-100 0 8 000; 500000 shared 0/0 0/1/0 0 100-100 0 8 000; "
         "500000 shared 0/0 10/1/0 0 100-100 0 8 000"},
        {"type=4,bitrate=250000,bus=split,echo=2,echo_bitrate=125000",
         "250000 split 2/125000 0/1/0 0 100-100 0 8 000"},
        {"type=4,gen=1000,gen_bus=2,gen_bitrate=1000000,gen_id=0x10-0x20,gen_dlc=2,gen_data=random",
         "500000 shared 0/0 1000/2/1000000 1 10-20 0 2 100"},
        {"type=3,gen=5,gen_id=random,gen_ext=1,gen_data=A1B2,gen_seed=7",
         "500000 shared 0/0 5/1/0 2 0-1fffffff 1 8 2a1"},
        {"type=3,gen=5,gen_id=random:1-0x7ff,gen_id=0x7FF", "error"},  // given twice
        {"type=3,gen=5,gen_id=0x1FFFFFFF,gen_ext=1", "500000 shared 0/0 5/1/0 0 1fffffff-1fffffff 1 8 000"},
    };
    for (const auto& c : cases) EXPECT_EQ(can_parsed(c.text), c.can) << c.text;
    for (const char* text : {"gen=10",
                             "type=2,bitrate=500000",
                             "type=4,bitrate=999",
                             "type=4,bitrate=1000001",
                             "type=4,bitrate=970000",  // out of the controller's reach
                             "type=4,bus=both",
                             "type=4,echo=3",
                             "type=3,echo=2",
                             "type=3,bus=split",
                             "type=4,echo_bitrate=1000",
                             "type=4,gen_id=5",
                             "type=4,gen=1000001",
                             "type=4,gen=1,gen_id=0x800",
                             "type=4,gen=1,gen_id=9-8",
                             "type=4,gen=1,gen_id=random:5",
                             "type=4,gen=1,gen_dlc=9",
                             "type=4,gen=1,gen_data=ABC",
                             "type=4,gen=1,gen_data=0102030405060708090A",
                             "type=4,gen=1,gen_data=zz",
                             "type=4,gen=1,gen_ext=2",
                             "type=4,colour=red"}) {
        EXPECT_EQ(can_parsed(text), "error") << text;
    }
}

// The GPIO, ADC and counter keys: "wires | adc signals that differ from the default | counter
// sources" of the one adapter.
std::string io_parsed(const std::string& text) {
    try {
        const IoSpec io = parse_config(text).at(0).io;
        std::string out;
        for (const IoWire& w : io.wiring) out += std::to_string(w.a) + "-" + std::to_string(w.b) + " ";
        out += "|";
        const auto defaults = default_adc_signals();
        for (std::size_t ch = 0; ch < io.adc.size(); ++ch) {
            if (io.adc[ch] == defaults[ch]) continue;
            char text[64];
            std::snprintf(text, sizeof text, " %zu:%d/%g/%g", ch, int(io.adc[ch].kind), io.adc[ch].volts,
                          io.adc[ch].hz);
            out += text;
        }
        out += " |";
        for (const CounterSource& c : io.counters)
            out += " " +
                   std::string(c.kind == CounterSource::Kind::Pwm   ? "pwm"
                               : c.kind == CounterSource::Kind::Pin ? "pin"
                                                                    : "-") +
                   (c.kind == CounterSource::Kind::None ? "" : std::to_string(c.index));
        return out;
    } catch (const std::invalid_argument&) {
        return "error";
    }
}

TEST(ParseConfig, IoKeys) {
    const struct {
        std::string text;
        std::string io;
    } cases[] = {
        {"", "0-8 1-9 2-10 3-11 4-12 5-13 6-14 7-15 | | pwm0 pwm1 pwm2 pwm3"},
        {"type=2,wire=none", "| | pwm0 pwm1 pwm2 pwm3"},
        {"wire=0:8/1:9:23", "0-8 1-9 9-23 | | pwm0 pwm1 pwm2 pwm3"},
        {"adc2=sine:50,adc0=dc:3.3,adc7=ramp:0.5",
         "0-8 1-9 2-10 3-11 4-12 5-13 6-14 7-15 | 0:0/3.3/0 7:1/0/0.5 |"
         " pwm0 pwm1 pwm2 pwm3"},
        {"wire=none,adc1=sine:1000:1,adc3=square:2", "| 1:2/1/1000 3:3/0/2 | pwm0 pwm1 pwm2 pwm3"},
        {"wire=none,cnt0=pin8,cnt1=none,cnt3=pwm7", "| | pin8 - pwm2 pwm7"},
    };
    for (const auto& c : cases) EXPECT_EQ(io_parsed(c.text), c.io) << c.text;

    for (const char* text :
         {"wire=0:24",       "wire=0",           "wire=0:8/",  "wire=a:b",        "wire=0-8",
          "adc8=dc:1",       "adc0=dc:3.4",      "adc0=dc:-1", "adc0=dc",         "adc0=dc:1:2",
          "adc0=ramp:0",     "adc0=sine:50:1.7", "adc0=saw:5", "adc0=square:1e3", "cnt4=pwm0",
          "cnt0=pwm8",       "cnt0=pin24",       "cnt0=pwm",   "cnt0=timer",      "type=3,wire=none",
          "type=4,cnt0=none"}) {
        EXPECT_EQ(io_parsed(text), "error") << text;
    }
}

TEST(ParseConfig, PsuKey) {
    const struct {
        std::string text;
        std::vector<uint8_t> supplies;
    } cases[] = {
        {"", {0x40, 0x41}}, {"psu=none", {}}, {"psu=0x42", {0x42}}, {"psu = 0x77/8/0x0D", {0x77, 8, 0x0D}}};
    for (const auto& c : cases) EXPECT_EQ(parse_config(c.text).at(0).smbus.supplies, c.supplies) << c.text;
    for (const char* text : {"psu=", "psu=0x0C", "psu=0x07", "psu=0x78", "psu=0x40/0x40", "psu=0x40/",
                             "psu=a", "type=2,psu=none", "type=4,psu=0x40"})
        EXPECT_THROW(parse_config(text), std::invalid_argument) << text;
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
