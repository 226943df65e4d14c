// The 1-Wire engine of the I2C and SPI types (personalities 1 and 2): the bus master on the GPIO
// port and pin the host's init names, the line, and a DS18B20-style temperature sensor
// (sim/targets/ds18b20.*) on port 0, pin 0; any other port and pin is an empty bus.
//
// The host composes everything from primitives. A reset is the line driven low (SET_PIN 0) for at
// least 480 us of adapter time, then released (SET_PIN 1): the sensor answers with its presence
// pulse, which the next READ_PIN reads as 0 (once). Each written bit and each bit of a written or
// read byte is a time slot, least significant bit first, judged with the init's timings (in
// microseconds) against the sensor's 15 us sampling point:
//   - a 1 (and the start of every read slot) is a low pulse of tA: above 15 us the sensor takes it
//     as a 0;
//   - a 0 is a low pulse of tC: below 15 us the sensor takes it as a 1;
//   - the master samples a read slot at tA + tE: after 15 us the sensor has let go of the line, and
//     a 0 it sent reads as 1.
// While the host holds the line low, slots reach nobody and read 0. Time is the adapter's own
// (ModelTime): the virtual clock's elapsed time while that is on, the host's monotonic clock while
// it is off.
#pragma once

#include <array>
#include <memory>
#include <span>

#include "corvel/sim_wire.hpp"
#include "firmware/engine.hpp"
#include "targets/ds18b20.hpp"

namespace corvel::sim::fw {

class OneWireEngine final : public Engine {
  public:
    static constexpr uint64_t kResetLowUs = 480;  // the shortest low time the sensor takes as a reset
    static constexpr unsigned kSampleUs = 15;     // when the sensor samples, and stops holding a 0

    explicit OneWireEngine(Port& port);

    std::span<const Route> routes() const override;

    // ---- For the control API.
    OneWireLineState line() const;
    Ds18b20& sensor() { return sensor_; }
    uint64_t now() { return time_.now(); }

  private:
    void init(Request& r);
    void set_pin(Request& r);
    void read_pin(Request& r);
    void write_bit(Request& r);
    void write_byte(Request& r);
    void read_byte(Request& r);
    void direction(Request& r);

    bool sensor_on_line() const { return port_no_ == 0 && pin_ == 0; }
    // One slot on the line: writes `bit` (a read slot writes 1); returns what the master samples.
    bool slot(bool bit, bool reading);

    Port& port_;
    ModelTime time_;
    bool initialised_ = false;
    uint8_t port_no_ = 0, pin_ = 0;
    std::array<uint8_t, proto::onewire::kTimings> timings_{};
    bool low_ = false;  // the host drives the line low
    uint64_t low_since_ = 0;
    bool presence_ = false;  // a presence pulse waits to be read
    bool transmitting_ = true;
    Ds18b20 sensor_;
};

std::unique_ptr<Engine> make_onewire_engine(Port& port);

}  // namespace corvel::sim::fw
