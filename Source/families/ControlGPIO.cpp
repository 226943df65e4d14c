// The GPIO family: device management, board information, pin direction and drive, pin levels and
// the adapter's I2C sniffer switch. The shared shapes come from the family kit (family.h); what is
// here is the family's payload layouts and its own oddities. Only the sniffer read request takes
// the board lock; the other functions take none (callers serialise them).
#include "ControlGPIO.h"

#include <array>

#include "family.h"

using namespace corvel;
namespace gpio = corvel::proto::gpio;

namespace {

constexpr std::array<int32_t, 2> kGpioTypes = {KD_DEVTYPE_I2C, KD_DEVTYPE_SPI};
constexpr Family kGpio{kGpioTypes};

// Configuration, writes and the sniffer switch are fire-and-forget: after the type and connection
// checks the request is built by `build` and sent, 0 once it went out, -5 when it did not. No status
// byte is read (intended: the adapter sends none for them).
template <typename Build>
int32_t fire_and_forget(int32_t DevType, int32_t DevIndex, int32_t code, Build build) {
    if (const int32_t r = Check(kGpio, DevType, DevIndex); r != 0) return r;
    Request request(code);
    build(request);
    return send(DevIndex, request);
}

// A 16-bit mask goes out as two zero bytes and the mask; an Ex mask as one zero byte and its low
// 24 bits (the top byte is dropped).
proto::Writer& mask16(Request& r, uint16_t PinMask) {
    return r.payload().be16(0).be16(PinMask);
}
proto::Writer& mask24(Request& r, uint32_t PinMask) {
    return r.payload().be32(PinMask & gpio::kExMaskBits);
}

// Both reads answer with a 4-byte reply frame whose bytes 2-3 are the levels of pins 15..0: only
// 16 levels come back, even for a 24-pin mask (intended). A reply whose status is not "read done"
// and a reply that did not come are both -6, not -10 (intended).
template <typename Build>
int32_t read_levels(int32_t DevType, int32_t DevIndex, uint16_t* pData, int32_t code, Build build) {
    if (const int32_t r = Check(kGpio, DevType, DevIndex).not_null(pData); r != 0) return r;
    Request request(code);
    build(request);
    std::array<uint8_t, gpio::kReadReplySize> reply{};
    if (const int32_t r = request_reply(DevIndex, request, Reply::Exact, reply, MSG_GPIO_READ_DATA_OK,
                                        nullptr, KD_ERR_USB_READ_FAIL);
        r != 0)
        return r;
    *pData = static_cast<uint16_t>(reply[2] << 8 | reply[3]);
    return KD_SUCCESS;
}

}  // namespace

// ---- Device management -------------------------------------------------------------------------

int32_t KGI_ScanDevice(uint8_t NeedInit) {
    return family_scan(NeedInit);
}

int32_t KGI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t /*Reserved*/) {
    return family_open(kGpio, DevType, DevIndex);
}

int32_t KGI_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return family_close(kGpio, DevType, DevIndex);
}

int32_t KGI_ReadBoardInfo(int32_t DevIndex, PKGI_BOARD_INFO pInfo) {
    return read_board_info(DevIndex, pInfo);
}

// ---- Direction, drive and levels ---------------------------------------------------------------

int32_t KGI_InitGPIO(int32_t DevType, int32_t DevIndex, uint16_t PinMask, uint32_t PinMode) {
    return fire_and_forget(DevType, DevIndex, MSG_KD_REQUEST_GPIO_INIT,
                           [&](Request& r) { mask16(r, PinMask).be32(PinMode); });
}

int32_t KGI_InitGPIOEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask, uint32_t PinMode) {
    return fire_and_forget(DevType, DevIndex, MSG_KD_REQUEST_GPIO_INIT_EX,
                           [&](Request& r) { mask24(r, PinMask).be32(PinMode); });
}

int32_t KGI_WriteDatas(int32_t DevType, int32_t DevIndex, uint16_t PinMask, uint16_t Data) {
    return fire_and_forget(DevType, DevIndex, MSG_KD_REQUEST_GPIO_WRITE_DATA,
                           [&](Request& r) { mask16(r, PinMask).be16(0).be16(Data); });
}

