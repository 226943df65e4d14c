// The USART driver layer of the text interface: line settings, data packets out, received bytes in.
#include "usart_driver.h"

#include "corvel/protocol.hpp"
#include "usb_driver.h"

namespace proto = corvel::proto;
namespace usart = corvel::proto::usart;

USART_DATA USART_Data{};

namespace {

// Sends the record's message with `size` bytes at `payload` and maps the status byte.
int send_with_status(USART_DATA* d, int32_t code, uint8_t* payload, int32_t size, MSG_STATE ok) {
    d->msg.message = code;
    d->msg.size = size;
    d->msg.PackNum = d->leaveDataPack;
    d->msg.lParam = payload;
    if (USB_SendMsg(d->deviceNumber, &d->msg) != 0) return -5;
    return USB_GetStatus(d->deviceNumber) == ok ? 0 : -10;
}

}  // namespace

// Only the low byte of the stop bits, word length and parity goes out, and the stop bits come
// before the word length: the adapter's layout.
int USART_Init(USART_DATA* data) {
    const USART_InitTypeDef& line = data->USART_InitData;
    proto::Writer w({data->p_sendDataBuff, usart::kInitSize});
    w.be32(line.USART_BaudRate).u8(line.USART_StopBits).u8(line.USART_WordLength).u8(line.USART_Parity);
    w.be16(line.USART_Mode).u8(data->USART_Channel);
    return send_with_status(data, MSG_KD_REQUEST_SET_USART_INFORMATION, data->p_sendDataBuff,
                            static_cast<int32_t>(w.size()), MSG_USART_NINT_OK);
}

int USART_WriteData(USART_DATA* data) {
    if (data->dataLenght > usart::kWritePacketMax) return 1;
    return send_with_status(data, MSG_KD_REQUEST_USART_DATAS_TRAN, data->p_sendDataBuff, data->dataLenght,
                            MSG_USART_WRITE_DATA_OK);
}

// Two requests: whether bytes wait (one status byte, 0 for none), then the bytes in one reply.
// A failed receive returns the receive's own result (1).
int USART_ReadData(USART_DATA* data) {
    data->msg.message = MSG_KD_REQUEST_USART_DATAS_READ;
    data->msg.size = 0;
    data->msg.PackNum = 0;
    data->msg.lParam = nullptr;
    if (USB_SendStatus(data->deviceNumber, data->msg) != 0) return -5;
    if (USB_GetStatus(data->deviceNumber) == MSG_NO_STATE) return -7;
    data->msg.message = MSG_KD_REQUEST_USART_DATAS_REC;
    data->msg.size = 0;
    if (USB_SendMsg(data->deviceNumber, &data->msg) != 0) return -5;
    data->msg.lParam = data->p_getDataBuff;
    return USB_GetMsg(data->deviceNumber, &data->msg, usart::kReadReplyMax);
}
