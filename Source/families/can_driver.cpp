// The CAN driver routines and the buffered CAN interface. The routines exchange one message each
// (two for a read) with the device of CAN_Data.deviceNumber, building the payload from the shared
// record and leaving the reply in its reply buffer. The buffered interface serves that one device:
// one read thread per channel polls it every 10 ms into the channel's queue.
#include "can_driver.h"

#include <pthread.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "can_buffer.h"
#include "family.h"
#include "kd_board.h"
#include "lock.h"

using namespace corvel;
namespace can = corvel::proto::can;

CAN_DATA CAN_Data;

namespace {

constexpr int kReadTimeoutMs = 500;           // the receive reply and the status reply
constexpr int kErrorCodeTimeoutMs = 2000;     // the error-code reply
constexpr std::size_t kReadReplyMax = 10250;  // what a receive read asks for
constexpr std::size_t kThreadSendBuffer = 512;
constexpr std::size_t kThreadReplyBuffer = 8192;
constexpr std::size_t kTextBuffer = 64;

// A text into the reply buffer, cut to its capacity (nothing without a buffer).
__attribute__((format(printf, 2, 3))) void put_text(CAN_DATA* data, const char* format, ...) {
    if (data->p_getDataBuff == nullptr || data->getDataBuffSize == 0) return;
    va_list args;
    va_start(args, format);
    std::vsnprintf(reinterpret_cast<char*>(data->p_getDataBuff), data->getDataBuffSize, format, args);
    va_end(args);
}

// Copies a reply payload into the reply buffer, at most its capacity; the bytes copied.
std::size_t put_reply(CAN_DATA* data, std::span<const uint8_t> payload) {
    if (data->p_getDataBuff == nullptr) return 0;
    const std::size_t n = std::min(payload.size(), data->getDataBuffSize);
    if (n > 0) std::memcpy(data->p_getDataBuff, payload.data(), n);
    return n;
}

uint32_t get_le(std::span<const uint8_t> p, std::size_t n) {
    uint32_t v = 0;
    for (std::size_t i = n; i > 0; --i) v = v << 8 | p[i - 1];
    return v;
}

// The data length that goes out for a staged frame: capped at 8, none for a remote frame.
uint8_t tx_length(const CanTxMsg& frame) {
    return frame.RTR != 0 ? 0 : std::min(frame.DLC, can::kMaxDataLength);
}

bool tx_extended(const CanTxMsg& frame) {
    return frame.IDE == 4;
}

int32_t write_data(CAN_DATA* data, int32_t code) {
    // A staging index or count outside the staging array is refused as too many frames.
    if (data->dataLenght >= static_cast<int32_t>(can::kStagedFramesMax) || data->dataLenght < 0 ||
        data->DataIndex < 0 ||
        data->DataIndex + data->dataLenght > static_cast<int32_t>(can::kStagedFramesMax)) {
        put_text(data, "Request write data is too more!");
        return KD_ERR_INPUT_DATA_TOO_MUCH;
    }
    // How many staged frames fit one message; the packet number tells the adapter how many stayed.
    std::size_t space = can::kWriteBatchMax;
    int32_t fit = 0;
    while (fit < data->dataLenght) {
        const CanTxMsg& frame = data->TxMessage[data->DataIndex + fit];
        if (static_cast<std::size_t>(tx_length(frame)) + can::kTxExtHeader > space) break;
        space -= CanEncodedSize(frame);
        ++fit;
    }
    const int32_t left = data->dataLenght - fit;
    Request request(code, static_cast<uint8_t>(std::min(left, 255)));
    space = can::kWriteBatchMax;
    for (int32_t i = 0; i < fit; ++i) {
        std::array<uint8_t, can::kTxExtHeader + can::kMaxDataLength> record{};
        const int n = CopyCanData(record.data(), &data->TxMessage[data->DataIndex + i], space);
        request.payload().bytes(record.data(), static_cast<std::size_t>(n));
        space -= static_cast<std::size_t>(n);
    }
    data->DataIndex += fit;
    data->dataLenght = left;
    const int32_t dev = data->deviceNumber;
    if (const uint8_t r = request.send(dev); r != 0) {
        put_text(data, "USB send data error! %d", r);
        return KD_ERR_USB_WRITE_FAIL;
    }
    if (USB_GetStatus(dev) != MSG_CAN_WRITE_DATA_OK) {
        data->dataLenght = 0;
        return KD_ERR_EXECUTE_CMD;
    }
    return KD_SUCCESS;
}

// A request whose answer is exactly `want` raw bytes, a reply header and its payload, read into
// `raw`; the header goes into the record's msg and the payload, at most `payload_max` bytes of it,
// into the reply buffer. Status 50 is success.
int32_t exchange_code(CAN_DATA* data, int32_t code, std::span<uint8_t> raw, std::size_t payload_max,
                      int timeout_ms) {
    const int32_t dev = data->deviceNumber;
    const uint8_t channel = data->CAN_Channel;
    if (send_bare(dev, code, {&channel, 1}) != 0) return KD_ERR_USB_WRITE_FAIL;
    if (read_exact(dev, raw.data(), raw.size(), timeout_ms) != 0) {
        data->msg.message = 0;
        return KD_ERR_USB_READ_FAIL;
    }
    can_io::decode_header(raw, data->msg);
    const auto payload = raw.subspan(proto::kReplyHeaderSize);
    const std::size_t n = std::min({static_cast<std::size_t>(data->msg.size), payload_max, payload.size()});
    data->msg.size = static_cast<int32_t>(put_reply(data, payload.first(n)));
    data->msg.lParam = data->p_getDataBuff;
    if (data->msg.status != MSG_CAN_GET_ERROR_CODE_OK) {
        put_text(data, "Error %d", data->msg.status);
        return KD_ERR_USB_READ_FAIL;
    }
    return KD_SUCCESS;
}

}  // namespace

