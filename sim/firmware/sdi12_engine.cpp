#include "firmware/sdi12_engine.hpp"

#include <bit>

#include "CorvelMsg.h"

namespace corvel::sim::fw {
namespace {

constexpr uint8_t kCharBits = 0x7F;

// Whether bit 7 of c is the even parity of its bits 0-6.
bool parity_ok(uint8_t c) {
    const bool odd = std::popcount(static_cast<unsigned>(c & kCharBits)) % 2 != 0;
    return ((c & proto::sdi12::kParityBit) != 0) == odd;
}

}  // namespace

Sdi12Engine::Sdi12Engine(Port& port) : port_(port), time_(port) {}

std::span<const Route> Sdi12Engine::routes() const {
    static constexpr Route kRoutes[] = {
        route<&Sdi12Engine::init>(MSG_KD_SDI12_INIT, Sizes::exactly(1),
                                  Refusal::with_status(MSG_MSG_EXECUT_ERROR)),
        route<&Sdi12Engine::send>(MSG_KD_SDI12_SEND_CMD, Sizes::at_least(1),
                                  Refusal::reply(MSG_KD_SDI12_SEND_CMD_FB, MSG_MSG_EXECUT_ERROR, 0)),
    };
    return kRoutes;
}

Sdi12PortState Sdi12Engine::state(int port) const {
    const SdiPort& p = ports_[static_cast<std::size_t>(port)];
    return {p.initialised, p.sensor.address(), p.sensor.values(), p.sensor.continuous(), p.commands, p.last};
}

void Sdi12Engine::init(Request& r) {
    const uint8_t n = r.in.u8();
    if (n >= proto::sdi12::kPorts) return port_.status(MSG_MSG_EXECUT_ERROR);
    ports_[n].initialised = true;
    port_.status(MSG_MSG_EXECUT_OK);
}

void Sdi12Engine::send(Request& r) {
    const uint8_t n = r.in.u8();
    const auto refuse = [&] { port_.reply(MSG_KD_SDI12_SEND_CMD_FB, MSG_MSG_EXECUT_ERROR, {}, false); };
    if (n >= proto::sdi12::kPorts || !ports_[n].initialised) return refuse();
    std::string command;
    for (uint8_t c : r.in.rest()) {
        if (!parity_ok(c)) return refuse();
        command += static_cast<char>(c & kCharBits);
    }
    if (command.empty() || command.back() != proto::sdi12::kCommandEnd) return refuse();

    SdiPort& p = ports_[n];
    ++p.commands;
    p.last = command;
    const auto line = p.sensor.command(command, time_.now());
    if (!line) return refuse();
    const std::string text = *line + "\r\n";
    port_.reply(MSG_KD_SDI12_SEND_CMD_FB, MSG_MSG_EXECUT_OK,
                std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()), false);
}

std::unique_ptr<Engine> make_sdi12_engine(Port& port) {
    const int type = port.identity().personality;
    if (type != proto::kDevTypeI2c && type != proto::kDevTypeSpi) return nullptr;
    return std::make_unique<Sdi12Engine>(port);
}

}  // namespace corvel::sim::fw
