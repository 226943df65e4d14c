#include "usb_driver.h"

#include <pthread.h>
#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "libusb_driver.h"

namespace proto = corvel::proto;

namespace {

// The buffers one thread's messages go through. Each thread that sends or receives gets its own
// set, allocated on its first message and freed when it ends, so that threads driving different
// adapters never share a frame or a reply; after that first message nothing is allocated per
// message. (About 216 KB: on the heap rather than in thread-local storage, which would cost every
// thread of the process that much, whatever its stack size.)
struct Buffers {
    std::array<uint8_t, proto::kSendFrameMax> send;
    std::array<uint8_t, proto::kPacketSize> packet;
    std::array<uint8_t, proto::kLongReplyBufferSize> long_reply;
    std::array<uint8_t, proto::kReceiveBufferSize> receive;
};

// Each thread's set hangs off a thread-specific key whose destructor frees it when the thread ends.
// (A C++ thread_local with a destructor would make the library depend on the dynamic loader's TLS
// look-up; the key needs nothing beyond libc.)
pthread_key_t buffers_key() {
    static const pthread_key_t key = [] {
        pthread_key_t k{};
        pthread_key_create(&k, [](void* set) { delete static_cast<Buffers*>(set); });
        return k;
    }();
    return key;
}

// Null only when the first allocation fails; every caller then fails as a transfer would.
Buffers* buffers() {
    auto* set = static_cast<Buffers*>(pthread_getspecific(buffers_key()));
    if (set == nullptr) {
        set = new (std::nothrow) Buffers;
        if (set != nullptr) pthread_setspecific(buffers_key(), set);
    }
    return set;
}

char* as_chars(uint8_t* p) {
    return reinterpret_cast<char*>(p);
}

uint32_t board(int32_t dev) {
    return static_cast<uint32_t>(dev);
}

void decode_reply_header(const uint8_t* p, S_MSG* msg) {
    proto::Reader r({p, proto::kReplyHeaderSize});
    msg->message = static_cast<int32_t>(r.be32());
    msg->status = static_cast<MSG_STATE>(r.u8());
    msg->size = r.be16();
}

uint8_t fail_receive(S_MSG* msg) {
    msg->message = 0;
    return 1;
}

void copy_payload(S_MSG* msg, const uint8_t* from, std::size_t n) {
    if (n > 0 && msg->lParam != nullptr) std::memcpy(msg->lParam, from, n);
}

int32_t read(int32_t dev, uint8_t* into, int32_t len, int timeout_ms, ReadMode mode) {
    return mode == ReadMode::Fast
               ? LibUSBReadDataFast(board(dev), proto::kPipeBulkIn, as_chars(into), len, timeout_ms)
               : LibUSBReadData(board(dev), proto::kPipeBulkIn, as_chars(into), len, timeout_ms);
}

}  // namespace

// A frame whose length is a multiple of 64 gets one more zero-length write here on top of the one
// the raw write adds after each packet-multiple write, so three zero-length packets follow it in
// all. The firmware expects exactly this.
uint8_t USB_SendMsg(int32_t dev, S_MSG* msg) {
    Buffers* b = buffers();
    if (b == nullptr) return 1;
    uint8_t* buf = b->send.data();
    const auto code = static_cast<uint32_t>(msg->message);
    const std::size_t header = proto::request_header_size(code);
    proto::Writer h({buf, header});
    h.be32(code).u8(msg->PackNum);
    // Only the low 16 bits of the size fit the short header.
    if (header == proto::kLongHeaderSize)
        h.be32(static_cast<uint32_t>(msg->size));
    else
        h.be16(static_cast<uint32_t>(msg->size) & 0xFFFF);
    // The frame must fit the frame store (payload at most 102801 bytes, or 102799 with the long
    // header); one that does not fails as a short write would.
    const int64_t length = int64_t{msg->size} + static_cast<int64_t>(header);
    if (msg->size < 0 || length > static_cast<int64_t>(proto::kSendFrameMax)) return 1;
    if (msg->size > 0) {
        if (msg->lParam == nullptr) return 1;
        if (msg->lParam != buf + header)
            std::memmove(buf + header, msg->lParam, static_cast<std::size_t>(msg->size));
    }
    const int32_t n = LibUSBWriteData(board(dev), proto::kPipeBulkOut, as_chars(buf),
                                      static_cast<int32_t>(length), kSendTimeoutMs);
    if (n != length) return 1;
    if (length % static_cast<int64_t>(proto::kUsbPacketSize) == 0)
        LibUSBWriteData(board(dev), proto::kPipeBulkOut, as_chars(buf), 0, kZeroLengthTimeoutMs);
    return 0;
}

