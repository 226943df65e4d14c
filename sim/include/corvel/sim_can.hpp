// Control API of the virtual adapter's CAN side: the controllers' state, the frames waiting in
// their receive FIFOs, the simulated nodes (echo node, traffic generator), frames from an outside
// node, and what went over the buses.
//
// Buses are named 1 and 2 after the channel wired to them; while the channels share one bus (the
// default), 1 and 2 name the same bus. An unknown adapter, an adapter without CAN (types 1 and 2),
// a channel other than 1 and 2 (or 2 on a one-channel adapter) gives harmless defaults (a default
// record, empty vectors, 0, false) and changes nothing. Every call first brings the model up to the
// adapter's time (frames the generator owes, a bus-off recovery that fell due).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "corvel/sim.hpp"

namespace corvel::sim {

struct CanFrame {
    uint32_t id = 0;  // 11 or 29 bits
    bool extended = false;
    bool remote = false;
    uint8_t dlc = 0;  // 0 to 8
    std::array<uint8_t, 8> data{};
    bool operator==(const CanFrame&) const = default;
};

// A frame in a channel's receive FIFO: its time stamp (100 us units of the adapter's time, as the
// host receives it) and the index of the filter that took it (see docs/virtual-adapter.md, CAN).
struct CanReceived {
    CanFrame frame;
    uint32_t time_stamp = 0;
    uint8_t filter_index = 0;
};

enum class CanSender : uint8_t { Channel, Echo, Generator, Outside };

// A frame that went over a bus.
struct CanBusFrame {
    CanFrame frame;
    int bus = 0;
    CanSender sender = CanSender::Channel;
    int channel = 0;       // the sending channel (1 or 2) when a controller sent it, else 0
    uint32_t bitrate = 0;  // bit/s it was sent at
    uint64_t time_us = 0;  // adapter time
    bool acknowledged = false;
};

struct CanControllerState {
    bool present = false;               // the adapter has this channel
    bool configured = false;            // the host initialised it since the adapter was made
    uint32_t bitrate = 0;               // bit/s, from its timing registers (rounded)
    uint16_t prescaler = 0;             // as the host sent it (0 acts as 1024)
    uint8_t sjw = 0, bs1 = 0, bs2 = 0;  // register form (0-based)
    uint8_t mode = 0;                   // 0 normal, 1 loop-back, 2 silent, 3 silent loop-back
    bool abom = false, nart = true, rflm = true;
    unsigned tec = 0, rec = 0;  // transmit and receive error counters
    uint8_t lec = 0;            // last error code (3: acknowledgement error)
    bool warning = false, passive = false, bus_off = false;
    uint32_t esr = 0, tsr = 0;   // as the status reply carries them
    std::size_t waiting = 0;     // frames in the receive FIFO
    uint64_t lost = 0;           // frames lost to FIFO overflow since the last init or reset
    int last_filter_index = -1;  // of the last frame the filters took; -1 for none yet
};
CORVEL_SIM_API CanControllerState can_controller(int adapter, int channel);

// The frames waiting in a channel's receive FIFO, oldest first (they stay there).
CORVEL_SIM_API std::vector<CanReceived> can_waiting(int adapter, int channel);

// The simulated nodes, replaced at run time. A generator set here starts afresh (frame 1 is due
// 1/rate seconds later); rate 0 removes it, echo bus 0 removes the echo node.
CORVEL_SIM_API void set_can_generator(int adapter, const CanGeneratorSpec& generator);
CORVEL_SIM_API CanGeneratorSpec can_generator(int adapter);
CORVEL_SIM_API void set_can_echo(int adapter, const CanEchoSpec& echo);
CORVEL_SIM_API CanEchoSpec can_echo(int adapter);
// Both channels on one bus (false) or each on its own (true).
CORVEL_SIM_API void set_can_split(int adapter, bool split);

// An outside node sends `frame` on `bus` at `bitrate` (0: the adapter's bus bit rate), now. True
// when something on the bus acknowledged it.
CORVEL_SIM_API bool can_inject(int adapter, int bus, const CanFrame& frame, uint32_t bitrate = 0);

// The frames that went over the adapter's buses, oldest first (the last 4096), and emptying it.
CORVEL_SIM_API std::vector<CanBusFrame> can_bus_frames(int adapter);
CORVEL_SIM_API void clear_can_bus_frames(int adapter);

// Frames the generator has sent on a bus since the adapter was made (also those a long pause made
// it skip: see docs/virtual-adapter.md), so that loss = generated - received.
CORVEL_SIM_API uint64_t can_generated(int adapter, int bus);

// The adapter's time in microseconds, the base of the time stamps: the virtual time that passed
// while the virtual clock was on, and real time while it was off.
CORVEL_SIM_API uint64_t can_time_us(int adapter);

}  // namespace corvel::sim
