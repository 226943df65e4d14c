// The adapter's wire protocol as numbers: USB identity and endpoints, frame header sizes, buffer
// sizes, device types, per-family limits, and the big-endian field helpers.
//
// Internal (not installed). The library (Source/), the virtual adapter (sim/), the corvel tool
// (tools/) and the tests all include this one header, so each fact has one place. Payload *layouts*
// are not here: the library and the firmware model each code their own, and the byte-literal wire
// tests are what catch a disagreement between them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace corvel::proto {

// ---- USB identity and endpoints --------------------------------------------------------------

inline constexpr uint16_t kVendorId = 0x0483;
inline constexpr uint16_t kProductId = 0x0666;
inline constexpr int kInterface = 0;
inline constexpr int kEndpointIntOut = 0x01;   // 8-byte board commands
inline constexpr int kEndpointBulkOut = 0x02;  // request frames
inline constexpr int kEndpointIntIn = 0x81;    // 8-byte command answers
inline constexpr int kEndpointBulkIn = 0x82;   // reply frames, status bytes, raw data
// Full-speed bulk packet size. A bulk OUT transfer ends with a packet shorter than this (a
// zero-length one included); that is how the adapter delimits a frame.
inline constexpr std::size_t kUsbPacketSize = 64;
inline constexpr std::size_t kSerialStringSize = 128;  // the device list's serial-number field

// The raw layer's pipe numbers: 1 selects interrupt OUT, 129 interrupt IN; any other value is bulk.
inline constexpr int kPipeIntOut = 1;
inline constexpr int kPipeBulkOut = 2;
inline constexpr int kPipeIntIn = 129;
inline constexpr int kPipeBulkIn = 130;

// ---- Frames ----------------------------------------------------------------------------------

inline constexpr std::size_t kShortHeaderSize = 7;       // code (4), packet number (1), size (2)
inline constexpr std::size_t kLongHeaderSize = 9;        // code (4), packet number (1), size (4)
inline constexpr std::size_t kReplyHeaderSize = 7;       // code (4), status (1), size (2): replies only
inline constexpr uint32_t kLongHeaderFirstCode = 32768;  // codes from here on carry a 32-bit size

constexpr std::size_t request_header_size(uint32_t code) {
    return code >= kLongHeaderFirstCode ? kLongHeaderSize : kShortHeaderSize;
}

inline constexpr std::size_t kCommandSize = 8;  // interrupt request and answer

// ---- Buffers ---------------------------------------------------------------------------------

inline constexpr std::size_t kSendBufferSize = 102800;  // one request frame, header included
// The largest request frame that goes out. The SPI family cuts its longest transfers at lengths
// whose frames run a few bytes past the 102800-byte send buffer (the bit write-read: 102792 packed
// bytes, two 4-byte counts and the channel behind a 7-byte header); the adapter takes such frames
// whole, so the frame store has room for them and no byte is sent from beyond it.
inline constexpr std::size_t kSendFrameMax = 102808;
inline constexpr std::size_t kPacketSize = 512;                                   // one reply packet
inline constexpr std::size_t kPacketPayloadMax = kPacketSize - kReplyHeaderSize;  // 505
inline constexpr std::size_t kLongReplyBufferSize = 102800;
inline constexpr std::size_t kReceiveBufferSize = 10240;  // raw data answers, reply header included
inline constexpr std::size_t kReceiveDataMax = kReceiveBufferSize - kReplyHeaderSize;  // 10233

// ---- Device types (adapter personalities) ------------------------------------------------------

inline constexpr int32_t kDevTypeI2c = 1;
inline constexpr int32_t kDevTypeSpi = 2;
inline constexpr int32_t kDevTypeCan1 = 3;  // one-channel CAN
inline constexpr int32_t kDevTypeCan2 = 4;  // two-channel CAN

// ---- Board information (answer to the product-information request) -----------------------------

