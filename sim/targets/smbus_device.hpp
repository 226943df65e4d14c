// What a part on an SMBus has beyond the bytes of its I2C side: an SMBALERT# output (open drain, so
// the bus's line is the wired OR of every part's), its answer to the Alert Response Address, and a
// CONTROL input. Parts without them (EEPROMs, the LM75-style sensor) are plain I2cTargets.
#pragma once

#include <cstdint>

namespace corvel::sim::fw {

// One step of the SMBus packet error code: CRC-8, polynomial x^8 + x^2 + x + 1 (0x07), starting
// from 0, over every byte of the packet as it goes on the bus (address bytes with their R/W bit).
constexpr uint8_t smbus_pec(uint8_t crc, uint8_t byte) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit)
        crc = static_cast<uint8_t>((crc & 0x80) != 0 ? (crc << 1) ^ 0x07 : crc << 1);
    return crc;
}

class SmbusDevice {
  public:
    // Whether the part pulls SMBALERT# low.
    virtual bool alerting() const = 0;
    // The part won the arbitration of an Alert Response Address read: it releases SMBALERT#.
    virtual void alert_answered() = 0;
    // The level of the CONTROL line it is wired to (high at power-up).
    virtual void control(bool high) = 0;

  protected:
    ~SmbusDevice() = default;
};

}  // namespace corvel::sim::fw