namespace {

// Reads exactly `want` bytes (header included) into one of the thread's buffers: the packet buffer,
// or the long-reply buffer for a reply that does not fit a packet (the text interface's long I2C
// reads). The header then fills message, status and size, and the payload copy is bounded by the
// announced size, by what arrived and by `capacity`. Anything but exactly `want` bytes fails.
uint8_t receive_packet(int32_t dev, S_MSG* msg, int64_t want, int timeout_ms, std::size_t capacity) {
    Buffers* b = buffers();
    if (b == nullptr) return fail_receive(msg);
    const bool fits_packet = want <= static_cast<int64_t>(b->packet.size());
    std::span<uint8_t> packet =
        fits_packet ? std::span<uint8_t>(b->packet) : std::span<uint8_t>(b->long_reply);
    if (fits_packet) b->packet.fill(0);
    if (want < static_cast<int64_t>(proto::kReplyHeaderSize) || want > static_cast<int64_t>(packet.size()))
        return fail_receive(msg);
    const int32_t n = read(dev, packet.data(), static_cast<int32_t>(want), timeout_ms, ReadMode::Retrying);
    if (n != want) return fail_receive(msg);
    decode_reply_header(packet.data(), msg);
    const std::size_t received = static_cast<std::size_t>(n) - proto::kReplyHeaderSize;
    copy_payload(msg, packet.data() + proto::kReplyHeaderSize,
                 std::min({static_cast<std::size_t>(msg->size), received, capacity}));
    return 0;
}

}  // namespace

// A reply counts only when the read returns a full 512-byte packet, whatever its payload length;
// at most the 505 bytes behind the header are copied.
uint8_t USB_GetMsg(int32_t dev, S_MSG* msg, std::size_t capacity) {
    return receive_packet(dev, msg, static_cast<int64_t>(proto::kPacketSize), kPacketTimeoutMs, capacity);
}

uint8_t USB_GetMsgWithSize(int32_t dev, S_MSG* msg, std::size_t capacity) {
    if (msg->size < 0) return fail_receive(msg);
    return receive_packet(dev, msg, int64_t{msg->size} + static_cast<int64_t>(proto::kReplyHeaderSize),
                          kExactReadTimeoutMs, capacity);
}

uint8_t USB_GetMsgEx(int32_t dev, S_MSG* msg, std::size_t capacity) {
    Buffers* b = buffers();
    if (b == nullptr) return fail_receive(msg);
    std::array<uint8_t, proto::kReplyHeaderSize> header{};
    int32_t n = read(dev, header.data(), static_cast<int32_t>(header.size()), kExactReadTimeoutMs,
                     ReadMode::Retrying);
    if (n != static_cast<int32_t>(header.size())) return fail_receive(msg);
    decode_reply_header(header.data(), msg);
    if (msg->size == 0) return 0;
    n = read(dev, b->long_reply.data(), msg->size, kExactReadTimeoutMs, ReadMode::Retrying);
    if (n != msg->size) return fail_receive(msg);
    copy_payload(msg, b->long_reply.data(), std::min(static_cast<std::size_t>(msg->size), capacity));
    return 0;
}

uint8_t USB_GetReplyFrame(int32_t dev, S_MSG* msg, std::size_t capacity, int timeout_ms) {
    Buffers* b = buffers();
    if (b == nullptr) return fail_receive(msg);
    auto& packet = b->packet;
    const int32_t n =
        read(dev, packet.data(), static_cast<int32_t>(packet.size()), timeout_ms, ReadMode::Retrying);
    if (n < static_cast<int32_t>(proto::kReplyHeaderSize)) return fail_receive(msg);
    decode_reply_header(packet.data(), msg);
    const std::size_t received = static_cast<std::size_t>(n) - proto::kReplyHeaderSize;
    const std::size_t stored = std::min({static_cast<std::size_t>(msg->size), received, capacity});
    copy_payload(msg, packet.data() + proto::kReplyHeaderSize, stored);
    msg->size = static_cast<int32_t>(stored);
    return 0;
}

