#include "usb_driver.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "bytes.h"
#include "libusb_driver.h"
#include "lock.h"
#include "usb_list.h"

using corvel::get_be16;
using corvel::put_be16;
using corvel::put_be32;

namespace {

constexpr std::size_t kShortHeaderSize = 7;
constexpr std::size_t kLongHeaderSize = 9;
constexpr std::size_t kZeroLengthMultiple = 64;

// Fixed buffers: nothing is allocated per message.
std::array<uint8_t, kSendBufferSize> send_buffer;
std::array<uint8_t, kPacketSize> packet_buffer;
std::array<uint8_t, kLongReplyBufferSize> long_buffer;

char* as_chars(uint8_t* p) {
    return reinterpret_cast<char*>(p);
}

void decode_reply_header(const uint8_t* p, S_MSG* msg) {
    msg->message = static_cast<int32_t>(corvel::get_be32(p));
    msg->status = static_cast<MSG_STATE>(p[4]);
    msg->size = get_be16(p + 5);
}

uint8_t fail_receive(S_MSG* msg) {
    msg->message = 0;
    return 1;
}

void copy_payload(S_MSG* msg, const uint8_t* from, std::size_t n) {
    if (n > 0 && msg->lParam != nullptr) std::memcpy(msg->lParam, from, n);
}

}  // namespace

// A frame whose length is a multiple of 64 gets one more zero-length write here on top of the one
// the raw write adds after each packet-multiple write, so three zero-length packets follow it in
// all. The firmware expects exactly this.
uint8_t USB_SendMsg(int32_t dev, S_MSG* msg) {
    uint8_t* buf = send_buffer.data();
    put_be32(buf, static_cast<uint32_t>(msg->message));
    buf[4] = msg->PackNum;
    std::size_t header = kShortHeaderSize;
    if (msg->message >= kLongHeaderFirstCode) {
        put_be32(buf + 5, static_cast<uint32_t>(msg->size));
        header = kLongHeaderSize;
    } else {
        put_be16(buf + 5, static_cast<uint32_t>(msg->size));
    }
    // The frame must fit the send buffer (payload at most 102793 bytes, or 102791 with the long
    // header); one that does not fails as a short write would.
    const int64_t length = int64_t{msg->size} + static_cast<int64_t>(header);
    if (msg->size < 0 || length > static_cast<int64_t>(kSendBufferSize)) return 1;
    if (msg->size > 0) {
        if (msg->lParam == nullptr) return 1;
        std::memcpy(buf + header, msg->lParam, static_cast<std::size_t>(msg->size));
    }
    const int32_t n = LibUSBWriteData(static_cast<uint32_t>(dev), kPipeBulkOut, as_chars(buf),
                                      static_cast<int32_t>(length), kSendTimeoutMs);
    if (n != length) return 1;
    if (length % kZeroLengthMultiple == 0)
        LibUSBWriteData(static_cast<uint32_t>(dev), kPipeBulkOut, as_chars(buf), 0, kZeroLengthTimeoutMs);
    return 0;
}

// A reply counts only when the read returns a full 512-byte packet, whatever its payload length.
uint8_t USB_GetMsg(int32_t dev, S_MSG* msg, std::size_t capacity) {
    packet_buffer.fill(0);
    const int32_t n = LibUSBReadData(static_cast<uint32_t>(dev), kPipeBulkIn, as_chars(packet_buffer.data()),
                                     static_cast<int32_t>(kPacketSize), kPacketTimeoutMs);
    if (n != static_cast<int32_t>(kPacketSize)) return fail_receive(msg);
    decode_reply_header(packet_buffer.data(), msg);
    copy_payload(msg, packet_buffer.data() + kReplyHeaderSize,
                 std::min({static_cast<std::size_t>(msg->size), kPacketPayloadMax, capacity}));
    return 0;
}

