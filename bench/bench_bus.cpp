// SMBus/PMBus and SDI-12 through the library on an I2C-type virtual adapter:
//   BM_PmbusReadVout  PMBus_ReadWord of READ_VOUT from the supply at 0x40 on channel 1: one
//                     request and its 9-byte reply frame
//   BM_Sdi12Command   SDI_SendCmd of "0D0!" after a measurement: the command with its parity bits,
//                     the long reply with the sensor's line, under the process-wide lock
// The virtual clock is on for both, as in `corvel --sim`: the 1 s the measurement before the timed
// commands takes passes in virtual time. What is measured is the library and the model. Reported:
//   lib_ns/op   the process's CPU time less the virtual adapter's own (sim::cpu_time_ns), per
//               operation: what the library (and this loop) cost
//   sim_ns/op   the virtual adapter's CPU time per operation
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstdint>

#include "ControlPMBus.h"
#include "ControlSDI.h"
#include "corvel/protocol.hpp"
#include "corvel/sim.hpp"
#include "cpu_share.hpp"

namespace {

namespace sim = corvel::sim;
using corvel::bench::CpuShare;

constexpr int32_t kType = KD_DEVTYPE_I2C;
constexpr uint8_t kSupply = 0x40 << 1;
constexpr uint8_t kReadVout = 0x8B;

void one_i2c_adapter() {
    sim::virtual_clock(true);
    sim::capture(false);
    sim::set_state_dir("");
    sim::AdapterSpec adapter;
    adapter.personality = corvel::proto::kDevTypeI2c;
    sim::configure({adapter});
}

void BM_PmbusReadVout(benchmark::State& state) {
    one_i2c_adapter();
    if (PMBus_ScanDevice(1) <= 0 || PMBus_OpenDevice(kType, 0, 0) != 0) {
        return state.SkipWithError("the adapter could not be opened");
    }
    if (PMBus_HardInit(kType, 0, 1, 100000, 0) != 0) return state.SkipWithError("PMBus_HardInit failed");
    uint16_t vout = 0;
    CpuShare share;
    for (auto _ : state) {
        if (PMBus_ReadWord(kType, 0, 1, kSupply, kReadVout, &vout, 0) != 0) {
            return state.SkipWithError("PMBus_ReadWord failed");
        }
        benchmark::DoNotOptimize(vout);
    }
    share.report(state);
    PMBus_CloseDevice(kType, 0);
}
BENCHMARK(BM_PmbusReadVout)->Unit(benchmark::kMicrosecond);

void BM_Sdi12Command(benchmark::State& state) {
    one_i2c_adapter();
    if (SDI_ScanDevice(1) <= 0 || SDI_OpenDevice(kType, 0, 0) != 0) {
        return state.SkipWithError("the adapter could not be opened");
    }
    std::array<uint8_t, corvel::proto::sdi12::kLineBufferSize> line{};
    std::array<uint8_t, 8> measure{'0', 'M', '!'};
    std::array<uint8_t, 8> data{'0', 'D', '0', '!'};
    if (SDI_InitSDI(kType, 0, 0) != 0 || SDI_SendCmd(kType, 0, 0, measure.data(), line.data(), 0) != 0) {
        return state.SkipWithError("the measurement could not be started");
    }
    sleep(1);  // virtual: the values are ready after 1 s of adapter time
    CpuShare share;
    for (auto _ : state) {
        if (SDI_SendCmd(kType, 0, 0, data.data(), line.data(), 0) != 0) {
            return state.SkipWithError("SDI_SendCmd failed");
        }
        benchmark::DoNotOptimize(line.data());
    }
    share.report(state);
    SDI_CloseDevice(kType, 0);
}
BENCHMARK(BM_Sdi12Command)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
