// The GPIO, ADC and USART text commands and the conventions table on one adapter opened through
// the text interface, its firmware silenced: every answer is scripted by the test.
#pragma once

#include <optional>
#include <string>

#include "text_fixture.hpp"

namespace corvel::test {

class TextWire : public TextAdapter {
  protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(open_silenced(KD_DEVTYPE_I2C)); }
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
