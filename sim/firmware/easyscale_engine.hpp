// The EasyScale engine of the I2C and SPI types (personalities 1 and 2): two channels, each with
// the timings of its init, and an LED driver of TI's single-wire kind at device address 0x72 on
// channel 0 (channel 1 has nothing on it).
//
// A command is a device address and a data byte (RFA bit 7, sub-address bits 6-5, value bits 4-0),
// each bit coded by the ratio of its high and low times. The driver tells a 1 from a 0 only when a
// 1 is high at least twice as long as it is low (HighBit_THigh >= 2 x HighBit_TLow) and a 0 low at
// least twice as long as it is high (LowBit_TLow >= 2 x LowBit_THigh); with other timings it
// understands nothing. When it understands a command for its address it stores the value in the
// register the sub-address names and, with RFA set, acknowledges (status 60). With RFA set and no
// acknowledge (another address, another channel, timings it cannot decode) the answer is 61;
// without RFA nobody is asked to acknowledge and the answer is 60 whatever happened. The mode byte
// is forwarded and kept for the control API; the driver ignores it, as it does the init pin value.
#pragma once

#include <array>
#include <memory>
#include <span>

#include "corvel/sim_wire.hpp"
#include "firmware/engine.hpp"

namespace corvel::sim::fw {

inline constexpr int kEasyScaleChannels = 2;
inline constexpr uint8_t kLedDriverAddress = 0x72;

class EasyScaleEngine final : public Engine {
  public:
    explicit EasyScaleEngine(Port& port);

    std::span<const Route> routes() const override;

    // ---- For the control API: channels are checked by the caller.
    const EasyScaleChannelState& channel(int n) const { return channels_[static_cast<std::size_t>(n)]; }
    const EasyScaleDriverState& driver() const { return driver_; }

  private:
    void init(Request& r);
    void write(Request& r);

    Port& port_;
    std::array<EasyScaleChannelState, kEasyScaleChannels> channels_{};
    // Power-up registers: brightness 0, fade step 0, all five strings on, over-voltage code 0x10.
    EasyScaleDriverState driver_{{0x00, 0x00, 0x1F, 0x10}, 0};
};

std::unique_ptr<Engine> make_easyscale_engine(Port& port);

}  // namespace corvel::sim::fw
