#include "firmware/smbus.hpp"

#include <algorithm>
#include <memory>
#include <vector>

#include "CorvelMsg.h"
#include "firmware/i2c_engine.hpp"
#include "targets/pmbus_supply.hpp"
#include "targets/smbus_device.hpp"

namespace corvel::sim::fw {
namespace {

using namespace proto::smbus;

constexpr uint8_t kAraAddress = 0x0C;  // the Alert Response Address, 7-bit
constexpr uint8_t kFirstAddress = 0x08;
constexpr uint8_t kLastAddress = 0x77;
constexpr uint8_t kReadBit = 0x01;
constexpr uint8_t kIdle = 0xFF;
constexpr uint8_t kWrongPec = 0xFF;  // what a corrupted PEC byte is XORed with

// Request sizes: exact, or the fixed part before the data of a block.
constexpr std::size_t kHardInitSize = 6;  // channel, clock (4), own address
constexpr std::size_t kQuickSize = 2;     // channel, address with the R/W bit
constexpr std::size_t kSendSize = 4;      // channel, address, byte, PEC
constexpr std::size_t kReceiveSize = 3;   // channel, address, PEC
constexpr std::size_t kProcessCallSize = 6;
constexpr std::size_t kBlockReadSize = 4;     // channel, address, command, PEC
constexpr std::size_t kBlockHeader = 5;       // channel, address, command, count, PEC
constexpr std::size_t kGroupHeader = 3;       // channel, entries, PEC
constexpr std::size_t kGroupEntryHeader = 3;  // count, address, command
constexpr std::size_t kAlertSize = 1;
constexpr std::size_t kControlSize = 2;

// The fixed-size writes and reads: whether an extended command code comes first, and whether the
// data are a word (two bytes, big-endian in the request, low byte first on the bus).
struct DataShape {
    uint32_t code;
    bool ext;
    bool word;
};
constexpr DataShape kShapes[] = {
    {MSG_KD_SMBUS_WRITEBYTEPROTOCOL, false, false}, {MSG_KD_SMBUS_WRITEWORDPROTOCOL, false, true},
    {MSG_KD_SMBUS_READBYTEPROTOCOL, false, false},  {MSG_KD_SMBUS_READWORDPROTOCOL, false, true},
    {MSG_KD_PMBUS_WRITEBYTE, false, false},         {MSG_KD_PMBUS_READBYTE, false, false},
    {MSG_KD_PMBUS_WRITEWORD, false, true},          {MSG_KD_PMBUS_READWORD, false, true},
    {MSG_KD_PMBUS_WRITEBYTEEXT, true, false},       {MSG_KD_PMBUS_READBYTEEXT, true, false},
    {MSG_KD_PMBUS_WRITEWORDEXT, true, true},        {MSG_KD_PMBUS_READWORDEXT, true, true},
};
constexpr DataShape shape(uint32_t code) {
    for (const DataShape& s : kShapes)
        if (s.code == code) return s;
    return {code, false, false};
}
// channel, address, [extended code], command, [data: 1 or 2 bytes], PEC
constexpr std::size_t data_size(uint32_t code, bool write) {
    const DataShape s = shape(code);
    return 4 + (s.ext ? 1 : 0) + (write ? (s.word ? 2 : 1) : 0);
}

// A route to a handler of the engine's SMBus unit; a request of another size is malformed.
template <void (Smbus::*Method)(Request&)>
constexpr Route smbus_route(uint32_t code, Sizes sizes) {
    return Route{code, [](Engine& e, Request& r) { (static_cast<I2cEngine&>(e).smbus().*Method)(r); }, sizes,
                 Refusal::reply(code, kStatusBadRequest, 0)};
}

bool valid_supply_address(uint8_t addr7) {
    return addr7 >= kFirstAddress && addr7 <= kLastAddress && addr7 != kAraAddress;
}

// The responder to the Alert Response Address: the alerting part with the lowest address wins the
// arbitration, sends its address (8-bit form) and releases SMBALERT#; a PEC follows, as that part
// would send it. Nobody alerting: nobody acknowledges.
class AlertResponse final : public I2cTarget {
  public:
    explicit AlertResponse(std::vector<std::pair<I2cAddress, I2cTarget*>> parts) : parts_(std::move(parts)) {}

