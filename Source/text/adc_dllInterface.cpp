// The ADC text commands: "channelMask|samplePeriod" starts the sampling, "count" fetches count
// samples per selected channel as "0x%04X" entries.
#include <algorithm>
#include <array>
#include <cstring>

#include "CorvelText.h"
#include "adc_driver.h"
#include "corvel/protocol.hpp"
#include "text_kit.h"
#include "usb_driver.h"

using namespace corvel;
namespace tx = corvel::proto::text;

namespace {

// Shared by the commands, which callers serialise (no lock is taken here).
std::array<char*, tx::kParamFields> table{};
std::array<uint8_t, tx::kSmallBuffer> send_buffer{};
std::array<uint8_t, tx::kSmallBuffer> receive_buffer{};
std::array<uint8_t, tx::kAdcPacket> packet{};
std::array<uint8_t, 4> read_request{};
std::array<uint8_t, tx::kAdcCollect> collected{};

constexpr text::Refusal kRefusal{"input data is too more!"};
constexpr uint32_t kSampleBits = 0xFFF;

// Sends the read request (its result is not examined: a request that did not go out shows as no
// data) and collects the packets of `total` bytes. The byte count collected; `failed` tells
// whether a read failed.
std::size_t collect(std::size_t total, bool& failed) {
    ADC_Data.msg.message = MSG_KD_ADC_READ_DATA;
    ADC_Data.msg.size = static_cast<int32_t>(read_request.size());
    ADC_Data.msg.PackNum = 0;
    ADC_Data.msg.lParam = read_request.data();
    USB_SendStatus(ADC_Data.deviceNumber, ADC_Data.msg);
    const std::size_t packets = (total + tx::kAdcPacket - 1) / tx::kAdcPacket;
    std::size_t got = 0;
    failed = false;
    for (std::size_t i = 0; i < packets; ++i) {
        const std::size_t rest = total % tx::kAdcPacket;
        const std::size_t size = i + 1 < packets || rest == 0 ? tx::kAdcPacket : rest;
        ADC_Data.msg.size = static_cast<int32_t>(size);
        if (ADC_Read(&ADC_Data) != 0) {
            failed = true;
            break;
        }
        std::memcpy(collected.data() + got, packet.data(), size);
        got += size;
        if (size < tx::kAdcPacket) break;
    }
    return got;
}

}  // namespace

int32_t KDIF_ADC_SelectDevice(char* in, char* out) {
    return text::select_device(in, out, ADC_Data.deviceNumber, text::SelectLock::None);
}

// The caller's text is split in place. On success `out` is left as the caller gave it (intended).
int32_t KDIF_ADC_Init(char* in, char* out) {
    ADC_Data.p_sendDataBuff = send_buffer.data();
    ADC_Data.p_getDataBuff = receive_buffer.data();
    if (in == nullptr || out == nullptr) return -1;
    const text::Fields fields(in, table, 2);
    if (const int32_t refused = text::judge(true, fields, 1, kRefusal, out); refused != 0) return refused;
    ADC_Data.adcInitInfo.Channel = static_cast<uint8_t>(fields.number(0));
    if (ADC_Data.adcInitInfo.Channel == 0) {
        text::put(out, "please select channels!");
        return -4;
    }
    if (fields.count() < 2) {
        text::put(out, kRefusal.too_few);
        return -3;
    }
    ADC_Data.adcInitInfo.SampleCycle = static_cast<uint32_t>(fields.number(1));
    const int result = ADC_Init(&ADC_Data);
    if (result != 0) text::put(out, "adc init error!");
    return result;
}

// The whole input is one number. The samples are 16 bits, least significant byte first; only their
// low 12 bits are written. Intended: data that came before a failed packet count as success.
int32_t KDIF_ADC_ReadData(char* in, char* out) {
    ADC_Data.p_getDataBuff = packet.data();
    if (in == nullptr || out == nullptr) return -1;
    // Taken as the 32 bits the request carries, so a negative count is a huge one.
    const auto count = static_cast<uint32_t>(text::number(in));
    proto::put_be32(read_request.data(), count);
    const uint64_t total = uint64_t{BitCount(ADC_Data.adcInitInfo.Channel)} * count * proto::adc::kSampleSize;
    if (total == 0) {
        text::put(out, "number of requests to read data size is 0");
        return -4;
    }
    if (total > collected.size()) {
        text::put(out, "number of requests to read data size is too large");
        return -4;
    }
    bool failed = false;
    const std::size_t got = collect(static_cast<std::size_t>(total), failed);
    if (got == 0) {
        text::put(out, failed ? "data read error!" : "data size is 0!");
        return failed ? -6 : -7;
    }
    text::Writer w(out);
    for (std::size_t i = 0; i + 1 < got; i += 2) {
        if (i > 0) w.ch('|');
        w.hex((collected[i] | collected[i + 1] << 8) & kSampleBits, 4);
    }
    return 0;
}