uint8_t USB_GetMsgWithSize(int32_t dev, S_MSG* msg, std::size_t capacity) {
    packet_buffer.fill(0);
    const int64_t want = int64_t{msg->size} + static_cast<int64_t>(kReplyHeaderSize);
    if (msg->size < 0 || want > static_cast<int64_t>(kPacketSize)) return fail_receive(msg);
    const int32_t n = LibUSBReadData(static_cast<uint32_t>(dev), kPipeBulkIn, as_chars(packet_buffer.data()),
                                     static_cast<int32_t>(want), kExactReadTimeoutMs);
    if (n != want) return fail_receive(msg);
    decode_reply_header(packet_buffer.data(), msg);
    const std::size_t received = static_cast<std::size_t>(n) - kReplyHeaderSize;
    copy_payload(msg, packet_buffer.data() + kReplyHeaderSize,
                 std::min({static_cast<std::size_t>(msg->size), received, capacity}));
    return 0;
}

uint8_t USB_GetMsgEx(int32_t dev, S_MSG* msg, std::size_t capacity) {
    std::array<uint8_t, kReplyHeaderSize> header{};
    int32_t n = LibUSBReadData(static_cast<uint32_t>(dev), kPipeBulkIn, as_chars(header.data()),
                               static_cast<int32_t>(header.size()), kExactReadTimeoutMs);
    if (n != static_cast<int32_t>(header.size())) return fail_receive(msg);
    decode_reply_header(header.data(), msg);
    if (msg->size == 0) return 0;
    n = LibUSBReadData(static_cast<uint32_t>(dev), kPipeBulkIn, as_chars(long_buffer.data()), msg->size,
                       kExactReadTimeoutMs);
    if (n != msg->size) return fail_receive(msg);
    copy_payload(msg, long_buffer.data(), std::min(static_cast<std::size_t>(msg->size), capacity));
    return 0;
}

MSG_STATE USB_GetStatus(int32_t dev) {
    uint8_t status = 0;
    const int32_t n =
        LibUSBReadData(static_cast<uint32_t>(dev), kPipeBulkIn, as_chars(&status), 1, kStatusTimeoutMs);
    return n == 1 ? static_cast<MSG_STATE>(status) : MSG_NO_STATE;
}

MSG_STATE USB_GetStatusWithTimeOut(int32_t dev, int TimeOut) {
    uint8_t status = 0;
    const int32_t n =
        LibUSBReadDataFast(static_cast<uint32_t>(dev), kPipeBulkIn, as_chars(&status), 1, TimeOut);
    return n == 1 ? static_cast<MSG_STATE>(status) : MSG_NO_STATE;
}

// Always a 7-byte header, and no zero-length packet beyond the raw write's own.
int32_t USB_SendStatus(int32_t dev, S_MSG msg) {
    if (msg.message == 0) return -4;
    if (msg.lParam == nullptr && msg.size > 0) return -4;
    // The payload must fit the 512-byte frame buffer.
    if (msg.size < 0 || static_cast<std::size_t>(msg.size) > kPacketPayloadMax) return -4;
    std::array<uint8_t, kPacketSize> buf{};
    put_be32(buf.data(), static_cast<uint32_t>(msg.message));
    buf[4] = msg.PackNum;
    put_be16(buf.data() + 5, static_cast<uint32_t>(msg.size));
    if (msg.size > 0)
        std::memcpy(buf.data() + kShortHeaderSize, msg.lParam, static_cast<std::size_t>(msg.size));
    const int32_t length = msg.size + static_cast<int32_t>(kShortHeaderSize);
    const int32_t n = LibUSBWriteData(static_cast<uint32_t>(dev), kPipeBulkOut, as_chars(buf.data()), length,
                                      kSendStatusTimeoutMs);
    return n == length ? 0 : n;
}

bool DeviceIsConnected(int devNum) {
    if (!usb_init_flag) KD_EnumBoard(1);
    lock(devNum);
    const bool s = check_dev(devNum);
    unlock(devNum);
    return s;
}
