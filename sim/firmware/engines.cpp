// The registration table of the firmware model's engines, and their shared time line.
#include <array>
#include <chrono>

#include "firmware/board_engine.hpp"
#include "firmware/can_engine.hpp"
#include "firmware/easyscale_engine.hpp"
#include "firmware/engine.hpp"
#include "firmware/i2c_engine.hpp"
#include "firmware/io_engine.hpp"
#include "firmware/onewire_engine.hpp"
#include "firmware/sdi12_engine.hpp"
#include "firmware/spi_engine.hpp"

namespace corvel::sim::fw {

std::span<const EngineEntry> engine_table() {
    static constexpr std::array kEngines{
        EngineEntry{"board", &make_board_engine},     EngineEntry{"i2c", &make_i2c_engine},
        EngineEntry{"spi", &make_spi_engine},         EngineEntry{"can", &make_can_engine},
        EngineEntry{"io", &make_io_engine},           EngineEntry{"sdi12", &make_sdi12_engine},
        EngineEntry{"onewire", &make_onewire_engine}, EngineEntry{"easyscale", &make_easyscale_engine},
    };
    return kEngines;
}

namespace {
uint64_t host_us() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}
}  // namespace

ModelTime::ModelTime(const Port& port)
    : port_(port), on_(port.clock_on()), source_(on_ ? port.elapsed_us() : host_us()) {}

uint64_t ModelTime::now() {
    const bool on = port_.clock_on();
    const uint64_t source = on ? port_.elapsed_us() : host_us();
    if (on == on_ && source >= source_) time_ += source - source_;
    on_ = on;
    source_ = source;
    return time_;
}

}  // namespace corvel::sim::fw
