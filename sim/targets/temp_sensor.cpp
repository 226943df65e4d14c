#include "targets/temp_sensor.hpp"

#include <algorithm>

namespace corvel::sim::fw {
namespace {

constexpr uint16_t kResolutionMask = 0xFF80;  // 0.5 degree: the low seven bits stay zero
constexpr int kMilliPerStep = 500;
constexpr int kStepValue = 128;  // 0.5 degree in 1/256 degree
constexpr int kLowestStep = -256;
constexpr int kHighestStep = 255;

}  // namespace

bool TempSensor::start(bool read) {
    expect_pointer_ = !read;
    written_ = 0;
    read_ = 0;
    return true;
}

bool TempSensor::write(uint8_t byte) {
    if (expect_pointer_) {
        if (byte > kOverTemperature) return false;
        pointer_ = byte;
        expect_pointer_ = false;
        return true;
    }
    const unsigned index = written_++;
    if (pointer_ == kTemperature) return true;
    if (pointer_ == kConfiguration) {
        if (index == 0) registers_[kConfiguration] = byte;
        return true;
    }
    if (index == 0) {
        high_byte_ = byte;
    } else if (index == 1) {
        registers_[pointer_] = static_cast<uint16_t>(((high_byte_ << 8) | byte) & kResolutionMask);
    }
    return true;
}

uint8_t TempSensor::read() {
    const unsigned index = read_++;
    if (pointer_ == kConfiguration) return static_cast<uint8_t>(registers_[kConfiguration]);
    const uint16_t value = registers_[pointer_];
    return static_cast<uint8_t>(index % 2 == 0 ? value >> 8 : value);
}

void TempSensor::set_temperature(int milli_celsius) {
    // Floor division: toward negative infinity, for negative temperatures too.
    int steps = milli_celsius / kMilliPerStep;
    if (milli_celsius % kMilliPerStep != 0 && milli_celsius < 0) --steps;
    steps = std::clamp(steps, kLowestStep, kHighestStep);
    registers_[kTemperature] = static_cast<uint16_t>(steps * kStepValue);
}

}  // namespace corvel::sim::fw
