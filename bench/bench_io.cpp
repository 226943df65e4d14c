// GPIO and ADC through the library on the virtual bench's I2C-type adapter:
//   BM_AdcRead/C     KAI_ReadDatas of the largest block, 10240 instants of C channels (1 or 8)
//   BM_GpioRoundTrip KGI_WriteDatas of pin 0 and KGI_ReadDatas of pin 8 (wired to it)
// The virtual clock is off, so the adapter model sends a sample block at once instead of after the
// sampling time: what is measured is the library and the model, not simulated waiting. Reported:
//   lib_ns/op   the process's CPU time less the virtual adapter's own (sim::cpu_time_ns), per
//               operation: what the library (and this loop) cost
//   sim_ns/op   the virtual adapter's CPU time per operation
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdint>
#include <vector>

#include "ControlADC.h"
#include "ControlGPIO.h"
#include "corvel/protocol.hpp"
#include "corvel/sim.hpp"
#include "cpu_share.hpp"

namespace {

namespace sim = corvel::sim;
using corvel::bench::CpuShare;

constexpr int32_t kType = KD_DEVTYPE_I2C;

bool open_bench() {
    sim::virtual_clock(false);
    sim::capture(false);
    sim::set_state_dir("");
    sim::AdapterSpec adapter;
    adapter.personality = corvel::proto::kDevTypeI2c;
    sim::configure({adapter});
    return KGI_ScanDevice(1) > 0 && KGI_OpenDevice(kType, 0, 0) == 0;
}

void BM_AdcRead(benchmark::State& state) {
    const auto channels = static_cast<std::size_t>(state.range(0));
    if (!open_bench()) return state.SkipWithError("the adapter could not be opened");
    const auto mask = static_cast<uint8_t>((1U << channels) - 1);
    if (KAI_InitADC(kType, 0, mask, 100) != 0) return state.SkipWithError("KAI_InitADC failed");
    std::vector<uint16_t> block(corvel::proto::adc::kMaxInstants * channels);
    CpuShare share;
    for (auto _ : state) {
        if (KAI_ReadDatas(kType, 0, corvel::proto::adc::kMaxInstants, block.data()) != 0) {
            return state.SkipWithError("KAI_ReadDatas failed");
        }
        benchmark::DoNotOptimize(block.data());
    }
    share.report(state);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * block.size() * 2));
    KGI_CloseDevice(kType, 0);
}
BENCHMARK(BM_AdcRead)->Arg(1)->Arg(8)->Unit(benchmark::kMicrosecond);

void BM_GpioRoundTrip(benchmark::State& state) {
    if (!open_bench()) return state.SkipWithError("the adapter could not be opened");
    KGI_SetOutput(kType, 0, 0x0001);
    KGI_SetInput(kType, 0, 0x0100);
    uint16_t level = 0, levels = 0;
    CpuShare share;
    for (auto _ : state) {
        level ^= 1;
        if (KGI_WriteDatas(kType, 0, 0x0001, level) != 0 || KGI_ReadDatas(kType, 0, 0x0100, &levels) != 0) {
            return state.SkipWithError("GPIO write or read failed");
        }
        benchmark::DoNotOptimize(levels);
    }
    share.report(state);
    KGI_CloseDevice(kType, 0);
}
BENCHMARK(BM_GpioRoundTrip)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
