// An adapter opened through the text interface, its firmware silenced so that every answer is
// scripted by the test, and a way to call a text command on a literal input.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "CorvelBoard.h"
#include "CorvelMsg.h"
#include "CorvelText.h"
#include "adapter_fixture.hpp"

namespace corvel::test {

using TextCommand = int32_t (*)(char*, char*);

// The result code and output text of one text command, and whether the bytes behind the `room`
// the caller gave for the output are untouched.
struct TextResult {
    int32_t code;
    std::string out;
    bool guards_intact;
};

// What `out` holds before a command runs: a command that must not write leaves it.
inline constexpr char kUntouched[] = "<untouched>";

inline TextResult call(TextCommand command, std::string in, std::size_t room = 4096) {
    std::vector<char> out(room + 64, '#');
    std::copy(kUntouched, kUntouched + sizeof kUntouched, out.begin());
    const int32_t code = command(in.data(), out.data());
    bool intact = true;
    for (std::size_t i = room; i < out.size(); ++i) intact = intact && out[i] == '#';
    return {code, std::string(out.data(), strnlen(out.data(), out.size())), intact};
}

class TextAdapter : public VirtualAdapters {
  protected:
    void open_silenced(int type) {
        reset({adapter("CV0000000001", type)});
        std::string zero = "0";
        std::vector<char> out(64);
        ASSERT_EQ(KDIF_OpenDevice(zero.data(), out.data()), 0);
        sim::silence(0, true);
        settle();
    }
};

}  // namespace corvel::test