    bool start(bool read) override {
        winner_ = nullptr;
        sent_ = 0;
        if (!read) return false;
        for (const auto& [address, part] : parts_) {  // in address order
            auto* device = dynamic_cast<SmbusDevice*>(part);
            if (!address.ten_bit && device != nullptr && device->alerting()) {
                winner_ = device;
                addr8_ = static_cast<uint8_t>(address.value << 1);
                return true;
            }
        }
        return false;
    }
    bool write(uint8_t) override { return false; }
    uint8_t read() override {
        if (winner_ == nullptr) return kIdle;
        switch (sent_++) {
            case 0:
                winner_->alert_answered();
                return addr8_;
            case 1:
                return smbus_pec(smbus_pec(0, (kAraAddress << 1) | kReadBit), addr8_);
            default:
                return kIdle;
        }
    }

  private:
    std::vector<std::pair<I2cAddress, I2cTarget*>> parts_;
    SmbusDevice* winner_ = nullptr;
    uint8_t addr8_ = 0;
    int sent_ = 0;
};

}  // namespace

// The bus of one SMBus transaction: START (or repeated START) to STOP, keeping the PEC of what
// went over it. Intended: every part addressed in the transaction sees the one STOP at its end,
// not a STOP at a repeated START to another part, so the parts of a group command act together.
class Smbus::Wire {
  public:
    Wire(I2cEngine& i2c, int channel) : i2c_(i2c), channel_(channel), ara_(i2c.parts(channel)) {}
    ~Wire() {
        for (I2cTarget* p : addressed_) p->stop();
    }
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    // The 8-bit address with its R/W bit. False: nobody acknowledged.
    bool start(uint8_t addr8) {
        crc_ = smbus_pec(crc_, addr8);
        const uint8_t addr7 = addr8 >> 1;
        part_ = i2c_.part(channel_, I2cAddress{addr7});
        if (part_ == nullptr && addr7 == kAraAddress) part_ = &ara_;
        if (part_ == nullptr) return false;
        if (std::find(addressed_.begin(), addressed_.end(), part_) == addressed_.end())
            addressed_.push_back(part_);
        return part_->start((addr8 & kReadBit) != 0);
    }
    bool send(uint8_t byte) {
        crc_ = smbus_pec(crc_, byte);
        return part_ != nullptr && part_->write(byte);
    }
    uint8_t receive() {
        const uint8_t byte = part_ != nullptr ? part_->read() : kIdle;
        crc_ = smbus_pec(crc_, byte);
        return byte;
    }
    uint8_t crc() const { return crc_; }
    void restart_crc() { crc_ = 0; }

