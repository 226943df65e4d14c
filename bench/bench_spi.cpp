// Throughput of the SPI family on the virtual adapter: byte transfers on the loopback channel, and
// the two paths of `corvel flash` on the serial flash of channel 0, 64 KiB reads and page programs
// with their busy polling. The library's "ReadLen" lines go to /dev/null; the results to the
// original stdout.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "ControlSPI.h"
#include "corvel/sim.hpp"

namespace {

constexpr int32_t kSpi = KD_DEVTYPE_SPI;
constexpr int32_t kFlashChannel = 0;
constexpr int32_t kLoopbackChannel = 1;

void open_spi_adapter() {
    corvel::sim::virtual_clock(true);
    corvel::sim::capture(false);
    corvel::sim::set_state_dir("");  // contents in memory only
    corvel::sim::AdapterSpec spi_adapter;
    spi_adapter.personality = corvel::proto::kDevTypeSpi;
    corvel::sim::configure({spi_adapter});
    KSI_ScanDevice(1);
    KSI_OpenDevice(kSpi, 0, 0);
    for (int32_t channel : {kFlashChannel, kLoopbackChannel}) {
        KSI_INIT_CONFIG_EX config{static_cast<uint8_t>(channel), 0, 8, 1, 0, 0, 0, 0, 12000000};
        KSI_InitSPIEx(kSpi, 0, &config);
    }
}

void BM_SpiWrite(benchmark::State& state) {
    open_spi_adapter();
    std::vector<uint8_t> data(static_cast<std::size_t>(state.range(0)), 0x5A);
    const auto n = static_cast<uint16_t>(data.size());
    for (auto _ : state) benchmark::DoNotOptimize(KSI_WriteBytes(kSpi, 0, kLoopbackChannel, data.data(), n));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_SpiWrite)->Arg(1)->Arg(256)->Arg(4096)->Arg(65535);

// One byte out, N bytes in.
void BM_SpiWriteRead(benchmark::State& state) {
    open_spi_adapter();
    uint8_t out = 0xA5;
    std::vector<uint8_t> in(static_cast<std::size_t>(state.range(0)));
    const auto n = static_cast<uint16_t>(in.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(KSI_WriteReadBytes(kSpi, 0, kLoopbackChannel, &out, 1, in.data(), n));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_SpiWriteRead)->Arg(1)->Arg(256)->Arg(4096)->Arg(65535);

// The read of `corvel flash read`: READ (0x03) and three address bytes, 64 KiB in.
void BM_FlashRead64K(benchmark::State& state) {
    open_spi_adapter();
    std::vector<uint8_t> data(65536);
    uint32_t addr = 0;
    for (auto _ : state) {
        uint8_t cmd[4] = {0x03, static_cast<uint8_t>(addr >> 16), 0, 0};
        benchmark::DoNotOptimize(KSI_WriteReadBytesEx(kSpi, 0, kFlashChannel, cmd, 4, data.data(),
                                                      static_cast<uint32_t>(data.size())));
        addr = (addr + 0x10000) & 0x3FFFFF;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 65536);
}
BENCHMARK(BM_FlashRead64K);

// The write of `corvel flash write`, one page: WREN, PAGE PROGRAM with 256 bytes, then the status
// polled every 100 us of (virtual) sleep until BUSY clears.
void BM_FlashPageProgram(benchmark::State& state) {
    open_spi_adapter();
    std::array<uint8_t, 4 + 256> cmd{};
    for (std::size_t i = 4; i < cmd.size(); ++i) cmd[i] = static_cast<uint8_t>(i);
    uint32_t page = 0;
    int64_t polls = 0;
    for (auto _ : state) {
        uint8_t wren = 0x06;
        KSI_WriteBytes(kSpi, 0, kFlashChannel, &wren, 1);
        cmd[0] = 0x02;
        cmd[1] = static_cast<uint8_t>(page >> 8);
        cmd[2] = static_cast<uint8_t>(page);
        KSI_WriteBytes(kSpi, 0, kFlashChannel, cmd.data(), static_cast<uint16_t>(cmd.size()));
        uint8_t rdsr = 0x05, status = 0x01;
        for (int i = 0; i < 1000 && (status & 0x01) != 0; ++i) {
            usleep(100);
            KSI_WriteReadBytes(kSpi, 0, kFlashChannel, &rdsr, 1, &status, 1);
            ++polls;
        }
        page = (page + 1) & 0x3FFF;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 256);
    state.counters["polls/page"] =
        benchmark::Counter(static_cast<double>(polls) / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_FlashPageProgram);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    // Results go to the stdout the program was started with; what the library prints, to /dev/null.
    std::fflush(stdout);
    int results_fd = dup(STDOUT_FILENO);
    int null_fd = open("/dev/null", O_WRONLY);
    if (results_fd < 0 || null_fd < 0 || dup2(null_fd, STDOUT_FILENO) < 0) {
        std::perror("bench_spi: cannot set stdout aside");
        return 1;
    }
    close(null_fd);
    std::ofstream results("/proc/self/fd/" + std::to_string(results_fd));
    benchmark::ConsoleReporter reporter(isatty(results_fd) != 0 ? benchmark::ConsoleReporter::OO_Defaults
                                                                : benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&results);
    reporter.SetErrorStream(&results);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
