#include "firmware/can_engine.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "CorvelBoard.h"
#include "CorvelMsg.h"

namespace corvel::sim::fw {
namespace {

namespace can = proto::can;

constexpr std::size_t kChannelSize = 1;  // the status-path requests carry the channel alone
constexpr std::size_t kReadPayloadMax = can::kPollReadMax - proto::kReplyHeaderSize;
constexpr std::size_t kRecordMax = can::kRxExtHeader + can::kMaxDataLength;
constexpr unsigned kBusOffLimit = 255;  // TEC above it: bus-off
constexpr unsigned kWarningLimit = 96;
constexpr unsigned kPassiveLimit = 128;
constexpr unsigned kTecPerError = 8;
constexpr unsigned kCounterMax = 255;         // the counters are 8-bit registers
constexpr uint64_t kRecoveryBits = 128 * 11;  // bus-off recovery: 128 times 11 recessive bits
constexpr uint32_t kStampUnitUs = 100;        // time stamps in 100 us units
constexpr uint32_t kPrescalerRange = 1024;    // 10-bit register: 0 acts as 1024
constexpr double kRateTolerance = 0.01;

// Last error codes (ESR bits 4-6).
constexpr uint8_t kLecStuff = 1;
constexpr uint8_t kLecAck = 3;
// TSR bits of mailbox 0.
constexpr uint32_t kRqcp = 1u << 0;
constexpr uint32_t kTxok = 1u << 1;
constexpr uint32_t kTerr = 1u << 3;
// ESR bits.
constexpr uint32_t kEwgf = 1u << 0;
constexpr uint32_t kEpvf = 1u << 1;
constexpr uint32_t kBoff = 1u << 2;
// regStatus, laid out as an SJA1000 status register: receive buffer full, data overrun,
// transmit buffer released, transmission complete, error status, bus status.
constexpr uint8_t kStatusReceived = 1u << 0;
constexpr uint8_t kStatusOverrun = 1u << 1;
constexpr uint8_t kStatusTxFree = 1u << 2;
constexpr uint8_t kStatusTxDone = 1u << 3;
constexpr uint8_t kStatusError = 1u << 6;
constexpr uint8_t kStatusBusOff = 1u << 7;

constexpr uint8_t kFlagExtendedShift = 3;
constexpr uint8_t kFlagRemoteShift = 2;

double rate_of(uint8_t bs1, uint8_t bs2, uint16_t prescaler) {
    const uint32_t p = prescaler % kPrescalerRange == 0 ? kPrescalerRange : prescaler % kPrescalerRange;
    return double(can::kClockHz) / (double(p) * (3 + bs1 + bs2));
}

bool same_rate(double a, double b) {
    return can_rates_match(a, b);
}

// The filter registers' image of a frame: 32-bit STID[10:0] EXID[17:0] IDE RTR 0, and 16-bit
// STID[10:0] RTR IDE EXID[17:15].
uint32_t image32(const CanFrame& f) {
    const uint32_t flags = (f.extended ? 4u : 0u) | (f.remote ? 2u : 0u);
    return (f.extended ? f.id << 3 : f.id << 21) | flags;
}
uint32_t image16(const CanFrame& f) {
    const uint32_t stid = f.extended ? f.id >> 18 : f.id;
    const uint32_t exid = f.extended ? (f.id >> 15) & 7 : 0;
    return (stid & can::kStdIdMask) << 5 | (f.remote ? 0x10u : 0u) | (f.extended ? 0x08u : 0u) | exid;
}

void put_le(Bytes& out, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint8_t saturated(unsigned v) {
    return static_cast<uint8_t>(std::min(v, kCounterMax));
}

}  // namespace

bool can_rates_match(double a, double b) {
    return std::fabs(a - b) <= kRateTolerance * std::max(a, b);
}

CanTiming can_timing(uint32_t bitrate) {
    CanTiming best;
    double error = -1;
    for (uint32_t p = 1; p <= kPrescalerRange && error != 0; ++p) {
        for (int quanta = 25; quanta >= 3; --quanta) {
            const double rate = double(can::kClockHz) / (p * quanta);
            if (error >= 0 && std::fabs(rate - bitrate) >= error) continue;
            error = std::fabs(rate - bitrate);
            // Sample point near seven eighths of the bit: BS2 about an eighth, BS1 at most 16 quanta.
            const int seg1 = std::min(16, quanta - 1 - std::max(1, (quanta + 4) / 8));
            best =
                CanTiming{uint8_t(seg1 - 1), uint8_t(quanta - 2 - seg1), uint16_t(p % kPrescalerRange), rate};
        }
    }
    return best;
}

CanEngine::CanEngine(Port& port)
    : port_(port),
      channels_(port.identity().personality == proto::kDevTypeCan2 ? 2 : 1),
      bus_rate_(port.identity().can.bitrate),
      split_(port.identity().can.split),
      echo_(port.identity().can.echo),
      time_(port) {
    // Power-on: the registers closest to the bus bit rate, and banks 0 and 14 active, accepting
    // everything.
    const CanTiming timing = can_timing(bus_rate_);
    for (Controller& c : controllers_) set_timing(c, 0, timing.bs1, timing.bs2, timing.prescaler);
    banks_[0].active = banks_[can::kBanksPerChannel].active = true;
    if (port.identity().can.generator.rate != 0) set_generator(port.identity().can.generator);
}

std::span<const Route> CanEngine::routes() const {
    static constexpr Route kRoutes[] = {
        route<&CanEngine::init>(MSG_KD_CAN_INIT, Sizes::exactly(can::kInitPayloadSize),
                                Refusal::with_status(MSG_CAN_NINT_ERROR)),
        route<&CanEngine::filter>(MSG_KD_CAN_INIT_FILTER, Sizes::exactly(can::kFilterPayloadSize),
                                  Refusal::with_status(MSG_CAN_NINT_ERROR)),
        route<&CanEngine::write>(MSG_KD_CAN_WRITE_DATAS, Sizes::at_least(can::kTxStdHeader),
                                 Refusal::with_status(MSG_CAN_WRITE_DATA_ERROR)),
        route<&CanEngine::write>(MSG_KD_CAN_WRITE_DATAS_EX, Sizes::at_least(can::kTxStdHeader),
                                 Refusal::with_status(MSG_CAN_WRITE_DATA_ERROR)),
        route<&CanEngine::count>(MSG_KD_CAN_GET_DATAS_NUM),  // any size: never silence
        route<&CanEngine::read>(MSG_KD_CAN_READ_DATAS, Sizes::exactly(kChannelSize),
                                Refusal::header(MSG_KD_CAN_READ_DATAS, MSG_CAN_READ_DATA_ERROR)),
        route<&CanEngine::status>(
            MSG_KD_CAN_GET_STATUS_CODE, Sizes::exactly(kChannelSize),
            Refusal::reply(MSG_KD_CAN_GET_STATUS_CODE, MSG_CAN_GETSTATS_ERROR, can::kStatusPayloadSize)),
        route<&CanEngine::error_code>(
            MSG_KD_CAN_GET_ERROR_CODE, Sizes::exactly(kChannelSize),
            Refusal::reply(MSG_KD_CAN_GET_ERROR_CODE, MSG_CAN_GETSTATS_ERROR, can::kErrorPayloadSize)),
        route<&CanEngine::reset>(MSG_KD_CAN_RESET, Sizes::exactly(kChannelSize),
                                 Refusal::with_status(MSG_CAN_NINT_ERROR)),
    };
    return kRoutes;
}

std::span<const Route> CanEngine::commands() const {
    static constexpr Route kCommands[] = {route<&CanEngine::frames_waiting>(KD_CMD_CAN_GET_DATA_FLAG)};
    return kCommands;
}

// ---- Time and the nodes

uint64_t CanEngine::time_us() {
    return time_.now();
}

double CanEngine::echo_rate() const {
    return echo_.bitrate != 0 ? echo_.bitrate : bus_rate_;
}

double CanEngine::generator_rate() const {
    return generator_ && generator_->setup().bitrate != 0 ? generator_->setup().bitrate : bus_rate_;
}

void CanEngine::sync() {
    const uint64_t now = time_us();
    if (!generator_) return;
    const uint64_t last = generator_->last_due(now);
    if (last < next_) return;
    // After a long pause, only the frames that can still matter go over the bus: enough to fill
    // the FIFOs with the first ones (locked FIFOs keep those) and with the last ones (overwriting
    // FIFOs keep these). Those between count as sent and, on every channel that hears the
    // generator, as lost.
    if (last - next_ + 1 > 2 * kCanFifoDepth) {
        for (const uint64_t end = next_ + kCanFifoDepth; next_ < end; ++next_) emit(next_);
        const uint64_t skipped = last + 1 - kCanFifoDepth - next_;
        const int bus = bus_of(generator_->setup().bus);
        generated_[static_cast<std::size_t>(bus)] += skipped;
        for (int ch = 1; ch <= channels_; ++ch) {
            Controller& c = ctrl(ch);
            const bool hears = c.mode == can::kModeNormal || c.mode == can::kModeSilent;
            if (bus_of(ch) == bus && hears && !off(c, now) && same_rate(c.bitrate, generator_rate()))
                c.lost += skipped;
        }
        next_ += skipped;
    }
    for (; next_ <= last; ++next_) emit(next_);
}

void CanEngine::emit(uint64_t k) {
    const int bus = bus_of(generator_->setup().bus);
    ++generated_[static_cast<std::size_t>(bus)];
    carry(generator_->frame(k), bus, generator_rate(), generator_->due(k), CanSender::Generator, 0);
}

// ---- The bus

// Puts a frame on a bus; true when something acknowledged it. Every controller in normal mode and
// every node at the frame's bit rate acknowledges (a controller does not hear its own frame on the
// bus). An unacknowledged frame from a controller in normal mode ends in an error frame, so nobody
// receives it; a controller in loop-back mode needs no acknowledgement, nor do the nodes (Intended:
// they are not held back by an empty bus). Controllers at another bit rate see noise.
bool CanEngine::carry(const CanFrame& f, int bus, double rate, uint64_t t, CanSender who, int from) {
    auto listens = [&](int ch) { return ch != from && bus_of(ch) == bus && !off(ctrl(ch), t); };
    const bool echo_hears =
        echo_.bus != 0 && bus_of(echo_.bus) == bus && who != CanSender::Echo && same_rate(echo_rate(), rate);
    bool acked = echo_hears;
    if (generator_ && bus_of(generator_->setup().bus) == bus && who != CanSender::Generator &&
        same_rate(generator_rate(), rate))
        acked = true;
    for (int ch = 1; ch <= channels_; ++ch)
        if (listens(ch) && ctrl(ch).mode == can::kModeNormal && same_rate(ctrl(ch).bitrate, rate))
            acked = true;
    const bool valid = acked || who != CanSender::Channel || ctrl(from).mode == can::kModeLoopBack;

    if (log_.size() == kCanBusLogDepth) log_.pop_front();
    log_.push_back(CanBusFrame{f, bus, who, from, static_cast<uint32_t>(std::lround(rate)), t, acked});

    for (int ch = 1; ch <= channels_; ++ch) {
        Controller& c = ctrl(ch);
        if (!listens(ch) || (c.mode != can::kModeNormal && c.mode != can::kModeSilent)) continue;
        if (!same_rate(c.bitrate, rate)) {
            c.rec = std::min(c.rec + 1, kCounterMax);
            c.lec = kLecStuff;
        } else if (valid) {
            hear(ch, f, t);
        }
    }
    if (valid && echo_hears) carry(echo_answer(f), bus, echo_rate(), t, CanSender::Echo, 0);
    return acked;
}

void CanEngine::transmit(int channel, const CanFrame& f, uint64_t t) {
    Controller& c = ctrl(channel);
    auto sent = [&] {
        c.tec = c.tec > 0 ? c.tec - 1 : 0;
        c.lec = 0;
        c.tsr = kRqcp | kTxok;
    };
    switch (c.mode) {
        case can::kModeSilent:
            // Intended: a silent controller takes the request but never drives the bus.
            c.tsr = kRqcp;
            return;
        case can::kModeSilentLoopBack:
            sent();
            accept(channel, f, t);
            return;
        case can::kModeLoopBack:
            carry(f, bus_of(channel), c.bitrate, t, CanSender::Channel, channel);
            sent();
            accept(channel, f, t);
            return;
        default:
            break;
    }
    if (carry(f, bus_of(channel), c.bitrate, t, CanSender::Channel, channel)) {
        sent();
        return;
    }
    // Unacknowledged: each attempt counts (Intended: also while error passive, so a lone node
    // reaches bus-off). Without NART the controller retries at once, until bus-off.
    do {
        c.tec += kTecPerError;
    } while (c.nart == 0 && c.tec <= kBusOffLimit);
    c.lec = kLecAck;
    c.tsr = kRqcp | kTerr;
    if (c.tec > kBusOffLimit) {
        c.bus_off = true;
        c.off_since = t;
    }
}

// A frame received from the bus: a successful reception for the counters, then the filters.
void CanEngine::hear(int channel, const CanFrame& f, uint64_t t) {
    Controller& c = ctrl(channel);
    c.rec = c.rec >= kPassiveLimit ? kPassiveLimit - 1 : (c.rec > 0 ? c.rec - 1 : 0);
    c.lec = 0;
    accept(channel, f, t);
}

void CanEngine::accept(int channel, const CanFrame& f, uint64_t t) {
    const std::optional<uint8_t> index = match(channel, f);
    if (!index) return;
    Controller& c = ctrl(channel);
    c.last_filter = *index;
    if (c.count == kCanFifoDepth) {
        ++c.lost;
        if (c.rflm != 0) return;  // locked: the new frame is dropped
        c.head = (c.head + 1) % kCanFifoDepth;
        --c.count;
    }
    c.ring[(c.head + c.count) % kCanFifoDepth] =
        CanReceived{f, static_cast<uint32_t>(t / kStampUnitUs), *index};
    ++c.count;
}

// The filter-match index of the channel's first bank (in bank order) that takes the frame. The
// channel's banks number their filters one after the other, active or not: a 32-bit mask bank has
// one, a 32-bit list bank and a 16-bit mask bank two, a 16-bit list bank four.
std::optional<uint8_t> CanEngine::match(int channel, const CanFrame& f) const {
    const std::size_t first = static_cast<std::size_t>((channel - 1) * can::kBanksPerChannel);
    const uint32_t wide = image32(f), narrow = image16(f);
    unsigned index = 0;
    for (std::size_t b = first; b < first + can::kBanksPerChannel; ++b) {
        const FilterBank& bank = banks_[b];
        std::array<uint32_t, 4> ids{}, masks{};
        unsigned n = 0;
        if (bank.wide && !bank.list) {
            ids[0] = bank.fr1, masks[0] = bank.fr2, n = 1;
        } else if (bank.wide) {
            ids = {bank.fr1, bank.fr2}, masks = {~0u, ~0u}, n = 2;
        } else if (!bank.list) {
            ids = {bank.fr1 & 0xFFFF, bank.fr2 & 0xFFFF}, masks = {bank.fr1 >> 16, bank.fr2 >> 16}, n = 2;
        } else {
            ids = {bank.fr1 & 0xFFFF, bank.fr1 >> 16, bank.fr2 & 0xFFFF, bank.fr2 >> 16};
            masks = {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}, n = 4;
        }
        const uint32_t image = bank.wide ? wide : narrow;
        for (unsigned i = 0; bank.active && i < n; ++i)
            if ((image & masks[i]) == (ids[i] & masks[i])) return static_cast<uint8_t>(index + i);
        index += n;
    }
    return std::nullopt;
}

// Bus-off ends by itself with automatic bus-off management, once 128 times 11 bit times passed.
bool CanEngine::off(Controller& c, uint64_t t) {
    if (c.bus_off && c.abom != 0 &&
        t >= c.off_since + static_cast<uint64_t>(std::ceil(kRecoveryBits * 1e6 / c.bitrate)))
        clear_errors(c);
    return c.bus_off;
}

void CanEngine::set_timing(Controller& c, uint8_t sjw, uint8_t bs1, uint8_t bs2, uint16_t prescaler) {
    // As the controller's registers hold them: SJW 2 bits, BS1 4, BS2 3, prescaler 10.
    c.sjw = sjw & 3, c.bs1 = bs1 & 0x0F, c.bs2 = bs2 & 0x07, c.prescaler = prescaler;
    c.bitrate = rate_of(c.bs1, c.bs2, c.prescaler);
}

void CanEngine::clear_errors(Controller& c) {
    c.tec = c.rec = 0;
    c.lec = 0;
    c.bus_off = false;
    c.tsr = 0;
}

uint32_t CanEngine::esr(const Controller& c) const {
    const unsigned worst = std::max(c.tec, c.rec);
    return (worst >= kWarningLimit ? kEwgf : 0) | (worst >= kPassiveLimit ? kEpvf : 0) |
           (c.bus_off ? kBoff : 0) | uint32_t{c.lec} << 4 | uint32_t{saturated(c.tec)} << 16 |
           uint32_t{saturated(c.rec)} << 24;
}

// ---- Route handlers

// Channel, TTCM, ABOM, AWUM, NART, RFLM, TXFP, mode, SJW, BS1, BS2, prescaler (2), relay. The
// controller leaves bus-off and its FIFO is emptied; the time-triggered, wake-up, priority and
// relay settings change nothing in the model.
void CanEngine::init(Request& r) {
    sync();
    const uint8_t channel = r.in.u8();
    r.in.skip(1);  // TTCM
    const uint8_t abom = r.in.u8();
    r.in.skip(1);  // AWUM
    const uint8_t nart = r.in.u8(), rflm = r.in.u8();
    r.in.skip(1);  // TXFP
    const uint8_t mode = r.in.u8(), sjw = r.in.u8(), bs1 = r.in.u8(), bs2 = r.in.u8();
    const uint16_t prescaler = r.in.be16();
    if (!has_channel(channel) || mode > can::kModeSilentLoopBack) {
        port_.status(MSG_CAN_NINT_ERROR);
        return;
    }
    Controller& c = ctrl(channel);
    c.configured = true;
    c.abom = abom, c.nart = nart, c.rflm = rflm, c.mode = mode;
    set_timing(c, sjw, bs1, bs2, prescaler);
    clear_errors(c);
    c.head = c.count = 0;
    c.lost = 0;
    c.last_filter = -1;
    port_.status(MSG_CAN_NINT_OK);
}

// Channel (Intended: not used; the bank number says which channel a bank filters), bank, mode,
// scale, IdHigh, IdLow, MaskIdHigh, MaskIdLow, FIFO (one FIFO per channel here: not used),
// activation.
void CanEngine::filter(Request& r) {
    sync();
    r.in.skip(1);
    const uint8_t number = r.in.u8(), mode = r.in.u8(), scale = r.in.u8();
    const uint32_t id_high = r.in.be16(), id_low = r.in.be16(), mask_high = r.in.be16(),
                   mask_low = r.in.be16();
    r.in.skip(2);
    const uint8_t active = r.in.u8();
    if (number >= can::kFilterBanks) {
        port_.status(MSG_CAN_NINT_ERROR);
        return;
    }
    FilterBank& bank = banks_[number];
    bank.active = active != 0;
    bank.list = (mode & 1) != 0;
    bank.wide = (scale & 1) != 0;
    // 32-bit: identifier, then mask (or second identifier). 16-bit: each register holds one
    // filter's identifier in its low half and its mask (or another identifier) in its high half.
    bank.fr1 = bank.wide ? id_high << 16 | id_low : mask_low << 16 | id_low;
    bank.fr2 = bank.wide ? mask_high << 16 | mask_low : mask_high << 16 | id_high;
    port_.status(MSG_CAN_NINT_OK);
}

// Transmit records: flags (channel, remote, extended, length), the identifier little-endian, the
// data (none for a remote frame). The whole batch is checked before anything is sent.
void CanEngine::write(Request& r) {
    sync();
    const uint64_t now = time_us();
    struct Staged {
        int channel;
        CanFrame frame;
    };
    std::vector<Staged> batch;
    while (r.in.remaining() > 0) {
        const uint8_t flags = r.in.u8();
        Staged s{flags & can::kFlagChannelMask, {}};
        CanFrame& f = s.frame;
        f.extended = (flags & can::kFlagExtended) != 0;
        f.remote = (flags & can::kFlagRemote) != 0;
        f.dlc = std::min<uint8_t>(flags >> can::kFlagLengthShift, can::kMaxDataLength);
        const auto id = r.in.bytes(f.extended ? 4 : 2);
        for (std::size_t i = 0; i < id.size(); ++i) f.id |= uint32_t{id[i]} << (8 * i);
        f.id &= f.extended ? can::kExtIdMask : can::kStdIdMask;
        const auto data = r.in.bytes(f.remote ? 0 : f.dlc);
        std::copy(data.begin(), data.end(), f.data.begin());
        if (!r.in.ok() || !has_channel(s.channel) || off(ctrl(s.channel), now)) {
            port_.status(MSG_CAN_WRITE_DATA_ERROR);
            return;
        }
        batch.push_back(s);
    }
    for (const Staged& s : batch)
        if (!off(ctrl(s.channel), now)) transmit(s.channel, s.frame, now);
    port_.status(MSG_CAN_WRITE_DATA_OK);
}

// One status byte, the frames waiting (at most 255), when there are any; otherwise a zero-length
// answer, so that the host's read ends at once.
void CanEngine::count(Request& r) {
    sync();
    const uint8_t channel = r.in.u8();
    if (r.in.remaining() != 0 || !r.in.ok() || !has_channel(channel) || ctrl(channel).count == 0) {
        port_.raw({});
        return;
    }
    port_.status(static_cast<uint8_t>(std::min<std::size_t>(ctrl(channel).count, 255)));
}

// Whole records, oldest first, as many as fit in one receive (the rest waits for the next).
void CanEngine::read(Request& r) {
    sync();
    const uint8_t channel = r.in.u8();
    if (!has_channel(channel)) {
        port_.reply(MSG_KD_CAN_READ_DATAS, MSG_CAN_READ_DATA_ERROR, {}, false);
        return;
    }
    Controller& c = ctrl(channel);
    if (c.count == 0) {
        port_.reply(MSG_KD_CAN_READ_DATAS, MSG_CAN_READ_DATA_NO_DATA, {}, false);
        return;
    }
    Bytes payload;
    payload.reserve(kReadPayloadMax);
    while (c.count > 0 && payload.size() + kRecordMax <= kReadPayloadMax) {
        const CanReceived& e = c.ring[c.head];
        const CanFrame& f = e.frame;
        payload.push_back(static_cast<uint8_t>(channel | (f.remote ? 1 : 0) << kFlagRemoteShift |
                                               (f.extended ? 1 : 0) << kFlagExtendedShift |
                                               f.dlc << can::kFlagLengthShift));
        put_le(payload, f.id, f.extended ? 4 : 2);
        put_le(payload, e.time_stamp, 4);
        if (!f.remote) payload.insert(payload.end(), f.data.begin(), f.data.begin() + f.dlc);
        c.head = (c.head + 1) % kCanFifoDepth;
        --c.count;
    }
    port_.reply(MSG_KD_CAN_READ_DATAS, MSG_CAN_READ_DATA_OK, payload, false);
}

// BufferSize, ESR, TSR, then ErrInterrupt, ALCapture (no arbitration: 0), ECCapture (the last
// error code), EWLimit, mode, REC, status, TEC.
void CanEngine::status(Request& r) {
    sync();
    const uint8_t channel = r.in.u8();
    if (!has_channel(channel)) {
        port_.reply(MSG_KD_CAN_GET_STATUS_CODE, MSG_CAN_GETSTATS_ERROR, Bytes(can::kStatusPayloadSize, 0),
                    false);
        return;
    }
    Controller& c = ctrl(channel);
    off(c, time_us());
    const uint32_t e = esr(c);
    const uint8_t state = (c.count > 0 ? kStatusReceived : 0) | (c.lost > 0 ? kStatusOverrun : 0) |
                          kStatusTxFree | ((c.tsr & kTxok) != 0 ? kStatusTxDone : 0) |
                          ((e & kEwgf) != 0 ? kStatusError : 0) | (c.bus_off ? kStatusBusOff : 0);
    Bytes p;
    append_be16(p, static_cast<uint32_t>(std::min<std::size_t>(kCanFifoDepth - c.count, 0xFFFF)));
    append_be32(p, e);
    append_be32(p, c.tsr);
    p.insert(p.end(), {uint8_t((e & 0x77) != 0 ? 1 : 0), 0, c.lec, uint8_t(kWarningLimit), c.mode,
                       saturated(c.rec), state, saturated(c.tec)});
    port_.reply(MSG_KD_CAN_GET_STATUS_CODE, MSG_CAN_GET_ERROR_CODE_OK, p, false);
}

// Per channel: LEC, TEC, REC, warning, passive, bus-off, mode, frames lost (2, saturating), eight
// zero bytes. Channel 0: both channels (a one-channel adapter's second block is zero).
void CanEngine::error_code(Request& r) {
    sync();
    const uint8_t channel = r.in.u8();
    const bool both = channel == 0;
    const std::size_t size = can::kErrorPayloadSize * (both ? 2 : 1);
    if (!both && !has_channel(channel)) {
        port_.reply(MSG_KD_CAN_GET_ERROR_CODE, MSG_CAN_GETSTATS_ERROR, Bytes(size, 0), false);
        return;
    }
    Bytes p;
    for (int ch = both ? 1 : channel; ch <= (both ? 2 : channel); ++ch) {
        const std::size_t start = p.size();
        p.resize(start + can::kErrorPayloadSize, 0);
        if (!has_channel(ch)) continue;
        Controller& c = ctrl(ch);
        off(c, time_us());
        const uint32_t e = esr(c);
        const uint16_t lost = static_cast<uint16_t>(std::min<uint64_t>(c.lost, 0xFFFF));
        const uint8_t block[] = {c.lec,          saturated(c.tec),    saturated(c.rec),
                                 uint8_t(e & 1), uint8_t(e >> 1 & 1), uint8_t(e >> 2 & 1),
                                 c.mode,         uint8_t(lost >> 8),  uint8_t(lost)};
        std::copy(std::begin(block), std::end(block), p.begin() + static_cast<std::ptrdiff_t>(start));
    }
    port_.reply(MSG_KD_CAN_GET_ERROR_CODE, MSG_CAN_GET_ERROR_CODE_OK, p, false);
}

// Error counters, bus-off, the FIFO and its lost count cleared; the configuration stays.
void CanEngine::reset(Request& r) {
    sync();
    const uint8_t channel = r.in.u8();
    if (!has_channel(channel)) {
        port_.status(MSG_CAN_NINT_ERROR);
        return;
    }
    Controller& c = ctrl(channel);
    clear_errors(c);
    c.head = c.count = 0;
    c.lost = 0;
    port_.status(MSG_CAN_NINT_OK);
}

// The command and the frames waiting: on the channel its parameter names (1 or 2), or on all.
void CanEngine::frames_waiting(Request& r) {
    sync();
    const uint32_t channel = r.in.be32();
    std::size_t n = 0;
    for (int ch = 1; ch <= channels_; ++ch)
        if (channel == static_cast<uint32_t>(ch) || !has_channel(static_cast<int>(channel)))
            n += ctrl(ch).count;
    Bytes out;
    append_be32(out, r.code);
    append_be32(out, static_cast<uint32_t>(n));
    port_.command_answer(std::move(out));
}

// ---- Control API

CanControllerState CanEngine::controller(int channel) {
    sync();
    if (!has_channel(channel)) return {};
    Controller& c = ctrl(channel);
    off(c, time_us());
    const uint32_t e = esr(c);
    CanControllerState s;
    s.present = true;
    s.configured = c.configured;
    s.bitrate = static_cast<uint32_t>(std::lround(c.bitrate));
    s.prescaler = c.prescaler, s.sjw = c.sjw, s.bs1 = c.bs1, s.bs2 = c.bs2, s.mode = c.mode;
    s.abom = c.abom != 0, s.nart = c.nart != 0, s.rflm = c.rflm != 0;
    s.tec = c.tec, s.rec = c.rec, s.lec = c.lec;
    s.warning = (e & kEwgf) != 0, s.passive = (e & kEpvf) != 0, s.bus_off = c.bus_off;
    s.esr = e, s.tsr = c.tsr;
    s.waiting = c.count, s.lost = c.lost, s.last_filter_index = c.last_filter;
    return s;
}

std::vector<CanReceived> CanEngine::waiting(int channel) {
    sync();
    std::vector<CanReceived> out;
    if (!has_channel(channel)) return out;
    const Controller& c = ctrl(channel);
    for (std::size_t i = 0; i < c.count; ++i) out.push_back(c.ring[(c.head + i) % kCanFifoDepth]);
    return out;
}

void CanEngine::set_generator(const CanGeneratorSpec& setup) {
    sync();
    if (setup.rate != 0 && !has_channel(setup.bus)) return;
    generator_.reset();
    if (setup.rate == 0) return;
    generator_.emplace(setup, time_us());
    next_ = 1;
}

CanGeneratorSpec CanEngine::generator() const {
    return generator_ ? generator_->setup() : CanGeneratorSpec{};
}

void CanEngine::set_echo(const CanEchoSpec& setup) {
    sync();
    if (setup.bus == 0 || has_channel(setup.bus)) echo_ = setup;
}

void CanEngine::set_split(bool split) {
    sync();
    split_ = split && channels_ == 2;
}

bool CanEngine::inject(int bus, const CanFrame& frame, uint32_t bitrate) {
    sync();
    if (!has_channel(bus)) return false;
    CanFrame f = frame;
    f.id &= f.extended ? can::kExtIdMask : can::kStdIdMask;
    f.dlc = std::min<uint8_t>(f.dlc, can::kMaxDataLength);
    return carry(f, bus_of(bus), bitrate != 0 ? bitrate : bus_rate_, time_us(), CanSender::Outside, 0);
}

std::vector<CanBusFrame> CanEngine::bus_frames() {
    sync();
    return {log_.begin(), log_.end()};
}

uint64_t CanEngine::generated(int bus) {
    sync();
    return has_channel(bus) ? generated_[static_cast<std::size_t>(bus_of(bus))] : 0;
}

std::unique_ptr<Engine> make_can_engine(Port& port) {
    const int p = port.identity().personality;
    if (p != proto::kDevTypeCan1 && p != proto::kDevTypeCan2) return nullptr;
    return std::make_unique<CanEngine>(port);
}

}  // namespace corvel::sim::fw