  private:
    I2cEngine& i2c_;
    int channel_;
    AlertResponse ara_;
    I2cTarget* part_ = nullptr;
    std::vector<I2cTarget*> addressed_;
    uint8_t crc_ = 0;
};

Smbus::Smbus(I2cEngine& i2c, Port& port) : i2c_(i2c), port_(port) {}

std::span<const Route> Smbus::routes() {
    static constexpr Route kRoutes[] = {
        smbus_route<&Smbus::hard_init>(MSG_KD_SMBUS_HARDINIT, Sizes::exactly(kHardInitSize)),
        smbus_route<&Smbus::quick_command>(MSG_KD_SMBUS_QUICKCOMMAND, Sizes::exactly(kQuickSize)),
        smbus_route<&Smbus::send_byte>(MSG_KD_SMBUS_WRITEBYTE, Sizes::exactly(kSendSize)),
        smbus_route<&Smbus::receive_byte>(MSG_KD_SMBUS_READBYTE, Sizes::exactly(kReceiveSize)),
        smbus_route<&Smbus::write_data>(MSG_KD_SMBUS_WRITEBYTEPROTOCOL,
                                        Sizes::exactly(data_size(MSG_KD_SMBUS_WRITEBYTEPROTOCOL, true))),
        smbus_route<&Smbus::write_data>(MSG_KD_SMBUS_WRITEWORDPROTOCOL,
                                        Sizes::exactly(data_size(MSG_KD_SMBUS_WRITEWORDPROTOCOL, true))),
        smbus_route<&Smbus::read_data>(MSG_KD_SMBUS_READBYTEPROTOCOL,
                                       Sizes::exactly(data_size(MSG_KD_SMBUS_READBYTEPROTOCOL, false))),
        smbus_route<&Smbus::read_data>(MSG_KD_SMBUS_READWORDPROTOCOL,
                                       Sizes::exactly(data_size(MSG_KD_SMBUS_READWORDPROTOCOL, false))),
        smbus_route<&Smbus::process_call>(MSG_KD_SMBUS_PROCESSCALL, Sizes::exactly(kProcessCallSize)),
        smbus_route<&Smbus::block_write>(MSG_KD_SMBUS_BLOCKWRITE, Sizes::at_least(kBlockHeader)),
        smbus_route<&Smbus::block_read>(MSG_KD_SMBUS_BLOCKREAD, Sizes::exactly(kBlockReadSize)),
        smbus_route<&Smbus::block_process_call>(MSG_KD_SMBUS_BLOCKPROCESSCALL, Sizes::at_least(kBlockHeader)),
        smbus_route<&Smbus::get_alert>(MSG_KD_SMBUS_GETALERT, Sizes::exactly(kAlertSize)),
        smbus_route<&Smbus::hard_init>(MSG_KD_PMBUS_HARDINIT, Sizes::exactly(kHardInitSize)),
        smbus_route<&Smbus::write_data>(MSG_KD_PMBUS_WRITEBYTE,
                                        Sizes::exactly(data_size(MSG_KD_PMBUS_WRITEBYTE, true))),
        smbus_route<&Smbus::read_data>(MSG_KD_PMBUS_READBYTE,
                                       Sizes::exactly(data_size(MSG_KD_PMBUS_READBYTE, false))),
        smbus_route<&Smbus::send_byte>(MSG_KD_PMBUS_SENDBYTE, Sizes::exactly(kSendSize)),
        smbus_route<&Smbus::write_data>(MSG_KD_PMBUS_WRITEWORD,
                                        Sizes::exactly(data_size(MSG_KD_PMBUS_WRITEWORD, true))),
        smbus_route<&Smbus::read_data>(MSG_KD_PMBUS_READWORD,
                                       Sizes::exactly(data_size(MSG_KD_PMBUS_READWORD, false))),
        smbus_route<&Smbus::write_data>(MSG_KD_PMBUS_WRITEBYTEEXT,
                                        Sizes::exactly(data_size(MSG_KD_PMBUS_WRITEBYTEEXT, true))),
        smbus_route<&Smbus::read_data>(MSG_KD_PMBUS_READBYTEEXT,
                                       Sizes::exactly(data_size(MSG_KD_PMBUS_READBYTEEXT, false))),
        smbus_route<&Smbus::write_data>(MSG_KD_PMBUS_WRITEWORDEXT,
                                        Sizes::exactly(data_size(MSG_KD_PMBUS_WRITEWORDEXT, true))),
        smbus_route<&Smbus::read_data>(MSG_KD_PMBUS_READWORDEXT,
                                       Sizes::exactly(data_size(MSG_KD_PMBUS_READWORDEXT, false))),
        smbus_route<&Smbus::block_write>(MSG_KD_PMBUS_BLOCKWRITE, Sizes::at_least(kBlockHeader)),
        smbus_route<&Smbus::block_read>(MSG_KD_PMBUS_BLOCKREAD, Sizes::exactly(kBlockReadSize)),
        smbus_route<&Smbus::block_process_call>(MSG_KD_PMBUS_BLOCKPROCESSCALL, Sizes::at_least(kBlockHeader)),
        smbus_route<&Smbus::group_command>(MSG_KD_PMBUS_GROUPCMD, Sizes::at_least(kGroupHeader)),
        smbus_route<&Smbus::get_alert>(MSG_KD_PMBUS_GETALERT, Sizes::exactly(kAlertSize)),
        smbus_route<&Smbus::set_control>(MSG_KD_PMBUS_SETCONTROL, Sizes::exactly(kControlSize)),
    };
    return kRoutes;
}

// ---- Channels and parts

Smbus::Channel* Smbus::ready(uint8_t index) {
    return index < kChannels && channels_[index].initialised ? &channels_[index] : nullptr;
}

bool Smbus::alert(int channel) const {
    if (channels_[static_cast<std::size_t>(channel)].alert_forced) return true;
    for (const auto& [address, part] : i2c_.parts(channel))
        if (auto* device = dynamic_cast<SmbusDevice*>(part); device != nullptr && device->alerting())
            return true;
    return false;
}

bool Smbus::take_corruption(Channel& ch, bool pec) {
    if (!pec || !ch.corrupt_pec) return false;
    ch.corrupt_pec = false;
    return true;
}

SmbusChannel Smbus::channel_state(int channel) const {
    if (channel < 0 || channel >= kChannels) return {};
    const Channel& ch = channels_[static_cast<std::size_t>(channel)];
    return {ch.initialised, ch.clock_hz, ch.own_addr, ch.control_high, alert(channel), ch.alert_forced};
}

void Smbus::set_alert(int channel, bool asserted) {
    if (channel >= 0 && channel < kChannels)
        channels_[static_cast<std::size_t>(channel)].alert_forced = asserted;
}

void Smbus::corrupt_next_pec(int channel) {
    if (channel >= 0 && channel < kChannels) channels_[static_cast<std::size_t>(channel)].corrupt_pec = true;
}

PmbusSupply* Smbus::supply(int channel, uint8_t addr7) {
    if (channel < 0 || channel >= kChannels) return nullptr;
    return dynamic_cast<PmbusSupply*>(i2c_.part(channel, I2cAddress{addr7}));
}

bool Smbus::attach_supply(int channel, uint8_t addr7) {
    if (channel < 0 || channel >= kChannels || !valid_supply_address(addr7)) return false;
    auto part = std::make_unique<PmbusSupply>(addr7, PmbusSupply::defaults_for(addr7));
    part->control(channels_[static_cast<std::size_t>(channel)].control_high);
    return i2c_.attach(channel, I2cAddress{addr7}, std::move(part));
}

void Smbus::detach_supply(int channel, uint8_t addr7) {
    if (supply(channel, addr7) != nullptr) i2c_.detach(channel, I2cAddress{addr7});
}

void Smbus::attach_configured() {
    for (uint8_t addr7 : port_.identity().smbus.supplies) attach_supply(1, addr7);
}

// ---- Transactions

uint8_t Smbus::transact(uint8_t index, uint8_t addr8, bool write, std::span<const uint8_t> out, Read read,
                        std::size_t read_len, bool pec, Bytes& in) {
    Channel* ch = ready(index);
    if (ch == nullptr) return kStatusNotReady;
    const uint8_t wrong = take_corruption(*ch, pec) ? kWrongPec : 0;
    const uint8_t addr = addr8 & static_cast<uint8_t>(~kReadBit);
    Wire wire(i2c_, index);
    if (write) {
        if (!wire.start(addr)) return kStatusAddressNack;
        for (uint8_t b : out)
            if (!wire.send(b)) return kStatusDataNack;
        if (read == Read::None) {
            if (pec && !wire.send(static_cast<uint8_t>(wire.crc() ^ wrong))) return kStatusPecError;
            return kStatusOk;
        }
    }
    if (!wire.start(addr | kReadBit)) return kStatusAddressNack;
    std::size_t n = read_len;
    if (read == Read::Block) {
        n = wire.receive();
        if (n == 0 || n > kBlockMax) return kStatusBlockSize;
    }
    Bytes data;
    for (std::size_t i = 0; i < n; ++i) data.push_back(wire.receive());
    if (pec) {
        const uint8_t expected = wire.crc();
        if (static_cast<uint8_t>(wire.receive() ^ wrong) != expected) return kStatusPecError;
    }
    in = std::move(data);
    return kStatusOk;
}

void Smbus::answer(const Request& r, uint8_t status, std::span<const uint8_t> payload) {
    port_.reply(r.code, status, status == kStatusOk ? payload : std::span<const uint8_t>{}, false);
}

// ---- Route handlers

// Channel, clock (4), own address. The channel runs SMBus from then on; its CONTROL line and
// SMBALERT# are pins and keep their levels.
void Smbus::hard_init(Request& r) {
    const uint8_t index = r.in.u8();
    const uint32_t clock = r.in.be32();
    const uint8_t own = r.in.u8();
    if (index >= kChannels) return answer(r, kStatusNotReady);
    if (clock < kMinClockHz || clock > kMaxClockHz) return answer(r, kStatusBadRequest);
    Channel& ch = channels_[index];
    ch.initialised = true;
    ch.clock_hz = clock;
    ch.own_addr = own;
    answer(r, kStatusOk);
}

// Channel, address: START with the address and its R/W bit (the command), then STOP.
void Smbus::quick_command(Request& r) {
    const uint8_t index = r.in.u8();
    const uint8_t addr8 = r.in.u8();
    if (ready(index) == nullptr) return answer(r, kStatusNotReady);
    Wire wire(i2c_, index);
    answer(r, wire.start(addr8) ? kStatusOk : kStatusAddressNack);
}

// Channel, address, the byte, PEC (SMBus Send Byte; PMBus SendByte, whose byte is the command).
void Smbus::send_byte(Request& r) {
    const uint8_t index = r.in.u8();
    const uint8_t addr = r.in.u8();
    const uint8_t byte = r.in.u8();
    const bool pec = r.in.u8() != 0;
    Bytes in;
    answer(r, transact(index, addr, true, std::span(&byte, 1), Read::None, 0, pec, in));
}

// Channel, address, PEC: Receive Byte, also the read of the Alert Response Address.
void Smbus::receive_byte(Request& r) {
    const uint8_t index = r.in.u8();
    const uint8_t addr = r.in.u8();
    const bool pec = r.in.u8() != 0;
    Bytes in;
    const uint8_t status = transact(index, addr, false, {}, Read::Bytes, 1, pec, in);
    answer(r, status, in);
}

// Channel, address, [extended code], command, a byte or a word (big-endian), PEC.
void Smbus::write_data(Request& r) {
    const DataShape s = shape(r.code);
    const uint8_t index = r.in.u8();
    const uint8_t addr = r.in.u8();
    Bytes out;
    if (s.ext) out.push_back(r.in.u8());
    out.push_back(r.in.u8());
    if (s.word) {
        const uint16_t w = r.in.be16();
        out.push_back(static_cast<uint8_t>(w));
        out.push_back(static_cast<uint8_t>(w >> 8));
    } else {
        out.push_back(r.in.u8());
    }
    const bool pec = r.in.u8() != 0;
    Bytes in;
    answer(r, transact(index, addr, true, out, Read::None, 0, pec, in));
}

// Channel, address, [extended code], command, PEC; a byte or a word (low byte first) back.
void Smbus::read_data(Request& r) {
    const DataShape s = shape(r.code);
    const uint8_t index = r.in.u8();
    const uint8_t addr = r.in.u8();
    Bytes out;
    if (s.ext) out.push_back(r.in.u8());
    out.push_back(r.in.u8());
    const bool pec = r.in.u8() != 0;
    Bytes in;
    const uint8_t status = transact(index, addr, true, out, Read::Bytes, s.word ? kWordSize : 1, pec, in);
    answer(r, status, in);
}

// Channel, address, command, the word to write (big-endian), PEC; the word read back, low byte first.
void Smbus::process_call(Request& r) {
    const uint8_t index = r.in.u8();
    const uint8_t addr = r.in.u8();
    const uint8_t command = r.in.u8();
    const uint16_t w = r.in.be16();
    const bool pec = r.in.u8() != 0;
    const uint8_t out[] = {command, static_cast<uint8_t>(w), static_cast<uint8_t>(w >> 8)};
    Bytes in;
    const uint8_t status = transact(index, addr, true, out, Read::Bytes, kWordSize, pec, in);
    answer(r, status, in);
}

// Channel, address, command, count, PEC, then `count` bytes. On the bus: the command, the count
// and the bytes. More than 32 bytes is not a block.
void Smbus::block_write(Request& r) {
    const uint8_t index = r.in.u8();
    const uint8_t addr = r.in.u8();
    const uint8_t command = r.in.u8();
    const uint8_t count = r.in.u8();
    const bool pec = r.in.u8() != 0;
    const auto data = r.in.rest();
    if (data.size() != count) return answer(r, kStatusBadRequest);
    if (count > kBlockMax) return answer(r, kStatusBlockSize);
    Bytes out{command, count};
    out.insert(out.end(), data.begin(), data.end());
    Bytes in;
    answer(r, transact(index, addr, true, out, Read::None, 0, pec, in));
}

// Channel, address, command, PEC; the block's bytes back, without the count.
void Smbus::block_read(Request& r) {
    const uint8_t index = r.in.u8();
    const uint8_t addr = r.in.u8();
    const uint8_t command = r.in.u8();
    const bool pec = r.in.u8() != 0;
    Bytes in;
    const uint8_t status = transact(index, addr, true, std::span(&command, 1), Read::Block, 0, pec, in);
    answer(r, status, in);
}

// As the block write, then a repeated START and a block read.
void Smbus::block_process_call(Request& r) {
    const uint8_t index = r.in.u8();
    const uint8_t addr = r.in.u8();
    const uint8_t command = r.in.u8();
    const uint8_t count = r.in.u8();
    const bool pec = r.in.u8() != 0;
    const auto data = r.in.rest();
    if (data.size() != count) return answer(r, kStatusBadRequest);
    if (count > kBlockMax) return answer(r, kStatusBlockSize);
    Bytes out{command, count};
    out.insert(out.end(), data.begin(), data.end());
    Bytes in;
    const uint8_t status = transact(index, addr, true, out, Read::Block, 0, pec, in);
    answer(r, status, in);
}

// Channel, number of entries, PEC, then the entries: count n (1 to 32), address, command, n bytes.
// One transaction: each entry after a (repeated) START, with a PEC of its own when asked (its
// address, command and data), and one STOP at the end, where the parts act.
void Smbus::group_command(Request& r) {
    const uint8_t index = r.in.u8();
    const uint8_t entries = r.in.u8();
    const bool pec = r.in.u8() != 0;
    const auto list = r.in.rest();
    std::size_t pos = 0;
    for (int k = 0; k < entries; ++k) {
        if (list.size() - pos < kGroupEntryHeader) return answer(r, kStatusBadRequest);
        const uint8_t n = list[pos];
        if (n == 0 || n > proto::pmbus::kGroupEntryMax) return answer(r, kStatusBlockSize);
        if (list.size() - pos - kGroupEntryHeader < n) return answer(r, kStatusBadRequest);
        pos += kGroupEntryHeader + n;
    }
    if (pos != list.size()) return answer(r, kStatusBadRequest);
    Channel* ch = ready(index);
    if (ch == nullptr) return answer(r, kStatusNotReady);
    const uint8_t wrong = take_corruption(*ch, pec && entries > 0) ? kWrongPec : 0;
    Wire wire(i2c_, index);
    pos = 0;
    for (int k = 0; k < entries; ++k) {
        const uint8_t n = list[pos];
        const uint8_t addr = list[pos + 1] & static_cast<uint8_t>(~kReadBit);
        const auto bytes = list.subspan(pos + 2, 1u + n);  // the command and the data
        pos += kGroupEntryHeader + n;
        wire.restart_crc();
        if (!wire.start(addr)) return answer(r, kStatusAddressNack);
        for (uint8_t b : bytes)
            if (!wire.send(b)) return answer(r, kStatusDataNack);
        if (pec && !wire.send(static_cast<uint8_t>(wire.crc() ^ wrong))) return answer(r, kStatusPecError);
    }
    answer(r, kStatusOk);
}

// Channel: status 1 while its SMBALERT# is asserted, else 0.
void Smbus::get_alert(Request& r) {
    const uint8_t index = r.in.u8();
    if (index >= kChannels) return answer(r, kStatusNotReady);
    answer(r, alert(index) ? 1 : 0);
}

// Channel, level: 0 drives CONTROL low, anything else high.
void Smbus::set_control(Request& r) {
    const uint8_t index = r.in.u8();
    const bool high = r.in.u8() != 0;
    if (index >= kChannels) return answer(r, kStatusNotReady);
    channels_[index].control_high = high;
    for (const auto& [address, part] : i2c_.parts(index))
        if (auto* device = dynamic_cast<SmbusDevice*>(part)) device->control(high);
    answer(r, kStatusOk);
}

}  // namespace corvel::sim::fw
