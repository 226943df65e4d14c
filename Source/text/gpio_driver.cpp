// The GPIO driver layer of the text interface: one message per routine to the record's device.
#include "gpio_driver.h"

#include "corvel/protocol.hpp"
#include "usb_driver.h"

namespace proto = corvel::proto;

GPIO_DATA GPIO_Data{};

namespace {

// The levels answer carries 4 bytes; the receive buffer of the read command holds 64.
constexpr std::size_t kReceiveRoom = proto::text::kSmallBuffer;

// Builds `size` payload bytes (mask, then data when size is 8) in the send buffer and sends them.
int send(GPIO_DATA* d, int32_t code, int32_t size) {
    proto::Writer w({d->p_sendDataBuff, proto::text::kSmallBuffer});
    w.be32(d->mask);
    if (size == 8) w.be32(d->data);
    d->msg.message = code;
    d->msg.size = size;
    d->msg.PackNum = 0;
    d->msg.lParam = d->p_sendDataBuff;
    return USB_SendMsg(d->deviceNumber, &d->msg) == 0 ? 0 : -5;
}

}  // namespace

// Intended: no answer is awaited after the initialisation or the write.
int GPIO_Init(GPIO_DATA* data) {
    return send(data, MSG_KD_REQUEST_GPIO_INIT, 8);
}

int GPIO_WriteData(GPIO_DATA* data) {
    return send(data, MSG_KD_REQUEST_GPIO_WRITE_DATA, 8);
}

// The levels are the payload's first four bytes, big-endian. The bytes are cleared first, so an
// answer that announces fewer than four gives zeros for the missing ones, never stale levels.
int GPIO_ReadData(GPIO_DATA* data) {
    if (const int sent = send(data, MSG_KD_REQUEST_GPIO_READ_DATA, 4); sent != 0) return sent;
    uint8_t* levels = data->p_getDataBuff;
    proto::put_be32(levels, 0);
    data->msg.lParam = levels;
    if (USB_GetMsg(data->deviceNumber, &data->msg, kReceiveRoom) != 0) return -6;
    if (data->msg.status != MSG_GPIO_READ_DATA_OK) return -6;
    data->data = proto::get_be32(levels);
    return 0;
}