inline constexpr std::size_t kFirmwareVersionSize = 4;
inline constexpr std::size_t kHardwareVersionSize = 4;
inline constexpr std::size_t kBoardSerialSize = 12;
inline constexpr std::size_t kProductNameSize = 32;
inline constexpr std::size_t kProductInfoSize =
    kFirmwareVersionSize + kHardwareVersionSize + kBoardSerialSize + kProductNameSize;  // 52

// ---- Per-family limits -----------------------------------------------------------------------

namespace i2c {
inline constexpr int kChannels = 21;  // channel indices 0 to 20
inline constexpr int32_t kMaxChannel = kChannels - 1;
inline constexpr int32_t kSlaveRemainMaxChannel = 2;  // the remaining-bytes request's own limit
inline constexpr uint32_t kMinClockHz = 1000;
inline constexpr uint32_t kMaxClockHz = 5000000;
inline constexpr uint8_t kMaxSubAddrWidth = 4;
inline constexpr std::size_t kTimingValues = 7;  // fields of the timing request
inline constexpr int32_t kUserDataSize = 2048;   // the adapter's non-volatile user-data area
}  // namespace i2c

namespace spi {
// Channel limits differ by function, as the adapter has always had them.
inline constexpr int32_t kMaxChannel = 15;        // byte writes and write-reads
inline constexpr int32_t kReadMaxChannel = 4;     // byte reads, bit transfers, block transfers
inline constexpr int32_t kMwInitMaxChannel = 32;  // Microwire description
inline constexpr int32_t kMwMaxChannel = 15;      // Microwire transfers
inline constexpr uint8_t kMaxControlMode = 3;
inline constexpr uint8_t kMinTranBits = 1;
inline constexpr uint8_t kMaxTranBits = 16;
inline constexpr uint32_t kMinClockHz = 1000;
inline constexpr uint32_t kMaxClockHz = 42000000;
inline constexpr uint32_t kMaxClockHzEx = 36000000;  // the extended configuration's lower ceiling
inline constexpr uint32_t kLongWriteMax = 102790;    // write bytes of the long write-read
inline constexpr int32_t kWriteBitsMax = 822336;     // 102792 packed bytes
inline constexpr int32_t kReadBitsMax = 822400;      // 102800 packed bytes
inline constexpr int32_t kBlockWriteMax = 102784;
inline constexpr int32_t kBlockReadMax = 102800;
inline constexpr int32_t kBlockWriteReadMax = 102782;  // the written part only
inline constexpr std::size_t kSlaveReadMax = 10240;
inline constexpr std::size_t kFlashCommandBytes = 7;  // command bytes of one flash sequence
inline constexpr int kDataTimeoutMs = 5000;           // raw data reads
inline constexpr int kFlashReadTimeoutMs = 2000;      // the flash engine's data read
}  // namespace spi

namespace gpio {
inline constexpr int kPins = 24;                     // pins 0 to 23 (the Ex masks reach 24 bits)
inline constexpr int kReadPins = 16;                 // levels a read brings back: pins 0 to 15
inline constexpr uint32_t kExMaskBits = 0x00FFFFFF;  // what an Ex mask sends
inline constexpr uint32_t kModeInput = 0xFFFFFFFF;   // the library's pin-mode presets
inline constexpr uint32_t kModeOutput = 0x55555555;
inline constexpr uint32_t kModeOpenDrain = 0xAAAAAAAA;
// PinMode holds a 2-bit field per pin (pin n: bits 2(n mod 16) and up). The presets above fill
// every field with one of these; 0 is the adapter's input with pull-up.
inline constexpr uint8_t kFieldInputPullUp = 0;
inline constexpr uint8_t kFieldOutput = 1;
inline constexpr uint8_t kFieldOpenDrain = 2;  // open drain with pull-up
inline constexpr uint8_t kFieldInput = 3;      // high impedance
inline constexpr std::size_t kInitSize = 8;
inline constexpr std::size_t kWriteSize = 8;
inline constexpr std::size_t kReadSize = 4;
inline constexpr std::size_t kReadReplySize = 4;  // bytes 2-3: levels of pins 15..0
inline constexpr std::size_t kSnifferControlSize = 2;
inline constexpr std::size_t kSnifferReadSize = 1;
}  // namespace gpio

