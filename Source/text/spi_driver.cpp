#include "spi_driver.h"

#include <algorithm>
#include <cstring>

#include "corvel/protocol.hpp"
#include "usb_driver.h"

SPI_DATA SPI_Data{};

namespace {

namespace text = corvel::proto::text;

constexpr int kRawReadTimeoutMs = 500;

// Sends what the request holds, recorded in the record's message, and reads the status byte:
// 0 when it is `ok`, `unsent` when the request did not go out, else -10.
int exchange(SPI_DATA* data, Request& request, MSG_STATE ok, int unsent) {
    data->msg.message = request.code();
    data->msg.size = static_cast<int32_t>(request.payload().size());
    data->msg.PackNum = data->leaveDataPack;
    data->msg.status = MSG_NO_STATE;
    if (request.send(data->deviceNumber) != 0) return unsent;
    data->msg.status = USB_GetStatus(data->deviceNumber);
    return data->msg.status == ok ? 0 : -10;
}

// The data bytes followed by the channel, as the byte and bit transfers send them.
int send_data(SPI_DATA* data, int32_t code, MSG_STATE ok, int unsent) {
    if (data->dataLenght > text::kSpiDataMax) return -2;
    Request request(code, data->leaveDataPack);
    request.payload().bytes(data->p_sendDataBuff, data->dataLenght).u8(data->channelNum);
    return exchange(data, request, ok, unsent);
}

}  // namespace

int SPI_Init(SPI_DATA* data) {
    const SPI_INIT_INFO& info = data->spiInitInfo;
    Request request(MSG_KD_REQUEST_SET_SPI_INFORMATION, data->leaveDataPack);
    // Intended: the wire order differs from the record's field order.
    request.payload()
        .u8(info.ControlMode)
        .u8(info.ClockPolarity)
        .u8(info.ClockPhase)
        .u8(info.MasterMode)
        .u8(info.TranBits)
        .u8(info.LSBFirst)
        .u8(info.SelPolarity)
        .be32(info.ClockSpeed);
    return exchange(data, request, MSG_SPI_NINT_OK, -5);
}

int SPI_WriteData(SPI_DATA* data) {
    // Intended: an unsent byte write is reported as -6, unlike the other requests.
    return send_data(data, MSG_KD_REQUEST_SPI_DATAS_TRAN, MSG_SPI_WRITE_DATA_OK, -6);
}

int SPI_WriteDataBin(SPI_DATA* data) {
    return send_data(data, MSG_KD_REQUEST_SPI_BIN_DATAS_TRAN, MSG_SPI_WRITE_DATA_OK, -5);
}

int SPI_RequestReadData(SPI_DATA* data) {
    Request request(MSG_KD_REQUEST_SPI_DATAS_READ, data->leaveDataPack);
    request.payload().be16(data->dataLenght & 0xFFFF).u8(data->channelNum);
    return exchange(data, request, MSG_SPI_READ_DATA_OK, -5);
}

int SPI_RequestReadBits(SPI_DATA* data) {
    Request request(MSG_KD_REQUEST_SPI_BIN_DATAS_READ, data->leaveDataPack);
    request.payload().be32(data->dataLenght).u8(data->channelNum);
    return exchange(data, request, MSG_SPI_READ_DATA_OK, -5);
}

int SPI_WriteReadData(SPI_DATA* data) {
    if (data->dataLenght > text::kSpiDataMax) {
        const char refusal[] = "Request read data is too more!";
        std::memcpy(data->p_getDataBuff, refusal, sizeof refusal);
        return -2;
    }
    return send_data(data, MSG_KD_REQUEST_SPI_DATAS_TRAN_REC, MSG_SPI_WRITE_READ_DATA_OK, -5);
}

int SPI_WriteReadBits(SPI_DATA* data) {
    if (data->dataLenght > text::kSpiWriteReadBitsMax) return -2;
    return send_data(data, MSG_KD_REQUEST_SPI_BIN_TRAN_REC, MSG_SPI_WRITE_READ_DATA_OK, -5);
}

int SPI_ReadData(SPI_DATA* data) {
    const int32_t want = std::max<int32_t>(data->msg.size, 0);
    const int32_t n = USB_ReadRaw(data->deviceNumber, data->p_getDataBuff, want, kRawReadTimeoutMs);
    data->msg.size = std::clamp(n, 0, want);
    return n == want ? 0 : -6;
}
