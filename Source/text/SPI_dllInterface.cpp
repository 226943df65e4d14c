// The SPI text commands: each parses its fields into SPI_Data and runs the driver routines. They
// take no lock of their own: callers sharing an adapter between threads serialise them.
#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string_view>

#include "CorvelText.h"
#include "bit_string.h"
#include "spi_driver.h"
#include "text_kit.h"
#include "usb_driver.h"

namespace proto = corvel::proto;
namespace text = corvel::text;
namespace bits = corvel::bits;

namespace {

constexpr std::size_t kDataInput = 514100;  // a data list: up to five characters per byte
constexpr std::size_t kDataLimit = 102801;  // 102800 bytes and the channel
constexpr std::size_t kSendBuffer = 102810;
constexpr std::size_t kParamLimit = proto::text::kParamFields - 2;  // 63 fields or more fail
constexpr std::size_t kInitFields = 8;
constexpr uint8_t kSoftControlMode = 2;

using Table = std::array<char*, proto::text::kParamFields>;

// KDIF_SPI_Init
std::array<char, proto::text::kParamInput> init_input;
Table init_fields;
std::array<uint8_t, proto::text::kSmallBuffer> init_send;
std::array<uint8_t, proto::text::kSmallBuffer> init_receive;

// KDIF_SPI_WriteData
std::array<char, kDataInput> write_input;
std::array<char*, kDataLimit + 1> write_fields;
std::array<uint8_t, kSendBuffer> write_send;
std::array<uint8_t, proto::text::kSmallBuffer> write_receive;

// KDIF_SPI_ReadData
std::array<char, proto::text::kParamInput> read_input;
Table read_fields;
std::array<uint8_t, proto::text::kSmallBuffer> read_send;
std::array<uint8_t, proto::text::kSpiDataMax> read_receive;

// KDIF_SPI_WriteReadData
std::array<char, kDataInput> write_read_input;
std::array<char*, kDataLimit + 1> write_read_fields;
std::array<uint8_t, kSendBuffer> write_read_send;
std::array<uint8_t, proto::text::kSpiDataMax> write_read_receive;

// The bit commands. The bit reads collect their packets in one buffer.
std::array<char, kDataInput> bits_input;
Table bits_fields;
std::array<uint8_t, kSendBuffer> bits_send;
std::array<uint8_t, proto::text::kSpiBitPacket> bits_receive;
std::array<uint8_t, proto::text::kSpiDataMax> bits_collect;

// The text a buffer holds up to its first zero byte, never beyond its end.
std::string_view buffer_text(std::span<const uint8_t> buffer) {
    const auto* chars = reinterpret_cast<const char*>(buffer.data());
    return {chars, strnlen(chars, buffer.size())};
}

std::span<const uint8_t> field_bytes(const char* field) {
    return {reinterpret_cast<const uint8_t*>(field), std::strlen(field)};
}

void use_buffers(std::span<uint8_t> send, std::span<uint8_t> receive) {
    SPI_Data.p_sendDataBuff = send.data();
    SPI_Data.p_getDataBuff = receive.data();
}

// Copies and splits `in`: 0, or the refusal (-3 "Data input is too less!" below `least` fields,
// -2 with `too_many` beyond `limit` or for an input that does not fit) written to `out`.
int split(const char* in, char* out, std::span<char> input, std::span<char*> table, std::size_t limit,
          std::size_t least, std::string_view too_many, text::Fields& fields) {
    if (!text::copy_input(in, input)) {
        text::put(out, too_many);
        return -2;
    }
    fields = text::Fields(input.data(), table, limit);
    if (fields.too_many()) {
        text::put(out, too_many);
        return -2;
    }
    if (fields.count() < least) {
        text::put(out, "Data input is too less!");
        return -3;
    }
    return 0;
}

void request_read_data() {
    USB_SendStatus(SPI_Data.deviceNumber, S_MSG{MSG_KD_REQUEST_SPI_DATAS_REC, 0, MSG_NO_STATE, 0, nullptr});
}

// Asks for the data of a bit read and reads `nbits` bits in packets of 512 bytes, then prints them.
int read_bits(uint32_t nbits, char* out) {
    request_read_data();
    const std::size_t total = bits::packed_size(nbits);
    std::size_t collected = 0;
    int result = 0;
    SPI_Data.p_getDataBuff = bits_receive.data();
    while (collected < total && collected < bits_collect.size()) {
        const std::size_t size =
            std::min({total - collected, bits_receive.size(), bits_collect.size() - collected});
        SPI_Data.msg.size = static_cast<int32_t>(size);
        result = SPI_ReadData(&SPI_Data);
        const auto got = static_cast<std::size_t>(SPI_Data.msg.size);
        std::memcpy(bits_collect.data() + collected, bits_receive.data(), got);
        collected += got;
        if (result != 0 || got < bits_receive.size()) break;
    }
    if (collected > 0) {
        const std::size_t shown = std::min<std::size_t>(nbits, collected * 8);
        bits::unpack(bits_collect.data(), shown, reinterpret_cast<uint8_t*>(out));
        return 0;
    }
    text::put(out, result != 0 ? "data send error!" : "data size is 0!");
    return result;
}

// Packs a bit string into `send` from its start: the number of bytes written, or 0 (and the
// refusal written) when a character is neither '0' nor '1'.
std::size_t pack_bits(const char* field, char* out) {
    const std::span<const uint8_t> text_bits = field_bytes(field);
    if (!bits::is_bit_text(text_bits)) {
        text::put(out, "In put data error!");
        return 0;
    }
    const std::size_t n = bits::packed_size(text_bits.size());
    for (std::size_t i = 0; i < n; ++i) bits_send[i] = bits::packed_byte(text_bits, i);
    return n;
}

bool soft_control(char* out) {
    if (SPI_Data.spiInitInfo.ControlMode == kSoftControlMode) return true;
    text::put(out, "SPI is not soft control mode!");
    return false;
}

}  // namespace

