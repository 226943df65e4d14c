// The I2C text commands: each parses its fields into I2C_Data and runs one driver routine, holding
// the board lock of the current I2C device for the whole call.
#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "CorvelText.h"
#include "i2c_driver.h"
#include "text_kit.h"
#include "usb_driver.h"

namespace proto = corvel::proto;
namespace text = corvel::text;

namespace {

// Holds the lock of the device current when the command starts, until the command returns.
class CommandLock {
  public:
    CommandLock() : device_(I2C_Data.deviceNumber) { lock(device_); }
    ~CommandLock() { unlock(device_); }
    CommandLock(const CommandLock&) = delete;
    CommandLock& operator=(const CommandLock&) = delete;

  private:
    int32_t device_;
};

// The text a buffer holds up to its first zero byte, never beyond its end.
template <std::size_t N>
std::string_view buffer_text(const std::array<uint8_t, N>& buffer) {
    const auto* chars = reinterpret_cast<const char*>(buffer.data());
    return {chars, strnlen(chars, N)};
}

// KDIF_I2C_Init
std::array<char, proto::text::kParamInput> init_input;
std::array<char*, proto::text::kParamFields> init_fields;
std::array<uint8_t, proto::text::kSmallBuffer> init_send;
std::array<uint8_t, proto::text::kSmallBuffer> init_receive;

// KDIF_I2C_WriteData
std::array<char, proto::text::kI2cWriteInput> write_input;
std::array<char*, proto::text::kI2cWriteFields> write_fields;
std::array<uint8_t, proto::text::kI2cSendBuffer> write_send;
// Intended: never cleared, so a good write after a refused one still answers "Write data error!".
std::array<uint8_t, proto::text::kSmallBuffer> write_receive;

// KDIF_I2C_ReadData
std::array<char, proto::text::kI2cReadInput> read_input;
std::array<char*, proto::text::kParamFields> read_fields;
std::array<uint8_t, proto::kPacketSize> read_send;
std::array<uint8_t, proto::text::kI2cReadBuffer> read_receive;  // readDataBuff
std::array<uint8_t, proto::text::kI2cCollect> read_collect;

// KDIF_I2C_SoftTimeSet
std::array<char, proto::text::kParamInput> time_input;
std::array<char*, proto::text::kParamFields> time_fields;
std::array<uint8_t, proto::kPacketSize> time_send;
std::array<uint8_t, proto::kPacketSize> time_receive;

constexpr std::size_t kParamLimit = proto::text::kParamFields - 2;  // 63 fields or more fail
constexpr std::size_t kInitFields = 6;
constexpr std::size_t kWriteFields = 3;  // before the data bytes
constexpr std::size_t kReadFields = 4;
constexpr std::size_t kTimeFields = 7;

}  // namespace