namespace adc {
inline constexpr int kChannels = 8;  // Channel is a mask of channels 0 to 7
inline constexpr uint16_t kMaxInstants = 10240;
inline constexpr int kReadTimeoutMs = 10000;  // lets the adapter finish sampling
inline constexpr std::size_t kInitSize = 5;
inline constexpr std::size_t kReadSize = 4;
inline constexpr std::size_t kSampleSize = 2;  // 16-bit words, least significant byte first
inline constexpr int kResolutionBits = 12;
inline constexpr uint16_t kFullScale = 4095;
inline constexpr uint32_t kReferenceMillivolts = 3300;  // the adapter's analogue reference
}  // namespace adc

namespace pwm {
inline constexpr int kChannels = 8;
inline constexpr uint8_t kMaxMode = 3;
inline constexpr uint8_t kModeUnchecked = 3;  // skips the polarity and pulse checks
inline constexpr uint8_t kMaxPolarity = 1;
inline constexpr uint8_t kMaxPulse = 100;  // percent
inline constexpr uint32_t kMinFrequencyHz = 1;
inline constexpr uint32_t kMaxFrequencyHz = 20000000;
inline constexpr std::size_t kInitSize = 8;
inline constexpr std::size_t kMaskSize = 1;                    // start, stop
inline constexpr std::size_t kPulseSize = 1 + kChannels;       // mask, eight percentages
inline constexpr std::size_t kPeriodSize = 1 + kChannels * 4;  // mask, eight frequencies
}  // namespace pwm

namespace cnt {
inline constexpr int kCounters = 4;
inline constexpr uint8_t kChannelMask = 0x0F;
inline constexpr std::size_t kInitSize = 4;
inline constexpr std::size_t kValueSize = 4;  // per selected counter, big-endian
inline constexpr std::size_t kMaskSize = 1;   // get, start, stop
}  // namespace cnt

namespace smbus {
// The SMBus and PMBus families run on I2C channels 0 and 1 of an adapter of type 1.
inline constexpr int kChannels = 2;
inline constexpr uint32_t kMinClockHz = 10000;
inline constexpr uint32_t kMaxClockHz = 400000;
inline constexpr std::size_t kPayloadBufferSize = 512;  // one request's payload
inline constexpr std::size_t kReplyReadSize = 512;      // one reply read: header and payload
inline constexpr int kReplyTimeoutMs = 100;             // per attempt; the raw layer retries
inline constexpr std::size_t kBlockMax = 32;            // data bytes of an SMBus block
inline constexpr std::size_t kWordSize = 2;
// Status bytes of the adapter's SMBus and PMBus transactions.
inline constexpr uint8_t kStatusOk = 0;
inline constexpr uint8_t kStatusAddressNack = 1;  // nobody acknowledged the address
inline constexpr uint8_t kStatusDataNack = 2;     // the target refused a byte (command or data)
inline constexpr uint8_t kStatusPecError = 3;     // PEC mismatch, or the target refused the PEC
inline constexpr uint8_t kStatusNotReady = 4;     // channel not initialised (or no such channel)
inline constexpr uint8_t kStatusBlockSize = 5;    // block count 0 or above 32, on either side
inline constexpr uint8_t kStatusBadRequest = 6;   // payload malformed for its message
}  // namespace smbus

namespace pmbus {
inline constexpr std::size_t kBlockMax = 32;            // block writes: -4 above it
inline constexpr std::size_t kGroupBufferSize = 10240;  // one group command's payload
inline constexpr std::size_t kGroupPayloadMax = 10233;  // -4 once the payload passes this
inline constexpr std::size_t kGroupEntryMax = 32;       // data bytes of one group entry
inline constexpr uint8_t kExtManufacturer = 0xFE;       // MFR_SPECIFIC_COMMAND_EXT
inline constexpr uint8_t kExtPmbus = 0xFF;              // PMBUS_COMMAND_EXT
}  // namespace pmbus

