// The CAN family's ControlCAN-style interface: devices, channel initialisation and bit timing,
// transmission, the per-channel read threads with their queues and callbacks, status, error
// records and filters. The VCI_ functions follow the ControlCAN conventions (1 success, 0 failure,
// the reason in the channel's error record) rather than the other families' codes, so they use
// the driver routines of can_driver.cpp and the kit's exchanges but not its Check chain.
//
// Per-device tables have 30 entries; a device index of 30 or more never indexes them: every
// function returns its failure value for it first.
#include "ControlCAN.h"

#include <pthread.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "can_buffer.h"
#include "can_driver.h"
#include "family.h"
#include "kd_board.h"
#include "lock.h"

using namespace corvel;
namespace can = corvel::proto::can;

namespace {

constexpr uint32_t kDevices = can::kDevices;
constexpr std::size_t kThreadArgSlots = 100;
constexpr unsigned kModeSwitchWaitUs = 10000;
constexpr std::size_t kTextBuffer = 64;
constexpr std::size_t kStatusBuffer = 512;
constexpr std::size_t kReplyBuffer = 10250;
constexpr int kPollFastTimeoutMs = 100;
constexpr int kPollRetryTimeoutMs = 500;
constexpr int kPollTimeoutsMax = 3;
// The handle value of a thread that was never started (device 0 only; the others start at 0).
constexpr unsigned long kNeverStarted = 0xFFFFFFFF;

}  // namespace

// ---- Tables ------------------------------------------------------------------------------------

// ControlCAN's Timing0/Timing1 pairs, in the order they are searched.
constexpr const auto& CanBaudRateTable = can::kTimingPairs;

// Bit timing by CAN_GetBaudRateNum row. Rows 20 to 22 (5, 3 and 2 kbit/s) only approximate their
// rates, since the prescaler cannot exceed 1024: intended, they are the table as it stands.
constexpr std::array<tCAN_BaudRate, 24> CAN_BaudRateInitTab = {{
    {0, 4, 2, 4},   {0, 3, 2, 5},   {0, 4, 2, 5},   {0, 5, 2, 6},    {0, 2, 1, 12},   {0, 4, 2, 10},
    {0, 2, 1, 20},  {0, 2, 1, 24},  {0, 2, 1, 30},  {0, 2, 1, 40},   {0, 2, 1, 48},   {0, 2, 1, 60},
    {0, 3, 2, 50},  {0, 2, 1, 75},  {0, 5, 2, 60},  {0, 2, 1, 120},  {0, 2, 1, 150},  {0, 5, 2, 120},
    {0, 2, 1, 300}, {0, 2, 1, 600}, {1, 5, 3, 600}, {1, 5, 3, 1000}, {1, 9, 5, 1000}, {0, 4, 2, 6},
}};

// ---- Per-device state --------------------------------------------------------------------------

VCI_INIT_CONFIG OldInitConfig[kDevices];
// Read by the read threads while the application registers: atomic.
std::atomic<PVCI_RECEIVE_CALLBACK> ReceiveCallBack[kDevices];
VCI_ERR_INFO CAN_ErrorInfo[kDevices][2];

// Thread handles as the return-code logic sees them: entry 0 starts as "never started", the others
// as 0, and a join does not reset them. Whether a handle may be joined is kept apart (joinable), so
// a thread is joined once, and only when it was started.
unsigned long VCI_CAN1_hThread[kDevices] = {kNeverStarted};
unsigned long VCI_CAN2_hThread[kDevices] = {kNeverStarted};
std::atomic<bool> VCI_CAN1_ThreadExitFlag[kDevices];
std::atomic<bool> VCI_CAN2_ThreadExitFlag[kDevices];

namespace {

struct ThreadSlot {
    pthread_t thread{};
    bool joinable = false;
};
ThreadSlot thread_slots[2][kDevices];
// The device index each read thread gets as its argument.
std::atomic<int32_t> thread_args[kThreadArgSlots];

unsigned long* handles(uint32_t can_index) {
    return can_index == 0 ? VCI_CAN1_hThread : VCI_CAN2_hThread;
}
std::atomic<bool>* exit_flags(uint32_t can_index) {
    return can_index == 0 ? VCI_CAN1_ThreadExitFlag : VCI_CAN2_ThreadExitFlag;
}
VCI_CAN_SqQueue* queues(uint32_t can_index) {
    return can_index == 0 ? CAN1_DataBufQueue : CAN2_DataBufQueue;
}

bool bad_type(uint32_t DevType) {
    return DevType != VCI_USBCAN1 && DevType != VCI_USBCAN2;
}

bool bad_device(uint32_t DevIndex) {
    return DevIndex >= kDevices;
}

int32_t board(uint32_t DevIndex) {
    return static_cast<int32_t>(DevIndex);
}

// With a one-channel adapter the channel is the first whatever CANIndex says.
uint32_t can_index_of(uint32_t DevType, uint32_t CANIndex) {
    return DevType == VCI_USBCAN1 ? 0 : CANIndex;
}

// Replaces the channel's error code. A channel index beyond the table's two is not recorded.
void set_error(uint32_t DevIndex, uint32_t can_index, uint32_t code) {
    if (DevIndex < kDevices && can_index < 2) CAN_ErrorInfo[DevIndex][can_index].ErrCode = code;
}

}  // namespace

