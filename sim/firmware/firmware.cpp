#include "firmware/firmware.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace corvel::sim::fw {

std::string product_name(int personality) {
    switch (personality) {
        case proto::kDevTypeI2c:
            return "Corvel I2C Adapter";
        case proto::kDevTypeSpi:
            return "Corvel SPI Adapter";
        case proto::kDevTypeCan1:
            return "Corvel CAN Adapter";
        case proto::kDevTypeCan2:
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

Firmware::Firmware(AdapterSpec identity, Clock& clock, std::string nv_folder)
    : identity_(std::move(identity)), clock_(clock), nv_folder_(std::move(nv_folder)) {
    if (!identity_.runs_model()) return;
    for (const EngineEntry& entry : engine_table()) {
        std::unique_ptr<Engine> engine = entry.make(*this);
        if (!engine) continue;
        add_routes(by_code_, *engine, engine->routes(), "message code");
        add_routes(by_command_, *engine, engine->commands(), "command");
        engines_.push_back(std::move(engine));
    }
}

Firmware::~Firmware() = default;

void Firmware::add_routes(std::map<uint32_t, Target>& table, Engine& engine, std::span<const Route> routes,
                          const char* what) {
    for (const Route& r : routes)
        if (!table.emplace(r.code, Target{&engine, &r}).second) duplicate(what, r.code);
}

void Firmware::write(int endpoint, std::span<const uint8_t> bytes) {
    if (engines_.empty()) return;
    if (endpoint == proto::kEndpointBulkOut) {
        switch (assembler_.feed(bytes)) {
            case FrameAssembler::Result::Complete:
                on_frame(assembler_.frame());
                break;
            case FrameAssembler::Result::Rejected:
                unknown_.push_back(assembler_.rejected_code());
                break;
            case FrameAssembler::Result::Pending:
                break;
        }
    } else if (endpoint == proto::kEndpointIntOut && !bytes.empty()) {
        on_command(bytes);
    }
}

void Firmware::on_frame(const Frame& frame) {
    auto it = by_code_.find(frame.code);
    if (it == by_code_.end()) {
        unknown_.push_back(frame.code);
        return;
    }
    const auto [engine, route] = it->second;
    Request request{frame.code, frame.packet, proto::Reader(frame.payload)};
    if (!route->sizes.accept(frame.payload.size())) {
        refuse(*engine, *route, request);
        return;
    }
    route->handle(*engine, request);
}

// The answer a route gives to a payload of a size it does not accept.
void Firmware::refuse(Engine& engine, const Route& route, Request& request) {
    const Refusal& r = route.refusal;
    if (r.also != nullptr) r.also(engine, request);
    switch (r.kind) {
        case Refusal::Kind::None:
            break;
        case Refusal::Kind::Status:
            status(r.status);
            break;
        case Refusal::Kind::Reply: {
            const Bytes zeros(r.zeros, 0);
            reply(r.code, r.status, zeros, /*pad_to_packet=*/false);
            break;
        }
        case Refusal::Kind::Header:
            raw(encode_reply(r.code, r.status, {}, /*pad_to_packet=*/false));
            break;
    }
}

// A command is the command code and a parameter, 4 bytes each.
void Firmware::on_command(std::span<const uint8_t> bytes) {
    proto::Reader in(bytes);
    const uint32_t command = in.be32();
    auto it = by_command_.find(command);
    if (bytes.size() != proto::kCommandSize || it == by_command_.end()) {
        unknown_.push_back(command);
        return;
    }
    Request request{command, 0, in};
    it->second.route->handle(*it->second.engine, request);
}

std::deque<Firmware::Answer>* Firmware::queue(int endpoint) {
    if (endpoint == proto::kEndpointBulkIn) return &bulk_in_;
    if (endpoint == proto::kEndpointIntIn) return &int_in_;
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
    silent_ = false;
}

void Firmware::answer(int endpoint, Bytes bytes, std::optional<std::size_t> status_at) {
    if (silent_) return;
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
    answer(proto::kEndpointBulkIn, Bytes{state}, 0);
}

void Firmware::reply(uint32_t code, uint8_t state, std::span<const uint8_t> payload, bool pad_to_packet) {
    answer(proto::kEndpointBulkIn, encode_reply(code, state, payload, pad_to_packet), 4);
}

void Firmware::raw(Bytes bytes) {
    answer(proto::kEndpointBulkIn, std::move(bytes), std::nullopt);
}

void Firmware::command_answer(Bytes bytes) {
    answer(proto::kEndpointIntIn, std::move(bytes), std::nullopt);
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
