// The USART text commands: the line settings, bytes to send (cut into numbered packets) and the
// bytes received. There is no device selection: the record's device, 0, is used.
#include <algorithm>
#include <array>

#include "CorvelText.h"
#include "corvel/protocol.hpp"
#include "text_kit.h"
#include "usart_driver.h"

using namespace corvel;
namespace tx = corvel::proto::text;
namespace usart = corvel::proto::usart;

namespace {

// Each command's own buffers; callers serialise the commands (no lock is taken here).
std::array<char, tx::kParamInput> init_input{};
std::array<char*, tx::kParamFields> init_table{};
std::array<uint8_t, tx::kSmallBuffer> init_send{};
std::array<char, tx::kUsartWriteInput> write_input{};
std::array<char*, tx::kUsartWriteFields> write_table{};
std::array<uint8_t, tx::kUsartSendBuffer> write_send{};
std::array<char, proto::kPacketSize> write_receive{};  // a text that stays empty
std::array<uint8_t, proto::kPacketSize> read_receive{};

constexpr text::Refusal kInitRefusal{"input data error!", "please input data!", "input data error!"};
constexpr text::Refusal kWriteRefusal{"input data error!"};

// One packet from the send buffer; on a refusal `out` gets the receive buffer's text.
int32_t send_packet(std::size_t offset, std::size_t length, std::size_t still_to_follow, char* out) {
    USART_Data.dataLenght = static_cast<uint16_t>(length);
    USART_Data.leaveDataPack = static_cast<uint8_t>(still_to_follow);
    USART_Data.p_sendDataBuff = write_send.data() + offset;
    const int result = USART_WriteData(&USART_Data);
    if (result != 0) text::put(out, write_receive.data());
    return result;
}

}  // namespace

// Fields: channel, baud rate, stop bits, word length, parity, mode (stop bits before word length,
// intended). Nothing is written to `out` once the fields are taken.
int32_t KDIF_USART_Init(char* in, char* out) {
    USART_Data.p_sendDataBuff = init_send.data();
    USART_Data.p_getDataBuff = read_receive.data();
    if (in == nullptr || out == nullptr) return -1;
    bool copied = false;
    const text::Fields fields =
        text::split_copy(in, init_input, init_table, tx::kUsartInitFieldsFail - 1, copied);
    if (const int32_t refused = text::judge(copied, fields, 6, kInitRefusal, out); refused != 0)
        return refused;
    USART_InitTypeDef& line = USART_Data.USART_InitData;
    USART_Data.USART_Channel = static_cast<uint8_t>(fields.number(0));
    line.USART_BaudRate = static_cast<uint32_t>(fields.number(1));
    line.USART_StopBits = static_cast<uint16_t>(fields.number(2));
    line.USART_WordLength = static_cast<uint16_t>(fields.number(3));
    line.USART_Parity = static_cast<uint16_t>(fields.number(4));
    line.USART_Mode = static_cast<uint16_t>(fields.number(5));
    USART_Data.leaveDataPack = 0;
    return USART_Init(&USART_Data);
}

// Packets of 510 bytes, each numbered with the count of packets after it; the last one is 0.
int32_t KDIF_USART_WriteData(char* in, char* out) {
    USART_Data.p_sendDataBuff = write_send.data();
    USART_Data.p_getDataBuff = reinterpret_cast<uint8_t*>(write_receive.data());
    if (in == nullptr || out == nullptr) return -1;
    bool copied = false;
    const text::Fields fields =
        text::split_copy(in, write_input, write_table, tx::kUsartWriteFieldsFail - 1, copied);
    if (const int32_t refused = text::judge(copied, fields, 1, kWriteRefusal, out); refused != 0)
        return refused;
    const std::size_t n = fields.count();
    for (std::size_t i = 0; i < n; ++i) write_send[i] = static_cast<uint8_t>(fields.number(i));
    constexpr std::size_t L = usart::kTextPacket;
    const std::size_t whole = n / L;
    const std::size_t rest = n % L;
    int32_t result = 0;
    for (std::size_t i = 0; i < whole; ++i) {
        const std::size_t after = rest != 0 ? whole - i : whole - i - 1;
        result = send_packet(i * L, L, after, out);
        if (result != 0) return result;
    }
    if (rest == 0) return result;
    return send_packet(whole * L, rest, 0, out);
}

// `in` is not looked at. The reply's size field is not trusted: at most the bytes one reply holds
// are written. An empty answer is written as "0x00", the first byte of the cleared buffer
// (intended).
int32_t KDIF_USART_ReadData(char* /*in*/, char* out) {
    if (out == nullptr) return -1;
    read_receive.fill(0);
    USART_Data.p_getDataBuff = read_receive.data();
    const int result = USART_ReadData(&USART_Data);
    if (result != 0) {
        text::put(out, "no data");
        return result;
    }
    const auto size = std::clamp<int32_t>(USART_Data.msg.size, 1, static_cast<int32_t>(usart::kReadReplyMax));
    text::Writer(out).hex_list({read_receive.data(), static_cast<std::size_t>(size)});
    return 0;
}
