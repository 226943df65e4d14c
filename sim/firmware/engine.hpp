// The engine interface: how one family of the adapter's firmware (board, I2C, SPI, CAN, GPIO, ...)
// plugs into the model.
//
// An engine is created once per adapter and keeps that adapter's state for its family in its own
// members. It answers what its route tables list: request frames (bulk OUT 0x02) by message code,
// and 8-byte requests on interrupt OUT 0x01 by command. A route names the handler, the payload
// sizes it accepts and what a request of another size gets; the firmware checks the size and
// answers the refusal itself, so a handler only ever sees a payload of an accepted size. Everything
// else an engine needs from its adapter goes through the Port it was created with.
// docs/virtual-adapter.md tells how to add one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <type_traits>

#include "corvel/sim_adapter.hpp"
#include "firmware/bytes.hpp"
#include "firmware/nv_store.hpp"

namespace corvel::sim::fw {

// Product name of a personality, as the USB product string and the product information report it.
std::string product_name(int personality);

// What an engine may do with its adapter. Implemented by the Firmware; lives as long as the
// engines it was handed to.
class Port {
  public:
    virtual const AdapterSpec& identity() const = 0;

    // Answers. Everything an engine answers passes the adapter's answer faults (dropped answers,
    // overridden status) on its way to the IN queue.
    virtual void status(uint8_t state) = 0;  // one status byte on bulk IN
    // A reply frame on bulk IN, zero-padded to one 512-byte packet (`pad_to_packet`) for the
    // host's one-packet receive, or exactly as long as it is for its exact-length receives.
    virtual void reply(uint32_t code, uint8_t state, std::span<const uint8_t> payload,
                       bool pad_to_packet = true) = 0;
    virtual void raw(Bytes bytes) = 0;             // data on bulk IN with no header
    virtual void command_answer(Bytes bytes) = 0;  // an answer on interrupt IN

    // Virtual time. A scheduled function runs with the model locked, when the clock reaches its
    // time (inside a sleep of the host, or while one of its reads waits); it is dropped when the
    // adapter is gone by then.
    virtual uint64_t now_us() const = 0;
    // The virtual time that has passed since the model began, which a reset of the clock does not
    // set back.
    virtual uint64_t elapsed_us() const = 0;
    virtual void schedule_in(uint64_t delay_us, std::function<void()> fn) = 0;
    // Whether the virtual clock is on. Off, it stands still: an event scheduled later than now
    // never runs, so an engine answers at once instead.
    virtual bool clock_on() const = 0;

    // Non-volatile memory: a block of `size` bytes kept in the file `name` of the adapter's state
    // folder, erased when new. The Port owns it; the reference stays valid for the engine's life.
    virtual NvStore& nv(const std::string& name, std::size_t size, uint8_t erased = 0xFF) = 0;

  protected:
    ~Port() = default;
};

// An engine's own time line, for parts that keep time whichever clock is in force: it follows
// the virtual clock's elapsed time while that is on and the host's monotonic time while it is off,
// by their increments, so switching between them never moves it backwards.
class ModelTime {
  public:
    explicit ModelTime(const Port& port);
    uint64_t now();

  private:
    const Port& port_;
    uint64_t time_ = 0;
    bool on_;
    uint64_t source_;  // the clock it last followed, and that clock's reading then
};

// One request as a handler sees it: its code (message code, or interrupt command), the packet
// number (0 for commands), and a reader over its payload (for a command, its 4-byte parameter).
struct Request {
    uint32_t code;
    uint8_t packet;
    proto::Reader in;
};

// Payload sizes a route accepts.
struct Sizes {
    enum class Kind : uint8_t { Any, Exactly, AtLeast };
    Kind kind = Kind::Any;
    std::size_t n = 0;

    static constexpr Sizes any() { return {}; }
    static constexpr Sizes exactly(std::size_t n) { return {Kind::Exactly, n}; }
    static constexpr Sizes at_least(std::size_t n) { return {Kind::AtLeast, n}; }

    constexpr bool accept(std::size_t size) const {
        return kind == Kind::Any || (kind == Kind::Exactly ? size == n : size >= n);
    }
};

class Engine;
using Handler = void (*)(Engine& engine, Request& request);

// What a request of a refused size gets.
struct Refusal {
    enum class Kind : uint8_t {
        None,    // no answer at all
        Status,  // one status byte
        Reply,   // an exact-length reply frame: `code`, the status, `zeros` zero bytes of payload
        Header,  // a data answer with no data: the reply header alone (code, status, size 0), sent raw
    };
    Kind kind = Kind::None;
    uint8_t status = 0;
    uint32_t code = 0;
    uint8_t zeros = 0;
    Handler also = nullptr;  // the engine's own consequence of the refusal, run before the answer

    static constexpr Refusal none() { return {}; }
    static constexpr Refusal with_status(uint8_t s) { return {Kind::Status, s}; }
    static constexpr Refusal reply(uint32_t code, uint8_t s, uint8_t zeros) {
        return {Kind::Reply, s, code, zeros};
    }
    static constexpr Refusal header(uint32_t code, uint8_t s) { return {Kind::Header, s, code}; }
    constexpr Refusal also_run(Handler h) const {
        Refusal r = *this;
        r.also = h;
        return r;
    }
};

// One entry of an engine's route table.
struct Route {
    uint32_t code;
    Handler handle;
    Sizes sizes;
    Refusal refusal;
};

namespace detail {
template <class M>
struct MemberOf;
template <class R, class E, class... A>
struct MemberOf<R (E::*)(A...)> {
    using type = E;
};
}  // namespace detail

// Turns a member function of an engine, taking a Request& or nothing, into a Handler.
template <auto Method>
constexpr Handler handler() {
    using E = typename detail::MemberOf<decltype(Method)>::type;
    return [](Engine& engine, Request& request) {
        E& self = static_cast<E&>(engine);
        if constexpr (std::is_invocable_v<decltype(Method), E&, Request&>) {
            (self.*Method)(request);
        } else {
            (void)request;
            (self.*Method)();
        }
    };
}

// A route to `Method` for `code`: route<&I2cEngine::read>(MSG_..., Sizes::exactly(9),
// Refusal::with_status(MSG_I2C_READ_DATA_ERROR)).
template <auto Method>
constexpr Route route(uint32_t code, Sizes sizes = Sizes::any(), Refusal refusal = Refusal::none()) {
    return Route{code, handler<Method>(), sizes, refusal};
}

class Engine {
  public:
    virtual ~Engine() = default;

    // The request frames this engine answers. A code belongs to one engine only.
    virtual std::span<const Route> routes() const = 0;
    // The interrupt commands it answers (sizes and refusals do not apply: a command is 8 bytes).
    virtual std::span<const Route> commands() const { return {}; }
};

// Creates the engine of one family for an adapter, or returns null when the adapter's personality
// has no such function.
using EngineFactory = std::unique_ptr<Engine> (*)(Port& port);

struct EngineEntry {
    const char* family;
    EngineFactory make;
};

// The registration table: every engine of the model, in the order they are created.
std::span<const EngineEntry> engine_table();

}  // namespace corvel::sim::fw
