// One adapter on the virtual bus: its USB identity and its personality. The control API configures
// adapters with it, and the firmware model takes it as the identity it answers with; it knows
// nothing of libusb.
#pragma once

#include <cstdint>
#include <string>

#include "corvel/protocol.hpp"

namespace corvel::sim {

struct AdapterSpec {
    std::string serial = "CV0000000001";   // USB serial-number string
    bool has_serial = true;                // false: the device descriptor has no serial string
    int personality = proto::kDevTypeI2c;  // device type 1 I2C, 2 SPI, 3 one-channel CAN, 4 two-channel CAN
    uint16_t vendor = proto::kVendorId;
    uint16_t product = proto::kProductId;

    // Only a device with the adapter's ids runs the firmware model; any other is a foreign device.
    bool runs_model() const { return vendor == proto::kVendorId && product == proto::kProductId; }
};

}  // namespace corvel::sim