MSG_STATE USB_GetStatus(int32_t dev) {
    uint8_t status = 0;
    const int32_t n = read(dev, &status, 1, kStatusTimeoutMs, ReadMode::Retrying);
    return n == 1 ? static_cast<MSG_STATE>(status) : MSG_NO_STATE;
}

MSG_STATE USB_GetStatusWithTimeOut(int32_t dev, int TimeOut) {
    uint8_t status = 0;
    const int32_t n = read(dev, &status, 1, TimeOut, ReadMode::Fast);
    return n == 1 ? static_cast<MSG_STATE>(status) : MSG_NO_STATE;
}

// Always a 7-byte header, and no zero-length packet beyond the raw write's own.
int32_t USB_SendStatus(int32_t dev, S_MSG msg) {
    if (msg.message == 0) return -4;
    if (msg.lParam == nullptr && msg.size > 0) return -4;
    // The payload must fit the 512-byte frame buffer.
    if (msg.size < 0 || static_cast<std::size_t>(msg.size) > proto::kPacketPayloadMax) return -4;
    std::array<uint8_t, proto::kPacketSize> buf{};
    proto::Writer w(buf);
    w.be32(static_cast<uint32_t>(msg.message)).u8(msg.PackNum).be16(static_cast<uint32_t>(msg.size));
    w.bytes(msg.lParam, static_cast<std::size_t>(msg.size));
    const auto length = static_cast<int32_t>(w.size());
    const int32_t n =
        LibUSBWriteData(board(dev), proto::kPipeBulkOut, as_chars(buf.data()), length, kSendStatusTimeoutMs);
    return n == length ? 0 : n;
}

int32_t USB_ReadAfterHeader(int32_t dev, uint8_t* out, std::size_t len, int timeout_ms, ReadMode mode) {
    Buffers* b = buffers();
    if (b == nullptr) return -1;
    auto& receive = b->receive;
    const std::size_t want = std::min(len + proto::kReplyHeaderSize, receive.size());
    const int32_t n = read(dev, receive.data(), static_cast<int32_t>(want), timeout_ms, mode);
    if (n < static_cast<int32_t>(proto::kReplyHeaderSize)) return -1;
    // The adapter is not trusted to send no more than was asked.
    const std::size_t got =
        std::min(std::min(static_cast<std::size_t>(n), want) - proto::kReplyHeaderSize, len);
    if (got > 0) std::memcpy(out, receive.data() + proto::kReplyHeaderSize, got);
    return static_cast<int32_t>(got);
}

int32_t USB_ReadRaw(int32_t dev, uint8_t* out, int32_t len, int timeout_ms, ReadMode mode) {
    return read(dev, out, len, timeout_ms, mode);
}

int32_t USB_SendCommand(int32_t dev, std::span<const uint8_t, proto::kCommandSize> request) {
    std::array<uint8_t, proto::kCommandSize> out;
    std::copy(request.begin(), request.end(), out.begin());
    return LibUSBWriteData(board(dev), proto::kPipeIntOut, as_chars(out.data()),
                           static_cast<int32_t>(out.size()), kCommandTimeoutMs);
}

int32_t USB_ReadCommandAnswer(int32_t dev, uint8_t* answer) {
    return LibUSBReadData(board(dev), proto::kPipeIntIn, as_chars(answer),
                          static_cast<int32_t>(proto::kCommandSize), kCommandTimeoutMs);
}

namespace {
std::span<uint8_t> payload_span(uint8_t* area, int32_t code) {
    if (area == nullptr) return {};
    return {area, proto::kSendFrameMax - proto::request_header_size(static_cast<uint32_t>(code))};
}
uint8_t* payload_area(int32_t code) {
    Buffers* b = buffers();
    return b ? b->send.data() + proto::request_header_size(static_cast<uint32_t>(code)) : nullptr;
}
}  // namespace

Request::Request(int32_t code, uint8_t pack_number)
    : code_(code),
      pack_number_(pack_number),
      payload_area_(payload_area(code)),
      writer_(payload_span(payload_area_, code)) {}

uint8_t Request::send(int32_t dev) {
    if (payload_area_ == nullptr || !writer_.ok()) return 1;
    S_MSG msg{code_, static_cast<int32_t>(writer_.size()), MSG_NO_STATE, pack_number_, payload_area_};
    return USB_SendMsg(dev, &msg);
}
