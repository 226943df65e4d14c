// The PWM family: device management, configuration of up to eight outputs, start and stop, and
// duty-cycle and frequency changes. The shared shapes come from the family kit (family.h); what is
// here is the family's limits, its payload layouts and its own oddities. Every command is answered
// by one status byte, "PWM done" (62) for all of them.
#include "ControlPWM.h"

#include <array>

#include "family.h"

using namespace corvel;
namespace pwm = corvel::proto::pwm;

namespace {

constexpr std::array<int32_t, 2> kPwmTypes = {KD_DEVTYPE_I2C, KD_DEVTYPE_SPI};
constexpr Family kPwm{kPwmTypes};

// The board lock is held around the send and, separately, around the status read: it is free in
// between, so another thread's transfer may come between a request and its answer. Intended.
int32_t locked_exchange(int32_t DevIndex, Request& request) {
    {
        BoardLock hold(DevIndex);
        if (const int32_t r = send(DevIndex, request); r != 0) return r;
    }
    BoardLock hold(DevIndex);
    return read_status(DevIndex, MSG_PWM_CMD_OK);
}

// Start and stop: the mask alone.
int32_t mask_command(int32_t DevType, int32_t DevIndex, int32_t code, uint8_t ChannelMask) {
    if (const int32_t r = Check(kPwm, DevType, DevIndex); r != 0) return r;
    Request request(code);
    request.payload().u8(ChannelMask);
    return locked_exchange(DevIndex, request);
}

}  // namespace

// ---- Device management -------------------------------------------------------------------------

int32_t KPI_ScanDevice(uint8_t NeedInit) {
    return family_scan(NeedInit);
}

int32_t KPI_OpenDevice(int32_t DevType, int32_t DevIndex, int32_t /*Reserved*/) {
    return family_open(kPwm, DevType, DevIndex);
}

int32_t KPI_CloseDevice(int32_t DevType, int32_t DevIndex) {
    return family_close(kPwm, DevType, DevIndex);
}

// ---- Commands ----------------------------------------------------------------------------------

// Mode 3 skips the polarity and pulse checks (intended). The payload starts mode, mask, polarity,
// pulse, which is not the record's field order (intended).
int32_t KPI_InitPWM(int32_t DevType, int32_t DevIndex, PKPI_INIT_CONFIG pInitConfig) {
    if (const int32_t r = Check(kPwm, DevType, DevIndex).not_null(pInitConfig); r != 0) return r;
    const KPI_INIT_CONFIG& c = *pInitConfig;
    const bool checked = c.PWM_Mode != pwm::kModeUnchecked;
    constexpr int32_t bad = KD_ERR_DATA_FORMAT;
    if (const int32_t r =
            Check::ranges()
                .require(c.PWM_Mode <= pwm::kMaxMode, bad)
                .require(!checked || (c.PWM_Polarity <= pwm::kMaxPolarity && c.PWM_Pulse <= pwm::kMaxPulse),
                         bad)
                .require(c.PWM_Frequency >= pwm::kMinFrequencyHz && c.PWM_Frequency <= pwm::kMaxFrequencyHz,
                         bad);
        r != 0)
        return r;
    Request request(MSG_KD_PWM_INIT);
    request.payload()
        .u8(c.PWM_Mode)
        .u8(c.PWM_ChannelMask)
        .u8(c.PWM_Polarity)
        .u8(c.PWM_Pulse)
        .be32(c.PWM_Frequency);
    return locked_exchange(DevIndex, request);
}

int32_t KPI_StartPWM(int32_t DevType, int32_t DevIndex, uint8_t ChannelMask) {
    return mask_command(DevType, DevIndex, MSG_KD_PWM_START, ChannelMask);
}

int32_t KPI_StopPWM(int32_t DevType, int32_t DevIndex, uint8_t ChannelMask) {
    return mask_command(DevType, DevIndex, MSG_KD_PWM_STOP, ChannelMask);
}

// Always eight values, whatever the mask selects; the adapter applies those of the masked outputs.
// Neither the array pointer nor the values are checked here (intended: the adapter refuses a bad
// value of a masked output).
int32_t KPI_SetPWMPulse(int32_t DevType, int32_t DevIndex, uint8_t ChannelMask, uint8_t* pPulse) {
    if (const int32_t r = Check(kPwm, DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_PWM_SET_PULSE);
    request.payload().u8(ChannelMask).bytes(pPulse, pwm::kChannels);
    return locked_exchange(DevIndex, request);
}

// As the pulse change: eight frequencies, unchecked (intended).
int32_t KPI_SetPWMPeriod(int32_t DevType, int32_t DevIndex, uint8_t ChannelMask, uint32_t* Frequency) {
    if (const int32_t r = Check(kPwm, DevType, DevIndex); r != 0) return r;
    Request request(MSG_KD_PWM_SET_PERIOD);
    request.payload().u8(ChannelMask);
    for (int i = 0; i < pwm::kChannels; ++i) request.payload().be32(Frequency[i]);
    return locked_exchange(DevIndex, request);
}
