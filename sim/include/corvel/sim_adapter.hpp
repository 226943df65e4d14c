// One adapter on the virtual bus: its USB identity and its personality, and for the CAN types the
// CAN bus behind it. The control API configures adapters with it, and the firmware model takes it
// as the identity it answers with; it knows nothing of libusb.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "corvel/protocol.hpp"

namespace corvel::sim {

// A simulated CAN node that sends frames of its own on a bus, `rate` frames per second: frame k
// (k = 1, 2, ...) goes k / rate seconds after the generator was set up. Its identifiers are fixed
// (id_first), count up from id_first to id_last and start over, or are pseudo-random in that range
// (from `seed`); its data are the frame's number (little-endian, first dlc bytes), pseudo-random,
// or `fixed`. It acknowledges the frames of others.
struct CanGeneratorSpec {
    enum class Ids : uint8_t { Fixed, Increment, Random };
    enum class Data : uint8_t { Counter, Random, Fixed };
    uint32_t rate = 0;     // frames per second; 0: no generator
    int bus = 1;           // 1 or 2 (see CanSpec::split)
    uint32_t bitrate = 0;  // bit/s; 0: the adapter's bus bit rate
    Ids ids = Ids::Fixed;
    uint32_t id_first = 0x100;
    uint32_t id_last = 0x100;
    uint32_t seed = 1;
    bool extended = false;
    uint8_t dlc = 8;
    Data data = Data::Counter;
    std::array<uint8_t, 8> fixed{};
};

// A simulated CAN node that answers every frame it receives with the identifier + 1 (same format,
// same data), and acknowledges frames.
struct CanEchoSpec {
    int bus = 0;           // 1 or 2; 0: no echo node
    uint32_t bitrate = 0;  // bit/s; 0: the adapter's bus bit rate
};

// The CAN side of a CAN-type adapter (types 3 and 4; ignored on the others).
struct CanSpec {
    uint32_t bitrate = 500000;  // the bus's bit rate, at which the controllers come up
    bool split = false;         // false: both channels on one bus; true: each channel on a bus of its own
    CanEchoSpec echo;
    CanGeneratorSpec generator;
};

struct AdapterSpec {
    std::string serial = "CV0000000001";   // USB serial-number string
    bool has_serial = true;                // false: the device descriptor has no serial string
    int personality = proto::kDevTypeI2c;  // device type 1 I2C, 2 SPI, 3 one-channel CAN, 4 two-channel CAN
    uint16_t vendor = proto::kVendorId;
    uint16_t product = proto::kProductId;
    CanSpec can;

    // Only a device with the adapter's ids runs the firmware model; any other is a foreign device.
    bool runs_model() const { return vendor == proto::kVendorId && product == proto::kProductId; }
};

}  // namespace corvel::sim
