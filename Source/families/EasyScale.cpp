// The EasyScale family: the line's timings and a series of commands to EasyScale devices. Unlike
// the other families, nothing is checked: not the device type, not the connection, not the
// pointers (intended). No function takes the board lock (callers serialise them).
#include "EasyScale.h"

#include "family.h"

using namespace corvel;
namespace es = corvel::proto::easyscale;

// ---- Device management: the board functions, the device type ignored --------------------------

int32_t KEI_ScanDevice(uint8_t NeedInit) {
    return family_scan(NeedInit);
}

// Goes straight to the board open: no type check and no lock creation (intended).
int32_t KEI_OpenDevice(int32_t /*DevType*/, int32_t DevIndex, int32_t /*Reserved*/) {
    return KD_OpenBoard(DevIndex);
}

int32_t KEI_CloseDevice(int32_t /*DevType*/, int32_t DevIndex) {
    return KD_CloseBoard(DevIndex);
}

// ---- Line set-up and commands ------------------------------------------------------------------

// Fourteen 16-bit values: the channel, the idle level, then the timings in the adapter's order,
// which is not the record's (intended). Channel and level go out as their low 16 bits.
int32_t KEI_InitES(int32_t /*DevType*/, int32_t DevIndex, int32_t ESChannel, int32_t InitPinValue,
                   PKEI_ES_TIMING pESTiming) {
    const KEI_ES_TIMING& t = *pESTiming;
    Request request(MSG_KD_ES_INIT);
    request.payload()
        .be16(static_cast<uint32_t>(ESChannel) & 0xFFFF)
        .be16(static_cast<uint32_t>(InitPinValue) & 0xFFFF);
    for (uint16_t v : {t.ESDelay, t.ESDetect, t.ESWin, t.HighBit_THigh, t.HighBit_TLow, t.LowBit_THigh,
                       t.LowBit_TLow, t.TACKN, t.TEos, t.TStart, t.TValACK, t.TShutDown})
        request.payload().be16(v);
    return request_status(DevIndex, request, MSG_ES_INIT_OK);
}

// One message per command, each answered by a status byte; the first failure ends the series and
// the commands before it stay sent. The data byte is packed in EasyScale's bit order: request for
// acknowledge in bit 7, sub-address in bits 6-5, value in bits 4-0.
int32_t KEI_Transmit(int32_t /*DevType*/, int32_t DevIndex, int32_t ESChannel, PKEI_ES_OBJ pESData,
                     int32_t Len) {
    for (int32_t i = 0; i < Len; ++i) {
        const KEI_ES_OBJ& c = pESData[i];
        const auto data = static_cast<uint8_t>((c.RFA ? es::kRfaBit : 0) | c.SubAddr << es::kSubAddrShift |
                                               (c.Data & es::kDataMask));
        Request request(MSG_KD_ES_WRITE_DATA);
        request.payload().be16(static_cast<uint32_t>(ESChannel) & 0xFFFF).u8(c.DevAddr).u8(data).u8(c.ESMode);
        if (const int32_t r = request_status(DevIndex, request, MSG_ES_WRITE_DATA_OK); r != 0) return r;
    }
    return KD_SUCCESS;
}
