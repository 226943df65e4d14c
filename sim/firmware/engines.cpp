// The registration table of the firmware model's engines.
#include <array>

#include "firmware/board_engine.hpp"
#include "firmware/can_engine.hpp"
#include "firmware/engine.hpp"
#include "firmware/i2c_engine.hpp"
#include "firmware/spi_engine.hpp"

namespace corvel::sim::fw {

std::span<const EngineEntry> engine_table() {
    static constexpr std::array kEngines{
        EngineEntry{"board", &make_board_engine},
        EngineEntry{"i2c", &make_i2c_engine},
        EngineEntry{"spi", &make_spi_engine},
        EngineEntry{"can", &make_can_engine},
    };
    return kEngines;
}

}  // namespace corvel::sim::fw