// The bit rate in bit/s of a Timing0/Timing1 pair, or 0 for a pair not in the table.
uint32_t GetBaudRate(uint8_t Timing0, uint8_t Timing1) {
    for (const can::TimingPair& row : CanBaudRateTable)
        if (row.timing0 == Timing0 && row.timing1 == Timing1) return row.kbps * 1000;
    return 0;
}

// The top n hexadecimal digits of value (at most 8), upper case, and a terminating zero.
void HexToString(uint32_t value, char* buffer, int n) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    n = std::clamp(n, 0, 8);
    for (int i = 0; i < n; ++i) buffer[i] = kDigits[(value >> (28 - 4 * i)) & 0xF];
    buffer[n] = '\0';
}

// Stops a channel's read thread: -1 for an index beyond the tables or a thread never started on
// device 0; else sets the exit flag, waits 10 ms and joins the thread if it is running, 0.
int WaitForThreadExit(uint32_t DevIndex, uint32_t CANIndex) {
    if (DevIndex >= kDevices || CANIndex >= 2) return -1;
    if (handles(CANIndex)[DevIndex] == kNeverStarted) return -1;
    exit_flags(CANIndex)[DevIndex] = true;
    usleep(can::kPollPeriodUs);
    ThreadSlot& slot = thread_slots[CANIndex][DevIndex];
    if (slot.joinable) pthread_join(slot.thread, nullptr);
    slot.joinable = false;
    return 0;
}

// ---- Read threads ------------------------------------------------------------------------------

namespace {

bool is_timeout(int32_t result) {
    // The adapter's time-out code is counted in either form: its own -116, or libusb-0.1's
    // -ETIMEDOUT (-110 on Linux).
    return result == -116 || result == -ETIMEDOUT;
}

// One body for both channels. The reply buffer belongs to the thread, so threads of different
// devices never share one, locked or not. Each pass holds the lock from the poll to the last frame
// queued; the callback runs after it is released, so it may call VCI_Receive.
void* vci_read_thread(uint32_t can_index, const std::atomic<int32_t>* arg) {
    const int32_t dev = *arg;
    const auto DevIndex = static_cast<uint32_t>(dev);
    const std::array<uint8_t, 1> channel = {static_cast<uint8_t>(can_index + 1)};
    std::atomic<bool>& exit_flag = exit_flags(can_index)[DevIndex];
    VCI_CAN_SqQueue& queue = queues(can_index)[DevIndex];
    std::array<uint8_t, kReplyBuffer> reply;
    auto give_up = [&]() -> void* {
        unlock(dev);
        exit_flag = true;
        return nullptr;
    };
    for (;;) {
        if (exit_flag) return nullptr;
        if (!DeviceIsConnected(dev)) {
            exit_flag = true;
            return nullptr;
        }
        usleep(can::kPollPeriodUs);
        lock(dev);
        int timeouts = 0;
        bool waiting = true;
        int32_t n = 0;
        for (;;) {
            if (send_bare(dev, MSG_KD_CAN_GET_DATAS_NUM, channel) != 0) return give_up();
            // Only whether a status byte came counts, not its value.
            if (USB_GetStatus(dev) == MSG_NO_STATE) {
                waiting = false;
                break;
            }
            if (send_bare(dev, MSG_KD_CAN_READ_DATAS, channel) != 0) return give_up();
            n = USB_ReadRaw(dev, reply.data(), static_cast<int32_t>(can::kPollReadMax), kPollFastTimeoutMs,
                            ReadMode::Fast);
            if (!is_timeout(n)) break;
            if (++timeouts >= kPollTimeoutsMax) return give_up();
            // After a time-out the poll starts again, still holding the lock.
        }
        if (!waiting) {
            unlock(dev);
            continue;
        }
        if (n < 1)
            n = USB_ReadRaw(dev, reply.data(), static_cast<int32_t>(can::kPollReadMax), kPollRetryTimeoutMs,
                            ReadMode::Retrying);
        if (n < static_cast<int32_t>(proto::kReplyHeaderSize)) return give_up();
        const auto answer = std::span<const uint8_t>(reply).first(static_cast<std::size_t>(n));
        S_MSG header{};
        can_io::decode_header(answer, header);
        // Intended: a status other than 45 goes back to the start of the loop without releasing
        // the lock, so the next pass waits on it forever (documented in ControlCAN.h).
        if (header.status != MSG_CAN_READ_DATA_OK) continue;
        const auto records = answer.subspan(proto::kReplyHeaderSize);
        const auto size = static_cast<std::size_t>(header.size);
        std::size_t used = 0;
        do {
            VCI_CAN_OBJ frame;
            const std::size_t k = CanDataTran(records.subspan(used), &frame);
            if (k == 0) break;  // a record cut short ends the decoding
            VCI_CAN_EnQueue(&queue, frame);
            used += k;
        } while (used < size);
        const auto waiting_frames = static_cast<uint32_t>(VCI_CAN_QueueLength(&queue));
        unlock(dev);
        if (PVCI_RECEIVE_CALLBACK callback = ReceiveCallBack[DevIndex]; callback && waiting_frames > 0)
            callback(DevIndex, can_index, waiting_frames);
    }
}

}  // namespace

