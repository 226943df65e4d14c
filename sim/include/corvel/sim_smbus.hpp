// Control API of the virtual adapter's SMBus and PMBus side: the state of SMBus channels 0 and 1
// (HardInit, CONTROL, SMBALERT#), faults on the bus, and the simulated PMBus power supplies.
//
// Addresses here are 7-bit; on the wire the library sends the 8-bit form (0x80 for the supply at
// 0x40). By default an I2C-type adapter has two supplies on channel 1, at 0x40 and 0x41.
#pragma once

#include <array>
#include <cstdint>

#include "corvel/sim.hpp"

namespace corvel::sim {

// An SMBus channel as the firmware holds it.
struct SmbusChannel {
    bool initialised = false;  // by a HardInit (SMBus or PMBus)
    uint32_t clock_hz = 0;
    uint8_t own_addr = 0;
    bool control_high = true;   // the CONTROL line (PMBus SetControl)
    bool alert = false;         // SMBALERT# asserted: by a part, or by smbus_set_alert
    bool alert_forced = false;  // held by smbus_set_alert
};
CORVEL_SIM_API SmbusChannel smbus_channel(int adapter, int channel);

// Pulls SMBALERT# of a channel low from outside the bus (a part that is not on it), or lets go.
// Nobody answers the Alert Response Address for it.
CORVEL_SIM_API void smbus_set_alert(int adapter, int channel, bool asserted);

// The next transaction with PEC on the channel goes wrong: a write sends a PEC byte that does not
// match (a supply refuses it), a read sees the PEC byte it received changed. Either gives status 3.
CORVEL_SIM_API void smbus_corrupt_next_pec(int adapter, int channel);

// One page (output) of a supply, in its units: volts, amperes, degrees Celsius.
struct PmbusPage {
    bool output_on = false;
    uint8_t operation = 0;
    uint8_t on_off_config = 0;
    double vout_command = 0;  // what VOUT_COMMAND asks for
    double vout = 0;          // READ_VOUT: the output, 0 when off
    double iout = 0;          // READ_IOUT: the load current, 0 when off
    double load = 0;          // the current the load draws when the output is on
    double temperature = 0;   // READ_TEMPERATURE_1
    uint16_t status_word = 0;
    uint8_t status_vout = 0;
    uint8_t status_iout = 0;
    uint8_t status_temperature = 0;
};

struct PmbusSupplyState {
    bool present = false;  // false: no supply at that address
    uint8_t page = 0;      // PAGE
    uint8_t status_cml = 0;
    bool alert = false;         // the supply pulls SMBALERT# low
    uint16_t mfr_register = 0;  // the manufacturer register at extended command 0xFE 0x10
    std::array<PmbusPage, 2> pages{};
};
CORVEL_SIM_API PmbusSupplyState pmbus_supply(int adapter, int channel, uint8_t addr7);

// The load on a supply's output (amperes) and its temperature (degrees Celsius), per page. Past the
// supply's IOUT_OC_FAULT_LIMIT or OT_FAULT_LIMIT they make a fault: the output shuts down and the
// supply raises SMBALERT#.
CORVEL_SIM_API void set_pmbus_load(int adapter, int channel, uint8_t addr7, int page, double amps);
CORVEL_SIM_API void set_pmbus_temperature(int adapter, int channel, uint8_t addr7, int page, double celsius);

// Puts a supply with its power-up state on channel 0 or 1, replacing what was at the address (a
// supply at an even address starts as the one at 0x40, at an odd address as the one at 0x41), or
// removes one. False for another channel, an address outside 0x08..0x77 or 0x0C, or no I2C.
CORVEL_SIM_API bool pmbus_attach_supply(int adapter, int channel, uint8_t addr7);
CORVEL_SIM_API void pmbus_detach_supply(int adapter, int channel, uint8_t addr7);

}  // namespace corvel::sim