namespace corvel::can_io {

RecordBuffers::RecordBuffers(CAN_DATA& data, std::span<uint8_t> send, std::span<uint8_t> get) : data_(data) {
    data_.p_sendDataBuff = send.data();
    data_.p_getDataBuff = get.data();
    data_.getDataBuffSize = get.size();
}

RecordBuffers::~RecordBuffers() {
    data_.p_sendDataBuff = nullptr;
    data_.p_getDataBuff = nullptr;
    data_.getDataBuffSize = 0;
}

void decode_header(std::span<const uint8_t> raw, S_MSG& msg) {
    proto::Reader r(raw);
    msg.message = static_cast<int32_t>(r.be32());
    msg.status = static_cast<MSG_STATE>(r.u8());
    msg.size = r.be16();
}

}  // namespace corvel::can_io

// ---- Bit rates ---------------------------------------------------------------------------------

int CAN_GetBaudRateNum(uint32_t BaudRate) {
    struct Entry {
        uint32_t bps;
        int row;
    };
    static constexpr Entry kMap[] = {
        {1000000, 0}, {900000, 1}, {800000, 2}, {600000, 3}, {500000, 4},  {400000, 5},
        {300000, 6},  {250000, 7}, {200000, 8}, {150000, 9}, {125000, 10}, {100000, 11},
        {90000, 12},  {80000, 13}, {60000, 14}, {50000, 15}, {40000, 16},  {30000, 17},
        {20000, 18},  {10000, 19}, {5000, 20},  {3000, 21},  {2000, 22},   {666000, 23},
    };
    for (const Entry& e : kMap)
        if (e.bps == BaudRate) return e.row;
    return 0;
}

// ---- Driver routines ---------------------------------------------------------------------------

int32_t CAN_Init(CAN_DATA* data) {
    const CAN_InitTypeDef& c = data->CAN_InitStructure;
    Request request(MSG_KD_CAN_INIT);
    request.payload()
        .u8(data->CAN_Channel)
        .u8(c.CAN_TTCM)
        .u8(c.CAN_ABOM)
        .u8(c.CAN_AWUM)
        .u8(c.CAN_NART)
        .u8(c.CAN_RFLM)
        .u8(c.CAN_TXFP)
        .u8(c.CAN_Mode)
        .u8(c.CAN_SJW)
        .u8(c.CAN_BS1)
        .u8(c.CAN_BS2)
        .be16(c.CAN_Prescaler)
        .u8(data->CAN_Relay);
    return request_status(data->deviceNumber, request, MSG_CAN_NINT_OK);
}

int32_t CAN_FilterInit(CAN_DATA* data) {
    const CAN_FilterInitTypeDef& f = data->CAN_FilterInitStructure;
    Request request(MSG_KD_CAN_INIT_FILTER);
    request.payload()
        .u8(data->CAN_Channel)
        .u8(f.CAN_FilterNumber)
        .u8(f.CAN_FilterMode)
        .u8(f.CAN_FilterScale)
        .be16(f.CAN_FilterIdHigh)
        .be16(f.CAN_FilterIdLow)
        .be16(f.CAN_FilterMaskIdHigh)
        .be16(f.CAN_FilterMaskIdLow)
        .be16(f.CAN_FilterFIFOAssignment)
        .u8(f.CAN_FilterActivation);
    const int32_t dev = data->deviceNumber;
    if (const uint8_t r = request.send(dev); r != 0) {
        put_text(data, "USB send data error! %d", r);
        return KD_ERR_USB_WRITE_FAIL;
    }
    return USB_GetStatus(dev) == MSG_CAN_NINT_OK ? KD_SUCCESS : KD_ERR_EXECUTE_CMD;
}