void* VCI_Can1ReadThread(void* arg) {
    return vci_read_thread(0, static_cast<const std::atomic<int32_t>*>(arg));
}

void* VCI_Can2ReadThread(void* arg) {
    return vci_read_thread(1, static_cast<const std::atomic<int32_t>*>(arg));
}

// ---- Devices -----------------------------------------------------------------------------------

// The argument is reserved: every scan reads the buses again.
uint32_t VCI_ScanDevice(uint8_t /*Reserved*/) {
    return static_cast<uint32_t>(family_scan(1));
}

uint32_t VCI_OpenDevice(uint32_t DevType, uint32_t DevIndex, uint32_t /*Reserved*/) {
    lock_init(board(DevIndex));
    if (bad_device(DevIndex)) return STATUS_ERR;
    if (bad_type(DevType)) {
        set_error(DevIndex, 0, ERR_DEVICENOTEXIST);
        return STATUS_ERR;
    }
    if (KD_OpenBoard(board(DevIndex)) != 0) {
        set_error(DevIndex, 0, ERR_DEVICEOPEN);
        return STATUS_ERR;
    }
    BoardLock hold(board(DevIndex));
    ReceiveCallBack[DevIndex] = nullptr;
    VCI_CAN_InitQueue(&CAN1_DataBufQueue[DevIndex]);
    VCI_CAN_InitQueue(&CAN2_DataBufQueue[DevIndex]);
    return STATUS_OK;
}

namespace {

// Stops the read thread of one CAN index, then tests the connection.
uint32_t reset_channel(uint32_t DevType, uint32_t DevIndex, uint32_t can_index) {
    if (bad_type(DevType)) {
        set_error(DevIndex, can_index, ERR_DEVICENOTEXIST);
        return STATUS_ERR;
    }
    const bool stopped = WaitForThreadExit(DevIndex, can_index) == 0;
    return stopped && DeviceIsConnected(board(DevIndex)) ? STATUS_OK : STATUS_ERR;
}

}  // namespace

// Both channels' threads are stopped before anything else, so a close never leaves one running.
uint32_t VCI_CloseDevice(uint32_t DevType, uint32_t DevIndex) {
    if (bad_device(DevIndex)) return STATUS_ERR;
    reset_channel(DevType, DevIndex, 0);
    reset_channel(DevType, DevIndex, 1);
    if (bad_type(DevType)) {
        set_error(DevIndex, 0, ERR_DEVICENOTEXIST);
        return STATUS_ERR;
    }
    if (KD_CloseBoard(board(DevIndex)) != 0) {
        set_error(DevIndex, 0, ERR_CMDFAILED);
        return STATUS_ERR;
    }
    return STATUS_OK;
}

// ---- Channels ----------------------------------------------------------------------------------

namespace {

// The shared part of both initialisations: the channel and the caller's buffers for the driver's
// texts, under the lock for as long as it lives.
class ChannelSetup {
  public:
    ChannelSetup(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex)
        : hold_(board(DevIndex)), use_(CAN_Data, send_, text_) {
        CAN_Data.CAN_Channel = DevType == VCI_USBCAN1 ? can::kChannel1 : static_cast<uint8_t>(CANIndex + 1);
        CAN_Data.deviceNumber = board(DevIndex);
    }

