// The ADC family: device management, board information, sampling set-up and sample blocks. The
// shared shapes come from the family kit (family.h); what is here is the family's payload layouts,
// the process-wide channel mask and its own oddities. No function takes the board lock (callers
// serialise them).
#include "ControlADC.h"

#include <array>
#include <atomic>
#include <bit>

#include "family.h"

using namespace corvel;
namespace adc = corvel::proto::adc;

namespace {

constexpr std::array<int32_t, 2> kAdcTypes = {KD_DEVTYPE_I2C, KD_DEVTYPE_SPI};
constexpr Family kAdc{kAdcTypes};

// The channel mask of the last initialisation, one per process and not per adapter (intended): it
// sizes every later read, on any adapter. 0 before any initialisation, so such a read asks for
// nothing.
std::atomic<uint8_t> adc_channel{0};

}  // namespace

// ---- Device management -------------------------------------------------------------------------

int32_t KAI_ScanDevice(uint8_t NeedInit) {
    return family_scan(NeedInit);
}

int32_t KAI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t /*Reserved*/) {
    return family_open(kAdc, DevType, DevIndex);
}

int32_t KAI_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return family_close(kAdc, DevType, DevIndex);
}

int32_t KAI_ReadBoardInfo(int32_t DevIndex, PKAI_BOARD_INFO pInfo) {
    return read_board_info(DevIndex, pInfo);
}

// ---- Sampling ----------------------------------------------------------------------------------

// The mask is stored before the request goes out, so it changes even when the send fails or the
// adapter refuses. Intended.
int32_t KAI_InitADC(int32_t DevType, int32_t DevIndex, uint8_t Channel, uint16_t Period) {
    if (const int32_t r = Check(kAdc, DevType, DevIndex); r != 0) return r;
    adc_channel.store(Channel);
    Request request(MSG_KD_ADC_INIT);
    request.payload().u8(Channel).be16(0).be16(Period);
    return request_status(DevIndex, request, MSG_ADC_NINT_OK);
}

// The byte count is fixed from the stored mask before the checks. The request goes through the
// status path; the samples then come raw (no header) on bulk IN straight into the caller's array,
// with a 10-second wait for the adapter to finish sampling. No byte count (no channel enabled) asks
// for nothing and succeeds.
int32_t KAI_ReadDatas(int32_t DevType, int32_t DevIndex, uint16_t DataNum, uint16_t* pData) {
    const std::size_t bytes = std::size_t{DataNum} * std::popcount(adc_channel.load()) * adc::kSampleSize;
    if (const int32_t r = Check(kAdc, DevType, DevIndex)
                              .not_null(pData)
                              .require(DataNum != 0 && DataNum <= adc::kMaxInstants, KD_ERR_DATA_FORMAT);
        r != 0)
        return r;
    Request request(MSG_KD_ADC_READ_DATA);
    request.payload().be16(0).be16(DataNum);
    if (const int32_t r = send_bare(DevIndex, request); r != 0) return r;
    return read_exact(DevIndex, reinterpret_cast<uint8_t*>(pData), bytes, adc::kReadTimeoutMs);
}