namespace sdi12 {
inline constexpr int kPorts = 2;
inline constexpr std::size_t kCommandMax = 511;      // characters of a command, "!" included
inline constexpr std::size_t kLineBufferSize = 512;  // a response line and its terminator
inline constexpr char kCommandEnd = '!';
inline constexpr uint8_t kParityBit = 0x80;  // even parity over bits 0-6, in bit 7 (7E1)
}  // namespace sdi12

namespace onewire {
inline constexpr std::size_t kTimings = 15;             // tA..tJ, tR1..tR5: the low byte of each is sent
inline constexpr std::size_t kInitSize = 2 + kTimings;  // port, pin, timings
inline constexpr uint8_t kReadRequest = 0x63;           // "c": the payload of the replied requests
inline constexpr std::size_t kReplyPayloadSize = 1;
}  // namespace onewire

namespace easyscale {
inline constexpr std::size_t kInitSize = 28;    // fourteen 16-bit values
inline constexpr std::size_t kCommandSize = 5;  // channel (2), address, data byte, mode
inline constexpr uint8_t kRfaBit = 0x80;        // data byte: request for acknowledge,
inline constexpr int kSubAddrShift = 5;         // sub-address in bits 6-5,
inline constexpr uint8_t kDataMask = 0x1F;      // value in bits 4-0
}  // namespace easyscale

namespace usart {
inline constexpr int kChannels = 2;              // port 0 (the default device) and port 1
inline constexpr std::size_t kInitSize = 10;     // baud (4), stop, word, parity (low bytes), mode (2), port
inline constexpr std::size_t kTextPacket = 510;  // the text layer cuts long writes into packets of this size
inline constexpr std::size_t kWritePacketMax = 512;  // the largest packet the write message carries
inline constexpr std::size_t kReadReplyMax = kPacketPayloadMax;  // bytes one read reply delivers
inline constexpr std::size_t kReceiveBuffer = 4096;  // what the adapter holds for the host per port
// Line settings as the adapter's configuration takes them (the write sends only the low byte of the
// stop bits, word length and parity: 0 there is 1 stop bit, 8 data bits, no parity).
inline constexpr uint16_t kModeRx = 0x0004;
inline constexpr uint16_t kModeTx = 0x0008;
}  // namespace usart

// The text interface's buffers: what each command copies its input into, and how many fields it
// takes before it calls the input too long.
namespace text {
inline constexpr std::size_t kParamInput = 512;  // commands that take only parameters
inline constexpr std::size_t kParamFields = 64;  // their field table
inline constexpr int32_t kMaxDeviceCount = 100;  // KDIF_USB_EnumBoard's limit
inline constexpr int32_t kSelectMax = 99;        // SelectDevice clamps here
inline constexpr std::size_t kLockFlags = 20;    // KDIF_OpenDevice's per-device flags
inline constexpr std::size_t kI2cWriteInput = 514100;
inline constexpr std::size_t kI2cWriteFields = 102900;
inline constexpr std::size_t kI2cWriteFieldsFail = 102801;  // this many fields or more: too many
inline constexpr std::size_t kI2cSendBuffer = 102810;
inline constexpr std::size_t kI2cReadInput = 200;
inline constexpr std::size_t kI2cReadFieldsFail = 5;
inline constexpr std::size_t kI2cReadBuffer = 102800;     // readDataBuff
inline constexpr std::size_t kI2cCollect = 102810;        // one read's collection buffer
inline constexpr std::size_t kI2cReplyFull = 506;         // a reply this long means more may follow
inline constexpr std::size_t kSmallBuffer = 64;           // send and receive texts of the short commands
inline constexpr std::size_t kSpiDataMax = 102800;        // data bytes of a write, bytes of a read
inline constexpr std::size_t kSpiBitPacket = 512;         // raw packets of the bit reads
inline constexpr std::size_t kSpiWriteReadBitsMax = 512;  // SPI_WriteReadBits takes dataLenght below 513
inline constexpr std::size_t kGpioInput = 64;
inline constexpr std::size_t kAdcPacket = 512;
inline constexpr std::size_t kAdcCollect = 8192;  // one read's samples: 4096
inline constexpr std::size_t kUsartWriteInput = 102500;
inline constexpr std::size_t kUsartWriteFields = 20580;
inline constexpr std::size_t kUsartWriteFieldsFail = 20481;
inline constexpr std::size_t kUsartSendBuffer = 20490;
inline constexpr std::size_t kUsartInitFieldsFail = 8;
}  // namespace text

