// The control API of the virtual adapter (corvel/sim.hpp).
#include "corvel/sim.hpp"
#include "firmware/board_engine.hpp"
#include "simulator.hpp"

namespace corvel::sim {

void configure(const std::vector<AdapterSpec>& adapters) {
    with_sim([&](Simulator& s) { s.configure(adapters); });
}

std::vector<AdapterSpec> adapters() {
    return with_sim([&](Simulator& s) { return s.adapters(); });
}

void set_state_dir(const std::string& dir) {
    with_sim([&](Simulator& s) { s.set_state_dir(dir); });
}

std::string state_dir() {
    return with_sim([&](Simulator& s) { return s.state_dir(); });
}

const char* call_name(Call call) {
    switch (call) {
        case Call::Init:
            return "usb_init";
        case Call::FindBusses:
            return "usb_find_busses";
        case Call::FindDevices:
            return "usb_find_devices";
        case Call::GetBusses:
            return "usb_get_busses";
        case Call::Open:
            return "usb_open";
        case Call::Close:
            return "usb_close";
        case Call::Reset:
            return "usb_reset";
        case Call::GetString:
            return "usb_get_string_simple";
        case Call::ClaimInterface:
            return "usb_claim_interface";
        case Call::ReleaseInterface:
            return "usb_release_interface";
        case Call::BulkWrite:
            return "usb_bulk_write";
        case Call::BulkRead:
            return "usb_bulk_read";
        case Call::InterruptWrite:
            return "usb_interrupt_write";
        case Call::InterruptRead:
            return "usb_interrupt_read";
        case Call::Other:
            return "other";
    }
    return "other";
}

void capture(bool on) {
    with_sim([&](Simulator& s) { s.capturing = on; });
}

std::vector<Record> records() {
    return with_sim([&](Simulator& s) { return s.records; });
}

void clear_records() {
    with_sim([&](Simulator& s) { s.records.clear(); });
}

void fail_next(Call call, int count, int code) {
    with_sim([&](Simulator& s) { s.fail_next(call, count, code); });
}

void short_read_next(int adapter, std::size_t bytes) {
    with_firmware(adapter, [&](fw::Firmware& f) { f.short_read_next(bytes); });
}

void drop_next_answers(int adapter, int count) {
    with_firmware(adapter, [&](fw::Firmware& f) { f.drop_next_answers(count); });
}

void override_next_status(int adapter, uint8_t status) {
    with_firmware(adapter, [&](fw::Firmware& f) { f.override_next_status(status); });
}

void silence(int adapter, bool on) {
    with_firmware(adapter, [&](fw::Firmware& f) { f.silence(on); });
}

void unplug(int adapter) {
    with_sim([&](Simulator& s) {
        if (Adapter* a = s.adapter(adapter)) a->plugged = false;
    });
}

void replug(int adapter) {
    with_sim([&](Simulator& s) {
        if (Adapter* a = s.adapter(adapter)) a->plugged = true;
    });
}

void inject_in(int adapter, int endpoint, std::vector<uint8_t> bytes) {
    with_firmware(adapter, [&](fw::Firmware& f) { f.inject(endpoint, std::move(bytes)); });
}

void clear_in(int adapter) {
    with_firmware(adapter, [](fw::Firmware& f) { f.clear_in(); });
}

std::vector<uint32_t> unknown_messages(int adapter) {
    return with_firmware(adapter, [](fw::Firmware& f) { return f.unknown_messages(); });
}

void clear_faults() {
    with_sim([&](Simulator& s) {
        s.clear_failures();
        for (int i = 0; fw::Firmware* f = s.firmware(i); ++i) f->clear_faults();
    });
}

void virtual_clock(bool on) {
    Simulator::instance().clock.set_on(on);
}

bool virtual_clock_enabled() {
    return Simulator::instance().clock.on();
}

uint64_t now_us() {
    return with_sim([&](Simulator& s) { return s.clock.now_us(); });
}

uint64_t slept_us() {
    return with_sim([&](Simulator& s) { return s.clock.slept_us(); });
}

void reset_clock() {
    with_sim([&](Simulator& s) { s.clock.reset(); });
}

void schedule(uint64_t at_us, std::function<void()> fn) {
    with_sim([&](Simulator& s) { s.clock.schedule(at_us, std::move(fn)); });
}

std::vector<uint8_t> user_data(int adapter) {
    return with_firmware(adapter, [](fw::Firmware& f) {
        const fw::NvStore* store = f.find_nv(fw::kUserDataFile);
        return store != nullptr ? store->bytes() : fw::Bytes{};
    });
}

void set_user_data(int adapter, std::size_t offset, const std::vector<uint8_t>& bytes) {
    with_firmware(adapter, [&](fw::Firmware& f) {
        if (fw::NvStore* store = f.find_nv(fw::kUserDataFile)) store->write(offset, bytes);
    });
}

}  // namespace corvel::sim
