#include "firmware/firmware.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace corvel::sim::fw {

std::string product_name(int personality) {
    switch (personality) {
        case 1:
            return "Corvel I2C Adapter";
        case 2:
            return "Corvel SPI Adapter";
        case 3:
            return "Corvel CAN Adapter";
        case 4:
            return "Corvel Dual CAN Adapter";
        default:
            return "Corvel Adapter";
    }
}

namespace {

// Two engines claiming one code is a defect of the model itself, found by any test that builds an
// adapter; there is no sensible way to go on.
[[noreturn]] void duplicate(const char* what, uint32_t code) {
    std::fprintf(stderr, "corvel-sim: %s %u is registered by two engines\n", what, code);
    std::abort();
}

}  // namespace

Firmware::Firmware(Identity identity, Clock& clock, std::string nv_folder)
    : identity_(std::move(identity)), clock_(clock), nv_folder_(std::move(nv_folder)) {
    if (!identity_.runs_model()) return;
    for (const EngineEntry& entry : engine_table()) {
        std::unique_ptr<Engine> engine = entry.make(*this);
        if (!engine) continue;
        for (uint32_t code : engine->message_codes())
            if (!by_code_.emplace(code, engine.get()).second) duplicate("message code", code);
        for (uint32_t command : engine->commands())
            if (!by_command_.emplace(command, engine.get()).second) duplicate("command", command);
        engines_.push_back(std::move(engine));
    }
}

Firmware::~Firmware() = default;

void Firmware::write(int endpoint, std::span<const uint8_t> bytes) {
    if (engines_.empty() || bytes.empty()) return;
    if (endpoint == kBulkOut) {
        assembler_.feed(
            bytes, [this](Frame&& frame) { on_frame(std::move(frame)); },
            [this](uint32_t code) { unknown_.push_back(code); });
    } else if (endpoint == kIntOut) {
        on_command(bytes);
    }
}

void Firmware::on_frame(Frame&& frame) {
    auto it = by_code_.find(frame.code);
    if (it == by_code_.end()) {
        unknown_.push_back(frame.code);
        return;
    }
    it->second->on_frame(frame);
}

void Firmware::on_command(std::span<const uint8_t> bytes) {
    const uint32_t command = bytes.size() >= 4 ? get_be32(bytes.data()) : 0;
    auto it = by_command_.find(command);
    if (bytes.size() != 8 || it == by_command_.end()) {
        unknown_.push_back(command);
        return;
    }
    it->second->on_command(command, get_be32(bytes.data() + 4));
}

std::deque<Firmware::Answer>* Firmware::queue(int endpoint) {
    if (endpoint == kBulkIn) return &bulk_in_;
    if (endpoint == kIntIn) return &int_in_;
    return nullptr;
}

std::optional<Bytes> Firmware::read(int endpoint, std::size_t max) {
    std::deque<Answer>* q = queue(endpoint);
    if (q == nullptr || q->empty()) return std::nullopt;
    Answer& front = q->front();
    std::size_t n = std::min(max, front.bytes.size() - front.taken);
    bool lose_rest = false;
    if (!short_reads_.empty()) {
        n = std::min(n, short_reads_.front());
        short_reads_.pop_front();
        lose_rest = true;
    }
    const auto begin = front.bytes.begin() + static_cast<std::ptrdiff_t>(front.taken);
    Bytes out(begin, begin + static_cast<std::ptrdiff_t>(n));
    front.taken += n;
    if (lose_rest || front.taken == front.bytes.size()) q->pop_front();
    return out;
}

void Firmware::reset() {
    clear_in();
    assembler_.clear();
}

void Firmware::inject(int endpoint, Bytes answer) {
    if (std::deque<Answer>* q = queue(endpoint)) q->push_back(Answer{std::move(answer)});
}

void Firmware::clear_in() {
    bulk_in_.clear();
    int_in_.clear();
}

void Firmware::clear_faults() {
    short_reads_.clear();
    drop_ = 0;
    override_status_.reset();
}

void Firmware::answer(int endpoint, Bytes bytes, std::optional<std::size_t> status_at) {
    if (drop_ > 0) {
        --drop_;
        return;
    }
    if (override_status_ && status_at && *status_at < bytes.size()) {
        bytes[*status_at] = *override_status_;
        override_status_.reset();
    }
    inject(endpoint, std::move(bytes));
}

void Firmware::status(uint8_t state) {
    answer(kBulkIn, Bytes{state}, 0);
}

void Firmware::reply(uint32_t code, uint8_t state, std::span<const uint8_t> payload, bool pad_to_packet) {
    answer(kBulkIn, encode_reply(code, state, payload, pad_to_packet), 4);
}

void Firmware::raw(Bytes bytes) {
    answer(kBulkIn, std::move(bytes), std::nullopt);
}

void Firmware::command_answer(Bytes bytes) {
    answer(kIntIn, std::move(bytes), std::nullopt);
}

void Firmware::schedule_in(uint64_t delay_us, std::function<void()> fn) {
    std::weak_ptr<const bool> alive = alive_;
    clock_.schedule(saturating_add(clock_.now_us(), delay_us), [alive, fn = std::move(fn)] {
        if (alive.lock()) fn();
    });
}

std::string Firmware::nv_path(const std::string& name) const {
    return nv_folder_.empty() ? std::string() : nv_folder_ + "/" + name;
}

NvStore& Firmware::nv(const std::string& name, std::size_t size, uint8_t erased) {
    if (NvStore* existing = find_nv(name)) return *existing;
    auto store = std::make_unique<NvStore>(size, erased);
    store->bind(nv_path(name));
    nv_.emplace_back(name, std::move(store));
    return *nv_.back().second;
}

NvStore* Firmware::find_nv(const std::string& name) {
    for (auto& [n, store] : nv_)
        if (n == name) return store.get();
    return nullptr;
}

void Firmware::set_nv_folder(std::string folder) {
    nv_folder_ = std::move(folder);
    for (auto& [name, store] : nv_) store->bind(nv_path(name));
}

}  // namespace corvel::sim::fw
