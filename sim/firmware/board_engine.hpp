// The board engine: product information, the user-data area and the interrupt command channel,
// which every personality has.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "firmware/engine.hpp"

namespace corvel::sim::fw {

inline constexpr std::array<uint8_t, proto::kFirmwareVersionSize> kFirmwareVersion{2, 1, 0, 5};
inline constexpr std::array<uint8_t, proto::kHardwareVersionSize> kHardwareVersion{1, 0, 0, 0};

inline constexpr const char* kUserDataFile = "userdata.bin";

std::unique_ptr<Engine> make_board_engine(Port& port);

}  // namespace corvel::sim::fw
