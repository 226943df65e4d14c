// Control API of the virtual adapter, for tests and tools.
//
// The virtual adapter is a drop-in libusb-0.1 (libusb-0.1.so.4) with a firmware model behind it.
// A program linked against it (or started with it preloaded) sees the adapters configured here on
// its USB buses. These functions live in the same shared object as the drop-in, so a test calls
// them directly to configure adapters, inspect the libusb calls the library made, inject faults
// and drive the virtual clock.
//
// Adapters are numbered 0, 1, ... in the order they were configured; that is also their order on
// the virtual bus. All functions are thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "corvel/sim_adapter.hpp"

#define CORVEL_SIM_API __attribute__((visibility("default")))

namespace corvel::sim {

// ---- Configuration -------------------------------------------------------------------------

// The adapters are described by AdapterSpec (corvel/sim_adapter.hpp).

// Parses the grammar of the CORVEL_SIM environment variable (see docs/virtual-adapter.md).
// Throws std::invalid_argument with a one-line reason on a malformed text.
CORVEL_SIM_API std::vector<AdapterSpec> parse_config(std::string_view text);

// Replaces the adapters on the virtual bus. The library sees the change at its next bus scan, as
// with real hot-plugging. Adapter state (configuration, queues) starts afresh; non-volatile
// contents come from the state directory.
CORVEL_SIM_API void configure(const std::vector<AdapterSpec>& adapters);
CORVEL_SIM_API std::vector<AdapterSpec> adapters();

// Directory where non-volatile contents (user data, EEPROMs, flash) persist between runs.
// Default: $CORVEL_SIM_STATE, else $XDG_STATE_HOME/corvel-sim, else $HOME/.local/state/corvel-sim.
CORVEL_SIM_API void set_state_dir(const std::string& dir);
CORVEL_SIM_API std::string state_dir();

// ---- Capture --------------------------------------------------------------------------------

enum class Call : uint8_t {
    Init,
    FindBusses,
    FindDevices,
    GetBusses,
    Open,
    Close,
    Reset,
    GetString,  // usb_get_string_simple
    ClaimInterface,
    ReleaseInterface,
    BulkWrite,
    BulkRead,
    InterruptWrite,
    InterruptRead,
    Other,  // any other libusb-0.1 call
};
CORVEL_SIM_API const char* call_name(Call call);

struct Record {
    Call call;
    int adapter;                // adapter number, -1 when the call names none
    int endpoint;               // endpoint, interface or string index; -1 when none
    std::vector<uint8_t> data;  // bytes written, or bytes delivered by a read
    int timeout_ms;             // time-out passed by the caller, -1 when none
    int result;                 // what the call returned (pointer calls: 1 non-null, 0 null)
    uint64_t time_us;           // virtual clock when the call was made
};

// Capture is off until switched on; records accumulate until cleared.
CORVEL_SIM_API void capture(bool on);
CORVEL_SIM_API std::vector<Record> records();
CORVEL_SIM_API void clear_records();

// ---- Faults ---------------------------------------------------------------------------------

// The next `count` calls of this kind (on any adapter) return `code` without reaching the adapter.
// A failed write delivers nothing; a failed read consumes nothing.
CORVEL_SIM_API void fail_next(Call call, int count, int code);
// The next bulk or interrupt read on the adapter delivers at most `bytes` of the waiting answer;
// the rest of that answer is lost.
CORVEL_SIM_API void short_read_next(int adapter, std::size_t bytes);
// The next `count` answers the firmware produces on the adapter are discarded.
CORVEL_SIM_API void drop_next_answers(int adapter, int count);
// The status of the next answer (status byte, or byte 4 of a reply frame) becomes `status`.
CORVEL_SIM_API void override_next_status(int adapter, uint8_t status);
// Silences the adapter's firmware: it still takes every frame (and changes its state) but queues no
// answer of its own, so a test scripts every answer with inject_in. Off again with `on` false or
// clear_faults().
CORVEL_SIM_API void silence(int adapter, bool on);
// Unplug: opens fail and transfers on open handles return -ENODEV. Replug brings it back as it was.
CORVEL_SIM_API void unplug(int adapter);
CORVEL_SIM_API void replug(int adapter);
// Queues raw bytes as one answer on an IN endpoint (0x82 bulk, 0x81 interrupt), after what is waiting.
CORVEL_SIM_API void inject_in(int adapter, int endpoint, std::vector<uint8_t> bytes);
// Drops everything waiting on the adapter's IN endpoints.
CORVEL_SIM_API void clear_in(int adapter);
// Message codes the firmware model did not know, in the order received (per adapter).
CORVEL_SIM_API std::vector<uint32_t> unknown_messages(int adapter);
// Clears every pending fault.
CORVEL_SIM_API void clear_faults();

// ---- Virtual clock --------------------------------------------------------------------------

// When on, usleep, sleep and nanosleep add to the virtual clock and return at once, and a read
// that finds nothing waiting advances the clock by its time-out. When off they reach the C library.
// The clock starts on when CORVEL_SIM_CLOCK=virtual is set in the environment.
CORVEL_SIM_API void virtual_clock(bool on);
CORVEL_SIM_API bool virtual_clock_enabled();
CORVEL_SIM_API uint64_t now_us();    // virtual time since start
CORVEL_SIM_API uint64_t slept_us();  // virtual time spent in usleep/sleep/nanosleep only
CORVEL_SIM_API void reset_clock();   // both back to zero
// Runs `fn` (with the simulator's lock held) when the virtual clock reaches `at_us`: inside a
// sleep or a read's time-out that crosses it. Used to model events that happen while the library
// waits (a pin event, a frame on a bus).
CORVEL_SIM_API void schedule(uint64_t at_us, std::function<void()> fn);

// ---- Cost of the model ------------------------------------------------------------------------

// Processor time (ns) that all threads together have spent inside the drop-in since the process
// began: every libusb call and the virtual sleeps, the firmware model's work included. A benchmark
// subtracts it from the process's own CPU time to see the library's.
CORVEL_SIM_API uint64_t cpu_time_ns();

// ---- Firmware state -------------------------------------------------------------------------

// The adapter's 2048-byte user-data area as the firmware holds it.
CORVEL_SIM_API std::vector<uint8_t> user_data(int adapter);
CORVEL_SIM_API void set_user_data(int adapter, std::size_t offset, const std::vector<uint8_t>& bytes);

}  // namespace corvel::sim
