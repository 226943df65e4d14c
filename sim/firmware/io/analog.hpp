// The analogue signals on the ADC's channels (see AdcSignal) and the converter's sampling of them.
#pragma once

#include <cstdint>

#include "corvel/sim_adapter.hpp"

namespace corvel::sim::fw {

// The converter's reading of `signal` at the adapter's time `t_us`, 0..4095.
uint16_t adc_sample(const AdcSignal& signal, uint64_t t_us);

// A voltage in counts of the converter: round(volts x 4096 / 3.3), clamped to 0..4095.
uint16_t adc_counts(double volts);

}  // namespace corvel::sim::fw
