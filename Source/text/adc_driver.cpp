// The ADC driver layer of the text interface: the sampling set-up and the raw sample packets.
#include "adc_driver.h"

#include "corvel/protocol.hpp"
#include "usb_driver.h"

namespace proto = corvel::proto;

ADC_DATA ADC_Data{};

uint32_t BitCount(uint32_t data) {
    uint32_t n = 0;
    for (; data != 0; data &= data - 1) ++n;
    return n;
}

int ADC_Init(ADC_DATA* data) {
    proto::Writer w({data->p_sendDataBuff, proto::text::kSmallBuffer});
    w.u8(data->adcInitInfo.Channel).be32(data->adcInitInfo.SampleCycle);
    data->msg.message = MSG_KD_ADC_INIT;
    data->msg.size = static_cast<int32_t>(w.size());
    data->msg.PackNum = 0;
    data->msg.lParam = data->p_sendDataBuff;
    if (USB_SendMsg(data->deviceNumber, &data->msg) != 0) return -5;
    return USB_GetStatus(data->deviceNumber) == MSG_ADC_NINT_OK ? 0 : -10;
}

// The samples come without framing: exactly msg.size bytes or a failure.
int ADC_Read(ADC_DATA* data) {
    const int32_t n =
        USB_ReadRaw(data->deviceNumber, data->p_getDataBuff, data->msg.size, proto::adc::kReadTimeoutMs);
    if (n != data->msg.size) {
        data->msg.status = MSG_ADC_READ_DATA_ERROR;
        return -6;
    }
    data->msg.status = MSG_ADC_READ_DATA_OK;
    return 0;
}

int ADC_Control(ADC_DATA* /*data*/) {
    return 0;
}
