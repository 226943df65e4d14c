// The SDI-12 engine of the I2C and SPI types (personalities 1 and 2): two ports, each with its
// initialised flag and one sensor (sim/targets/sdi12_sensor.*), port 0 at address "0", port 1 at
// address "1".
//
// A command arrives with SDI-12's even parity in bit 7 of every character, up to and including its
// "!". The port strips the parity and hands the line to the sensor; a character whose bit 7 is not
// the even parity of its bits 0-6 garbles the command, and the sensor does not answer it. Every
// command gets one exact-length reply frame: status 6 and the sensor's line with CR LF, or status
// 7 with no payload when nobody answered (port not initialised, no sensor at that address, a
// command the sensor does not know, wrong parity, no "!" at the end). Time is the adapter's own
// (ModelTime), so measurements become ready with the virtual clock on or off.
#pragma once

#include <array>
#include <memory>
#include <span>
#include <string>

#include "corvel/sim_wire.hpp"
#include "firmware/engine.hpp"
#include "targets/sdi12_sensor.hpp"

namespace corvel::sim::fw {

class Sdi12Engine final : public Engine {
  public:
    explicit Sdi12Engine(Port& port);

    std::span<const Route> routes() const override;

    // ---- For the control API: ports are checked by the caller.
    Sdi12PortState state(int port) const;
    Sdi12Sensor& sensor(int port) { return ports_[static_cast<std::size_t>(port)].sensor; }

  private:
    struct SdiPort {
        explicit SdiPort(char address) : sensor(address) {}
        bool initialised = false;
        Sdi12Sensor sensor;
        uint64_t commands = 0;
        std::string last;
    };

    void init(Request& r);
    void send(Request& r);

    Port& port_;
    ModelTime time_;
    std::array<SdiPort, proto::sdi12::kPorts> ports_{SdiPort('0'), SdiPort('1')};
};

std::unique_ptr<Engine> make_sdi12_engine(Port& port);

}  // namespace corvel::sim::fw
