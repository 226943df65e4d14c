// The I2C engine: channel configuration, master transfers, slave mode and pin-event transfers of
// the I2C-type adapter (personality 1; the other personalities have no I2C engine).
//
// The adapter has 21 channels, 0 to 20. Each has its configuration, the parts on its bus, and the
// two buffers of slave mode. One bus timing set serves all channels (its request names no channel).
//
// Addresses arrive in the 8-bit form: with address type 7 the part's address is the low byte
// shifted right by one (0xA0 is the part at 0x50; bit 0, the R/W bit, is ignored); with address
// type 10 it is the low ten bits. 7-bit and 10-bit addresses are distinct places on a bus. The
// sub-address always arrives as four bytes; its low SubAddrWidth bytes go on the bus, most
// significant first, right after the address.
//
// Master mode 1 makes a channel a bus master (transfers), 0 a slave (it serves an external master,
// played by the control API). A transfer on a channel not initialised in the needed mode fails like
// a transfer nobody acknowledges.
//
// Channels 0 and 1 also carry the SMBus and PMBus transactions (firmware/smbus.hpp): the engine
// owns that unit and answers its requests too, so both families reach the same parts.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "corvel/sim_i2c.hpp"
#include "firmware/engine.hpp"
#include "firmware/smbus.hpp"
#include "targets/i2c_target.hpp"

namespace corvel::sim::fw {

inline constexpr int kI2cChannels = proto::i2c::kChannels;
inline constexpr std::size_t kI2cTimingValues = proto::i2c::kTimingValues;
// Most bytes one slave collect answer carries: what fits the host's 10240-byte receive buffer
// behind the header. What the external master wrote beyond it waits for the next collect.
inline constexpr std::size_t kSlaveCollectMax = proto::kReceiveDataMax;

// A channel as the last MSG_KD_REQUEST_SET_IIC_INFORMATION left it: the record the control API
// reports.
using I2cConfig = corvel::sim::I2cChannel;

// Where a part answers on its bus.
struct I2cAddress {
    uint16_t value = 0;
    bool ten_bit = false;
    auto operator<=>(const I2cAddress&) const = default;
};

class I2cEngine final : public Engine {
  public:
    explicit I2cEngine(Port& port);
    ~I2cEngine() override;

    std::span<const Route> routes() const override;

    // ---- For the control API. Channels outside 0..20 have nothing: null, false, empty.
    const I2cConfig* config(int channel) const;
    const std::optional<std::array<uint16_t, kI2cTimingValues>>& timing() const { return timing_; }

    I2cTarget* part(int channel, I2cAddress address);
    // The parts of a channel in address order; empty outside 0..20.
    std::vector<std::pair<I2cAddress, I2cTarget*>> parts(int channel) const;
    // Puts a part on a channel, replacing what was at its address. An EEPROM keeps its contents
    // in the store "eeprom-ch<channel>-<address in hex>.bin" (10-bit: "eeprom-ch<c>-10bit-<hex>.bin").
    bool attach(int channel, I2cAddress address, std::unique_ptr<I2cTarget> part);
    bool attach_eeprom(int channel, I2cAddress address);
    bool attach_sensor(int channel, I2cAddress address);
    void detach(int channel, I2cAddress address);
    // Channel 0: the EEPROM at 0x50 and the sensor at 0x48, each unless a part is already there.
    void attach_defaults();

    // The external master on a slave channel: writes bytes for the host to collect, reads up to
    // `n` of the bytes the host loaded. Fail (false, empty) unless the channel is a slave.
    bool external_write(int channel, std::span<const uint8_t> bytes);
    Bytes external_read(int channel, std::size_t n);

    // Runs, in the order they arrived, the waiting pin-event transfers for this pin and type.
    void raise_pin_event(uint16_t pin, uint16_t type);
    std::size_t waiting_event_transfers() const { return waiting_.size(); }

    // The SMBus and PMBus side of channels 0 and 1.
    Smbus& smbus() { return smbus_; }

  private:
    struct Channel {
        I2cConfig config;
        std::map<I2cAddress, std::unique_ptr<I2cTarget>> parts;
        Bytes slave_out;  // loaded by the host for the external master
        std::size_t slave_out_taken = 0;
        Bytes slave_in;  // written by the external master, until the host collects it
    };

    // The fields of a master transfer, as the requests carry them.
    struct Transfer {
        uint16_t addr = 0;
        uint32_t sub_addr = 0;
        uint8_t channel = 0;
        uint16_t read_len = 0;
    };

    // A pin-event transfer waiting for its event.
    struct EventTransfer {
        uint64_t id = 0;
        bool read = false;
        uint16_t pin = 0;
        uint16_t type = 0;
        Transfer transfer;
        Bytes data;  // to write
    };

    Channel* channel(int index);
    Channel* master(uint8_t index);
    Channel* slave(int index);

    // Bus transactions, START to STOP. False when a byte (or the address) is not acknowledged.
    bool bus_write(Channel& ch, uint16_t addr, uint32_t sub_addr, std::span<const uint8_t> data);
    bool bus_read(Channel& ch, uint16_t addr, uint32_t sub_addr, std::size_t len, Bytes& out);

    // Runs a master read and keeps its bytes as the pending read data; returns the status.
    uint8_t run_read(const Transfer& t);
    uint8_t run_write(const Transfer& t, std::span<const uint8_t> data);

    // Route handlers.
    void set_config(Request& r);
    void set_timing(Request& r);
    void write(Request& r);
    void read(Request& r);
    void write_read(Request& r);
    void fetch();
    void slave_load(Request& r);
    void slave_collect(Request& r);
    void slave_remaining(Request& r);
    void event_transfer(Request& r);
    void event_clear(Request& r);
    // A refused or failed read leaves no pending read data.
    void drop_read_data() { read_data_.clear(); }
    // The answer to a remaining-bytes request that names no channel.
    void no_remaining();

    Port& port_;
    std::array<Channel, kI2cChannels> channels_;
    std::optional<std::array<uint16_t, kI2cTimingValues>> timing_;
    Bytes read_data_;  // what the last successful read collected, until fetched
    std::vector<EventTransfer> waiting_;
    uint64_t next_event_id_ = 0;
    Smbus smbus_;
};

std::unique_ptr<Engine> make_i2c_engine(Port& port);

}  // namespace corvel::sim::fw
