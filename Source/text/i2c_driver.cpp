#include "i2c_driver.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "crc16.h"
#include "usb_driver.h"

I2C_DATA I2C_Data{};

namespace {

constexpr int kInitResends = 5;
constexpr int kLogAttempts = 3;
constexpr std::size_t kLogRequestSize = 64;
constexpr int32_t kLogReplyTooLong = 59;

void write_text(uint8_t* buffer, const char* text) {
    std::memcpy(buffer, text, std::strlen(text) + 1);
}

// Sends what the request holds and records it in the record's message.
int send(I2C_DATA* data, Request& request) {
    data->msg.message = request.code();
    data->msg.size = static_cast<int32_t>(request.payload().size());
    data->msg.PackNum = 0;
    return request.send(data->deviceNumber);
}

void build_init(Request& request, const I2C_INIT_INFO& info) {
    request.payload()
        .u8(info.controlMode)
        .be32(info.speed)
        .u8(info.subAddrMode)
        .u8(info.subAddrWidth)
        .u8(info.slaveAddrMode)
        .u8(info.channel);
}

}  // namespace

int I2C_Init(I2C_DATA* data) {
    {
        Request request(MSG_KD_REQUEST_SET_IIC_INFORMATION);
        build_init(request, data->i2cInitInfo);
        // Intended: the first send's result is not looked at; a missing status byte makes the
        // loop below send again.
        send(data, request);
    }
    data->msg.status = USB_GetStatus(data->deviceNumber);
    for (int i = 0; i < kInitResends && data->msg.status != MSG_I2C_NINT_OK; ++i) {
        Request request(MSG_KD_REQUEST_SET_IIC_INFORMATION);
        build_init(request, data->i2cInitInfo);
        if (send(data, request) != 0) return -5;
        data->msg.status = USB_GetStatus(data->deviceNumber);
    }
    if (data->msg.status == MSG_I2C_NINT_OK) {
        write_text(data->p_getDataBuff, "I2C Adapter initialize success!");
        return 0;
    }
    write_text(data->p_getDataBuff, "I2C Adapter initialize faild!");
    return -10;
}

int I2C_SoftTimeSet(I2C_DATA* data) {
    const IIC_TIME& t = data->i2cTime;
    Request request(MSG_KD_REQUEST_SOFT_SET_IIC_TIME_ONE_INFORMATION);
    // Intended: each time travels as a zero byte and its low byte, the repeated-start set-up
    // time first.
    for (const uint16_t value : {t.tSU_STA, t.tHD_STA, t.tLOW, t.tHIGH, t.tSU_DAT, t.tSU_STO, t.tBuf})
        request.payload().u8(0).u8(value & 0xFF);
    // Intended: an unsent timing request is reported as -6, unlike the other requests.
    if (send(data, request) != 0) return -6;
    data->msg.status = USB_GetStatus(data->deviceNumber);
    return data->msg.status == MSG_I2C_NINT_OK ? 0 : -10;
}

int I2C_WriteData(I2C_DATA* data) {
    Request request(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN);
    request.payload()
        .be16(data->i2cInitInfo.slaveAddr)
        .be32(data->subAddr)
        .u8(data->i2cInitInfo.channel)
        .bytes(data->p_sendDataBuff, data->dataLenght);
    data->msg.status = MSG_INIT_STATE;
    if (send(data, request) != 0) return -5;
    data->msg.status = USB_GetStatus(data->deviceNumber);
    if (data->msg.status == MSG_I2C_WRITE_DATA_OK) return 0;
    write_text(data->p_getDataBuff, "Write data error!");
    return -10;
}

int I2C_RequestReadData(I2C_DATA* data) {
    Request request(MSG_KD_REQUEST_IIC_DATAS_READ);
    request.payload()
        .be16(data->i2cInitInfo.slaveAddr)
        .be32(data->subAddr)
        .u8(data->i2cInitInfo.channel)
        .be16(data->dataLenght);
    if (send(data, request) != 0) return -5;
    data->msg.status = USB_GetStatus(data->deviceNumber);
    return data->msg.status == MSG_I2C_READ_DATA_OK ? 0 : -10;
}

int I2C_ReadData(I2C_DATA* data, std::size_t capacity) {
    const int32_t expected = data->msg.size;
    data->msg.lParam = data->p_getDataBuff;
    if (USB_GetMsgWithSize(data->deviceNumber, &data->msg, capacity) != 0) return -6;
    // The header's size is the adapter's word: what was stored is at most what was expected and
    // what the buffer holds.
    const auto announced = static_cast<std::size_t>(std::max<int32_t>(data->msg.size, 0));
    const std::size_t stored =
        std::min({announced, static_cast<std::size_t>(std::max<int32_t>(expected, 0)), capacity});
    data->msg.size = static_cast<int32_t>(stored);
    if (data->msg.status == MSG_I2C_READ_DATA_OK) return 0;
    return data->msg.status == MSG_I2C_NO_DATA ? -7 : -10;
}

int I2C_GetLogData(I2C_DATA* data) {
    std::array<uint8_t, kLogRequestSize> request{};
    bool good = false;
    for (int attempt = 0; attempt < kLogAttempts && !good; ++attempt) {
        request[0] = data->SerialNumber;
        const uint16_t crc = crc16_ccitt(request.data(), 1);
        request[1] = static_cast<uint8_t>(crc >> 8);
        request[2] = static_cast<uint8_t>(crc & 0xFF);
        data->msg = S_MSG{MSG_KD_REQUEST_IIC_DATAS_TRAN_I2CSTAT_INFO, 3, MSG_INIT_STATE, 0, request.data()};
        if (USB_SendMsg(data->deviceNumber, &data->msg) != 0) {
            data->msg.status = MSG_NO_STATE;
            continue;
        }
        data->msg.lParam = data->p_getDataBuff;
        if (USB_GetMsg(data->deviceNumber, &data->msg) != 0) {
            data->msg.status = MSG_NO_STATE;
            continue;
        }
        if (data->msg.size >= kLogReplyTooLong) {
            data->msg.status = MSG_MSG_DATA_TRAN_ERROR;
        } else if (data->msg.status == MSG_I2C_GETSTATS_OK) {
            // The last two payload bytes are the CRC of the ones before them, high byte first.
            const int32_t n = data->msg.size;
            const uint8_t* reply = data->p_getDataBuff;
            if (n < 2 ||
                crc16_ccitt(reply, static_cast<std::size_t>(n - 2)) != (reply[n - 2] << 8 | reply[n - 1]))
                data->msg.status = MSG_MSG_DATA_TRAN_CRC_ERROR;
        }
        // The adapter refused the sequence number: start again from 0.
        if (data->msg.status == MSG_MSG_DATA_TRAN_SRL_ERROR) data->SerialNumber = 0;
        good = data->msg.status == MSG_I2C_GETSTATS_OK;
    }
    if (!good) return 2;
    ++data->SerialNumber;
    return 0;
}
