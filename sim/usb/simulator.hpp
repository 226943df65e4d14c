// The state behind the drop-in libusb-0.1: the configured adapters with their firmware models, the
// virtual bus, the open handles, capture, faults and the virtual clock. One instance per process,
// built on first use and never destroyed (the host keeps pointers to our records until it exits).
//
// Every member is guarded by mutex(); it is recursive because scheduled events run with it held
// and may call the control API.
#pragma once

#include <usb.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "corvel/sim.hpp"
#include "firmware/clock.hpp"
#include "firmware/firmware.hpp"

namespace corvel::sim {

// The libusb view of one adapter: device, configuration, interface and endpoint descriptors.
struct DeviceRecord {
    struct usb_device device {};
    usb_config_descriptor config{};
    usb_interface interface {};
    usb_interface_descriptor altsetting{};
    std::array<usb_endpoint_descriptor, 4> endpoints{};
};

struct Adapter {
    int index = -1;  // number on the bus; -1 once configured away
    AdapterSpec setup;
    DeviceRecord record;
    std::shared_ptr<fw::Firmware> firmware;  // null once configured away
    bool plugged = true;
    const usb_dev_handle* claimed_by = nullptr;

    bool present() const { return index >= 0 && plugged && firmware != nullptr; }
};

}  // namespace corvel::sim

// Completes libusb's opaque handle type.
struct usb_dev_handle {
    corvel::sim::Adapter* adapter = nullptr;
    bool open = false;
};

namespace corvel::sim {

class Simulator {
  public:
    static Simulator& instance();
    std::recursive_mutex& mutex() { return mutex_; }

    // ---- Configuration
    void configure(const std::vector<AdapterSpec>& adapters);
    std::vector<AdapterSpec> adapters() const;
    Adapter* adapter(int index);  // a configured adapter, or null
    fw::Firmware* firmware(int index);
    void set_state_dir(std::string dir);
    const std::string& state_dir() const { return state_dir_; }

    // ---- Bus
    int find_busses();
    int find_devices();
    Adapter* adapter_of(const struct usb_device* device);  // null for a record that is not ours

    // ---- Handles: every handle lives until the process ends, so stale pointers stay harmless.
    usb_dev_handle* open_handle(Adapter* adapter);
    usb_dev_handle* find_handle(const void* pointer) const;  // null unless we made it

    // ---- Transfers (handle, buffer and endpoint already checked)
    // Waits, in virtual time, up to `timeout_ms` for an answer on `endpoint`.
    int read(Adapter& adapter, int endpoint, char* buffer, int size, int timeout_ms, fw::Bytes& delivered);

    // ---- Capture
    bool capturing = false;
    std::vector<Record> records;

    // ---- Faults
    void fail_next(Call call, int count, int code);
    std::optional<int> take_failure(Call call);
    void clear_failures() { failures_.clear(); }

    // ---- Virtual clock (switched on and off with clock.set_on)
    fw::Clock clock;

  private:
    Simulator();
    void start_from_environment();
    std::string nv_folder(const Adapter& adapter) const;

    mutable std::recursive_mutex mutex_;
    std::string state_dir_;

    std::vector<std::unique_ptr<Adapter>> all_;  // every adapter ever configured
    std::vector<Adapter*> current_;
    std::map<const struct usb_device*, Adapter*> by_device_;

    usb_bus bus_{};
    bool bus_listed_ = false;
    std::vector<struct usb_device*> listed_;  // devices on the bus as of the last usb_find_devices

    // Handles are allocated in chunks so that a pointer can be checked without dereferencing it.
    static constexpr std::size_t kChunk = 1024;
    std::vector<std::unique_ptr<usb_dev_handle[]>> chunks_;
    std::size_t used_in_last_ = kChunk;
    std::map<uintptr_t, std::size_t> chunk_by_address_;

    struct Failure {
        int count;
        int code;
    };
    std::map<Call, Failure> failures_;
};

// $CORVEL_SIM_STATE, else $XDG_STATE_HOME/corvel-sim, else $HOME/.local/state/corvel-sim, else "".
std::string default_state_dir();

// Runs `fn(simulator)` under the simulator's lock and returns what it returns. The control API
// reaches the simulator this way.
template <typename Fn>
decltype(auto) with_sim(Fn&& fn) {
    Simulator& s = Simulator::instance();
    std::lock_guard<std::recursive_mutex> lock(s.mutex());
    return fn(s);
}

// Runs `fn` on adapter `index`'s firmware model under the simulator's lock and returns its result;
// for an unknown index it does nothing and returns a value-initialised result (false, empty, 0).
template <typename Fn>
auto with_firmware(int index, Fn&& fn) {
    using R = std::invoke_result_t<Fn&, fw::Firmware&>;
    return with_sim([&](Simulator& s) -> R {
        if (fw::Firmware* f = s.firmware(index)) return fn(*f);
        if constexpr (!std::is_void_v<R>) return R{};
    });
}

// The same for one engine of the adapter; the same default when the adapter has no such engine.
template <typename E, typename Fn>
auto with_engine(int index, Fn&& fn) {
    using R = std::invoke_result_t<Fn&, E&>;
    return with_firmware(index, [&](fw::Firmware& f) -> R {
        if (E* e = f.find_engine<E>()) return fn(*e);
        if constexpr (!std::is_void_v<R>) return R{};
    });
}

}  // namespace corvel::sim
