// The control API of the virtual adapter's CAN side (corvel/sim_can.hpp).
#include "corvel/sim_can.hpp"
#include "firmware/can_engine.hpp"
#include "simulator.hpp"

namespace corvel::sim {
namespace {

template <typename Fn>
auto with_can(int index, Fn&& fn) {
    return with_engine<fw::CanEngine>(index, std::forward<Fn>(fn));
}

}  // namespace

CanControllerState can_controller(int adapter, int channel) {
    return with_can(adapter, [&](fw::CanEngine& e) { return e.controller(channel); });
}

std::vector<CanReceived> can_waiting(int adapter, int channel) {
    return with_can(adapter, [&](fw::CanEngine& e) { return e.waiting(channel); });
}

void set_can_generator(int adapter, const CanGeneratorSpec& generator) {
    with_can(adapter, [&](fw::CanEngine& e) { e.set_generator(generator); });
}

CanGeneratorSpec can_generator(int adapter) {
    return with_can(adapter, [](fw::CanEngine& e) { return e.generator(); });
}

void set_can_echo(int adapter, const CanEchoSpec& echo) {
    with_can(adapter, [&](fw::CanEngine& e) { e.set_echo(echo); });
}

CanEchoSpec can_echo(int adapter) {
    return with_can(adapter, [](fw::CanEngine& e) { return e.echo(); });
}

void set_can_split(int adapter, bool split) {
    with_can(adapter, [&](fw::CanEngine& e) { e.set_split(split); });
}

bool can_inject(int adapter, int bus, const CanFrame& frame, uint32_t bitrate) {
    return with_can(adapter, [&](fw::CanEngine& e) { return e.inject(bus, frame, bitrate); });
}

std::vector<CanBusFrame> can_bus_frames(int adapter) {
    return with_can(adapter, [](fw::CanEngine& e) { return e.bus_frames(); });
}

void clear_can_bus_frames(int adapter) {
    with_can(adapter, [](fw::CanEngine& e) { e.clear_bus_frames(); });
}

uint64_t can_generated(int adapter, int bus) {
    return with_can(adapter, [&](fw::CanEngine& e) { return e.generated(bus); });
}

uint64_t can_time_us(int adapter) {
    return with_can(adapter, [](fw::CanEngine& e) { return e.time_us(); });
}

}  // namespace corvel::sim