  private:
    BoardLock hold_;
    std::array<uint8_t, kTextBuffer> send_{};
    std::array<uint8_t, kTextBuffer> text_{};
    can_io::RecordBuffers use_;
};

// The 32-bit filter register form of an identifier or mask split into its high part (11 bits) and
// low part (18 bits), with its IDE and RTR bits.
void filter_words(uint32_t high, uint32_t low, uint32_t ide, uint32_t rtr, uint16_t& word_high,
                  uint16_t& word_low) {
    word_high = static_cast<uint16_t>((high & 0x7FF) << 5 | low >> 13);
    word_low = static_cast<uint16_t>((low & 0x1FFF) << 3 | (ide & 1) << 2 | (rtr & 1) << 1);
}

void split_id(uint32_t id, bool extended, uint32_t& high, uint32_t& low) {
    high = extended ? id >> 18 : id;
    low = extended ? id & 0x3FFFF : 0;
}

// ControlCAN's acceptance code and mask (mask bit 1 = don't care) as the channel's first filter
// bank (mask bit 1 = must match).
void translate_filter(const VCI_INIT_CONFIG& c, CAN_FilterInitTypeDef& f) {
    uint32_t id = 0, mask = 0, ide = 0, rtr = 0, ide_mask = 0, rtr_mask = 0;
    bool extended = false;
    if (c.Filter == 0 || (c.AccCode == 0 && c.AccMask == 0xFFFFFFFF)) {
        f.CAN_FilterMode = 0;  // accept everything
    } else if ((c.AccMask & 0xFFFFF) == 0xFFFFF && (c.AccCode & 0xFFFFF) == 0) {
        id = c.AccCode >> 21;
        rtr = (c.AccCode >> 20) & 1;
        mask = ~(c.AccMask >> 21) & 0x7FF;
        ide_mask = 1;
        rtr_mask = (c.AccMask >> 20 & 1) == 0 ? 1 : 0;
        f.CAN_FilterMode = 0;
    } else if ((c.AccMask & 3) == 3 && (c.AccCode & 3) == 0) {
        extended = true;
        id = c.AccCode >> 3;
        rtr = (c.AccCode >> 2) & 1;
        ide = 1;
        mask = ~(c.AccMask >> 3) & can::kExtIdMask;
        ide_mask = 1;
        rtr_mask = (c.AccMask >> 2 & 1) == 0 ? 1 : 0;
        f.CAN_FilterMode = 0;
    }
    // Otherwise identifier and mask stay zero and the filter mode keeps its previous value.
    uint32_t high = 0, low = 0, mask_high = 0, mask_low = 0;
    split_id(id, extended, high, low);
    if (f.CAN_FilterMode == 0) split_id(mask, extended, mask_high, mask_low);
    filter_words(high, low, ide, rtr, f.CAN_FilterIdHigh, f.CAN_FilterIdLow);
    filter_words(mask_high, mask_low, ide_mask, rtr_mask, f.CAN_FilterMaskIdHigh, f.CAN_FilterMaskIdLow);
}

uint8_t controller_mode(uint8_t Mode) {
    switch (Mode) {
        case 1:
            return can::kModeSilent;
        case 2:
            return can::kModeSilentLoopBack;
        default:
            return can::kModeNormal;
    }
}

uint8_t quanta(uint8_t value, uint8_t mask) {
    return value == 0 ? 0 : static_cast<uint8_t>((value - 1) & mask);
}

}  // namespace

uint32_t VCI_InitCAN(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, PVCI_INIT_CONFIG pInitConfig) {
    if (bad_device(DevIndex)) return STATUS_ERR;
    if (bad_type(DevType)) {
        set_error(DevIndex, CANIndex, ERR_DEVICENOTEXIST);
        return STATUS_ERR;
    }
    if (!DeviceIsConnected(board(DevIndex)) || pInitConfig == nullptr) return STATUS_ERR;
    const VCI_INIT_CONFIG config = *pInitConfig;
    const uint32_t can_index = can_index_of(DevType, CANIndex);
    ChannelSetup setup(DevType, DevIndex, CANIndex);
    // No automatic retransmission, a locked receive FIFO, transmission in request order.
    CAN_InitTypeDef& c = CAN_Data.CAN_InitStructure;
    c.CAN_TTCM = 0;
    c.CAN_ABOM = 0;
    c.CAN_AWUM = 0;
    c.CAN_NART = 1;
    c.CAN_RFLM = 1;
    c.CAN_TXFP = 1;
    CAN_Data.CAN_Relay = 0;
    c.CAN_Mode = controller_mode(config.Mode);
    const uint32_t rate = GetBaudRate(config.Timing0, config.Timing1);
    const tCAN_BaudRate& row = CAN_BaudRateInitTab[CAN_GetBaudRateNum(rate != 0 ? rate : 1000000)];
    c.CAN_SJW = row.SJW;
    c.CAN_BS1 = row.BS1;
    c.CAN_BS2 = row.BS2;
    c.CAN_Prescaler = row.PreScale;
    if (CAN_Init(&CAN_Data) != 0) {
        set_error(DevIndex, can_index, ERR_CMDFAILED);
        return STATUS_ERR;
    }
    CAN_FilterInitTypeDef& f = CAN_Data.CAN_FilterInitStructure;
    f.CAN_FilterNumber = CAN_Data.CAN_Channel == can::kChannel1 ? 0 : can::kBanksPerChannel;
    f.CAN_FilterScale = 1;
    f.CAN_FilterActivation = 1;
    f.CAN_FilterFIFOAssignment = f.CAN_FilterNumber % 2 == 0 ? 1 : 0;
    translate_filter(config, f);
    if (CAN_FilterInit(&CAN_Data) != 0) {
        set_error(DevIndex, can_index, ERR_CMDFAILED);
        return STATUS_ERR;
    }
    OldInitConfig[DevIndex] = config;  // one per device, whichever channel
    return STATUS_OK;
}

