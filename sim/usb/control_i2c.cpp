// The control API of the virtual adapter's I2C side (corvel/sim_i2c.hpp).
#include "corvel/sim_i2c.hpp"
#include "firmware/i2c_engine.hpp"
#include "simulator.hpp"
#include "targets/eeprom.hpp"
#include "targets/temp_sensor.hpp"

namespace corvel::sim {
namespace {

// Runs `fn` on adapter `index`'s I2C engine and returns its result; for an unknown adapter or one
// without I2C, nothing runs and the result is value-initialised (false, empty).
template <typename Fn>
auto with_i2c(int index, Fn&& fn) {
    return with_engine<fw::I2cEngine>(index, std::forward<Fn>(fn));
}

// The part of type T at a 7-bit address, or null.
template <typename T>
T* part_at(fw::I2cEngine& e, int channel, uint8_t addr7) {
    return dynamic_cast<T*>(e.part(channel, fw::I2cAddress{addr7}));
}

}  // namespace

I2cChannel i2c_channel(int adapter, int channel) {
    return with_i2c(adapter, [&](fw::I2cEngine& e) {
        const fw::I2cConfig* c = e.config(channel);
        return c != nullptr ? *c : I2cChannel{};
    });
}

std::vector<uint16_t> i2c_timing(int adapter) {
    return with_i2c(adapter, [](fw::I2cEngine& e) {
        const auto& t = e.timing();
        return t ? std::vector<uint16_t>(t->begin(), t->end()) : std::vector<uint16_t>{};
    });
}

std::vector<uint8_t> i2c_eeprom(int adapter, int channel, uint8_t addr7) {
    return with_i2c(adapter, [&](fw::I2cEngine& e) {
        auto* eeprom = part_at<fw::Eeprom>(e, channel, addr7);
        return eeprom != nullptr ? eeprom->memory().bytes() : fw::Bytes{};
    });
}

void set_i2c_eeprom(int adapter, int channel, uint8_t addr7, const std::vector<uint8_t>& bytes) {
    with_i2c(adapter, [&](fw::I2cEngine& e) {
        if (auto* eeprom = part_at<fw::Eeprom>(e, channel, addr7)) eeprom->memory().write(0, bytes);
    });
}

void set_temperature(int adapter, int channel, uint8_t addr7, int milli_celsius) {
    with_i2c(adapter, [&](fw::I2cEngine& e) {
        if (auto* sensor = part_at<fw::TempSensor>(e, channel, addr7)) sensor->set_temperature(milli_celsius);
    });
}

void i2c_detach(int adapter, int channel, uint8_t addr7) {
    with_i2c(adapter, [&](fw::I2cEngine& e) { e.detach(channel, fw::I2cAddress{addr7}); });
}

void i2c_attach_defaults(int adapter) {
    with_i2c(adapter, [](fw::I2cEngine& e) { e.attach_defaults(); });
}

bool i2c_attach_eeprom(int adapter, int channel, uint16_t addr, bool ten_bit) {
    return with_i2c(adapter, [&](fw::I2cEngine& e) {
        return e.attach_eeprom(channel, fw::I2cAddress{addr, ten_bit});
    });
}

bool i2c_attach_sensor(int adapter, int channel, uint8_t addr7) {
    return with_i2c(adapter,
                    [&](fw::I2cEngine& e) { return e.attach_sensor(channel, fw::I2cAddress{addr7}); });
}

bool i2c_master_write(int adapter, int channel, const std::vector<uint8_t>& bytes) {
    return with_i2c(adapter, [&](fw::I2cEngine& e) { return e.external_write(channel, bytes); });
}

std::vector<uint8_t> i2c_master_read(int adapter, int channel, std::size_t n) {
    return with_i2c(adapter, [&](fw::I2cEngine& e) { return e.external_read(channel, n); });
}

void raise_pin_event(int adapter, uint16_t pin, uint16_t type) {
    with_i2c(adapter, [&](fw::I2cEngine& e) { e.raise_pin_event(pin, type); });
}

std::size_t i2c_waiting_event_transfers(int adapter) {
    return with_i2c(adapter, [](fw::I2cEngine& e) { return e.waiting_event_transfers(); });
}

}  // namespace corvel::sim
