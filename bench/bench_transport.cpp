// Throughput of the send and receive paths on the virtual adapter, from the frame builder down to
// the drop-in libusb (whose adapter model is part of what is measured).
#include <benchmark/benchmark.h>

#include <array>
#include <vector>

#include "ControlI2C.h"
#include "CorvelBoard.h"
#include "corvel/sim.hpp"
#include "usb_driver.h"

namespace {

void open_one_adapter() {
    corvel::sim::virtual_clock(true);
    corvel::sim::capture(false);
    corvel::sim::configure({corvel::sim::AdapterSpec{}});
    KD_EnumBoard(1);
    KD_OpenBoard(0);
}

void BM_SendFrame(benchmark::State& state) {
    open_one_adapter();
    std::vector<uint8_t> payload(static_cast<std::size_t>(state.range(0)), 0x5A);
    S_MSG msg{MSG_KD_REQUEST_SPI_DATAS_TRAN, static_cast<int32_t>(payload.size()), MSG_NO_STATE, 0,
              payload.data()};
    for (auto _ : state) {
        benchmark::DoNotOptimize(USB_SendMsg(0, &msg));
        corvel::sim::clear_in(0);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_SendFrame)->Arg(0)->Arg(57)->Arg(505)->Arg(4096)->Arg(65535);

// The same frames as the families send them: the payload is written once, straight into the send
// buffer behind the header, and goes down from there.
void BM_SendRequestInPlace(benchmark::State& state) {
    open_one_adapter();
    std::vector<uint8_t> payload(static_cast<std::size_t>(state.range(0)), 0x5A);
    for (auto _ : state) {
        Request request(MSG_KD_REQUEST_SPI_DATAS_TRAN);
        request.payload().bytes(payload);
        benchmark::DoNotOptimize(request.send(0));
        corvel::sim::clear_in(0);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_SendRequestInPlace)->Arg(0)->Arg(57)->Arg(505)->Arg(4096)->Arg(65535);

void BM_ProductInfoRoundTrip(benchmark::State& state) {
    open_one_adapter();
    KII_BOARD_INFO info{};
    for (auto _ : state) benchmark::DoNotOptimize(KII_ReadBoardInfo(0, &info));
}
BENCHMARK(BM_ProductInfoRoundTrip);

void BM_I2cEepromRead(benchmark::State& state) {
    open_one_adapter();
    KII_INIT_CONFIG c{1, 0, 7, 1, 0, 100000};
    KII_InitI2C(1, 0, 0, &c);
    std::array<uint8_t, 256> out{};
    const auto n = static_cast<uint16_t>(state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(KII_ReadBytes(1, 0, 0, 0xA0, 0, out.data(), n));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * n);
}
BENCHMARK(BM_I2cEepromRead)->Arg(1)->Arg(16)->Arg(256);

void BM_ErrorString(benchmark::State& state) {
    char text[32];
    int32_t code = 0;
    for (auto _ : state) {
        KDI_GetErrorString(code, text);
        benchmark::DoNotOptimize(text);
        code = code <= -20 ? 1 : code - 1;
    }
}
BENCHMARK(BM_ErrorString);

}  // namespace

BENCHMARK_MAIN();
