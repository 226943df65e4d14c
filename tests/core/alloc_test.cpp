// The send and receive paths allocate nothing: every allocation whose caller lies inside the shipped
// library is counted while the family functions run against the virtual adapter.
#include <gtest/gtest.h>
#include <link.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>

#include "ControlCAN.h"
#include "ControlI2C.h"
#include "ControlSPI.h"
#include "wire.hpp"

extern "C" void* __libc_malloc(std::size_t);
extern "C" void* __libc_calloc(std::size_t, std::size_t);
extern "C" void* __libc_realloc(void*, std::size_t);
extern "C" void __libc_free(void*);

namespace {

std::atomic<bool> counting{false};
std::atomic<int> library_allocations{0};
uintptr_t library_begin = 0;
uintptr_t library_end = 0;

void note(void* caller) {
    const auto at = reinterpret_cast<uintptr_t>(caller);
    if (counting.load(std::memory_order_relaxed) && at >= library_begin && at < library_end)
        ++library_allocations;
}

int find_library(dl_phdr_info* info, std::size_t, void*) {
    if (std::strstr(info->dlpi_name, "libCorvel_Driver.so") == nullptr) return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const auto& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD) continue;
        const uintptr_t lo = info->dlpi_addr + ph.p_vaddr;
        if (library_begin == 0 || lo < library_begin) library_begin = lo;
        if (lo + ph.p_memsz > library_end) library_end = lo + ph.p_memsz;
    }
    return 1;
}

}  // namespace

extern "C" void* malloc(std::size_t n) {
    note(__builtin_return_address(0));
    return __libc_malloc(n);
}
extern "C" void* calloc(std::size_t n, std::size_t size) {
    note(__builtin_return_address(0));
    return __libc_calloc(n, size);
}
extern "C" void* realloc(void* p, std::size_t n) {
    note(__builtin_return_address(0));
    return __libc_realloc(p, n);
}
void* operator new(std::size_t n) {
    note(__builtin_return_address(0));
    if (void* p = __libc_malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    __libc_free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    __libc_free(p);
}

namespace {

using namespace corvel::test;
namespace sim = corvel::sim;

TEST(Allocation, NoneOnTheSendAndReceivePaths) {
    dl_iterate_phdr(find_library, nullptr);
    ASSERT_NE(library_begin, 0u);

    sim::configure({adapter("A"), adapter("S", KD_DEVTYPE_SPI), adapter("C", KD_DEVTYPE_CAN2)});
    ASSERT_EQ(KII_OpenDevice(1, 0, 0), 0);
    ASSERT_EQ(KSI_OpenDevice(2, 1, 0), 0);
    ASSERT_EQ(VCI_OpenDevice(4, 2, 0), 1u);
    sim::silence(2, true);
    // Warm-up: a thread's first message allocates that thread's buffer set (and the first transfer
    // the device list's table of handles in use); from then on nothing is allocated per message.
    KII_INIT_CONFIG c{1, 0, 7, 1, 0, 100000};
    ASSERT_EQ(KII_InitI2C(1, 0, 0, &c), 0);

    counting = true;
    uint8_t bytes[64] = {1, 2, 3};
    uint16_t remain = 0;
    KII_BOARD_INFO info;
    uint8_t answer[8];
    EXPECT_EQ(KII_WriteBytes(1, 0, 0, 0xA0, 0, bytes, 8), 0);
    EXPECT_EQ(KII_ReadBytes(1, 0, 0, 0xA0, 0, bytes, 64), 0);
    EXPECT_EQ(KII_WriteReadBytes(1, 0, 0, 0xA0, 0, bytes, 0, 0, bytes, 16, 0), 0);
    EXPECT_EQ(KII_SlaveWriteRemain(1, 0, 0, &remain), 0);
    EXPECT_EQ(KII_WriteUserData(1, 0, 0, bytes, 64), 0);
    EXPECT_EQ(KII_ReadUserData(1, 0, 0, bytes, 64), 0);
    EXPECT_EQ(KII_ReadBoardInfo(0, &info), 0);
    EXPECT_EQ(KD_ExecuteCommand(KD_CMD_GET_CORVEL_VN, 0, 0, answer), 0);
    // The SPI handshake: request, status, data-request message, raw data.
    uint8_t jedec = 0x9F;
    uint8_t text[17];
    EXPECT_EQ(KSI_WriteBytes(2, 1, 1, bytes, 8), 0);
    EXPECT_EQ(KSI_WriteReadBytes(2, 1, 0, &jedec, 1, bytes, 3), 0);
    EXPECT_EQ(KSI_ReadBits(2, 1, 1, text, 16), 0);
    EXPECT_EQ(KSI_BlockReadBytes(2, 1, 0, bytes, 8, 4, 10), 0);
    // CAN frames out and the receive queue read.
    VCI_CAN_OBJ frames[16]{};
    inject_bulk(status_answer(MSG_CAN_WRITE_DATA_OK), 2);
    EXPECT_EQ(VCI_Transmit(4, 2, 0, frames, 16), 16u);
    EXPECT_EQ(VCI_Receive(4, 2, 0, frames, 16, 0), 0u);
    counting = false;
    EXPECT_EQ(library_allocations.load(), 0);

    // The counter does see the library's own allocations: a scan that finds a new adapter
    // allocates its list node.
    sim::configure({adapter("A"), adapter("S", KD_DEVTYPE_SPI), adapter("C", KD_DEVTYPE_CAN2), adapter("B")});
    counting = true;
    EXPECT_EQ(KD_EnumBoard(1), 4);
    counting = false;
    EXPECT_GT(library_allocations.load(), 0);
}

}  // namespace