// Only the low 16 bits of Data go out, whatever the mask reaches: intended.
int32_t KGI_WriteDatasEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask, uint32_t Data) {
    return fire_and_forget(DevType, DevIndex, MSG_KD_REQUEST_GPIO_WRITE_DATA_EX,
                           [&](Request& r) { mask24(r, PinMask).be16(0).be16(Data & 0xFFFF); });
}

int32_t KGI_ReadDatas(int32_t DevType, int32_t DevIndex, uint16_t PinMask, uint16_t* pData) {
    return read_levels(DevType, DevIndex, pData, MSG_KD_REQUEST_GPIO_READ_DATA_WITH_SIZE,
                       [&](Request& r) { mask16(r, PinMask); });
}

int32_t KGI_ReadDatasEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask, uint16_t* pData) {
    return read_levels(DevType, DevIndex, pData, MSG_KD_REQUEST_GPIO_READ_DATA_EX,
                       [&](Request& r) { mask24(r, PinMask); });
}

// ---- Conveniences: one call of a function above with a fixed value ------------------------------

int32_t KGI_SetPins(int32_t DevType, int32_t DevIndex, uint16_t Pins) {
    return KGI_WriteDatas(DevType, DevIndex, Pins, 0xFFFF);
}

int32_t KGI_ResetPins(int32_t DevType, int32_t DevIndex, uint16_t Pins) {
    return KGI_WriteDatas(DevType, DevIndex, Pins, 0);
}

int32_t KGI_SetInput(int32_t DevType, int32_t DevIndex, uint16_t Pins) {
    return KGI_InitGPIO(DevType, DevIndex, Pins, gpio::kModeInput);
}

int32_t KGI_SetOutput(int32_t DevType, int32_t DevIndex, uint16_t Pins) {
    return KGI_InitGPIO(DevType, DevIndex, Pins, gpio::kModeOutput);
}

int32_t KGI_SetOpenDrain(int32_t DevType, int32_t DevIndex, uint16_t Pins) {
    return KGI_InitGPIO(DevType, DevIndex, Pins, gpio::kModeOpenDrain);
}

// Sets pins 0 to 15 only (Data 0xFFFF): pins 16 to 23 of the mask are driven low. Intended.
int32_t KGI_SetPinsEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask) {
    return KGI_WriteDatasEx(DevType, DevIndex, PinMask, 0xFFFF);
}

int32_t KGI_ResetPinsEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask) {
    return KGI_WriteDatasEx(DevType, DevIndex, PinMask, 0);
}

int32_t KGI_SetInputEx(int32_t DevType, int32_t DevIndex, uint32_t Pins) {
    return KGI_InitGPIOEx(DevType, DevIndex, Pins, gpio::kModeInput);
}

int32_t KGI_SetOutputEx(int32_t DevType, int32_t DevIndex, uint32_t PinMask) {
    return KGI_InitGPIOEx(DevType, DevIndex, PinMask, gpio::kModeOutput);
}

int32_t KGI_SetOpenDrainEx(int32_t DevType, int32_t DevIndex, uint32_t Pins) {
    return KGI_InitGPIOEx(DevType, DevIndex, Pins, gpio::kModeOpenDrain);
}

// ---- The I2C sniffer ---------------------------------------------------------------------------

int32_t KGI_I2C_Sniffer_Control(int32_t DevType, int32_t DevIndex, uint8_t channel, uint8_t on) {
    return fire_and_forget(DevType, DevIndex, MSG_KD_REQUEST_GPIO_I2C_SNIFFER_CONTROL,
                           [&](Request& r) { r.payload().u8(channel).u8(on); });
}

// Sends only the read request, under the board lock (the family's one locked call); nothing is read
// back and pReadData is neither checked nor written. Intended: applications fetch the captured data
// themselves.
int32_t KGI_I2C_Sniffer_ReadDatas(int32_t DevType, int32_t DevIndex, uint8_t channel,
                                  uint8_t* /*pReadData*/) {
    if (const int32_t r = Check(kGpio, DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_REQUEST_GPIO_I2C_SNIFFER_READ_DATA);
    request.payload().u8(channel);
    BoardLock hold(DevIndex);
    return send(DevIndex, request);
}