int32_t CAN_WriteData(CAN_DATA* data) {
    return write_data(data, MSG_KD_CAN_WRITE_DATAS);
}

int32_t CAN_WriteDataEx(CAN_DATA* data) {
    return write_data(data, MSG_KD_CAN_WRITE_DATAS_EX);
}

// The reply is read into the call's own raw buffer; at most the reply buffer's capacity of its
// payload is kept, and msg.size says how much that is.
int32_t CAN_ReadData(CAN_DATA* data) {
    const int32_t dev = data->deviceNumber;
    const uint8_t channel = data->CAN_Channel;
    if (send_bare(dev, MSG_KD_CAN_GET_DATAS_NUM, {&channel, 1}) != 0) return KD_ERR_USB_WRITE_FAIL;
    if (USB_GetStatus(dev) == MSG_NO_STATE) {
        data->msg.status = MSG_CAN_READ_DATA_NO_DATA;
        put_text(data, "no data");
        return KD_ERR_NO_DATA;
    }
    if (send_bare(dev, MSG_KD_CAN_READ_DATAS, {&channel, 1}) != 0) return KD_ERR_USB_WRITE_FAIL;
    std::array<uint8_t, kReadReplyMax> raw;
    const int32_t n = USB_ReadRaw(dev, raw.data(), static_cast<int32_t>(raw.size()), kReadTimeoutMs);
    if (n < static_cast<int32_t>(proto::kReplyHeaderSize)) return KD_ERR_USB_READ_FAIL;
    const auto reply = std::span<const uint8_t>(raw).first(static_cast<std::size_t>(n));
    can_io::decode_header(reply, data->msg);
    const auto payload = reply.subspan(proto::kReplyHeaderSize);
    const std::size_t size = std::min(static_cast<std::size_t>(data->msg.size), payload.size());
    data->msg.size = static_cast<int32_t>(put_reply(data, payload.first(size)));
    data->msg.lParam = data->p_getDataBuff;
    if (data->msg.status == MSG_CAN_READ_DATA_OK) return KD_SUCCESS;
    if (data->msg.status == MSG_CAN_READ_DATA_NO_DATA) {
        put_text(data, "no data");
        return KD_ERR_NO_DATA;
    }
    put_text(data, "Error %d", data->msg.status);
    return KD_ERR_USB_READ_FAIL;
}

// Channel 0 asks for both channels' blocks.
int32_t CAN_GetErrorCode(CAN_DATA* data) {
    std::array<uint8_t, proto::kReplyHeaderSize + 2 * can::kErrorPayloadSize> raw{};
    const std::size_t payload = data->CAN_Channel != 0 ? can::kErrorPayloadSize : 2 * can::kErrorPayloadSize;
    return exchange_code(data, MSG_KD_CAN_GET_ERROR_CODE,
                         std::span<uint8_t>(raw).first(proto::kReplyHeaderSize + payload), payload,
                         kErrorCodeTimeoutMs);
}

int32_t CAN_GetStatusCode(CAN_DATA* data) {
    std::array<uint8_t, proto::kReplyHeaderSize + can::kStatusPayloadSize> raw{};
    return exchange_code(data, MSG_KD_CAN_GET_STATUS_CODE, raw, can::kStatusPayloadSize, kReadTimeoutMs);
}

int32_t CAN_Reset(int32_t DevIndex, uint8_t Channel) {
    Request request(MSG_KD_CAN_RESET);
    request.payload().u8(Channel);
    return request_status(DevIndex, request, MSG_CAN_NINT_OK);
}

// ---- Frame records -----------------------------------------------------------------------------

std::size_t CanEncodedSize(const CanTxMsg& frame) {
    return (tx_extended(frame) ? can::kTxExtHeader : can::kTxStdHeader) + tx_length(frame);
}

