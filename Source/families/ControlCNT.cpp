// The counter family: device management and up to four pulse counters. The shared shapes come from
// the family kit (family.h); what is here is the family's payload layouts and its own oddities. No
// function takes the board lock (callers serialise them), and no function checks its pointer.
#include "ControlCNT.h"

#include <array>
#include <bit>

#include "family.h"

using namespace corvel;
namespace cnt = corvel::proto::cnt;

namespace {

// The open goes straight to the board open, without creating the lock: intended.
constexpr std::array<int32_t, 2> kCntTypes = {KD_DEVTYPE_I2C, KD_DEVTYPE_SPI};
constexpr Family kCnt{kCntTypes, /*open_creates_lock=*/false};

// Only the low four bits of a mask are sent: counters 0 to 3.
uint8_t counters(uint8_t Channel) {
    return Channel & cnt::kChannelMask;
}

bool selected(uint8_t mask, int counter) {
    return (mask >> counter & 1) != 0;
}

// Start and stop: the mask alone, answered by a status byte.
int32_t mask_command(int32_t DevType, int32_t DevIndex, int32_t code, uint8_t Channel) {
    if (const int32_t r = Check(kCnt, DevType, DevIndex); r != 0) return r;
    Request request(code);
    request.payload().u8(counters(Channel));
    return request_status(DevIndex, request, MSG_MSG_EXECUT_OK);
}

}  // namespace

// ---- Device management -------------------------------------------------------------------------

int32_t CNT_ScanDevice(uint8_t NeedInit) {
    return family_scan(NeedInit);
}

int32_t CNT_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t /*Reserved*/) {
    return family_open(kCnt, DevType, DevIndex);
}

int32_t CNT_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return family_close(kCnt, DevType, DevIndex);
}

// ---- Commands ----------------------------------------------------------------------------------

// The width goes first, not in the record's field order: intended.
int32_t CNT_InitCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel, PCNT_INIT_CONFIG pInitConfig) {
    if (const int32_t r = Check(kCnt, DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_CNT_INIT);
    request.payload()
        .u8(counters(Channel))
        .u8(pInitConfig->CounterBitWide)
        .u8(pInitConfig->CounterMode)
        .u8(pInitConfig->CounterPolarity);
    return request_status(DevIndex, request, MSG_MSG_EXECUT_OK);
}

// The mask, then the next packed value for each selected counter, ascending.
int32_t CNT_SetCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel, uint32_t* pCounterValue) {
    if (const int32_t r = Check(kCnt, DevType, DevIndex); r != 0) return r;
    const uint8_t mask = counters(Channel);
    Request request(MSG_KD_CNT_SET);
    request.payload().u8(mask);
    const uint32_t* value = pCounterValue;
    for (int i = 0; i < cnt::kCounters; ++i)
        if (selected(mask, i)) request.payload().be32(*value++);
    return request_status(DevIndex, request, MSG_MSG_EXECUT_OK);
}

// The reply frame carries 4 bytes per selected counter; its status is not examined (intended). A
// reply that announces fewer bytes leaves the missing values 0; with no counter selected a
// header-only reply is read and nothing is written.
int32_t CNT_GetCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel, uint32_t* pCounterValue) {
    if (const int32_t r = Check(kCnt, DevType, DevIndex); r != 0) return r;
    const uint8_t mask = counters(Channel);
    Request request(MSG_KD_CNT_GET);
    request.payload().u8(mask);
    std::array<uint8_t, cnt::kCounters * cnt::kValueSize> reply{};
    const auto expected = std::span(reply).first(std::popcount(mask) * cnt::kValueSize);
    if (const int32_t r = request_reply(DevIndex, request, Reply::Exact, expected); r != 0) return r;
    proto::Reader in(expected);
    uint32_t* value = pCounterValue;
    for (int i = 0; i < cnt::kCounters; ++i)
        if (selected(mask, i)) *value++ = in.be32();
    return KD_SUCCESS;
}

int32_t CNT_StartCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel) {
    return mask_command(DevType, DevIndex, MSG_KD_CNT_START, Channel);
}

int32_t CNT_StopCounter(int32_t DevType, int32_t DevIndex, uint8_t Channel) {
    return mask_command(DevType, DevIndex, MSG_KD_CNT_STOP, Channel);
}
