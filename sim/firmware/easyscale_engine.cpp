#include "firmware/easyscale_engine.hpp"

#include "CorvelMsg.h"

namespace corvel::sim::fw {
namespace {

namespace es = proto::easyscale;

constexpr uint8_t kSubAddrMask = 0x03;

// Whether a receiver that compares high and low times can tell the two bits apart.
bool decodable(const EasyScaleTimings& t) {
    return t.high_bit_high >= 2u * t.high_bit_low && t.low_bit_low >= 2u * t.low_bit_high;
}

}  // namespace

EasyScaleEngine::EasyScaleEngine(Port& port) : port_(port) {}

std::span<const Route> EasyScaleEngine::routes() const {
    static constexpr Route kRoutes[] = {
        route<&EasyScaleEngine::init>(MSG_KD_ES_INIT, Sizes::exactly(es::kInitSize),
                                      Refusal::with_status(MSG_ES_INIT_ERROR)),
        route<&EasyScaleEngine::write>(MSG_KD_ES_WRITE_DATA, Sizes::exactly(es::kCommandSize),
                                       Refusal::with_status(MSG_ES_ERITE_DATA_ERROR)),
    };
    return kRoutes;
}

void EasyScaleEngine::init(Request& r) {
    const uint16_t n = r.in.be16();
    if (n >= kEasyScaleChannels) return port_.status(MSG_ES_INIT_ERROR);
    EasyScaleChannelState& c = channels_[n];
    c.initialised = true;
    c.init_pin = r.in.be16();
    EasyScaleTimings& t = c.timings;
    // The host's order, which is not the record's.
    for (uint16_t* field :
         {&t.es_delay, &t.es_detect, &t.es_win, &t.high_bit_high, &t.high_bit_low, &t.low_bit_high,
          &t.low_bit_low, &t.ack_n, &t.eos, &t.start, &t.val_ack, &t.shutdown})
        *field = r.in.be16();
    port_.status(MSG_ES_INIT_OK);
}

void EasyScaleEngine::write(Request& r) {
    const uint16_t n = r.in.be16();
    const uint8_t address = r.in.u8();
    const uint8_t data = r.in.u8();
    const uint8_t mode = r.in.u8();
    if (n >= kEasyScaleChannels || !channels_[n].initialised) return port_.status(MSG_ES_ERITE_DATA_ERROR);
    EasyScaleChannelState& c = channels_[n];
    c.last_mode = mode;
    const bool taken = n == 0 && address == kLedDriverAddress && decodable(c.timings);
    if (taken) {
        driver_.registers[(data >> es::kSubAddrShift) & kSubAddrMask] = data & es::kDataMask;
        ++driver_.commands;
    }
    const bool rfa = (data & es::kRfaBit) != 0;
    port_.status(rfa && !taken ? MSG_ES_ERITE_DATA_ERROR : MSG_ES_WRITE_DATA_OK);
}

std::unique_ptr<Engine> make_easyscale_engine(Port& port) {
    const int type = port.identity().personality;
    if (type != proto::kDevTypeI2c && type != proto::kDevTypeSpi) return nullptr;
    return std::make_unique<EasyScaleEngine>(port);
}

}  // namespace corvel::sim::fw
