// Reception through the ControlCAN-style interface under full load: a two-channel CAN adapter on
// the virtual bench, both channels on one 1 Mbit/s bus that a traffic generator keeps busy (9000
// standard or 7600 extended frames of 8 data bytes a second, what a fully loaded bus carries), both
// read threads started, and the main thread draining both channels with VCI_Receive every 10 ms,
// for 10 s of bus time. Reported per run:
//   fps           frames received per second of bus time, both channels together
//   lost          frames generated (each heard by both channels) minus frames received
//   fifo_lost     of those, the frames the adapter's receive FIFOs (4096 frames each) had no room
//                 for: the read threads fell behind the bus
//   lib_ns/frame  the process's CPU time less the CPU time spent inside the virtual adapter, per
//                 frame received: what the library (and this loop) cost
//   sim_ns/frame  the virtual adapter's own CPU time per frame
//   lib_ms, sim_ms  the same two CPU times in all
//   wall_s        wall time of the run
// Each load runs on the virtual clock (10 s of bus time in a fraction of it; the threads' sleeps
// move the clock) and on the real clock (the read threads keep up under real scheduling). A run
// on an idle bus measures what polling alone costs: three threads waking 100 times a second.
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "ControlCAN.h"
#include "corvel/sim.hpp"
#include "cpu_share.hpp"
#include "corvel/sim_can.hpp"

namespace {

namespace sim = corvel::sim;
using corvel::bench::process_cpu_ns;

constexpr uint32_t kType = VCI_USBCAN2;
constexpr uint32_t kBitRate = 1000000;
constexpr uint32_t kStandardRate = 9000;  // frames/s of 8 data bytes on a full 1 Mbit/s bus
constexpr uint32_t kExtendedRate = 7600;
constexpr uint64_t kBusTimeUs = 10000000;
constexpr useconds_t kDrainPeriodUs = 10000;
constexpr int kSettlePasses = 500;  // at most, after the generator stops, for the FIFOs to empty

// Bus time since `start`: the virtual clock's while it is on, else the steady clock's.
class BusClock {
  public:
    explicit BusClock(bool virtual_time) : virtual_(virtual_time) {}
    uint64_t us() const {
        if (virtual_) return sim::now_us() - virtual_start_;
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start_)
                .count());
    }

  private:
    bool virtual_;
    uint64_t virtual_start_ = sim::now_us();
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

uint64_t drain(std::vector<VCI_CAN_OBJ>& buffer) {
    uint64_t taken = 0;
    for (uint32_t index : {0u, 1u}) {
        uint32_t n = 0;
        do {
            n = VCI_Receive(kType, 0, index, buffer.data(), static_cast<uint32_t>(buffer.size()), 0);
            if (n > buffer.size()) return taken;  // an error; counted as not received
            taken += n;
        } while (n == buffer.size());
    }
    return taken;
}

void BM_CanReceiveFullBus(benchmark::State& state) {
    const bool extended = state.range(0) != 0;
    const bool virtual_time = state.range(1) != 0;
    const bool loaded = state.range(2) != 0;
    sim::virtual_clock(virtual_time);
    sim::capture(false);
    sim::set_state_dir("");
    sim::AdapterSpec adapter;
    adapter.personality = corvel::proto::kDevTypeCan2;
    adapter.can.bitrate = kBitRate;  // both channels come up at 1 Mbit/s, filters open
    sim::configure({adapter});

    sim::CanGeneratorSpec generator;
    generator.rate = extended ? kExtendedRate : kStandardRate;
    generator.extended = extended;
    generator.id_first = generator.id_last = extended ? 0x12345678 : 0x123;
    generator.dlc = 8;

    std::vector<VCI_CAN_OBJ> buffer(2000);
    for (auto _ : state) {
        VCI_ScanDevice(1);
        if (VCI_OpenDevice(kType, 0, 0) != STATUS_OK || VCI_StartCAN(kType, 0, 0) != STATUS_OK ||
            VCI_StartCAN(kType, 0, 1) != STATUS_OK) {
            state.SkipWithError("the CAN adapter could not be opened and started");
            return;
        }
        const auto wall_start = std::chrono::steady_clock::now();
        const uint64_t cpu_start = process_cpu_ns(), sim_start = sim::cpu_time_ns();
        BusClock bus(virtual_time);
        if (loaded) sim::set_can_generator(0, generator);
        uint64_t received = 0;
        while (bus.us() < kBusTimeUs) {
            usleep(kDrainPeriodUs);
            received += drain(buffer);
        }
        sim::set_can_generator(0, sim::CanGeneratorSpec{});  // stops it, counting the frames due
        const uint64_t bus_us = bus.us();
        const uint64_t generated = sim::can_generated(0, 1);
        // The frames still in the adapter's FIFOs and the library's queues.
        for (int pass = 0; pass < kSettlePasses; ++pass) {
            usleep(kDrainPeriodUs);
            received += drain(buffer);
            if (sim::can_controller(0, 1).waiting == 0 && sim::can_controller(0, 2).waiting == 0 &&
                VCI_GetReceiveNum(kType, 0, 0) == 0 && VCI_GetReceiveNum(kType, 0, 1) == 0) {
                break;
            }
        }
        const uint64_t fifo_lost = sim::can_controller(0, 1).lost + sim::can_controller(0, 2).lost;
        const uint64_t sim_ns = sim::cpu_time_ns() - sim_start;
        const uint64_t cpu_ns = process_cpu_ns() - cpu_start;
        const double wall_s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();
        VCI_CloseDevice(kType, 0);

        const double frames = received == 0 ? 1.0 : static_cast<double>(received);
        state.counters["fps"] = static_cast<double>(received) * 1e6 / static_cast<double>(bus_us);
        state.counters["generated"] = static_cast<double>(2 * generated);
        state.counters["lost"] = static_cast<double>(2 * generated) - static_cast<double>(received);
        state.counters["fifo_lost"] = static_cast<double>(fifo_lost);
        state.counters["lib_ns/frame"] = (static_cast<double>(cpu_ns) - static_cast<double>(sim_ns)) / frames;
        state.counters["sim_ns/frame"] = static_cast<double>(sim_ns) / frames;
        state.counters["lib_ms"] = (static_cast<double>(cpu_ns) - static_cast<double>(sim_ns)) / 1e6;
        state.counters["sim_ms"] = static_cast<double>(sim_ns) / 1e6;
        state.counters["wall_s"] = wall_s;
    }
}
// Arguments: extended identifiers (0/1), virtual clock (0/1), generator on (0/1).
BENCHMARK(BM_CanReceiveFullBus)
    ->ArgNames({"ext", "virtual", "load"})
    ->Args({0, 1, 1})
    ->Args({1, 1, 1})
    ->Args({0, 1, 0})
    ->Args({0, 0, 1})
    ->Args({1, 0, 1})
    ->Args({0, 0, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
