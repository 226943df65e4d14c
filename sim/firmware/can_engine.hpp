// The CAN engine of the CAN-type adapters (personality 3, one channel; personality 4, two): the
// bxCAN-style controllers, their filter banks and receive FIFOs, the bus between them and the
// simulated nodes on it (sim/targets/can_nodes.*).
//
// Each controller comes up running at the adapter's bus bit rate in normal mode, accepting every
// frame, as a previous program would have left it; the host's init and filter messages change it.
// Frames pass on a bus between controllers and nodes at matching bit rates (within 1 %), at the
// moment they are sent: there is no arbitration and no time on the wire. Time is the adapter's
// own: the virtual clock's elapsed time while that is on, the host's monotonic clock while it is
// off. Nothing is scheduled: the generator's frames and a bus-off recovery are worked out when the
// adapter next handles a request (or the control API looks), each at its own time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

#include "corvel/sim_can.hpp"
#include "firmware/engine.hpp"
#include "targets/can_nodes.hpp"

namespace corvel::sim::fw {

inline constexpr std::size_t kCanFifoDepth = 4096;    // frames per channel's receive FIFO
inline constexpr std::size_t kCanBusLogDepth = 4096;  // frames kept for can_bus_frames()

// Timing registers (0-based BS1, BS2; prescaler, 0 meaning 1024) for a bit rate: the closest the
// 36 MHz controller gets, with the most time quanta among equals, and the rate they give.
struct CanTiming {
    uint8_t bs1 = 0, bs2 = 0;
    uint16_t prescaler = 0;
    double bitrate = 0;
};
CanTiming can_timing(uint32_t bitrate);
// Two bit rates match when they differ by at most 1 %.
bool can_rates_match(double a, double b);

class CanEngine final : public Engine {
  public:
    explicit CanEngine(Port& port);

    std::span<const Route> routes() const override;
    std::span<const Route> commands() const override;

    // ---- For the control API: channels and buses 1 and 2. Each brings the model up to now first.
    bool has_channel(int channel) const { return channel == 1 || (channel == 2 && channels_ == 2); }
    CanControllerState controller(int channel);
    std::vector<CanReceived> waiting(int channel);
    void set_generator(const CanGeneratorSpec& setup);
    CanGeneratorSpec generator() const;
    void set_echo(const CanEchoSpec& setup);
    CanEchoSpec echo() const { return echo_; }
    void set_split(bool split);
    bool inject(int bus, const CanFrame& frame, uint32_t bitrate);
    std::vector<CanBusFrame> bus_frames();
    void clear_bus_frames() { log_.clear(); }
    uint64_t generated(int bus);
    uint64_t time_us();

  private:
    struct Controller {
        bool configured = false;
        uint8_t abom = 0, nart = 1, rflm = 1, mode = proto::can::kModeNormal;
        uint8_t sjw = 0, bs1 = 0, bs2 = 0;
        uint16_t prescaler = 0;
        double bitrate = 0;
        unsigned tec = 0, rec = 0;
        uint8_t lec = 0;
        bool bus_off = false;
        uint64_t off_since = 0;
        uint32_t tsr = 0;
        std::vector<CanReceived> ring = std::vector<CanReceived>(kCanFifoDepth);
        std::size_t head = 0, count = 0;
        uint64_t lost = 0;
        int last_filter = -1;
    };
    // A filter bank's two registers, filled as the controller's register pairs are.
    struct FilterBank {
        bool active = false;
        bool list = false;
        bool wide = true;  // 32-bit scale; 16-bit otherwise
        uint32_t fr1 = 0, fr2 = 0;
    };

    // ---- Time and the nodes
    void sync();  // the generator's frames due by now
    void emit(uint64_t k);
    Controller& ctrl(int channel) { return controllers_[static_cast<std::size_t>(channel - 1)]; }
    int bus_of(int bus) const { return split_ ? bus : 1; }  // buses 1 and 2 are one unless split
    double echo_rate() const;
    double generator_rate() const;

    // ---- The bus
    bool carry(const CanFrame& f, int bus, double rate, uint64_t t, CanSender who, int from);
    void transmit(int channel, const CanFrame& f, uint64_t t);
    void hear(int channel, const CanFrame& f, uint64_t t);
    void accept(int channel, const CanFrame& f, uint64_t t);
    std::optional<uint8_t> match(int channel, const CanFrame& f) const;
    bool off(Controller& c, uint64_t t);
    void set_timing(Controller& c, uint8_t sjw, uint8_t bs1, uint8_t bs2, uint16_t prescaler);
    void clear_errors(Controller& c);
    uint32_t esr(const Controller& c) const;

    // ---- Route handlers
    void init(Request& r);
    void filter(Request& r);
    void write(Request& r);
    void count(Request& r);
    void read(Request& r);
    void status(Request& r);
    void error_code(Request& r);
    void reset(Request& r);
    void frames_waiting(Request& r);

    Port& port_;
    int channels_;
    uint32_t bus_rate_;
    bool split_;
    std::array<Controller, 2> controllers_;
    std::array<FilterBank, proto::can::kFilterBanks> banks_;
    CanEchoSpec echo_;
    std::optional<CanGenerator> generator_;
    uint64_t next_ = 1;                    // the generator's next frame
    std::array<uint64_t, 3> generated_{};  // per bus (1, 2)
    std::deque<CanBusFrame> log_;

    ModelTime time_;  // the adapter's time
};

std::unique_ptr<Engine> make_can_engine(Port& port);

}  // namespace corvel::sim::fw
