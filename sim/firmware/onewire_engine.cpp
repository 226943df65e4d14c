#include "firmware/onewire_engine.hpp"

#include "CorvelMsg.h"

namespace corvel::sim::fw {
namespace {

namespace ow = proto::onewire;

// Indices of the slot timings among tA..tJ, tR1..tR5.
constexpr std::size_t kTa = 0, kTc = 2, kTe = 4;

}  // namespace

OneWireEngine::OneWireEngine(Port& port) : port_(port), time_(port) {}

std::span<const Route> OneWireEngine::routes() const {
    static constexpr Route kRoutes[] = {
        route<&OneWireEngine::init>(MSG_KD_1WIRE_INIT, Sizes::exactly(ow::kInitSize),
                                    Refusal::with_status(MSG_1WIRE_NINT_ERROR)),
        route<&OneWireEngine::set_pin>(MSG_KD_1WIRE_SET_PIN, Sizes::exactly(1),
                                       Refusal::with_status(MSG_1WIRE_WRITE_DATA_ERROR)),
        route<&OneWireEngine::write_bit>(MSG_KD_1WIRE_WRITE_BIT, Sizes::exactly(1),
                                         Refusal::with_status(MSG_1WIRE_WRITE_DATA_ERROR)),
        route<&OneWireEngine::write_byte>(MSG_KD_1WIRE_WRITE_BYTE, Sizes::exactly(1),
                                          Refusal::with_status(MSG_1WIRE_WRITE_DATA_ERROR)),
        route<&OneWireEngine::read_pin>(
            MSG_KD_1WIRE_READ_PIN, Sizes::exactly(1),
            Refusal::reply(MSG_KD_1WIRE_READ_PIN_FB, MSG_1WIRE_READ_DATA_ERROR, ow::kReplyPayloadSize)),
        route<&OneWireEngine::read_byte>(
            MSG_KD_1WIRE_READ_BYTE, Sizes::exactly(1),
            Refusal::reply(MSG_KD_1WIRE_READ_BYTE_FB, MSG_1WIRE_READ_DATA_ERROR, ow::kReplyPayloadSize)),
        // Intended: these two answer with the request's own code.
        route<&OneWireEngine::direction>(
            MSG_KD_1WIRE_OUTPUT_TX, Sizes::exactly(1),
            Refusal::reply(MSG_KD_1WIRE_OUTPUT_TX, MSG_1WIRE_OUTPUT_TX_ERROR, ow::kReplyPayloadSize)),
        route<&OneWireEngine::direction>(
            MSG_KD_1WIRE_INPUT_RX, Sizes::exactly(1),
            Refusal::reply(MSG_KD_1WIRE_INPUT_RX, MSG_1WIRE_INPUT_RX_ERROR, ow::kReplyPayloadSize)),
    };
    return kRoutes;
}

OneWireLineState OneWireEngine::line() const {
    return {initialised_, port_no_, pin_, timings_, !low_, transmitting_, sensor_on_line()};
}

void OneWireEngine::init(Request& r) {
    port_no_ = r.in.u8();
    pin_ = r.in.u8();
    for (uint8_t& t : timings_) t = r.in.u8();
    initialised_ = true;
    low_ = presence_ = false;
    port_.status(MSG_1WIRE_NINT_OK);
}

void OneWireEngine::set_pin(Request& r) {
    const bool high = r.in.u8() != 0;
    if (!initialised_) return port_.status(MSG_1WIRE_WRITE_DATA_ERROR);
    const uint64_t now = time_.now();
    if (!high && !low_) {
        low_ = true;
        low_since_ = now;
        presence_ = false;
    } else if (high && low_) {
        low_ = false;
        presence_ = sensor_on_line() && now - low_since_ >= kResetLowUs;
        if (presence_) sensor_.reset(now);
    }
    port_.status(MSG_1WIRE_WRITE_DATA_OK);
}

void OneWireEngine::read_pin(Request&) {
    if (!initialised_) {
        const uint8_t zero = 0;
        return port_.reply(MSG_KD_1WIRE_READ_PIN_FB, MSG_1WIRE_READ_DATA_ERROR, {&zero, 1}, false);
    }
    const uint8_t level = !low_ && !presence_;
    presence_ = false;
    port_.reply(MSG_KD_1WIRE_READ_PIN_FB, MSG_1WIRE_READ_DATA_OK, {&level, 1}, false);
}

bool OneWireEngine::slot(bool bit, bool reading) {
    presence_ = false;
    if (low_) return false;
    if (!sensor_on_line()) return true;
    const bool seen = bit ? timings_[kTa] <= kSampleUs : timings_[kTc] < kSampleUs;
    const bool held = sensor_.slot(seen, time_.now());
    return !(held && reading && timings_[kTa] + timings_[kTe] <= kSampleUs);
}

void OneWireEngine::write_bit(Request& r) {
    const bool bit = r.in.u8() != 0;
    if (!initialised_) return port_.status(MSG_1WIRE_WRITE_DATA_ERROR);
    slot(bit, false);
    port_.status(MSG_1WIRE_WRITE_DATA_OK);
}

void OneWireEngine::write_byte(Request& r) {
    const uint8_t byte = r.in.u8();
    if (!initialised_) return port_.status(MSG_1WIRE_WRITE_DATA_ERROR);
    for (int i = 0; i < 8; ++i) slot((byte >> i) & 1, false);
    port_.status(MSG_1WIRE_WRITE_DATA_OK);
}

void OneWireEngine::read_byte(Request&) {
    uint8_t byte = 0;
    if (!initialised_)
        return port_.reply(MSG_KD_1WIRE_READ_BYTE_FB, MSG_1WIRE_READ_DATA_ERROR, {&byte, 1}, false);
    for (int i = 0; i < 8; ++i)
        if (slot(true, true)) byte |= static_cast<uint8_t>(1u << i);
    port_.reply(MSG_KD_1WIRE_READ_BYTE_FB, MSG_1WIRE_READ_DATA_OK, {&byte, 1}, false);
}

void OneWireEngine::direction(Request& r) {
    const bool tx = r.code == MSG_KD_1WIRE_OUTPUT_TX;
    const uint8_t zero = 0;
    if (!initialised_)
        return port_.reply(r.code, tx ? MSG_1WIRE_OUTPUT_TX_ERROR : MSG_1WIRE_INPUT_RX_ERROR, {&zero, 1},
                           false);
    transmitting_ = tx;
    port_.reply(r.code, tx ? MSG_1WIRE_OUTPUT_TX_OK : MSG_1WIRE_INPUT_RX_OK, {&zero, 1}, false);
}

std::unique_ptr<Engine> make_onewire_engine(Port& port) {
    const int type = port.identity().personality;
    if (type != proto::kDevTypeI2c && type != proto::kDevTypeSpi) return nullptr;
    return std::make_unique<OneWireEngine>(port);
}

}  // namespace corvel::sim::fw