// The channel keeps its filter.
uint32_t VCI_InitCANEx(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex,
                       PVCI_INIT_CONFIG_EX pInitConfig) {
    if (bad_device(DevIndex)) return STATUS_ERR;
    if (bad_type(DevType)) {
        set_error(DevIndex, CANIndex, ERR_DEVICENOTEXIST);
        return STATUS_ERR;
    }
    if (!DeviceIsConnected(board(DevIndex)) || pInitConfig == nullptr) return STATUS_ERR;
    const VCI_INIT_CONFIG_EX config = *pInitConfig;
    ChannelSetup setup(DevType, DevIndex, CANIndex);
    CAN_InitTypeDef& c = CAN_Data.CAN_InitStructure;
    c.CAN_ABOM = config.CAN_ABOM & 1;
    c.CAN_AWUM = 0;
    c.CAN_TTCM = 0;
    c.CAN_NART = config.CAN_NART & 1;
    c.CAN_RFLM = config.CAN_RFLM & 1;
    c.CAN_TXFP = config.CAN_TXFP & 1;
    c.CAN_BS1 = quanta(config.CAN_BS1, 0x0F);
    c.CAN_BS2 = quanta(config.CAN_BS2, 0x07);
    c.CAN_SJW = quanta(config.CAN_SJW, 0x03);
    c.CAN_Prescaler = config.CAN_BRP == 0 ? 1 : static_cast<uint16_t>(config.CAN_BRP % 1025);
    c.CAN_Mode = config.CAN_Mode & 3;
    CAN_Data.CAN_Relay = config.CAN_RELAY;
    if (CAN_Init(&CAN_Data) != 0) {
        set_error(DevIndex, can_index_of(DevType, CANIndex), ERR_CMDFAILED);
        return STATUS_ERR;
    }
    return STATUS_OK;
}

// Sends nothing to the adapter. A thread still running on the channel is stopped first, so that no
// thread is ever left without a handle to join it by.
uint32_t VCI_StartCAN(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex) {
    if (bad_device(DevIndex)) return STATUS_ERR;
    thread_args[DevIndex] = board(DevIndex);
    if (bad_type(DevType)) {
        set_error(DevIndex, CANIndex, ERR_DEVICENOTEXIST);
        return STATUS_ERR;
    }
    if (!DeviceIsConnected(board(DevIndex))) return STATUS_ERR;
    const uint32_t can_index = DevType == VCI_USBCAN2 && CANIndex != 0 ? 1 : 0;
    ThreadSlot& slot = thread_slots[can_index][DevIndex];
    if (slot.joinable) WaitForThreadExit(DevIndex, can_index);
    exit_flags(can_index)[DevIndex] = false;
    if (pthread_create(&slot.thread, nullptr, can_index == 0 ? VCI_Can1ReadThread : VCI_Can2ReadThread,
                       &thread_args[DevIndex]) != 0) {
        set_error(DevIndex, can_index, ERR_CMDFAILED);
        return STATUS_ERR;
    }
    slot.joinable = true;
    handles(can_index)[DevIndex] = static_cast<unsigned long>(slot.thread);
    return STATUS_OK;
}

// The thread is stopped first, then the connection tested. Intended: on device 0 a channel whose
// thread was never started gives 0, on the other devices 1.
uint32_t VCI_ResetCAN(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex) {
    return reset_channel(DevType, DevIndex, can_index_of(DevType, CANIndex));
}

// Intended: fixed values, those ControlCAN applications expect of their adapter; nothing is asked.
uint32_t VCI_ReadBoardInfo(uint32_t DevType, uint32_t DevIndex, PVCI_BOARD_INFO pInfo) {
    if (bad_type(DevType)) {
        set_error(DevIndex, 0, ERR_DEVICENOTEXIST);
        return STATUS_ERR;
    }
    if (pInfo == nullptr) return STATUS_ERR;
    static constexpr char kType[] = "CANalyst-II";
    static constexpr uint8_t kSerial[12] = {'0', '0', '0', '7', '0', '4', '2', '8', 0x10, 0x02, 0x29, 0x00};
    *pInfo = VCI_BOARD_INFO{};
    pInfo->can_Num = DevType == VCI_USBCAN1 ? 1 : 2;
    pInfo->hw_Version = 0x0200;
    pInfo->fw_Version = 0x0193;
    pInfo->dr_Version = 0x0200;
    pInfo->in_Version = 0x0173;
    pInfo->irq_Num = 0;
    std::memcpy(pInfo->str_hw_Type, kType, sizeof kType);
    std::memcpy(pInfo->str_Serial_Num, kSerial, sizeof kSerial);
    return STATUS_OK;
}

