// The engine interface: how one family of the adapter's firmware (board, I2C, SPI, CAN, GPIO, ...)
// plugs into the model.
//
// An engine is created once per adapter, keeps that adapter's state for its family in its own
// members, and registers the message codes (frames on bulk OUT 0x02) and interrupt commands
// (8-byte requests on interrupt OUT 0x01) it answers. Everything else it needs from the adapter
// goes through the Port it was created with. docs/virtual-adapter.md tells how to add one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "firmware/bytes.hpp"
#include "firmware/frame.hpp"
#include "firmware/nv_store.hpp"

namespace corvel::sim::fw {

// USB endpoints of the adapter.
inline constexpr int kIntOut = 0x01;
inline constexpr int kBulkOut = 0x02;
inline constexpr int kIntIn = 0x81;
inline constexpr int kBulkIn = 0x82;

// Vendor and product id of the adapter; a device with other ids runs no firmware model.
inline constexpr uint16_t kAdapterVendor = 0x0483;
inline constexpr uint16_t kAdapterProduct = 0x0666;

// Who the adapter is.
struct Identity {
    std::string serial;
    bool has_serial = true;
    int personality = 1;  // 1 I2C, 2 SPI, 3 one-channel CAN, 4 two-channel CAN
    uint16_t vendor = kAdapterVendor;
    uint16_t product = kAdapterProduct;

    bool runs_model() const { return vendor == kAdapterVendor && product == kAdapterProduct; }
};

// Product name of a personality, as the USB product string and the product information report it.
std::string product_name(int personality);

// What an engine may do with its adapter. Implemented by the Firmware; lives as long as the
// engines it was handed to.
class Port {
  public:
    virtual const Identity& identity() const = 0;

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
    virtual void schedule_in(uint64_t delay_us, std::function<void()> fn) = 0;

    // Non-volatile memory: a block of `size` bytes kept in the file `name` of the adapter's state
    // folder, created erased. The Port owns it; the reference stays valid for the engine's life.
    virtual NvStore& nv(const std::string& name, std::size_t size, uint8_t erased = 0xFF) = 0;

  protected:
    ~Port() = default;
};

class Engine {
  public:
    virtual ~Engine() = default;

    // Codes this engine answers. A code belongs to one engine only.
    virtual std::vector<uint32_t> message_codes() const = 0;
    virtual std::vector<uint32_t> commands() const { return {}; }

    // A complete request frame whose code this engine registered.
    virtual void on_frame(const Frame& frame) = 0;
    // An 8-byte interrupt request whose command this engine registered.
    virtual void on_command(uint32_t command, uint32_t parameter) {
        (void)command;
        (void)parameter;
    }
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
