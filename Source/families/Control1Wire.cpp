// The 1-Wire family: device management, board information, and the bus primitives (pin and
// timings, drive and read the line, write a bit or a byte, read a byte, switch the pin's
// direction). Reset, ROM commands and search are the caller's. No function checks its pointer and
// none takes the board lock (callers serialise them).
#include "Control1Wire.h"

#include <array>

#include "family.h"

using namespace corvel;
namespace onewire = corvel::proto::onewire;

namespace {

constexpr std::array<int32_t, 2> k1wTypes = {KD_DEVTYPE_I2C, KD_DEVTYPE_SPI};
constexpr Family k1w{k1wTypes};

// A command without data back: one byte, answered by a status byte.
int32_t command(int32_t DevType, int32_t DevIndex, int32_t code, uint8_t value) {
    if (const int32_t r = Check(k1w, DevType, DevIndex); r != 0) return r;
    Request request(code);
    request.payload().u8(value);
    return request_status(DevIndex, request, MSG_1WIRE_WRITE_DATA_OK);
}

// A request answered by a reply frame of exactly one payload byte, which lands in *pData (when
// given) only on success. A reply with another status and a reply that did not come are both -6
// (intended: not -10); *pData is then left as it was.
int32_t replied(int32_t DevType, int32_t DevIndex, int32_t code, MSG_STATE ok, uint8_t* pData = nullptr) {
    if (const int32_t r = Check(k1w, DevType, DevIndex); r != 0) return r;
    Request request(code);
    request.payload().u8(onewire::kReadRequest);
    std::array<uint8_t, onewire::kReplyPayloadSize> byte{};
    if (const int32_t r =
            request_reply(DevIndex, request, Reply::Exact, byte, ok, nullptr, KD_ERR_USB_READ_FAIL);
        r != 0)
        return r;
    if (pData != nullptr) *pData = byte[0];
    return KD_SUCCESS;
}

}  // namespace

// ---- Device management -------------------------------------------------------------------------

int32_t K1W_ScanDevice(uint8_t NeedInit) {
    return family_scan(NeedInit);
}

int32_t K1W_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t /*Reserved*/) {
    return family_open(k1w, DevType, DevIndex);
}

int32_t K1W_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return family_close(k1w, DevType, DevIndex);
}

int32_t K1W_ReadBoardInfo(int32_t DevIndex, PKGI_BOARD_INFO pInfo) {
    return read_board_info(DevIndex, pInfo);
}

// ---- Bus primitives ----------------------------------------------------------------------------

// Port, pin, then the low byte of each timing: values above 255 lose their high byte (intended).
int32_t KD_OW_Init(int32_t DevType, int32_t DevIndex, KD_1WIRE_INIT_CONFIG* OWConfig) {
    if (const int32_t r = Check(k1w, DevType, DevIndex); r != 0) return r;
    const KD_1WIRE_TIMING_CONFIG& t = OWConfig->timing;
    Request request(MSG_KD_1WIRE_INIT);
    request.payload().u8(OWConfig->port).u8(OWConfig->pin);
    for (uint16_t v :
         {t.tA, t.tB, t.tC, t.tD, t.tE, t.tF, t.tG, t.tH, t.tI, t.tJ, t.tR1, t.tR2, t.tR3, t.tR4, t.tR5})
        request.payload().u8(v & 0xFF);
    return request_status(DevIndex, request, MSG_1WIRE_NINT_OK);
}

int32_t KD_OW_Set_Pin(int32_t DevType, int32_t DevIndex, uint8_t bt) {
    return command(DevType, DevIndex, MSG_KD_1WIRE_SET_PIN, bt);
}

int32_t KD_OW_Read_Pin(int32_t DevType, int32_t DevIndex, uint8_t* pData) {
    return replied(DevType, DevIndex, MSG_KD_1WIRE_READ_PIN, MSG_1WIRE_READ_DATA_OK, pData);
}

int32_t KD_OW_Write_Bit(int32_t DevType, int32_t DevIndex, uint8_t bt) {
    return command(DevType, DevIndex, MSG_KD_1WIRE_WRITE_BIT, bt);
}

int32_t KD_OW_Write_Byte(int32_t DevType, int32_t DevIndex, uint8_t data) {
    return command(DevType, DevIndex, MSG_KD_1WIRE_WRITE_BYTE, data);
}

int32_t KD_OW_Read_Byte(int32_t DevType, int32_t DevIndex, uint8_t* pData) {
    return replied(DevType, DevIndex, MSG_KD_1WIRE_READ_BYTE, MSG_1WIRE_READ_DATA_OK, pData);
}

int32_t KD_OW_output_TX(int32_t DevType, int32_t DevIndex) {
    return replied(DevType, DevIndex, MSG_KD_1WIRE_OUTPUT_TX, MSG_1WIRE_OUTPUT_TX_OK);
}

int32_t KD_OW_input_RX(int32_t DevType, int32_t DevIndex) {
    return replied(DevType, DevIndex, MSG_KD_1WIRE_INPUT_RX, MSG_1WIRE_INPUT_RX_OK);
}