// Opens the adapter as a two-channel one first (which clears its callback and queues).
uint32_t VCI_ReadBoardInfoEx(uint32_t DevIndex, PVCI_BOARD_INFO_EX pInfo) {
    const int32_t dev = board(DevIndex);
    if (VCI_OpenDevice(VCI_USBCAN2, DevIndex, 0) != STATUS_OK)
        return static_cast<uint32_t>(KD_ERR_OPEN_DEVICE);
    if (!DeviceIsConnected(dev)) return static_cast<uint32_t>(KD_ERR_DEVICE_NOT_OPEN);
    if (pInfo == nullptr) return static_cast<uint32_t>(KD_ERR_PARAMETER_NULL);
    BoardLock hold(dev);
    Request request(MSG_KD_REQUEST_PRODUCT_INFO);
    std::array<uint8_t, proto::kProductInfoSize> record{};
    if (request_reply(dev, request, Reply::Packet, record) != 0) return STATUS_ERR;
    proto::Reader in(record);
    auto copy = [&](uint8_t* to, std::size_t n) {
        const auto field = in.bytes(n);
        std::copy(field.begin(), field.end(), to);
    };
    copy(pInfo->FirmwareVersion, proto::kFirmwareVersionSize);
    copy(pInfo->HardwareVersion, proto::kHardwareVersionSize);
    copy(pInfo->SerialNumber, proto::kBoardSerialSize);
    copy(pInfo->ProductName, proto::kProductNameSize);
    return STATUS_OK;
}

uint32_t VCI_GetReference(uint32_t, uint32_t, uint32_t, uint32_t, void*) {
    return STATUS_ERR;
}

uint32_t VCI_SetReference(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, uint32_t RefType,
                          void* pData) {
    return VCI_GetReference(DevType, DevIndex, CANIndex, RefType, pData);
}

// ---- Frames ------------------------------------------------------------------------------------

namespace {

// Re-initialises the channel with the stored configuration in `mode` and restarts it, waiting
// 10 ms after each step; false when a step fails (which leaves its error code).
bool switch_mode(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, uint8_t mode) {
    if (VCI_ResetCAN(DevType, DevIndex, CANIndex) != STATUS_OK) return false;
    usleep(kModeSwitchWaitUs);
    OldInitConfig[DevIndex].Mode = mode;
    VCI_INIT_CONFIG config = OldInitConfig[DevIndex];
    if (VCI_InitCAN(DevType, DevIndex, CANIndex, &config) != STATUS_OK) return false;
    usleep(kModeSwitchWaitUs);
    if (VCI_StartCAN(DevType, DevIndex, CANIndex) != STATUS_OK) return false;
    usleep(kModeSwitchWaitUs);
    return true;
}

// Intended: SendType 1, 2 and 3 re-initialise and restart the channel before every transmit (2
// and 3 in self-test mode, 2 after a further 10 ms), and SendType 0 switches a channel that is not
// in normal mode back to it. This is how the adapter's controller is moved between normal and
// loop-back operation.
bool apply_send_type(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, uint8_t SendType) {
    switch (SendType) {
        case 1:
            if (!switch_mode(DevType, DevIndex, CANIndex, 0)) return false;
            break;
        case 2:
            usleep(kModeSwitchWaitUs);
            if (!switch_mode(DevType, DevIndex, CANIndex, 2)) return false;
            break;
        case 3:
            if (!switch_mode(DevType, DevIndex, CANIndex, 2)) return false;
            break;
        default:
            break;
    }
    if (OldInitConfig[DevIndex].Mode != 0 && SendType == 0)
        return switch_mode(DevType, DevIndex, CANIndex, 0);
    return true;
}

// Stages frames from `from` on into the record's transmit array while their running size stays
// within one write message: the number staged. DataLen is not compared with 8 for the size and the
// DLC, but at most 8 data bytes are copied.
int32_t stage(const VCI_CAN_OBJ* frames, uint32_t from, uint32_t count, uint8_t channel) {
    std::size_t size = 0;
    int32_t staged = 0;
    for (uint32_t i = from; i < count && staged < static_cast<int32_t>(can::kStagedFramesMax); ++i) {
        const VCI_CAN_OBJ& f = frames[i];
        const std::size_t add = (f.ExternFlag ? 4u : 2u) + f.DataLen + 1u;
        if (size + add > can::kWriteBatchMax) break;
        size += add;
        CanTxMsg& tx = CAN_Data.TxMessage[staged++];
        tx.Channel = channel;
        tx.RTR = f.RemoteFlag ? 2 : 0;
        if (f.ExternFlag) {
            tx.IDE = 4;
            tx.ExtId = f.ID;
        } else {
            tx.IDE = 0;
            tx.StdId = f.ID;
        }
        if (f.RemoteFlag) {
            tx.DLC = 0;
        } else {
            tx.DLC = f.DataLen;
            std::memcpy(tx.Data, f.Data, std::min<std::size_t>(f.DataLen, sizeof tx.Data));
        }
    }
    return staged;
}

}  // namespace

