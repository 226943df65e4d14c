// Text commands on one open adapter whose firmware is silenced: every answer is scripted by the
// test, and the frames the commands send are inspected.
#pragma once

#include <string>

#include "ControlGPIO.h"
#include "CorvelText.h"
#include "adapter_fixture.hpp"

namespace corvel::test {

using TextFn = int32_t (*)(char*, char*);

// What a text command returned and wrote. `out` starts as kUntouched.
struct TextResult {
    int32_t code;
    std::string out;
};

inline const std::string kUntouched = "untouched";

// Calls `fn` on a copy of `in` (the command may split it in place); `in_after`, when given,
// receives the caller's text as the command left it.
inline TextResult call(TextFn fn, std::string in, std::string* in_after = nullptr) {
    static std::string out;
    out.assign(1 << 17, '\0');
    out.replace(0, kUntouched.size(), kUntouched);
    in.push_back('\0');
    const int32_t code = fn(in.data(), out.data());
    if (in_after != nullptr) *in_after = in.c_str();
    return {code, out.c_str()};
}

class TextWire : public VirtualAdapters {
  protected:
    void SetUp() override {
        reset({adapter("TX0001")});
        ASSERT_EQ(KGI_OpenDevice(KD_DEVTYPE_I2C, 0, 0), 0);
        sim::silence(0, true);
        settle();
    }
};

// "1|1|...|1" with n fields.
inline std::string fields(std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += i == 0 ? "1" : "|1";
    return s;
}

// A reply frame padded to a full packet, as the one-packet receive takes it.
inline Bytes packet(uint32_t code, uint8_t status, const Bytes& payload = {},
                    std::optional<std::size_t> announced = {}) {
    return reply(code, status, payload, announced, proto::kPacketSize);
}

}  // namespace corvel::test
