// The SMBus and PMBus transactions of the I2C-type adapter, on I2C channels 0 and 1.
//
// Part of the I2C engine (it owns one and lists its routes with its own), so the SMBus protocols
// run on the very buses of the I2C transfers: the parts there answer both, and the PMBus supplies
// answer plain I2C transfers too. Each request performs one bus transaction from START to STOP,
// with the packet error code (CRC-8, polynomial 0x07) when the request asks for it, and gets one
// exact-length reply frame: the request's own code, a status byte (proto::smbus::kStatus*), the
// size and the data read (words in bus order, low byte first; blocks without their count byte).
//
// Per channel: whether a HardInit set it up (transactions need it) and its clock, the CONTROL line
// (high at power-up) and SMBALERT#, the wired OR of the parts' alert outputs and of an assertion
// from outside (the control API). The Alert Response Address (7-bit 0x0C) is answered by the
// alerting part with the lowest address, which then releases SMBALERT#.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "corvel/sim_smbus.hpp"
#include "firmware/engine.hpp"

namespace corvel::sim::fw {

class I2cEngine;
class PmbusSupply;

class Smbus {
  public:
    static constexpr int kChannels = proto::smbus::kChannels;

    Smbus(I2cEngine& i2c, Port& port);

    // The request routes, for the I2C engine's table.
    static std::span<const Route> routes();

    // Puts the supplies the adapter's configuration names on channel 1.
    void attach_configured();

    // ---- For the control API. Channels other than 0 and 1 have nothing.
    SmbusChannel channel_state(int channel) const;
    void set_alert(int channel, bool asserted);
    void corrupt_next_pec(int channel);
    PmbusSupply* supply(int channel, uint8_t addr7);
    bool attach_supply(int channel, uint8_t addr7);
    void detach_supply(int channel, uint8_t addr7);

    // Route handlers.
    void hard_init(Request& r);
    void quick_command(Request& r);
    void send_byte(Request& r);
    void receive_byte(Request& r);
    void write_data(Request& r);  // write byte and write word, with or without an extended command
    void read_data(Request& r);   // read byte and read word, the same
    void process_call(Request& r);
    void block_write(Request& r);
    void block_read(Request& r);
    void block_process_call(Request& r);
    void group_command(Request& r);
    void get_alert(Request& r);
    void set_control(Request& r);

  private:
    struct Channel {
        bool initialised = false;
        uint32_t clock_hz = 0;
        uint8_t own_addr = 0;
        bool control_high = true;
        bool alert_forced = false;
        bool corrupt_pec = false;  // the next transaction with PEC gets a wrong one
    };
    class Wire;

    Channel* ready(uint8_t index);  // initialised, else null
    bool alert(int channel) const;
    // Takes the corruption of the next PEC, when this transaction has one.
    bool take_corruption(Channel& ch, bool pec);

    // One transaction: START with the write bit and `out` (unless `write` is false: a read with
    // no write phase), then for a read a repeated START with the read bit and `read_len` bytes, or
    // a block (a count, then that many). With `pec`, the PEC goes out after a write or is read and
    // checked after a read. Returns the status; `in` gets the data read.
    enum class Read : uint8_t { None, Bytes, Block };
    uint8_t transact(uint8_t index, uint8_t addr8, bool write, std::span<const uint8_t> out, Read read,
                     std::size_t read_len, bool pec, Bytes& in);
    void answer(const Request& r, uint8_t status, std::span<const uint8_t> payload = {});

    I2cEngine& i2c_;
    Port& port_;
    std::array<Channel, kChannels> channels_{};
};

}  // namespace corvel::sim::fw