// Intended: the room asked for is the data length plus 5, whatever the identifier's size.
int CopyCanData(uint8_t* out, const CanTxMsg* frame, std::size_t space) {
    const uint8_t length = tx_length(*frame);
    if (std::size_t{length} + can::kTxExtHeader > space) return 0;
    const bool ext = tx_extended(*frame);
    std::size_t n = 0;
    out[n++] = static_cast<uint8_t>((frame->Channel & can::kFlagChannelMask) |
                                    (frame->RTR != 0 ? can::kFlagRemote : 0) |
                                    (ext ? can::kFlagExtended : 0) | length << can::kFlagLengthShift);
    const uint32_t id = ext ? frame->ExtId : frame->StdId;
    for (std::size_t i = 0; i < (ext ? 4u : 2u); ++i) out[n++] = static_cast<uint8_t>(id >> (8 * i));
    std::memcpy(out + n, frame->Data, length);
    return static_cast<int>(n + length);
}

// The length in the flags is read as at most 8; a remote frame carries no data.
std::size_t CanDataTran(std::span<const uint8_t> in, VCI_CAN_OBJ* out) {
    if (in.empty()) return 0;
    const uint8_t flags = in[0];
    const bool ext = (flags & can::kFlagExtended) != 0;
    const bool remote = (flags & can::kFlagRemote) != 0;
    const uint8_t length = std::min<uint8_t>(flags >> can::kFlagLengthShift, can::kMaxDataLength);
    const std::size_t header = ext ? can::kRxExtHeader : can::kRxStdHeader;
    const std::size_t data = remote ? 0 : length;
    if (in.size() < header + data) return 0;
    const std::size_t id_bytes = ext ? 4 : 2;
    *out = VCI_CAN_OBJ{};
    out->TimeFlag = 1;
    out->RemoteFlag = remote ? 1 : 0;
    out->ExternFlag = ext ? 1 : 0;
    out->DataLen = length;
    out->ID = get_le(in.subspan(1), id_bytes) & (ext ? can::kExtIdMask : can::kStdIdMask);
    out->TimeStamp = get_le(in.subspan(1 + id_bytes), 4);
    std::copy_n(in.begin() + static_cast<std::ptrdiff_t>(header), data, out->Data);
    return header + data;
}

// Intended, unlike the form above: DLC is kept as the flags give it (up to 15) and that many bytes
// are taken as data, remote frames included. Only the first 8 of them fit the record.
std::size_t CanDataTran(std::span<const uint8_t> in, CanRxMsg* out) {
    if (in.empty()) return 0;
    const uint8_t flags = in[0];
    const bool ext = (flags & can::kFlagExtended) != 0;
    const uint8_t dlc = flags >> can::kFlagLengthShift;
    const std::size_t header = ext ? can::kRxExtHeader : can::kRxStdHeader;
    if (in.size() < header + dlc) return 0;
    const std::size_t id_bytes = ext ? 4 : 2;
    *out = CanRxMsg{};
    out->Channel = flags & can::kFlagChannelMask;
    out->IDE = (flags >> 1) & 4;
    out->RTR = (flags >> 1) & 2;
    out->DLC = dlc;
    out->FMI = 0;
    const uint32_t id = get_le(in.subspan(1), id_bytes);
    if (ext)
        out->ExtId = id & can::kExtIdMask;
    else
        out->StdId = id & can::kStdIdMask;
    out->CAN_Time = get_le(in.subspan(1 + id_bytes), 4);
    std::copy_n(in.begin() + static_cast<std::ptrdiff_t>(header), std::min<std::size_t>(dlc, 8), out->Data);
    return header + dlc;
}

// ---- Buffered interface ------------------------------------------------------------------------

namespace {

struct BufferedChannel {
    CAN_SqQueue& queue;
    std::atomic<bool> exit_flag{false};
    pthread_t thread{};
    bool joinable = false;  // started and not joined yet
};

BufferedChannel channels[2] = {{CAN1_DataBufQueueEx}, {CAN2_DataBufQueueEx}};

BufferedChannel* buffered(int32_t Channel) {
    return Channel == can::kChannel1 ? &channels[0] : Channel == can::kChannel2 ? &channels[1] : nullptr;
}

constexpr intptr_t kThreadDeviceGone = -11;
constexpr intptr_t kThreadReadFailed = 0;
constexpr intptr_t kThreadStopped = 1;

// The read thread of one channel: its own send and reply buffers, the record pointed at them only
// while it holds the lock.
void* buffered_read_thread(uint8_t channel) {
    BufferedChannel& ch = *buffered(channel);
    std::array<uint8_t, kThreadSendBuffer> send_buf{};
    std::array<uint8_t, kThreadReplyBuffer> reply_buf{};
    while (!ch.exit_flag) {
        const int32_t dev = CAN_Data.deviceNumber;
        if (!DeviceIsConnected(dev)) return reinterpret_cast<void*>(kThreadDeviceGone);
        usleep(can::kPollPeriodUs);
        lock(dev);
        int32_t r = 0;
        std::size_t size = 0;
        {
            can_io::RecordBuffers use(CAN_Data, send_buf, reply_buf);
            CAN_Data.CAN_Channel = channel;
            r = CAN_ReadData(&CAN_Data);
            size = static_cast<std::size_t>(CAN_Data.msg.size);
        }
        if (r == KD_ERR_NO_DATA) {
            unlock(dev);
            continue;
        }
        if (r != 0) {
            unlock(dev);
            return reinterpret_cast<void*>(kThreadReadFailed);
        }
        const auto payload = std::span<const uint8_t>(reply_buf).first(std::min(size, reply_buf.size()));
        std::size_t used = 0;
        do {
            CanRxMsg frame;
            const std::size_t n = CanDataTran(payload.subspan(used), &frame);
            if (n == 0) break;
            CAN_EnQueue(&ch.queue, frame);
            used += n;
        } while (used < payload.size());
        unlock(dev);
    }
    return reinterpret_cast<void*>(kThreadStopped);
}

void stop_buffered(BufferedChannel& ch) {
    ch.exit_flag = true;
    if (ch.joinable) pthread_join(ch.thread, nullptr);
    ch.joinable = false;
}

}  // namespace

