#include "targets/pmbus_supply.hpp"

#include <algorithm>
#include <span>

#include "corvel/protocol.hpp"
#include "targets/pmbus_linear.hpp"

namespace corvel::sim::fw {
namespace {

using namespace pmbus;

constexpr uint8_t kCapabilityValue = 0xB0;  // PEC, 400 kHz, SMBALERT#
constexpr uint8_t kRevisionValue = 0x22;    // PMBus 1.2
constexpr double kOvLimitRatio = 1.15;      // VOUT_OV_FAULT_LIMIT at power-up, of the output
constexpr double kOcLimitRatio = 2.0;       // IOUT_OC_FAULT_LIMIT at power-up, of the load
constexpr double kOtLimit = 85.0;           // OT_FAULT_LIMIT at power-up, degrees Celsius
constexpr uint8_t kOperationStateMask = 0xC0;
constexpr uint8_t kOnOffPowerUpByCommand = 0x10;  // ON_OFF_CONFIG: obey OPERATION and/or CONTROL
constexpr uint8_t kOnOffUseOperation = 0x08;
constexpr uint8_t kOnOffUseControl = 0x04;
constexpr uint8_t kOnOffControlActiveHigh = 0x02;
constexpr uint8_t kOnOffConfigMask = 0x1F;
// QUERY: bit 7 supported, 6 writable, 5 readable, 4-2 the data format (000 linear, 111 no number).
constexpr uint8_t kQuerySupported = 0x80, kQueryWrite = 0x40, kQueryRead = 0x20, kQueryNotNumeric = 0x1C;
constexpr uint8_t kIdle = 0xFF;  // what the supply sends when it has nothing to say

// Immediate off, soft off (the model has no turn-off delay: it is as immediate), on, and on with
// margin low or high (ignoring or acting on faults; the margins do not move the output).
constexpr uint8_t kOperationValues[] = {0x00, 0x40, 0x80, 0x94, 0x98, 0xA4, 0xA8};

bool valid_byte(uint8_t code, uint8_t value) {
    switch (code) {
        case kPage:
            return value < PmbusSupply::kPages;
        case kOperation:
            return std::find(std::begin(kOperationValues), std::end(kOperationValues), value) !=
                   std::end(kOperationValues);
        case kOnOffConfig:
            return (value & ~kOnOffConfigMask) == 0;
        default:
            return true;
    }
}

}  // namespace

const PmbusSupply::Command* PmbusSupply::find(uint8_t ext, uint8_t code) {
    using F = Format;
    static constexpr Command kCommands[] = {
        {kPage, F::Byte, true, true, false},
        {kOperation, F::Byte, true, true, false},
        {kOnOffConfig, F::Byte, true, true, false},
        {kClearFaults, F::SendByte, false, true, false},
        {pmbus::kCapability, F::Byte, true, false, false},
        {kQuery, F::Query, true, true, false},
        {pmbus::kVoutMode, F::Byte, true, false, false},
        {kVoutCommand, F::Word, true, true, true},
        {kVoutOvFaultLimit, F::Word, true, true, true},
        {kIoutOcFaultLimit, F::Word, true, true, true},
        {kOtFaultLimit, F::Word, true, true, true},
        {kStatusByte, F::Byte, true, false, false},
        {kStatusWord, F::Word, true, false, false},
        {kStatusVout, F::Byte, true, false, false},
        {kStatusIout, F::Byte, true, false, false},
        {kStatusTemperature, F::Byte, true, false, false},
        {kStatusCml, F::Byte, true, false, false},
        {kReadVout, F::Word, true, false, true},
        {kReadIout, F::Word, true, false, true},
        {kReadTemperature1, F::Word, true, false, true},
        {pmbus::kPmbusRevision, F::Byte, true, false, false},
        {kMfrId, F::Block, true, true, false},
        {kMfrModel, F::Block, true, true, false},
        {kMfrRevision, F::Block, true, true, false},
    };
    static constexpr Command kMfrCommands[] = {{kMfrRegister, F::Word, true, true, false}};
    const std::span<const Command> table = ext == kMfrExtended ? std::span<const Command>(kMfrCommands)
                                           : ext == 0          ? std::span<const Command>(kCommands)
                                                               : std::span<const Command>();
    const auto it =
        std::find_if(table.begin(), table.end(), [code](const Command& c) { return c.code == code; });
    return it == table.end() ? nullptr : &*it;
}

std::array<PmbusSupply::Output, PmbusSupply::kPages> PmbusSupply::defaults_for(uint8_t addr7) {
    if (addr7 % 2 == 0) return {{{12.0, 2.5, 35.0}, {5.0, 1.25, 33.0}}};
    return {{{3.3, 4.0, 40.0}, {1.8, 0.5, 38.0}}};
}

PmbusSupply::PmbusSupply(uint8_t addr7, const std::array<Output, kPages>& outputs)
    : addr8_(static_cast<uint8_t>(addr7 << 1)) {
    for (int i = 0; i < kPages; ++i) {
        Page& p = pages_[static_cast<std::size_t>(i)];
        const Output& o = outputs[static_cast<std::size_t>(i)];
        p.vout_command = linear16_encode(o.vout, kVoutMode);
        p.vout_ov_limit = linear16_encode(o.vout * kOvLimitRatio, kVoutMode);
        p.iout_oc_limit = linear11_encode(o.load * kOcLimitRatio);
        p.ot_limit = linear11_encode(kOtLimit);
        p.load = o.load;
        p.temperature = o.temperature;
        update(p);
    }
}

// ---- The output and its faults

bool PmbusSupply::commanded_on(const Page& p) const {
    const uint8_t c = p.on_off_config;
    if ((c & kOnOffPowerUpByCommand) == 0) return true;  // on whenever it has input power
    const bool by_operation =
        (c & kOnOffUseOperation) == 0 || (p.operation & kOperationStateMask) == kOperationOn;
    const bool by_control =
        (c & kOnOffUseControl) == 0 || control_high_ == ((c & kOnOffControlActiveHigh) != 0);
    return by_operation && by_control;
}

// Brings a page's output in line with its commands, limits, load and temperature.
void PmbusSupply::update(Page& p) {
    const bool commanded = commanded_on(p);
    if (!commanded) p.latched_off = false;  // commanded off: a latched fault may restart next time
    if (commanded && !p.latched_off) {
        if (linear16_decode(p.vout_command, kVoutMode) > linear16_decode(p.vout_ov_limit, kVoutMode)) {
            fault(p.status_vout, kFault);
            p.latched_off = true;
        } else if (p.load > linear11_decode(p.iout_oc_limit)) {
            fault(p.status_iout, kFault);
            p.latched_off = true;
        }
    }
    if (p.temperature > linear11_decode(p.ot_limit)) {
        fault(p.status_temperature, kFault);
        if (commanded) p.latched_off = true;
    }
    p.on = commanded && !p.latched_off;
}

void PmbusSupply::fault(uint8_t& reg, uint8_t bit) {
    if ((reg & bit) != 0) return;
    reg |= bit;
    alert_ = true;
}

void PmbusSupply::cml(uint8_t bit) {
    fault(status_cml_, bit);
}

uint16_t PmbusSupply::status_word(const Page& p) const {
    uint16_t w = 0;
    if (!p.on) w |= kWordOff | kWordPowerGoodNot;
    if (p.status_vout != 0) w |= kWordVout;
    if ((p.status_vout & kFault) != 0) w |= kWordVoutOv;
    if (p.status_iout != 0) w |= kWordIout;
    if ((p.status_iout & kFault) != 0) w |= kWordIoutOc;
    if (p.status_temperature != 0) w |= kWordTemperature;
    if (status_cml_ != 0) w |= kWordCml;
    return w;
}

void PmbusSupply::control(bool high) {
    control_high_ = high;
    for (Page& p : pages_) update(p);
}

void PmbusSupply::set_load(int page, double amps) {
    if (page < 0 || page >= kPages) return;
    Page& p = pages_[static_cast<std::size_t>(page)];
    p.load = amps;
    update(p);
}

void PmbusSupply::set_temperature(int page, double celsius) {
    if (page < 0 || page >= kPages) return;
    Page& p = pages_[static_cast<std::size_t>(page)];
    p.temperature = celsius;
    update(p);
}

PmbusSupplyState PmbusSupply::state() const {
    PmbusSupplyState s;
    s.present = true;
    s.page = page_;
    s.status_cml = status_cml_;
    s.alert = alert_;
    s.mfr_register = mfr_register_;
    for (std::size_t i = 0; i < pages_.size(); ++i) {
        const Page& p = pages_[i];
        PmbusPage& o = s.pages[i];
        o.output_on = p.on;
        o.operation = p.operation;
        o.on_off_config = p.on_off_config;
        o.vout_command = linear16_decode(p.vout_command, kVoutMode);
        o.vout = p.on ? o.vout_command : 0;
        o.load = p.load;
        o.iout = p.on ? p.load : 0;
        o.temperature = p.temperature;
        o.status_word = status_word(p);
        o.status_vout = p.status_vout;
        o.status_iout = p.status_iout;
        o.status_temperature = p.status_temperature;
    }
    return s;
}

// ---- The bus

bool PmbusSupply::start(bool read) {
    if (!in_transaction_) {
        in_transaction_ = true;
        crc_ = 0;
        command_ = nullptr;
        written_ = 0;
        ext_ = 0;
    } else {
        end_packet(read);
        if (!read) crc_ = 0;  // a new packet: a group command's packets each carry their own PEC
    }
    crc_ = smbus_pec(crc_, static_cast<uint8_t>(addr8_ | (read ? 1 : 0)));
    reply_size_ = reply_taken_ = 0;
    reply_pec_ = false;
    if (read) {
        prepare_reply();
    } else {
        begin_packet();
    }
    return true;
}

void PmbusSupply::stop() {
    end_packet(false);
    in_transaction_ = false;
    command_ = nullptr;
    written_ = 0;
    reply_size_ = reply_taken_ = 0;
    reply_pec_ = false;
}

void PmbusSupply::begin_packet() {
    packet_open_ = true;
    written_ = 0;
    ext_ = 0;
    command_ = nullptr;
    refused_ = false;
    pec_seen_ = false;
}

std::size_t PmbusSupply::data_size() const {
    switch (command_->format) {
        case Format::SendByte:
            return 0;
        case Format::Byte:
            return 1;
        case Format::Word:
            return 2;
        case Format::Block:
        case Format::Query:
            return written_ > header_size() ? 1u + packet_[header_size()] : 1u;
    }
    return 0;
}

bool PmbusSupply::write(uint8_t byte) {
    if (!packet_open_ || refused_) return false;
    const uint8_t crc_before = crc_;
    crc_ = smbus_pec(crc_, byte);
    const auto refuse = [this](uint8_t cml_bit) {
        cml(cml_bit);
        refused_ = true;
        return false;
    };
    if (written_ == 0 && (byte == kMfrExtended || byte == kPmbusExtended)) {
        ext_ = byte;
    } else if (written_ == 0 || (written_ == 1 && ext_ != 0)) {
        command_ = find(ext_, byte);
        if (command_ == nullptr) return refuse(kCmlInvalidCommand);
    } else {
        const std::size_t index = written_ - header_size();
        if (pec_seen_ || index > data_size()) return refuse(kCmlInvalidData);
        if (index == data_size()) {  // one byte past the data: the PEC
            if (byte != crc_before) return refuse(kCmlPecFailed);
            pec_seen_ = true;
            return true;
        }
        if (!command_->writable) return refuse(kCmlInvalidCommand);
        const bool counted = command_->format == Format::Block || command_->format == Format::Query;
        if (counted && index == 0) {
            const std::size_t limit = command_->format == Format::Query ? 1 : proto::smbus::kBlockMax;
            if (byte == 0 || byte > limit) return refuse(kCmlInvalidData);
        } else if (command_->format == Format::Byte && !valid_byte(command_->code, byte)) {
            return refuse(kCmlInvalidData);
        }
    }
    if (written_ >= packet_.size()) return refuse(kCmlInvalidData);
    packet_[written_++] = byte;
    return true;
}

// A complete write acts. A command code alone acts only for a send-byte command that no read
// follows; a write cut short is invalid data. QUERY's parameter is for the read that follows.
void PmbusSupply::end_packet(bool read_follows) {
    if (!packet_open_) return;
    packet_open_ = false;
    if (refused_ || command_ == nullptr) return;
    const std::size_t data = written_ - header_size();
    if (data == 0) {
        if (!read_follows && command_->format == Format::SendByte) execute();
        return;
    }
    if (command_->format == Format::Query) return;
    if (data < data_size()) {
        cml(kCmlInvalidData);
        return;
    }
    execute();
}

void PmbusSupply::execute() {
    const std::size_t h = header_size();
    const uint8_t b = packet_[h];
    const uint16_t word = static_cast<uint16_t>(packet_[h] | (packet_[h + 1] << 8));
    Page& p = pages_[page_];
    if (ext_ == kMfrExtended) {
        mfr_register_ = word;
        return;
    }
    const auto block = [&] { return std::string(packet_.begin() + h + 1, packet_.begin() + h + 1 + b); };
    switch (command_->code) {
        case kPage:
            page_ = b;
            return;
        case kOperation:
            p.operation = b;
            break;
        case kOnOffConfig:
            p.on_off_config = b;
            break;
        case kClearFaults:
            status_cml_ = 0;
            alert_ = false;
            for (Page& each : pages_) {
                each.status_vout = each.status_iout = each.status_temperature = 0;
                update(each);  // what is still wrong is a fault again
            }
            return;
        case kVoutCommand:
            p.vout_command = word;
            break;
        case kVoutOvFaultLimit:
            p.vout_ov_limit = word;
            break;
        case kIoutOcFaultLimit:
            p.iout_oc_limit = word;
            break;
        case kOtFaultLimit:
            p.ot_limit = word;
            break;
        case kMfrId:
            mfr_id_ = block();
            return;
        case kMfrModel:
            mfr_model_ = block();
            return;
        case kMfrRevision:
            mfr_revision_ = block();
            return;
        default:
            return;
    }
    update(p);
}

void PmbusSupply::put_word(uint16_t w) {
    reply_[reply_size_++] = static_cast<uint8_t>(w);
    reply_[reply_size_++] = static_cast<uint8_t>(w >> 8);
}

void PmbusSupply::put_block(const std::string& s) {
    const std::size_t n = std::min(s.size(), reply_.size() - 1);
    reply_[reply_size_++] = static_cast<uint8_t>(n);
    std::copy_n(s.begin(), n, reply_.begin() + 1);
    reply_size_ += n;
}

// The answer to a read after the command: its bytes, then their PEC. A read with no command
// before it, or after a refused one, gets the idle 0xFF.
void PmbusSupply::prepare_reply() {
    if (command_ == nullptr || refused_) return;
    if (!command_->readable) {
        cml(kCmlInvalidCommand);
        return;
    }
    const Page& p = pages_[page_];
    reply_pec_ = true;
    if (ext_ == kMfrExtended) {
        put_word(mfr_register_);
        return;
    }
    const auto byte = [this](uint8_t v) { reply_[reply_size_++] = v; };
    switch (command_->code) {
        case kPage:
            return byte(page_);
        case kOperation:
            return byte(p.operation);
        case kOnOffConfig:
            return byte(p.on_off_config);
        case pmbus::kCapability:
            return byte(kCapabilityValue);
        case pmbus::kVoutMode:
            return byte(kVoutMode);
        case kVoutCommand:
            return put_word(p.vout_command);
        case kVoutOvFaultLimit:
            return put_word(p.vout_ov_limit);
        case kIoutOcFaultLimit:
            return put_word(p.iout_oc_limit);
        case kOtFaultLimit:
            return put_word(p.ot_limit);
        case kStatusByte:
            return byte(static_cast<uint8_t>(status_word(p)));
        case kStatusWord:
            return put_word(status_word(p));
        case kStatusVout:
            return byte(p.status_vout);
        case kStatusIout:
            return byte(p.status_iout);
        case kStatusTemperature:
            return byte(p.status_temperature);
        case kStatusCml:
            return byte(status_cml_);
        case kReadVout:
            return put_word(p.on ? p.vout_command : 0);
        case kReadIout:
            return put_word(linear11_encode(p.on ? p.load : 0));
        case kReadTemperature1:
            return put_word(linear11_encode(p.temperature));
        case pmbus::kPmbusRevision:
            return byte(kRevisionValue);
        case kMfrId:
            return put_block(mfr_id_);
        case kMfrModel:
            return put_block(mfr_model_);
        case kMfrRevision:
            return put_block(mfr_revision_);
        case kQuery: {
            if (written_ != header_size() + 2) {  // no code to ask about
                cml(kCmlInvalidData);
                reply_pec_ = false;
                return;
            }
            const Command* c = find(0, packet_[header_size() + 1]);
            uint8_t answer = 0;
            if (c != nullptr) {
                answer = kQuerySupported | (c->writable ? kQueryWrite : 0) | (c->readable ? kQueryRead : 0) |
                         (c->linear ? 0 : kQueryNotNumeric);
            }
            byte(1);
            return byte(answer);
        }
        default:
            reply_pec_ = false;
            return;
    }
}

uint8_t PmbusSupply::read() {
    if (reply_taken_ < reply_size_) {
        const uint8_t v = reply_[reply_taken_++];
        crc_ = smbus_pec(crc_, v);
        return v;
    }
    if (reply_pec_) {
        reply_pec_ = false;
        return crc_;
    }
    return kIdle;
}

}  // namespace corvel::sim::fw