namespace can {
// Channels are numbered 1 and 2 on the wire (CAN index 0 and 1 in the ControlCAN-style interface).
inline constexpr uint8_t kChannel1 = 1;
inline constexpr uint8_t kChannel2 = 2;
inline constexpr int kDevices = 30;             // per-device tables: device indices 0 to 29
inline constexpr uint32_t kQueueSlots = 10001;  // one receive queue; one slot always stays free
inline constexpr uint32_t kQueueCapacity = kQueueSlots - 1;
inline constexpr std::size_t kStagedFramesMax = 34265;  // transmit staging array
inline constexpr std::size_t kWriteBatchMax = 102793;   // packed frames of one write message
inline constexpr uint32_t kClockHz = 36000000;          // the adapter's CAN controller clock
inline constexpr int kFilterBanks = 28;                 // 0-13 channel 1, 14-27 channel 2
inline constexpr int kBanksPerChannel = 14;
inline constexpr unsigned kPollPeriodUs = 10000;       // read threads poll every 10 ms
inline constexpr std::size_t kPollReadMax = 10240;     // bytes of one receive reply
inline constexpr std::size_t kStatusPayloadSize = 18;  // status-code reply payload
inline constexpr std::size_t kErrorPayloadSize = 17;   // error-code reply payload, per channel

// Frame records, host to adapter and adapter to host. Flags byte: bits 0-1 channel, bit 2
// remote, bit 3 extended identifier, bits 4-7 data length. Identifiers little-endian (2 bytes
// standard, 4 extended); received records carry a little-endian 32-bit time stamp after the
// identifier, then the data (none for a remote frame).
inline constexpr uint8_t kFlagChannelMask = 0x03;
inline constexpr uint8_t kFlagRemote = 0x04;
inline constexpr uint8_t kFlagExtended = 0x08;
inline constexpr unsigned kFlagLengthShift = 4;
inline constexpr uint8_t kMaxDataLength = 8;
inline constexpr uint32_t kStdIdMask = 0x7FF;
inline constexpr uint32_t kExtIdMask = 0x1FFFFFFF;
inline constexpr std::size_t kTxStdHeader = 3;  // flags + 2 identifier bytes
inline constexpr std::size_t kTxExtHeader = 5;  // flags + 4 identifier bytes
inline constexpr std::size_t kRxStdHeader = 7;  // flags + 2 identifier bytes + time stamp
inline constexpr std::size_t kRxExtHeader = 9;  // flags + 4 identifier bytes + time stamp

// Controller modes as the channel initialisation carries them.
inline constexpr uint8_t kModeNormal = 0;
inline constexpr uint8_t kModeLoopBack = 1;
inline constexpr uint8_t kModeSilent = 2;
inline constexpr uint8_t kModeSilentLoopBack = 3;

// The ControlCAN baud-rate table: the SJA1000-style Timing0/Timing1 pairs the ControlCAN-style
// channel initialisation knows, in the order they are searched.
struct TimingPair {
    uint32_t kbps;
    uint8_t timing0;
    uint8_t timing1;
};
inline constexpr std::array<TimingPair, 15> kTimingPairs{{
    {5, 0xBF, 0xFF},
    {10, 0x31, 0x1C},
    {20, 0x18, 0x1C},
    {40, 0x87, 0xFF},
    {50, 0x09, 0x1C},
    {80, 0x83, 0xFF},
    {100, 0x04, 0x1C},
    {125, 0x03, 0x1C},
    {200, 0x81, 0xFA},
    {250, 0x01, 0x1C},
    {400, 0x80, 0xFA},
    {500, 0x00, 0x1C},
    {666, 0x80, 0xB6},
    {800, 0x00, 0x16},
    {1000, 0x00, 0x14},
}};

// Payload sizes of the channel and filter initialisations.
inline constexpr std::size_t kInitPayloadSize = 14;
inline constexpr std::size_t kFilterPayloadSize = 15;
}  // namespace can