uint32_t VCI_Transmit(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, PVCI_CAN_OBJ pSend,
                      uint32_t Len) {
    if (bad_device(DevIndex) || bad_type(DevType) || !DeviceIsConnected(board(DevIndex))) return STATUS_ERR;
    if (pSend == nullptr || Len == 0) return STATUS_ERR;
    const uint32_t can_index = can_index_of(DevType, CANIndex);
    const uint8_t send_type = pSend[0].SendType;
    if (!apply_send_type(DevType, DevIndex, can_index, send_type)) return STATUS_ERR;
    BoardLock hold(board(DevIndex));
    std::array<uint8_t, kTextBuffer> send_buf{};
    std::array<uint8_t, kTextBuffer> text_buf{};
    can_io::RecordBuffers use(CAN_Data, send_buf, text_buf);
    CAN_Data.deviceNumber = board(DevIndex);
    uint32_t sent = 0;
    while (sent < Len) {
        const int32_t staged = stage(pSend, sent, Len, static_cast<uint8_t>(can_index + 1));
        CAN_Data.DataIndex = 0;
        CAN_Data.dataLenght = staged;
        const int32_t r = send_type == 5 ? CAN_WriteDataEx(&CAN_Data) : CAN_WriteData(&CAN_Data);
        if (r != 0) {
            set_error(DevIndex, can_index, ERR_CMDFAILED);
            return STATUS_ERR;
        }
        // Frames that did not fit the message go with the next batch.
        sent += static_cast<uint32_t>(staged - CAN_Data.dataLenght);
    }
    return Len;
}

// Never blocks: WaitTime is not used.
uint32_t VCI_Receive(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, PVCI_CAN_OBJ pReceive,
                     uint32_t Len, int32_t /*WaitTime*/) {
    constexpr uint32_t kBadArgument = 0xFFFFFFFF;
    if (bad_device(DevIndex)) return kBadArgument;
    if (bad_type(DevType)) {
        set_error(DevIndex, CANIndex, ERR_DEVICENOTEXIST);
        return kBadArgument;
    }
    if (!DeviceIsConnected(board(DevIndex))) {
        set_error(DevIndex, CANIndex, ERR_DEVICENOTEXIST);
        return 0;
    }
    const uint32_t can_index = can_index_of(DevType, CANIndex);
    if (pReceive == nullptr || can_index > 1) return 0;
    BoardLock hold(board(DevIndex));
    VCI_CAN_SqQueue& queue = queues(can_index)[DevIndex];
    uint32_t n = 0;
    while (n < Len && VCI_CAN_DeQueue(&queue, &pReceive[n])) ++n;
    return n;
}

uint32_t VCI_GetReceiveNum(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex) {
    if (bad_device(DevIndex)) return 0;
    BoardLock hold(board(DevIndex));
    if (bad_type(DevType)) return 0;
    const uint32_t can_index = can_index_of(DevType, CANIndex);
    if (can_index > 1) return 0;
    return static_cast<uint32_t>(VCI_CAN_QueueLength(&queues(can_index)[DevIndex]));
}

uint32_t VCI_ClearBuffer(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex) {
    if (bad_device(DevIndex)) return STATUS_ERR;
    const int32_t dev = board(DevIndex);
    lock(dev);
    if (bad_type(DevType)) {
        set_error(DevIndex, CANIndex, ERR_DEVICENOTEXIST);
        unlock(dev);
        return STATUS_ERR;
    }
    if (DevType == VCI_USBCAN1) {
        VCI_CAN_InitQueue(&CAN1_DataBufQueue[DevIndex]);
        // Intended: the lock stays held on this path (documented in ControlCAN.h).
        return STATUS_OK;
    }
    if (CANIndex < 2) VCI_CAN_InitQueue(&queues(CANIndex)[DevIndex]);
    unlock(dev);
    return STATUS_OK;
}

uint32_t VCI_RegisterReceiveCallback(uint32_t DevIndex, PVCI_RECEIVE_CALLBACK pReceiveCallBack) {
    if (bad_device(DevIndex) || pReceiveCallBack == nullptr) return STATUS_ERR;
    BoardLock hold(board(DevIndex));
    ReceiveCallBack[DevIndex] = pReceiveCallBack;
    return STATUS_OK;
}

uint32_t VCI_LogoutReceiveCallback(uint32_t DevIndex) {
    if (bad_device(DevIndex)) return STATUS_ERR;
    BoardLock hold(board(DevIndex));
    ReceiveCallBack[DevIndex] = nullptr;
    return STATUS_OK;
}

// ---- Status, errors and filters ----------------------------------------------------------------

