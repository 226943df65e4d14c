// The control API of the virtual adapter's I2C side (corvel/sim_i2c.hpp).
#include <mutex>

#include "corvel/sim_i2c.hpp"
#include "firmware/i2c_engine.hpp"
#include "simulator.hpp"
#include "targets/eeprom.hpp"
#include "targets/temp_sensor.hpp"

namespace corvel::sim {
namespace {

using Lock = std::lock_guard<std::recursive_mutex>;

// Runs `fn` on adapter `index`'s I2C engine; nothing for an unknown adapter or one without I2C.
template <typename Fn>
void with_i2c(int index, Fn&& fn) {
    with_engine<fw::I2cEngine>(index, std::forward<Fn>(fn));
}

// The part of type T at a 7-bit address, or null.
template <typename T>
T* part_at(fw::I2cEngine& e, int channel, uint8_t addr7) {
    return dynamic_cast<T*>(e.part(channel, fw::I2cAddress{addr7}));
}

}  // namespace

I2cChannel i2c_channel(int adapter, int channel) {
    I2cChannel out;
    with_i2c(adapter, [&](fw::I2cEngine& e) {
        if (const fw::I2cConfig* c = e.config(channel)) out = *c;
    });
    return out;
}

std::vector<uint16_t> i2c_timing(int adapter) {
    std::vector<uint16_t> out;
    with_i2c(adapter, [&](fw::I2cEngine& e) {
        if (const auto& t = e.timing()) out.assign(t->begin(), t->end());
    });
    return out;
}

std::vector<uint8_t> i2c_eeprom(int adapter, int channel, uint8_t addr7) {
    std::vector<uint8_t> out;
    with_i2c(adapter, [&](fw::I2cEngine& e) {
        if (auto* eeprom = part_at<fw::Eeprom>(e, channel, addr7)) out = eeprom->memory().bytes();
    });
    return out;
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
    bool done = false;
    with_i2c(adapter, [&](fw::I2cEngine& e) {
        done = e.attach_eeprom(channel, fw::I2cAddress{addr, ten_bit});
    });
    return done;
}

bool i2c_attach_sensor(int adapter, int channel, uint8_t addr7) {
    bool done = false;
    with_i2c(adapter, [&](fw::I2cEngine& e) { done = e.attach_sensor(channel, fw::I2cAddress{addr7}); });
    return done;
}

bool i2c_master_write(int adapter, int channel, const std::vector<uint8_t>& bytes) {
    bool done = false;
    with_i2c(adapter, [&](fw::I2cEngine& e) { done = e.external_write(channel, bytes); });
    return done;
}

std::vector<uint8_t> i2c_master_read(int adapter, int channel, std::size_t n) {
    std::vector<uint8_t> out;
    with_i2c(adapter, [&](fw::I2cEngine& e) { out = e.external_read(channel, n); });
    return out;
}

void raise_pin_event(int adapter, uint16_t pin, uint16_t type) {
    with_i2c(adapter, [&](fw::I2cEngine& e) { e.raise_pin_event(pin, type); });
}

std::size_t i2c_waiting_event_transfers(int adapter) {
    std::size_t n = 0;
    with_i2c(adapter, [&](fw::I2cEngine& e) { n = e.waiting_event_transfers(); });
    return n;
}

}  // namespace corvel::sim