extern "C" {

CORVEL_API int32_t KDIF_I2C_SelectDevice(char* in, char* out) {
    return text::select_device(in, out, I2C_Data.deviceNumber, text::SelectLock::PreviousThenCurrent);
}

CORVEL_API int32_t KDIF_I2C_Init(char* in, char* out) {
    const CommandLock held;
    I2C_Data.p_getDataBuff = init_receive.data();
    I2C_Data.p_sendDataBuff = init_send.data();
    if (in == nullptr || out == nullptr) return -1;
    if (!text::copy_input(in, init_input)) {
        text::put(out, "input data error!");
        return -2;
    }
    const text::Fields fields(init_input.data(), init_fields, kParamLimit);
    if (fields.empty()) {
        text::put(out, "please input data!");
        return -3;
    }
    if (fields.too_many()) {
        text::put(out, "input data error!");
        return -2;
    }
    if (fields.count() < kInitFields) {
        text::put(out, "input data error!");
        return -3;
    }
    I2C_INIT_INFO& info = I2C_Data.i2cInitInfo;
    info.controlMode = static_cast<uint8_t>(fields.number(0));
    info.speed = static_cast<uint32_t>(fields.number(1));
    info.subAddrMode = static_cast<uint8_t>(fields.number(2));
    info.subAddrWidth = static_cast<uint8_t>(fields.number(3));
    info.slaveAddrMode = static_cast<uint8_t>(fields.number(4));
    info.channel = static_cast<uint8_t>(fields.number(5));
    I2C_Data.leaveDataPack = 0;
    const int result = I2C_Init(&I2C_Data);
    text::put(out, buffer_text(init_receive));
    return result;
}

CORVEL_API int32_t KDIF_I2C_WriteData(char* in, char* out) {
    const CommandLock held;
    I2C_Data.p_getDataBuff = write_receive.data();
    I2C_Data.p_sendDataBuff = write_send.data();
    if (in == nullptr || out == nullptr) return -1;
    if (!text::copy_input(in, write_input)) {
        text::put(out, "input data error!");
        return -2;
    }
    const text::Fields fields(write_input.data(), write_fields, proto::text::kI2cWriteFieldsFail - 1);
    if (fields.empty()) {
        text::put(out, "please input data!");
        return -3;
    }
    if (fields.too_many()) {
        text::put(out, "input data error!");
        return -2;
    }
    if (fields.count() < kWriteFields) return -3;
    I2C_Data.i2cInitInfo.slaveAddr = static_cast<uint16_t>(fields.number(0));
    I2C_Data.subAddr = static_cast<uint32_t>(fields.number(1));
    I2C_Data.i2cInitInfo.channel = static_cast<uint8_t>(fields.number(2));
    const std::size_t n = fields.count() - kWriteFields;
    for (std::size_t i = 0; i < n; ++i) write_send[i] = static_cast<uint8_t>(fields.number(kWriteFields + i));
    // Intended: the count travels as 16 bits, so only the first (n mod 65536) bytes go out.
    I2C_Data.dataLenght = static_cast<uint16_t>(n);
    I2C_Data.leaveDataPack = 0;
    const int result = I2C_WriteData(&I2C_Data);
    text::put(out, buffer_text(write_receive));
    return result;
}

CORVEL_API int32_t KDIF_I2C_ReadData(char* in, char* out) {
    const CommandLock held;
    I2C_Data.p_getDataBuff = read_receive.data();
    I2C_Data.p_sendDataBuff = read_send.data();
    std::size_t collected = 0;
    if (in == nullptr || out == nullptr) return -1;
    if (!text::copy_input(in, read_input)) {
        text::put(out, "input data error!");
        return -2;
    }
    const text::Fields fields(read_input.data(), read_fields, proto::text::kI2cReadFieldsFail - 1);
    if (fields.empty()) {
        text::put(out, "please input data!");
        return -3;
    }
    if (fields.too_many()) {
        text::put(out, "input data error!");
        return -2;
    }
    if (fields.count() < kReadFields) return -3;
    I2C_Data.i2cInitInfo.slaveAddr = static_cast<uint16_t>(fields.number(0));
    I2C_Data.subAddr = static_cast<uint32_t>(fields.number(1));
    I2C_Data.i2cInitInfo.channel = static_cast<uint8_t>(fields.number(2));
    I2C_Data.dataLenght = static_cast<uint16_t>(fields.number(3));
    I2C_Data.leaveDataPack = 0;
    if (const int refused = I2C_RequestReadData(&I2C_Data); refused != 0) {
        // Intended: the answer is whatever text an earlier read left in the data buffer.
        text::put(out, buffer_text(read_receive));
        return refused;
    }
    const S_MSG fetch{MSG_KD_REQUEST_IIC_ADDR_DATAS_REC, 0, MSG_NO_STATE, 0, nullptr};
    USB_SendStatus(I2C_Data.deviceNumber, fetch);

    I2C_Data.msg.size = I2C_Data.dataLenght;
    int result = 0;
    while (true) {
        result = I2C_ReadData(&I2C_Data, read_receive.size());
        if (result != 0) break;
        const auto size = static_cast<std::size_t>(I2C_Data.msg.size);
        const std::size_t take = std::min(size, read_collect.size() - collected);
        std::memcpy(read_collect.data() + collected, read_receive.data(), take);
        collected += take;
        // A full reply means more may follow; a full collection buffer ends the read as well.
        if (size < proto::text::kI2cReplyFull || collected == read_collect.size()) break;
    }
    if (collected > 0) {
        // Intended: data that came before a failure count as a successful read.
        text::Writer(out).hex_list({read_collect.data(), collected});
        return 0;
    }
    if (result == 0)
        text::put(out, "data size is 0!");
    else if (result == 1)
        text::put(out, "could not read data!");
    else
        text::put(out, "data send error!");
    return result;
}

CORVEL_API int32_t KDIF_I2C_SoftTimeSet(char* in, char* out) {
    const CommandLock held;
    I2C_Data.p_getDataBuff = time_receive.data();
    I2C_Data.p_sendDataBuff = time_send.data();
    if (in == nullptr || out == nullptr) return -1;
    if (!text::copy_input(in, time_input)) {
        text::put(out, "input data is too more!");
        return -2;
    }
    const text::Fields fields(time_input.data(), time_fields, kParamLimit);
    if (fields.empty()) {
        text::put(out, "please input data!");
        return -3;
    }
    if (fields.too_many()) {
        text::put(out, "input data is too more!");
        return -2;
    }
    if (fields.count() < kTimeFields) {
        text::put(out, "input data error!");
        return -3;
    }
    IIC_TIME& t = I2C_Data.i2cTime;
    // Intended: the repeated-start set-up time comes before the start hold time.
    t.tSU_STA = static_cast<uint16_t>(fields.number(0));
    t.tHD_STA = static_cast<uint16_t>(fields.number(1));
    t.tLOW = static_cast<uint16_t>(fields.number(2));
    t.tHIGH = static_cast<uint16_t>(fields.number(3));
    t.tSU_DAT = static_cast<uint16_t>(fields.number(4));
    t.tSU_STO = static_cast<uint16_t>(fields.number(5));
    t.tBuf = static_cast<uint16_t>(fields.number(6));
    I2C_Data.leaveDataPack = 0;
    const int result = I2C_SoftTimeSet(&I2C_Data);
    text::put(out, buffer_text(time_receive));
    return result;
}

}  // extern "C"
