// The firmware model of one adapter.
//
// The front door (the drop-in libusb, later an emulated usbfs node) hands it OUT transfers and
// takes IN data from its queues; it knows nothing of libusb. Each bulk OUT transfer on 0x02 is one
// frame (see frame.hpp), dispatched by message code along the route the engines' tables give for
// it; 8-byte requests on interrupt OUT 0x01 go by command. A frame or command nobody routes, a
// command of another length and a transfer that is no well-formed frame are consumed without
// answer and noted in unknown_messages().
//
// Each IN endpoint has a queue of answers. A read takes at most the bytes asked for from the front
// answer; what it leaves of that answer stays at the front for the next read.
//
// Not thread-safe: the front door serialises every call (and the clock's events) under one lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "firmware/clock.hpp"
#include "firmware/engine.hpp"
#include "firmware/frame.hpp"

namespace corvel::sim::fw {

class Firmware final : private Port {
  public:
    // `nv_folder`: where the adapter's non-volatile files live ("" keeps them in memory). A device
    // whose ids are not the adapter's gets no engines: it swallows what is written to it.
    Firmware(AdapterSpec identity, Clock& clock, std::string nv_folder);
    ~Firmware();
    Firmware(const Firmware&) = delete;
    Firmware& operator=(const Firmware&) = delete;

    const AdapterSpec& identity() const override { return identity_; }

    // ---- Front door
    void write(int endpoint, std::span<const uint8_t> bytes);
    // Up to `max` bytes of the front answer on an IN endpoint; nothing when no answer waits.
    std::optional<Bytes> read(int endpoint, std::size_t max);
    // A USB reset: drops the IN queues and any partly received transfer; engine state is kept.
    void reset();
    // Queues `answer` on an IN endpoint as if the firmware had sent it (no answer faults apply).
    void inject(int endpoint, Bytes answer);
    void clear_in();

    // ---- Non-volatile memory
    void set_nv_folder(std::string folder);  // rebinds (and reloads) every store
    NvStore* find_nv(const std::string& name);

    // ---- Faults
    // The next read that finds an answer delivers at most `bytes` of it; the rest is lost. Called
    // again before that read, the limits queue up: each applies to the next read after the one
    // before it (the status read, then the data read).
    void short_read_next(std::size_t bytes) { short_reads_.push_back(bytes); }
    void drop_next_answers(int count) { drop_ = count > 0 ? count : 0; }
    // The next answer that carries a status (a status byte or a reply frame) gets this one.
    void override_next_status(uint8_t state) { override_status_ = state; }
    // While silenced the firmware still takes every frame but queues no answer of its own; what
    // inject() queues still arrives.
    void silence(bool on) { silent_ = on; }
    void clear_faults();

    const std::vector<uint32_t>& unknown_messages() const { return unknown_; }

    // The engine of type E, for the control API (a family's targets, state to inspect).
    template <class E>
    E* find_engine() {
        for (auto& e : engines_)
            if (auto* hit = dynamic_cast<E*>(e.get())) return hit;
        return nullptr;
    }

  private:
    struct Answer {
        Bytes bytes;
        std::size_t taken = 0;
    };

    // Port
    void status(uint8_t state) override;
    void reply(uint32_t code, uint8_t state, std::span<const uint8_t> payload, bool pad_to_packet) override;
    void raw(Bytes bytes) override;
    void command_answer(Bytes bytes) override;
    uint64_t now_us() const override { return clock_.now_us(); }
    uint64_t elapsed_us() const override { return clock_.elapsed_us(); }
    void schedule_in(uint64_t delay_us, std::function<void()> fn) override;
    bool clock_on() const override { return clock_.on(); }
    NvStore& nv(const std::string& name, std::size_t size, uint8_t erased) override;

    // Applies the answer faults and queues. `status_at`: index of the status byte, if any.
    void answer(int endpoint, Bytes bytes, std::optional<std::size_t> status_at);
    std::deque<Answer>* queue(int endpoint);
    // The engine and route for a code, or null.
    struct Target {
        Engine* engine;
        const Route* route;
    };
    static void add_routes(std::map<uint32_t, Target>& table, Engine& engine, std::span<const Route> routes,
                           const char* what);
    void on_frame(const Frame& frame);
    void on_command(std::span<const uint8_t> bytes);
    void refuse(Engine& engine, const Route& route, Request& request);
    std::string nv_path(const std::string& name) const;

    AdapterSpec identity_;
    Clock& clock_;
    std::string nv_folder_;
    std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);  // seen by scheduled events

    std::vector<std::unique_ptr<Engine>> engines_;
    std::map<uint32_t, Target> by_code_;
    std::map<uint32_t, Target> by_command_;
    std::vector<std::pair<std::string, std::unique_ptr<NvStore>>> nv_;

    FrameAssembler assembler_;
    std::deque<Answer> bulk_in_;
    std::deque<Answer> int_in_;
    std::vector<uint32_t> unknown_;

    std::deque<std::size_t> short_reads_;
    int drop_ = 0;
    std::optional<uint8_t> override_status_;
    bool silent_ = false;
};

}  // namespace corvel::sim::fw
