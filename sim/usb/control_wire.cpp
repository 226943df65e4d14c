// The control API of the virtual adapter's SDI-12, 1-Wire and EasyScale side (corvel/sim_wire.hpp).
#include "corvel/sim_wire.hpp"
#include "firmware/easyscale_engine.hpp"
#include "firmware/onewire_engine.hpp"
#include "firmware/sdi12_engine.hpp"
#include "simulator.hpp"

namespace corvel::sim {
namespace {

bool in(int i, int count) {
    return i >= 0 && i < count;
}

}  // namespace

Sdi12PortState sdi12_port(int adapter, int port) {
    if (!in(port, proto::sdi12::kPorts)) return {};
    return with_engine<fw::Sdi12Engine>(adapter, [&](fw::Sdi12Engine& e) { return e.state(port); });
}

bool set_sdi12_values(int adapter, int port, const std::vector<double>& values) {
    if (!in(port, proto::sdi12::kPorts) || values.size() > fw::Sdi12Sensor::kMaxValues) return false;
    return with_engine<fw::Sdi12Engine>(adapter, [&](fw::Sdi12Engine& e) {
        e.sensor(port).set_values(values);
        return true;
    });
}

bool set_sdi12_continuous(int adapter, int port, const std::vector<double>& values) {
    if (!in(port, proto::sdi12::kPorts) || values.size() > fw::Sdi12Sensor::kMaxValues) return false;
    return with_engine<fw::Sdi12Engine>(adapter, [&](fw::Sdi12Engine& e) {
        e.sensor(port).set_continuous(values);
        return true;
    });
}

OneWireLineState onewire_line(int adapter) {
    return with_engine<fw::OneWireEngine>(adapter, [](fw::OneWireEngine& e) { return e.line(); });
}

double onewire_temperature(int adapter) {
    return with_engine<fw::OneWireEngine>(adapter,
                                          [](fw::OneWireEngine& e) { return e.sensor().temperature(); });
}

void set_onewire_temperature(int adapter, double celsius) {
    with_engine<fw::OneWireEngine>(adapter,
                                   [&](fw::OneWireEngine& e) { e.sensor().set_temperature(celsius); });
}

std::array<uint8_t, 9> onewire_scratchpad(int adapter) {
    return with_engine<fw::OneWireEngine>(
        adapter, [](fw::OneWireEngine& e) { return e.sensor().scratchpad(e.now()); });
}

std::array<uint8_t, 8> onewire_rom(int adapter) {
    return with_engine<fw::OneWireEngine>(adapter, [](fw::OneWireEngine&) { return fw::Ds18b20::rom(); });
}

EasyScaleChannelState easyscale_channel(int adapter, int channel) {
    if (!in(channel, fw::kEasyScaleChannels)) return {};
    return with_engine<fw::EasyScaleEngine>(adapter,
                                            [&](fw::EasyScaleEngine& e) { return e.channel(channel); });
}

EasyScaleDriverState easyscale_driver(int adapter) {
    return with_engine<fw::EasyScaleEngine>(adapter, [](fw::EasyScaleEngine& e) { return e.driver(); });
}

}  // namespace corvel::sim
