// Control API of the virtual adapter's I2C side: the firmware's channel state, the simulated parts
// on the buses, an external bus master for slave mode, and pin events.
//
// Addresses here are 7-bit, as i2c-tools writes them. On the wire the library sends them in the
// 8-bit form the firmware expects (7-bit address shifted left by one: 0xA0 for the part at 0x50).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "corvel/sim.hpp"

namespace corvel::sim {

// Channel configuration as the firmware holds it after MSG_KD_REQUEST_SET_IIC_INFORMATION.
struct I2cChannel {
    bool initialised = false;
    uint8_t control_mode = 0;
    uint32_t clock_hz = 0;
    uint8_t sub_addr_width = 0;
    uint8_t addr_type = 7;
    uint16_t own_addr = 0;
    uint8_t master_mode = 1;  // 1 master, 0 slave
};
CORVEL_SIM_API I2cChannel i2c_channel(int adapter, int channel);

// The seven timing values of the last MSG_KD_REQUEST_SOFT_SET_IIC_TIME_ONE_INFORMATION, in wire
// order (tSU_STA, tHD_STA, tLOW, tHIGH, tSU_DAT, tSU_STO, tBuf), as 16-bit values. Empty before any.
CORVEL_SIM_API std::vector<uint16_t> i2c_timing(int adapter);

// The simulated parts. Default on channel 0 of every I2C-type adapter: a 256-byte EEPROM at 0x50
// (8-byte pages, non-volatile) and a temperature sensor at 0x48.
CORVEL_SIM_API std::vector<uint8_t> i2c_eeprom(int adapter, int channel, uint8_t addr7);
CORVEL_SIM_API void set_i2c_eeprom(int adapter, int channel, uint8_t addr7,
                                   const std::vector<uint8_t>& bytes);
// The sensor (LM75-style registers: 0 temperature, 1 configuration, 2 hysteresis, 3 over-temperature;
// each 16-bit register two's complement in 1/256 degree Celsius, MSB first, 0.5 degree resolution).
// Its temperature starts at 25.0 degrees Celsius.
CORVEL_SIM_API void set_temperature(int adapter, int channel, uint8_t addr7, int milli_celsius);
// Removes or restores a part (a removed part answers nothing: NACK).
CORVEL_SIM_API void i2c_detach(int adapter, int channel, uint8_t addr7);
CORVEL_SIM_API void i2c_attach_defaults(int adapter);
// Puts a part on any channel, replacing what was at the address. An EEPROM may sit at a 10-bit
// address (`ten_bit`; reached by channels configured with address type 10); its contents persist
// per channel and address. False for a channel above 20, an address out of range or no I2C.
CORVEL_SIM_API bool i2c_attach_eeprom(int adapter, int channel, uint16_t addr, bool ten_bit = false);
CORVEL_SIM_API bool i2c_attach_sensor(int adapter, int channel, uint8_t addr7);

// An external bus master talking to the adapter's channel working as a slave. A write delivers
// bytes that KII_SlaveReadBytes then collects; a read takes up to n of the bytes loaded with
// KII_SlaveWriteBytes. Both fail (false / empty) unless the channel is initialised as a slave.
CORVEL_SIM_API bool i2c_master_write(int adapter, int channel, const std::vector<uint8_t>& bytes);
CORVEL_SIM_API std::vector<uint8_t> i2c_master_read(int adapter, int channel, std::size_t n);

// Raises an event on a pin: a pending pin-event transfer waiting for this pin and type runs now
// and its status is sent. Schedule it on the virtual clock to make it happen during a wait.
CORVEL_SIM_API void raise_pin_event(int adapter, uint16_t pin, uint16_t type);
// Pin-event transfers waiting for their event (those whose time-out passed are gone).
CORVEL_SIM_API std::size_t i2c_waiting_event_transfers(int adapter);

}  // namespace corvel::sim