// ---- Big-endian fields -----------------------------------------------------------------------

constexpr void put_be16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

constexpr void put_be32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

constexpr uint16_t get_be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

constexpr uint32_t get_be32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

// Builds a payload field by field into caller-owned storage (no allocation). A field that would
// not fit is dropped and the writer remembers it: ok() is then false, and the payload must not go.
class Writer {
  public:
    constexpr explicit Writer(std::span<uint8_t> storage) : buf_(storage) {}

    constexpr Writer& u8(uint32_t v) {
        if (room(1)) buf_[len_++] = static_cast<uint8_t>(v);
        return *this;
    }
    constexpr Writer& be16(uint32_t v) {
        if (room(2)) put_be16(&buf_[len_], v), len_ += 2;
        return *this;
    }
    constexpr Writer& be32(uint32_t v) {
        if (room(4)) put_be32(&buf_[len_], v), len_ += 4;
        return *this;
    }
    Writer& bytes(const uint8_t* p, std::size_t n) {
        if (n > 0 && room(n)) std::memcpy(&buf_[len_], p, n), len_ += n;
        return *this;
    }
    Writer& bytes(std::span<const uint8_t> s) { return bytes(s.data(), s.size()); }

    constexpr std::size_t size() const { return len_; }
    constexpr bool ok() const { return ok_; }
    constexpr std::span<const uint8_t> view() const { return buf_.first(len_); }

  private:
    constexpr bool room(std::size_t n) {
        if (n <= buf_.size() - len_) return true;
        ok_ = false;
        return false;
    }
    std::span<uint8_t> buf_;
    std::size_t len_ = 0;
    bool ok_ = true;
};

// Reads a payload field by field, in the order a layout lists them. Reading past the end yields
// zeros and clears ok(); nothing outside the span is ever touched.
class Reader {
  public:
    constexpr explicit Reader(std::span<const uint8_t> bytes) : buf_(bytes) {}

    constexpr uint8_t u8() { return has(1) ? buf_[pos_++] : 0; }
    constexpr uint16_t be16() {
        if (!has(2)) return 0;
        const uint16_t v = get_be16(&buf_[pos_]);
        pos_ += 2;
        return v;
    }
    constexpr uint32_t be32() {
        if (!has(4)) return 0;
        const uint32_t v = get_be32(&buf_[pos_]);
        pos_ += 4;
        return v;
    }
    // The next n bytes (empty, and ok() false, when fewer remain).
    constexpr std::span<const uint8_t> bytes(std::size_t n) {
        if (!has(n)) return {};
        const auto s = buf_.subspan(pos_, n);
        pos_ += n;
        return s;
    }
    // Everything not read yet.
    constexpr std::span<const uint8_t> rest() {
        const auto s = buf_.subspan(pos_);
        pos_ = buf_.size();
        return s;
    }
    constexpr void skip(std::size_t n) { (void)bytes(n); }

    constexpr std::size_t remaining() const { return buf_.size() - pos_; }
    constexpr std::size_t position() const { return pos_; }
    constexpr bool ok() const { return ok_; }

  private:
    constexpr bool has(std::size_t n) {
        if (n <= buf_.size() - pos_) return true;
        ok_ = false;
        pos_ = buf_.size();
        return false;
    }
    std::span<const uint8_t> buf_;
    std::size_t pos_ = 0;
    bool ok_ = true;
};

}  // namespace corvel::proto