// Failures are recorded on the first channel of the device whatever CANIndex is: intended.
uint32_t VCI_ReadCANStatus(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex,
                           PVCI_CAN_STATUS pCANStatus) {
    if (bad_type(DevType) || bad_device(DevIndex)) return STATUS_ERR;
    const uint32_t can_index = can_index_of(DevType, CANIndex);
    if (!DeviceIsConnected(board(DevIndex)) || pCANStatus == nullptr) return STATUS_ERR;
    BoardLock hold(board(DevIndex));
    std::array<uint8_t, kStatusBuffer> send_buf{};
    std::array<uint8_t, kStatusBuffer> reply_buf{};
    can_io::RecordBuffers use(CAN_Data, send_buf, reply_buf);
    CAN_Data.deviceNumber = board(DevIndex);
    CAN_Data.CAN_Channel = static_cast<uint8_t>(can_index + 1);
    if (CAN_GetStatusCode(&CAN_Data) != 0 || can_index > 1) {
        set_error(DevIndex, 0, ERR_CMDFAILED);
        return STATUS_ERR;
    }
    // Fields the reply did not carry read as zero.
    proto::Reader in(std::span<const uint8_t>(reply_buf).first(static_cast<std::size_t>(CAN_Data.msg.size)));
    VCI_CAN_STATUS& s = *pCANStatus;
    s.BufferSize = in.be16();
    s.regESR = in.be32();
    s.regTSR = in.be32();
    s.ErrInterrupt = in.u8();
    s.regALCapture = in.u8();
    s.regECCapture = in.u8();
    s.regEWLimit = in.u8();
    s.regMode = in.u8();
    s.regRECounter = in.u8();
    s.regStatus = in.u8();
    s.regTECounter = in.u8();
    VCI_ERR_INFO& e = CAN_ErrorInfo[DevIndex][can_index];
    if (s.BufferSize < 2) e.ErrCode |= ERR_CAN_OVERFLOW;
    if (s.regESR & 0x01) e.ErrCode |= ERR_CAN_ERRALARM;
    if (s.regESR & 0x02) {
        e.ErrCode |= ERR_CAN_PASSIVE;
        e.Passive_ErrData[0] = static_cast<uint8_t>(s.regTSR & 0x0F);
        e.Passive_ErrData[1] = static_cast<uint8_t>((s.regTSR >> 8) & 0x0F);
        e.Passive_ErrData[2] = static_cast<uint8_t>((s.regTSR >> 16) & 0x0F);
    }
    if (s.regESR & 0x70) e.ErrCode |= ERR_CAN_BUSERR;
    if (s.regESR & 0x04) e.ErrCode |= ERR_CAN_BUSOFF;
    if (s.regTSR & 0x00040404) {
        e.ErrCode |= ERR_CAN_LOSE;
        e.ArLost_ErrData = static_cast<uint8_t>((s.regESR >> 4) & 0x07);
    }
    return STATUS_OK;
}

// Needs no connection and takes no lock.
uint32_t VCI_ReadErrInfo(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, PVCI_ERR_INFO pErrInfo) {
    if (bad_type(DevType) || bad_device(DevIndex) || pErrInfo == nullptr) return STATUS_ERR;
    const uint32_t can_index = can_index_of(DevType, CANIndex);
    if (can_index > 1) return STATUS_ERR;
    *pErrInfo = CAN_ErrorInfo[DevIndex][can_index];
    CAN_ErrorInfo[DevIndex][can_index] = VCI_ERR_INFO{};
    return STATUS_OK;
}

uint32_t VCI_SetFilter(uint32_t DevType, uint32_t DevIndex, uint32_t CANIndex, PVCI_FILTER_CONFIG pFilter) {
    if (bad_device(DevIndex)) return STATUS_ERR;
    if (bad_type(DevType) || !DeviceIsConnected(board(DevIndex))) {
        set_error(DevIndex, CANIndex, ERR_DEVICENOTEXIST);
        return STATUS_ERR;
    }
    if (pFilter == nullptr) return STATUS_ERR;
    const VCI_FILTER_CONFIG cfg = *pFilter;
    const uint32_t can_index = can_index_of(DevType, CANIndex);
    ChannelSetup setup(DevType, DevIndex, can_index);
    CAN_FilterInitTypeDef& f = CAN_Data.CAN_FilterInitStructure;
    f.CAN_FilterNumber = static_cast<uint8_t>(cfg.FilterIndex % can::kBanksPerChannel +
                                              (can_index == 0 ? 0 : can::kBanksPerChannel));
    f.CAN_FilterMode = cfg.FilterMode;
    f.CAN_FilterScale = 1;
    const bool extended = cfg.ExtFrame == 1;
    uint32_t high = 0, low = 0, mask_high = 0, mask_low = 0;
    split_id(cfg.ID_Std_Ext, extended, high, low);
    if (cfg.FilterMode == 0) split_id(cfg.MASK_Std_Ext, extended, mask_high, mask_low);
    filter_words(high, low, cfg.ID_IDE, cfg.ID_RTR, f.CAN_FilterIdHigh, f.CAN_FilterIdLow);
    filter_words(mask_high, mask_low, cfg.MASK_IDE, cfg.MASK_RTR, f.CAN_FilterMaskIdHigh,
                 f.CAN_FilterMaskIdLow);
    f.CAN_FilterFIFOAssignment = f.CAN_FilterNumber % 2 == 0 ? 1 : 0;
    f.CAN_FilterActivation = cfg.Enable;
    if (CAN_FilterInit(&CAN_Data) != 0) {
        set_error(DevIndex, can_index, ERR_CMDFAILED);
        return STATUS_ERR;
    }
    return STATUS_OK;
}