extern "C" {

CORVEL_API int32_t KDIF_SPI_SelectDevice(char* in, char* out) {
    return text::select_device(in, out, SPI_Data.deviceNumber, text::SelectLock::None);
}

CORVEL_API int32_t KDIF_SPI_Init(char* in, char* out) {
    use_buffers(init_send, init_receive);
    if (in == nullptr || out == nullptr) return -1;
    if (!text::copy_input(in, init_input)) {
        text::put(out, "Data input too much!");
        return -2;
    }
    const text::Fields fields(init_input.data(), init_fields, kInitFields);
    if (fields.too_many()) {
        text::put(out, "Data input too much!");
        return -2;
    }
    if (fields.count() < kInitFields) {
        text::put(out, "Data input too less!");
        return -3;
    }
    SPI_INIT_INFO& info = SPI_Data.spiInitInfo;
    info.ControlMode = static_cast<uint8_t>(fields.number(0));
    info.ClockPolarity = static_cast<uint8_t>(fields.number(1));
    info.ClockPhase = static_cast<uint8_t>(fields.number(2));
    info.MasterMode = static_cast<uint8_t>(fields.number(3));
    info.TranBits = static_cast<uint8_t>(fields.number(4));
    info.LSBFirst = static_cast<uint8_t>(fields.number(5));
    info.SelPolarity = static_cast<uint8_t>(fields.number(6));
    info.ClockSpeed = static_cast<uint32_t>(fields.number(7));
    SPI_Data.leaveDataPack = 0;
    const int result = SPI_Init(&SPI_Data);
    if (result != 0) text::Writer(out).text("status ").dec(SPI_Data.msg.status);
    return result;
}

CORVEL_API int32_t KDIF_SPI_WriteData(char* in, char* out) {
    use_buffers(write_send, write_receive);
    if (in == nullptr || out == nullptr) return -1;
    text::Fields fields;
    if (const int r =
            split(in, out, write_input, write_fields, kDataLimit, 1, "Data input is too more!", fields);
        r != 0)
        return r;
    const std::size_t n = fields.count() - 1;
    for (std::size_t i = 0; i < n; ++i) write_send[i] = static_cast<uint8_t>(fields.number(i));
    SPI_Data.channelNum = static_cast<uint8_t>(fields.number(n));
    SPI_Data.dataLenght = static_cast<uint32_t>(n);
    SPI_Data.leaveDataPack = 0;
    const int result = SPI_WriteData(&SPI_Data);
    if (result != 0) text::put(out, "spi send data error!");
    return result;
}

CORVEL_API int32_t KDIF_SPI_ReadData(char* in, char* out) {
    use_buffers(read_send, read_receive);
    if (in == nullptr || out == nullptr) return -1;
    text::Fields fields;
    if (const int r =
            split(in, out, read_input, read_fields, kParamLimit, 2, "Data input is too more!", fields);
        r != 0)
        return r;
    // Intended: the count is kept to 16 bits, so the limit below never refuses one.
    SPI_Data.dataLenght = static_cast<uint16_t>(fields.number(0));
    if (SPI_Data.dataLenght > proto::text::kSpiDataMax) {
        text::put(out, "Request read data is too more!");
        return -4;
    }
    SPI_Data.channelNum = static_cast<uint8_t>(fields.number(1));
    SPI_Data.leaveDataPack = 0;
    if (const int refused = SPI_RequestReadData(&SPI_Data); refused != 0) {
        text::put(out, "request read data error!");
        return refused;
    }
    request_read_data();
    SPI_Data.msg.size = static_cast<int32_t>(SPI_Data.dataLenght);
    if (SPI_ReadData(&SPI_Data) != 0) {
        text::put(out, "data read error!");
        return -6;
    }
    text::Writer(out).hex_list({read_receive.data(), static_cast<std::size_t>(SPI_Data.msg.size)});
    return 0;
}

CORVEL_API int32_t KDIF_SPI_WriteReadData(char* in, char* out) {
    use_buffers(write_read_send, write_read_receive);
    if (in == nullptr || out == nullptr) return -1;
    text::Fields fields;
    if (const int r = split(in, out, write_read_input, write_read_fields, kDataLimit, 2,
                            "Data input is too more!", fields);
        r != 0)
        return r;
    const std::size_t n = fields.count() - 2;
    const auto count = static_cast<uint32_t>(fields.number(n));
    if (count > proto::text::kSpiDataMax) {
        text::put(out, "Request read data is too more!");
        return -4;
    }
    for (std::size_t i = 0; i < n; ++i) write_read_send[i] = static_cast<uint8_t>(fields.number(i));
    write_read_send[n] = static_cast<uint8_t>(count >> 8);
    write_read_send[n + 1] = static_cast<uint8_t>(count);
    SPI_Data.dataLenght = static_cast<uint32_t>(n + 2);
    SPI_Data.channelNum = static_cast<uint8_t>(fields.number(n + 1));
    SPI_Data.leaveDataPack = 0;
    if (const int refused = SPI_WriteReadData(&SPI_Data); refused != 0) {
        text::put(out, buffer_text(write_read_receive));
        return refused;
    }
    request_read_data();
    SPI_Data.msg.size = static_cast<int32_t>(count);
    if (const int failed = SPI_ReadData(&SPI_Data); failed != 0) {
        text::Writer(out).text("data send error! ").dec(failed);
        return -6;
    }
    text::Writer(out).hex_list({write_read_receive.data(), static_cast<std::size_t>(SPI_Data.msg.size)});
    return 0;
}

CORVEL_API int32_t KDIF_SPI_WriteBits(char* in, char* out) {
    use_buffers(bits_send, bits_receive);
    if (in == nullptr || out == nullptr) return -1;
    if (!soft_control(out)) return -4;
    text::Fields fields;
    if (const int r = split(in, out, bits_input, bits_fields, 2, 2, "Data input is too more!", fields);
        r != 0)
        return r;
    const std::size_t packed = pack_bits(fields[0], out);
    if (packed == 0) return -4;
    const auto nbits = static_cast<uint32_t>(std::strlen(fields[0]));
    std::array<uint8_t, 4> count{};
    corvel::proto::put_be32(count.data(), nbits);
    std::memcpy(bits_send.data() + packed, count.data(), count.size());
    SPI_Data.dataLenght = static_cast<uint32_t>(packed + count.size());
    SPI_Data.channelNum = static_cast<uint8_t>(fields.number(1));
    SPI_Data.leaveDataPack = 0;
    const int result = SPI_WriteDataBin(&SPI_Data);
    if (result != 0) text::put(out, "spi send data error!");
    return result;
}

CORVEL_API int32_t KDIF_SPI_ReadBits(char* in, char* out) {
    use_buffers(bits_send, bits_receive);
    if (in == nullptr || out == nullptr) return -1;
    if (!soft_control(out)) return -4;
    text::Fields fields;
    if (const int r = split(in, out, bits_input, bits_fields, 2, 2, "Data input is too more!", fields);
        r != 0)
        return r;
    // Intended: the count is kept to 16 bits, so the limit below never refuses one.
    SPI_Data.dataLenght = static_cast<uint16_t>(fields.number(0));
    if (SPI_Data.dataLenght > proto::text::kSpiDataMax) {
        text::put(out, "Request read data is too more!");
        return -4;
    }
    SPI_Data.channelNum = static_cast<uint8_t>(fields.number(1));
    SPI_Data.leaveDataPack = 0;
    if (const int refused = SPI_RequestReadBits(&SPI_Data); refused != 0) {
        text::put(out, "request read data error!");
        return refused;
    }
    return read_bits(SPI_Data.dataLenght, out);
}

CORVEL_API int32_t KDIF_SPI_WriteReadBits(char* in, char* out) {
    use_buffers(bits_send, bits_receive);
    if (in == nullptr || out == nullptr) return -1;
    if (!soft_control(out)) return -4;
    text::Fields fields;
    if (const int r = split(in, out, bits_input, bits_fields, 3, 3, "Data input is too more!", fields);
        r != 0)
        return r;
    const std::size_t packed = pack_bits(fields[0], out);
    if (packed == 0) return -4;
    const auto write_bits = static_cast<uint32_t>(std::strlen(fields[0]));
    const auto read_count = static_cast<uint32_t>(fields.number(1));
    std::array<uint8_t, 8> counts{};
    corvel::proto::put_be32(counts.data(), write_bits);
    corvel::proto::put_be32(counts.data() + 4, read_count);
    std::memcpy(bits_send.data() + packed, counts.data(), counts.size());
    SPI_Data.dataLenght = static_cast<uint32_t>(packed + counts.size());
    SPI_Data.channelNum = static_cast<uint8_t>(fields.number(2));
    SPI_Data.leaveDataPack = 0;
    if (const int refused = SPI_WriteReadBits(&SPI_Data); refused != 0) {
        text::put(out, "spi write read data error!");
        return refused;
    }
    return read_bits(read_count, out);
}

}  // extern "C"
