// The control API of the virtual adapter's SMBus and PMBus side (corvel/sim_smbus.hpp).
#include "corvel/sim_smbus.hpp"
#include "firmware/i2c_engine.hpp"
#include "firmware/smbus.hpp"
#include "simulator.hpp"
#include "targets/pmbus_supply.hpp"

namespace corvel::sim {
namespace {

// Runs `fn` on adapter `index`'s SMBus unit; for an unknown adapter or one without I2C, nothing
// runs and the result is value-initialised (false, a default record).
template <typename Fn>
auto with_smbus(int index, Fn&& fn) {
    return with_engine<fw::I2cEngine>(index, [&](fw::I2cEngine& e) { return fn(e.smbus()); });
}

}  // namespace

SmbusChannel smbus_channel(int adapter, int channel) {
    return with_smbus(adapter, [&](fw::Smbus& s) { return s.channel_state(channel); });
}

void smbus_set_alert(int adapter, int channel, bool asserted) {
    with_smbus(adapter, [&](fw::Smbus& s) { s.set_alert(channel, asserted); });
}

void smbus_corrupt_next_pec(int adapter, int channel) {
    with_smbus(adapter, [&](fw::Smbus& s) { s.corrupt_next_pec(channel); });
}

PmbusSupplyState pmbus_supply(int adapter, int channel, uint8_t addr7) {
    return with_smbus(adapter, [&](fw::Smbus& s) {
        const fw::PmbusSupply* supply = s.supply(channel, addr7);
        return supply != nullptr ? supply->state() : PmbusSupplyState{};
    });
}

void set_pmbus_load(int adapter, int channel, uint8_t addr7, int page, double amps) {
    with_smbus(adapter, [&](fw::Smbus& s) {
        if (fw::PmbusSupply* supply = s.supply(channel, addr7)) supply->set_load(page, amps);
    });
}

void set_pmbus_temperature(int adapter, int channel, uint8_t addr7, int page, double celsius) {
    with_smbus(adapter, [&](fw::Smbus& s) {
        if (fw::PmbusSupply* supply = s.supply(channel, addr7)) supply->set_temperature(page, celsius);
    });
}

bool pmbus_attach_supply(int adapter, int channel, uint8_t addr7) {
    return with_smbus(adapter, [&](fw::Smbus& s) { return s.attach_supply(channel, addr7); });
}

void pmbus_detach_supply(int adapter, int channel, uint8_t addr7) {
    with_smbus(adapter, [&](fw::Smbus& s) { s.detach_supply(channel, addr7); });
}

}  // namespace corvel::sim