void* Can1ReadThread(void*) {
    return buffered_read_thread(can::kChannel1);
}

void* Can2ReadThread(void*) {
    return buffered_read_thread(can::kChannel2);
}

// A thread still running on the channel is stopped first, so that no thread is ever left without
// a handle to join it by. The queue is emptied here, before the thread exists.
int32_t CAN_StartThreadRead(int32_t Channel) {
    BufferedChannel* ch = buffered(Channel);
    if (ch == nullptr) return 0;
    stop_buffered(*ch);
    CAN_InitQueue(&ch->queue);
    ch->exit_flag = false;
    if (pthread_create(&ch->thread, nullptr, Channel == can::kChannel1 ? Can1ReadThread : Can2ReadThread,
                       nullptr) != 0)
        return 0;
    ch->joinable = true;
    return 1;
}

int32_t CAN_StopThreadRead(int32_t Channel) {
    if (BufferedChannel* ch = buffered(Channel)) stop_buffered(*ch);
    return 1;
}

int32_t CAN_ReadBuffer(int32_t Channel, CanRxMsg* pBuffer, uint32_t Len) {
    BufferedChannel* ch = buffered(Channel);
    if (ch == nullptr || pBuffer == nullptr) return 0;
    const int32_t dev = CAN_Data.deviceNumber;
    lock(dev);
    uint32_t n = 0;
    while (n < Len && CAN_DeQueue(&ch->queue, &pBuffer[n])) ++n;
    unlock(dev);
    return static_cast<int32_t>(n);
}

// Frames are staged whole and sent in batches of up to 102793 packed bytes; a refused batch ends
// the call with the count of the batches before it.
int32_t CAN_Transmit(CanTxMsg* pFrames, int32_t Len, int32_t Mode) {
    if (pFrames == nullptr || Len <= 0) return 0;
    const int32_t dev = CAN_Data.deviceNumber;
    BoardLock hold(dev);
    std::array<uint8_t, kTextBuffer> send_buf{};
    std::array<uint8_t, kTextBuffer> text_buf{};
    can_io::RecordBuffers use(CAN_Data, send_buf, text_buf);
    int32_t sent = 0;
    while (sent < Len) {
        std::size_t size = 0;
        int32_t staged = 0;
        while (sent + staged < Len && staged < static_cast<int32_t>(can::kStagedFramesMax)) {
            const CanTxMsg& frame = pFrames[sent + staged];
            const std::size_t add = (frame.IDE == 4 ? 4u : 2u) + frame.DLC + 1u;
            if (size + add > can::kWriteBatchMax) break;
            size += add;
            CAN_Data.TxMessage[staged++] = frame;
        }
        CAN_Data.DataIndex = 0;
        CAN_Data.dataLenght = staged;
        const int32_t r = Mode == 1 ? CAN_WriteDataEx(&CAN_Data) : CAN_WriteData(&CAN_Data);
        if (r != 0) break;
        // Frames that did not fit the message stay for the next batch.
        sent += staged - CAN_Data.dataLenght;
    }
    return sent;
}

int32_t CAN_GetReceiveNum(int32_t Channel) {
    BufferedChannel* ch = buffered(Channel);
    return ch == nullptr ? 0 : CAN_QueueLength(&ch->queue);
}

int32_t CAN_ClearBuffer(int32_t Channel) {
    if (BufferedChannel* ch = buffered(Channel)) CAN_InitQueue(&ch->queue);
    return 1;
}
