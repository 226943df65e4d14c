#include "firmware/i2c_engine.hpp"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

#include "CorvelMsg.h"
#include "firmware/frame.hpp"
#include "targets/eeprom.hpp"
#include "targets/temp_sensor.hpp"

namespace corvel::sim::fw {
namespace {

// Request sizes: exact, or the fixed part before the data to write.
constexpr std::size_t kConfigSize = 12;
constexpr std::size_t kTimingSize = 2 * kI2cTimingValues;
constexpr std::size_t kWriteHeader = 7;
constexpr std::size_t kReadSize = 9;
constexpr std::size_t kWriteReadHeader = 15;
constexpr std::size_t kEventReadSize = 17;
constexpr std::size_t kEventWriteHeader = 15;
constexpr std::size_t kEventClearSize = 3;
constexpr std::size_t kChannelOnly = 1;  // the slave requests: the channel, then any data
constexpr std::size_t kRemainCountSize = 2;

constexpr uint8_t kMaxSubAddrWidth = proto::i2c::kMaxSubAddrWidth;
constexpr uint16_t kMax7BitAddress = 0x7F;
constexpr uint16_t kMax10BitAddress = 0x3FF;
constexpr uint16_t kPinsInClearMask = 16;

constexpr I2cAddress kDefaultEeprom{0x50};
constexpr I2cAddress kDefaultSensor{0x48};

// Data answers go raw on bulk IN: a reply header (code, status, length) and the data behind it,
// exactly as long as that.
Bytes data_answer(uint32_t code, uint8_t state, std::span<const uint8_t> data) {
    return encode_reply(code, state, data, /*pad_to_packet=*/false);
}

std::string eeprom_file(int channel, I2cAddress a) {
    char name[48];
    if (a.ten_bit) {
        std::snprintf(name, sizeof name, "eeprom-ch%d-10bit-%03x.bin", channel, a.value);
    } else {
        std::snprintf(name, sizeof name, "eeprom-ch%d-%02x.bin", channel, a.value);
    }
    return name;
}

// The part's address from the 8-bit form of the request.
I2cAddress address_of(const I2cConfig& config, uint16_t addr) {
    if (config.addr_type == 10) return I2cAddress{static_cast<uint16_t>(addr & kMax10BitAddress), true};
    return I2cAddress{static_cast<uint16_t>((addr & 0xFF) >> 1), false};
}

bool valid_address(I2cAddress a) {
    return a.value <= (a.ten_bit ? kMax10BitAddress : kMax7BitAddress);
}

// One transaction on a bus, from START to STOP. The STOP goes out however the transaction ends,
// after a NACK too.
class Transaction {
  public:
    explicit Transaction(std::map<I2cAddress, std::unique_ptr<I2cTarget>>& parts) : parts_(parts) {}
    ~Transaction() {
        if (part_ != nullptr) part_->stop();
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // START, or repeated START, with the address and the R/W bit. False: nobody acknowledged.
    bool start(I2cAddress address, bool read) {
        auto it = parts_.find(address);
        I2cTarget* next = it == parts_.end() ? nullptr : it->second.get();
        if (part_ != nullptr && part_ != next) part_->stop();
        part_ = next;
        return part_ != nullptr && part_->start(read);
    }

    bool send(uint8_t byte) { return part_ != nullptr && part_->write(byte); }

    bool send(std::span<const uint8_t> data) {
        return std::all_of(data.begin(), data.end(), [this](uint8_t b) { return send(b); });
    }

    // The low `width` bytes of the sub-address, most significant first.
    bool send_sub_address(uint32_t sub_addr, uint8_t width) {
        for (int i = width - 1; i >= 0; --i)
            if (!send(static_cast<uint8_t>(sub_addr >> (8 * i)))) return false;
        return true;
    }

    // Only after a START with the read bit that was acknowledged.
    void receive(std::size_t n, Bytes& out) {
        out.reserve(n);
        for (std::size_t i = 0; i < n; ++i) out.push_back(part_->read());
    }

  private:
    std::map<I2cAddress, std::unique_ptr<I2cTarget>>& parts_;
    I2cTarget* part_ = nullptr;
};

}  // namespace

I2cEngine::I2cEngine(Port& port) : port_(port), smbus_(*this, port) {
    attach_defaults();
    smbus_.attach_configured();
}

I2cEngine::~I2cEngine() = default;

std::span<const Route> I2cEngine::routes() const {
    // A refused read also drops the pending read data, as a failed one does.
    static constexpr Refusal kReadRefused =
        Refusal::with_status(MSG_I2C_READ_DATA_ERROR).also_run(handler<&I2cEngine::drop_read_data>());
    static constexpr Refusal kWriteRefused = Refusal::with_status(MSG_I2C_WRITE_DATA_ERROR);
    static constexpr Refusal kSetupRefused = Refusal::with_status(MSG_I2C_NINT_ERROR);
    static constexpr Route kRoutes[] = {
        route<&I2cEngine::set_config>(MSG_KD_REQUEST_SET_IIC_INFORMATION, Sizes::exactly(kConfigSize),
                                      kSetupRefused),
        route<&I2cEngine::set_timing>(MSG_KD_REQUEST_SOFT_SET_IIC_TIME_ONE_INFORMATION,
                                      Sizes::exactly(kTimingSize), kSetupRefused),
        route<&I2cEngine::write>(MSG_KD_REQUEST_IIC_ADDR_DATAS_TRAN, Sizes::at_least(kWriteHeader),
                                 kWriteRefused),
        route<&I2cEngine::read>(MSG_KD_REQUEST_IIC_DATAS_READ, Sizes::exactly(kReadSize), kReadRefused),
        route<&I2cEngine::fetch>(MSG_KD_REQUEST_IIC_ADDR_DATAS_REC),
        route<&I2cEngine::slave_load>(MSG_KD_SLAVE_WRITE, Sizes::at_least(kChannelOnly), kWriteRefused),
        route<&I2cEngine::slave_collect>(MSG_KD_SLAVE_READ, Sizes::at_least(kChannelOnly),
                                         Refusal::header(MSG_KD_SLAVE_READ_FB, MSG_I2C_READ_DATA_ERROR)),
        route<&I2cEngine::slave_remaining>(
            MSG_KD_SLAVE_WRITE_REMAIN, Sizes::at_least(kChannelOnly),
            Refusal::reply(MSG_KD_SLAVE_WRITE_REMAIN_FB, MSG_MSG_DATA_TRAN_ERROR, kRemainCountSize)),
        route<&I2cEngine::write_read>(MSG_KD_REQUEST_WRITE_READ, Sizes::at_least(kWriteReadHeader),
                                      kReadRefused),
        route<&I2cEngine::event_transfer>(MSG_KD_EVENT_READ, Sizes::exactly(kEventReadSize), kReadRefused),
        route<&I2cEngine::event_transfer>(MSG_KD_EVENT_WRITE, Sizes::at_least(kEventWriteHeader),
                                          kWriteRefused),
        route<&I2cEngine::event_clear>(MSG_KD_EVENT_CLEAR, Sizes::exactly(kEventClearSize), kWriteRefused),
    };
    // The SMBus unit's requests follow the I2C transfers'.
    static const std::vector<Route> kAll = [] {
        std::vector<Route> all(std::begin(kRoutes), std::end(kRoutes));
        const auto smbus = Smbus::routes();
        all.insert(all.end(), smbus.begin(), smbus.end());
        return all;
    }();
    return kAll;
}

// ---- Channels

I2cEngine::Channel* I2cEngine::channel(int index) {
    return index >= 0 && index < kI2cChannels ? &channels_[static_cast<std::size_t>(index)] : nullptr;
}

I2cEngine::Channel* I2cEngine::master(uint8_t index) {
    Channel* ch = channel(index);
    return ch != nullptr && ch->config.initialised && ch->config.master_mode != 0 ? ch : nullptr;
}

I2cEngine::Channel* I2cEngine::slave(int index) {
    Channel* ch = channel(index);
    return ch != nullptr && ch->config.initialised && ch->config.master_mode == 0 ? ch : nullptr;
}

const I2cConfig* I2cEngine::config(int index) const {
    return index >= 0 && index < kI2cChannels ? &channels_[static_cast<std::size_t>(index)].config : nullptr;
}

// ControlMode, ClockSpeed (4), a byte the host derives from the sub-address width (unused here),
// SubAddrWidth, AddrType, channel, own address (2), MasterMode. A new configuration starts the
// channel's slave buffers afresh; its parts stay.
void I2cEngine::set_config(Request& r) {
    I2cConfig c{};
    c.initialised = true;
    c.control_mode = r.in.u8();
    c.clock_hz = r.in.be32();
    r.in.skip(1);
    c.sub_addr_width = r.in.u8();
    c.addr_type = r.in.u8();
    const uint8_t index = r.in.u8();
    c.own_addr = r.in.be16();
    c.master_mode = r.in.u8();
    if (index >= kI2cChannels || c.sub_addr_width > kMaxSubAddrWidth ||
        (c.addr_type != 7 && c.addr_type != 10)) {
        port_.status(MSG_I2C_NINT_ERROR);
        return;
    }
    Channel& ch = channels_[index];
    ch.config = c;
    ch.slave_out.clear();
    ch.slave_out_taken = 0;
    ch.slave_in.clear();
    port_.status(MSG_I2C_NINT_OK);
}

// Seven 16-bit values; the bus itself is modelled without timing, so they are only kept.
void I2cEngine::set_timing(Request& r) {
    std::array<uint16_t, kI2cTimingValues> values{};
    for (uint16_t& v : values) v = r.in.be16();
    timing_ = values;
    port_.status(MSG_I2C_NINT_OK);
}

// ---- Bus transactions

bool I2cEngine::bus_write(Channel& ch, uint16_t addr, uint32_t sub_addr, std::span<const uint8_t> data) {
    Transaction t(ch.parts);
    return t.start(address_of(ch.config, addr), false) &&
           t.send_sub_address(sub_addr, ch.config.sub_addr_width) && t.send(data);
}

// With a sub-address: it is written first, then a repeated START turns the bus around for the
// read. Without one the read starts at once, wherever the part's pointer stands.
bool I2cEngine::bus_read(Channel& ch, uint16_t addr, uint32_t sub_addr, std::size_t len, Bytes& out) {
    Transaction t(ch.parts);
    const I2cAddress a = address_of(ch.config, addr);
    const uint8_t width = ch.config.sub_addr_width;
    if (width > 0 && !(t.start(a, false) && t.send_sub_address(sub_addr, width))) return false;
    if (!t.start(a, true)) return false;
    t.receive(len, out);
    return true;
}

uint8_t I2cEngine::run_read(const Transfer& t) {
    read_data_.clear();
    Channel* ch = master(t.channel);
    Bytes out;
    if (ch == nullptr || !bus_read(*ch, t.addr, t.sub_addr, t.read_len, out)) return MSG_I2C_READ_DATA_ERROR;
    read_data_ = std::move(out);
    return MSG_I2C_READ_DATA_OK;
}

uint8_t I2cEngine::run_write(const Transfer& t, std::span<const uint8_t> data) {
    Channel* ch = master(t.channel);
    return ch != nullptr && bus_write(*ch, t.addr, t.sub_addr, data) ? MSG_I2C_WRITE_DATA_OK
                                                                     : MSG_I2C_WRITE_DATA_ERROR;
}

// ---- Master transfers

// Address (2), sub-address (4), channel, then the data.
void I2cEngine::write(Request& r) {
    Transfer t;
    t.addr = r.in.be16();
    t.sub_addr = r.in.be32();
    t.channel = r.in.u8();
    port_.status(run_write(t, r.in.rest()));
}

// Address (2), sub-address (4), channel, length (2).
void I2cEngine::read(Request& r) {
    Transfer t;
    t.addr = r.in.be16();
    t.sub_addr = r.in.be32();
    t.channel = r.in.u8();
    t.read_len = r.in.be16();
    port_.status(run_read(t));
}

// Address (2), write sub-address (4), channel, read sub-address (4), interval (2), read length (2),
// then the data to write. The write goes first as a transaction of its own (none at all when there
// is neither a sub-address nor data); the interval needs no modelling, since nothing on the bus
// changes during it; then the read follows as a plain read.
void I2cEngine::write_read(Request& r) {
    Transfer t;
    t.addr = r.in.be16();
    const uint32_t write_sub_addr = r.in.be32();
    t.channel = r.in.u8();
    t.sub_addr = r.in.be32();
    r.in.skip(2);  // interval
    t.read_len = r.in.be16();
    const auto data = r.in.rest();
    Channel* ch = master(t.channel);
    if (ch == nullptr ||
        ((ch->config.sub_addr_width > 0 || !data.empty()) && !bus_write(*ch, t.addr, write_sub_addr, data))) {
        drop_read_data();
        port_.status(MSG_I2C_READ_DATA_ERROR);
        return;
    }
    port_.status(run_read(t));
}

// The pending read data, once: a header and the bytes, or the header alone saying "no data".
void I2cEngine::fetch() {
    if (read_data_.empty()) {
        port_.raw(data_answer(MSG_KD_REQUEST_IIC_ADDR_DATAS_REC_FB, MSG_I2C_NO_DATA, {}));
        return;
    }
    port_.raw(data_answer(MSG_KD_REQUEST_IIC_ADDR_DATAS_REC_FB, MSG_I2C_READ_DATA_OK, read_data_));
    read_data_.clear();
}

// ---- Slave mode

// Channel, then the bytes to offer the external master: they replace whatever was loaded before.
void I2cEngine::slave_load(Request& r) {
    Channel* ch = slave(r.in.u8());
    if (ch == nullptr) {
        port_.status(MSG_I2C_WRITE_DATA_ERROR);
        return;
    }
    const auto data = r.in.rest();
    ch->slave_out.assign(data.begin(), data.end());
    ch->slave_out_taken = 0;
    port_.status(MSG_I2C_WRITE_DATA_OK);
}

// Channel. What the external master wrote since the last collect, behind a header; the header
// alone when it wrote nothing (any channel number gets an answer).
void I2cEngine::slave_collect(Request& r) {
    Channel* ch = channel(r.in.u8());
    if (ch == nullptr || ch->slave_in.empty()) {
        port_.raw(data_answer(MSG_KD_SLAVE_READ_FB, MSG_I2C_NO_DATA, {}));
        return;
    }
    const std::size_t n = std::min(ch->slave_in.size(), kSlaveCollectMax);
    port_.raw(data_answer(MSG_KD_SLAVE_READ_FB, MSG_I2C_READ_DATA_OK,
                          std::span<const uint8_t>(ch->slave_in).first(n)));
    ch->slave_in.erase(ch->slave_in.begin(), ch->slave_in.begin() + static_cast<std::ptrdiff_t>(n));
}

// Channel. The count of loaded bytes the external master has not read yet, as a 9-byte reply.
void I2cEngine::slave_remaining(Request& r) {
    Channel* ch = channel(r.in.u8());
    if (ch == nullptr) {
        no_remaining();
        return;
    }
    const std::size_t remain = ch->slave_out.size() - ch->slave_out_taken;
    Bytes count;
    append_be16(count, static_cast<uint16_t>(std::min<std::size_t>(remain, 0xFFFF)));
    port_.reply(MSG_KD_SLAVE_WRITE_REMAIN_FB, MSG_MSG_DATA_TRAN_OK, count, /*pad_to_packet=*/false);
}

void I2cEngine::no_remaining() {
    const std::array<uint8_t, kRemainCountSize> zero{};
    port_.reply(MSG_KD_SLAVE_WRITE_REMAIN_FB, MSG_MSG_DATA_TRAN_ERROR, zero, /*pad_to_packet=*/false);
}

bool I2cEngine::external_write(int index, std::span<const uint8_t> bytes) {
    Channel* ch = slave(index);
    if (ch == nullptr) return false;
    ch->slave_in.insert(ch->slave_in.end(), bytes.begin(), bytes.end());
    return true;
}

Bytes I2cEngine::external_read(int index, std::size_t n) {
    Channel* ch = slave(index);
    if (ch == nullptr) return {};
    const std::size_t k = std::min(n, ch->slave_out.size() - ch->slave_out_taken);
    const auto begin = ch->slave_out.begin() + static_cast<std::ptrdiff_t>(ch->slave_out_taken);
    ch->slave_out_taken += k;
    return Bytes(begin, begin + static_cast<std::ptrdiff_t>(k));
}

// ---- Pin-event transfers

// Read: address (2), sub-address (4), channel, length (2), pin (2), type (2), time-out in ms (4).
// Write: address, sub-address, channel, pin, type, time-out, then the data. A well-formed request
// gets no answer now: it waits for its event, and is dropped silently when the time-out passes
// first. One naming a channel above 20 is refused at once with the operation's error status.
void I2cEngine::event_transfer(Request& r) {
    EventTransfer e;
    e.read = r.code == MSG_KD_EVENT_READ;
    e.transfer.addr = r.in.be16();
    e.transfer.sub_addr = r.in.be32();
    e.transfer.channel = r.in.u8();
    if (e.read) e.transfer.read_len = r.in.be16();
    e.pin = r.in.be16();
    e.type = r.in.be16();
    const uint32_t timeout_ms = r.in.be32();
    if (e.transfer.channel >= kI2cChannels) {
        if (e.read) drop_read_data();
        port_.status(e.read ? MSG_I2C_READ_DATA_ERROR : MSG_I2C_WRITE_DATA_ERROR);
        return;
    }
    const auto data = r.in.rest();
    e.data.assign(data.begin(), data.end());
    e.id = next_event_id_++;
    const uint64_t id = e.id;
    waiting_.push_back(std::move(e));
    port_.schedule_in(uint64_t{timeout_ms} * 1000, [this, id] {
        std::erase_if(waiting_, [id](const EventTransfer& w) { return w.id == id; });
    });
}

void I2cEngine::raise_pin_event(uint16_t pin, uint16_t type) {
    std::vector<EventTransfer> due;
    for (auto it = waiting_.begin(); it != waiting_.end();) {
        if (it->pin == pin && it->type == type) {
            due.push_back(std::move(*it));
            it = waiting_.erase(it);
        } else {
            ++it;
        }
    }
    for (const EventTransfer& e : due)
        port_.status(e.read ? run_read(e.transfer) : run_write(e.transfer, e.data));
}

// Channel, then a mask of pins (bit n: pin n). Drops the channel's waiting transfers on those pins.
void I2cEngine::event_clear(Request& r) {
    const uint8_t index = r.in.u8();
    const uint16_t mask = r.in.be16();
    std::erase_if(waiting_, [&](const EventTransfer& e) {
        return e.transfer.channel == index && e.pin < kPinsInClearMask && ((mask >> e.pin) & 1) != 0;
    });
    port_.status(MSG_I2C_WRITE_DATA_OK);
}

// ---- Parts

I2cTarget* I2cEngine::part(int index, I2cAddress address) {
    Channel* ch = channel(index);
    if (ch == nullptr) return nullptr;
    auto it = ch->parts.find(address);
    return it == ch->parts.end() ? nullptr : it->second.get();
}

std::vector<std::pair<I2cAddress, I2cTarget*>> I2cEngine::parts(int index) const {
    std::vector<std::pair<I2cAddress, I2cTarget*>> out;
    if (index < 0 || index >= kI2cChannels) return out;
    for (const auto& [address, part] : channels_[static_cast<std::size_t>(index)].parts)
        out.emplace_back(address, part.get());
    return out;
}

bool I2cEngine::attach(int index, I2cAddress address, std::unique_ptr<I2cTarget> part) {
    Channel* ch = channel(index);
    if (ch == nullptr || part == nullptr || !valid_address(address)) return false;
    ch->parts[address] = std::move(part);
    return true;
}

bool I2cEngine::attach_eeprom(int index, I2cAddress address) {
    if (channel(index) == nullptr || !valid_address(address)) return false;
    return attach(index, address,
                  std::make_unique<Eeprom>(port_.nv(eeprom_file(index, address), Eeprom::kSize)));
}

bool I2cEngine::attach_sensor(int index, I2cAddress address) {
    return attach(index, address, std::make_unique<TempSensor>());
}

void I2cEngine::detach(int index, I2cAddress address) {
    if (Channel* ch = channel(index)) ch->parts.erase(address);
}

void I2cEngine::attach_defaults() {
    if (part(0, kDefaultEeprom) == nullptr) attach_eeprom(0, kDefaultEeprom);
    if (part(0, kDefaultSensor) == nullptr) attach_sensor(0, kDefaultSensor);
}

std::unique_ptr<Engine> make_i2c_engine(Port& port) {
    if (port.identity().personality != proto::kDevTypeI2c) return nullptr;
    return std::make_unique<I2cEngine>(port);
}

}  // namespace corvel::sim::fw
