#include "simulator.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string_view>

namespace corvel::sim {
namespace {

constexpr uint8_t kEndpointAttributesBulk = USB_ENDPOINT_TYPE_BULK;
constexpr uint8_t kEndpointAttributesInterrupt = USB_ENDPOINT_TYPE_INTERRUPT;

usb_endpoint_descriptor endpoint(uint8_t address, uint8_t attributes) {
    usb_endpoint_descriptor e{};
    e.bLength = USB_DT_ENDPOINT_SIZE;
    e.bDescriptorType = USB_DT_ENDPOINT;
    e.bEndpointAddress = address;
    e.bmAttributes = attributes;
    e.wMaxPacketSize = proto::kUsbPacketSize;
    e.bInterval = attributes == kEndpointAttributesInterrupt ? 1 : 0;
    return e;
}

// One configuration, interface 0 with bulk OUT 0x02, interrupt OUT 0x01, bulk IN 0x82 and
// interrupt IN 0x81, as the adapter reports them.
void build_record(Adapter& a) {
    DeviceRecord& r = a.record;
    r.endpoints = {endpoint(proto::kEndpointBulkOut, kEndpointAttributesBulk),
                   endpoint(proto::kEndpointIntOut, kEndpointAttributesInterrupt),
                   endpoint(proto::kEndpointBulkIn, kEndpointAttributesBulk),
                   endpoint(proto::kEndpointIntIn, kEndpointAttributesInterrupt)};

    usb_interface_descriptor& alt = r.altsetting;
    alt.bLength = USB_DT_INTERFACE_SIZE;
    alt.bDescriptorType = USB_DT_INTERFACE;
    alt.bInterfaceNumber = proto::kInterface;
    alt.bNumEndpoints = static_cast<uint8_t>(r.endpoints.size());
    alt.bInterfaceClass = USB_CLASS_VENDOR_SPEC;
    alt.endpoint = r.endpoints.data();

    r.interface.altsetting = &alt;
    r.interface.num_altsetting = 1;

    usb_config_descriptor& c = r.config;
    c.bLength = USB_DT_CONFIG_SIZE;
    c.bDescriptorType = USB_DT_CONFIG;
    c.wTotalLength = USB_DT_CONFIG_SIZE + USB_DT_INTERFACE_SIZE + 4 * USB_DT_ENDPOINT_SIZE;
    c.bNumInterfaces = 1;
    c.bConfigurationValue = 1;
    c.bmAttributes = 0x80;  // bus powered
    c.MaxPower = 50;        // 100 mA
    c.interface = &r.interface;

    struct usb_device& d = r.device;
    std::snprintf(d.filename, sizeof d.filename, "%03d", a.index + 1);
    d.devnum = static_cast<uint8_t>(a.index + 1);
    d.config = &c;
    usb_device_descriptor& dd = d.descriptor;
    dd.bLength = USB_DT_DEVICE_SIZE;
    dd.bDescriptorType = USB_DT_DEVICE;
    dd.bcdUSB = 0x0200;
    dd.bMaxPacketSize0 = 64;
    dd.idVendor = a.setup.vendor;
    dd.idProduct = a.setup.product;
    dd.bcdDevice = 0x0100;
    dd.iManufacturer = 1;
    dd.iProduct = 2;
    dd.iSerialNumber = a.setup.has_serial ? 3 : 0;
    dd.bNumConfigurations = 1;
}

// A folder name from a serial: characters other than letters, digits, '.', '_' and '-' become '_'.
std::string folder_name(const Adapter& a) {
    std::string name;
    if (a.setup.has_serial) {
        for (char c : a.setup.serial) {
            const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                               c == '.' || c == '_' || c == '-';
            name.push_back(plain ? c : '_');
        }
        if (name == "." || name == "..") name.clear();
    }
    return name.empty() ? "adapter-" + std::to_string(a.index) : name;
}

}  // namespace

std::string default_state_dir() {
    if (const char* dir = std::getenv("CORVEL_SIM_STATE"); dir != nullptr && *dir != '\0') return dir;
    if (const char* xdg = std::getenv("XDG_STATE_HOME"); xdg != nullptr && *xdg != '\0')
        return std::string(xdg) + "/corvel-sim";
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0')
        return std::string(home) + "/.local/state/corvel-sim";
    return std::string();
}

Simulator& Simulator::instance() {
    // Never destroyed: the host may call in (or hold our pointers) until the very end.
    static Simulator* const sim = [] {
        auto* s = new Simulator;
        s->start_from_environment();
        return s;
    }();
    return *sim;
}

Simulator::Simulator() {
    std::snprintf(bus_.dirname, sizeof bus_.dirname, "001");
    bus_.location = 1;
}

void Simulator::start_from_environment() {
    state_dir_ = default_state_dir();
    if (const char* mode = std::getenv("CORVEL_SIM_CLOCK"); mode != nullptr && *mode != '\0') {
        const std::string_view m(mode);
        if (m == "virtual") {
            clock.set_on(true);
        } else if (m != "real") {
            std::fprintf(
                stderr, "corvel-sim: CORVEL_SIM_CLOCK: expected \"virtual\" or \"real\", got \"%s\"\n", mode);
        }
    }
    std::vector<AdapterSpec> initial;
    try {
        const char* text = std::getenv("CORVEL_SIM");
        initial = parse_config(text != nullptr ? text : "");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "corvel-sim: CORVEL_SIM: %s\n", e.what());
        initial = {AdapterSpec{}};
    }
    configure(initial);
}

std::string Simulator::nv_folder(const Adapter& a) const {
    return state_dir_.empty() ? std::string() : state_dir_ + "/" + folder_name(a);
}

void Simulator::configure(const std::vector<AdapterSpec>& adapters) {
    // The old adapters leave the bus; their records and handles stay valid, their models go.
    for (Adapter* old : current_) {
        old->index = -1;
        old->firmware.reset();
        old->claimed_by = nullptr;
    }
    current_.clear();
    for (const AdapterSpec& setup : adapters) {
        auto a = std::make_unique<Adapter>();
        a->index = static_cast<int>(current_.size());
        a->setup = setup;
        build_record(*a);
        a->firmware = std::make_shared<fw::Firmware>(setup, clock, nv_folder(*a));
        by_device_[&a->record.device] = a.get();
        current_.push_back(a.get());
        all_.push_back(std::move(a));
    }
}

std::vector<AdapterSpec> Simulator::adapters() const {
    std::vector<AdapterSpec> out;
    for (const Adapter* a : current_) out.push_back(a->setup);
    return out;
}

Adapter* Simulator::adapter(int index) {
    return index >= 0 && static_cast<std::size_t>(index) < current_.size()
               ? current_[static_cast<std::size_t>(index)]
               : nullptr;
}

fw::Firmware* Simulator::firmware(int index) {
    Adapter* a = adapter(index);
    return a != nullptr ? a->firmware.get() : nullptr;
}

void Simulator::set_state_dir(std::string dir) {
    state_dir_ = std::move(dir);
    for (Adapter* a : current_) a->firmware->set_nv_folder(nv_folder(*a));
}

int Simulator::find_busses() {
    if (bus_listed_) return 0;
    bus_listed_ = true;
    usb_busses = &bus_;
    return 1;
}

int Simulator::find_devices() {
    if (!bus_listed_) return 0;
    std::vector<struct usb_device*> now;
    for (Adapter* a : current_)
        if (a->plugged) now.push_back(&a->record.device);
    int changes = 0;
    for (struct usb_device* d : now)
        if (std::find(listed_.begin(), listed_.end(), d) == listed_.end()) ++changes;
    for (struct usb_device* d : listed_) {
        if (std::find(now.begin(), now.end(), d) != now.end()) continue;
        ++changes;
        d->next = d->prev = nullptr;
    }
    for (std::size_t i = 0; i < now.size(); ++i) {
        now[i]->bus = &bus_;
        now[i]->prev = i > 0 ? now[i - 1] : nullptr;
        now[i]->next = i + 1 < now.size() ? now[i + 1] : nullptr;
    }
    bus_.devices = now.empty() ? nullptr : now.front();
    listed_ = std::move(now);
    return changes;
}

Adapter* Simulator::adapter_of(const struct usb_device* device) {
    auto it = by_device_.find(device);
    return it == by_device_.end() ? nullptr : it->second;
}

usb_dev_handle* Simulator::open_handle(Adapter* adapter) {
    if (used_in_last_ == kChunk) {
        chunks_.push_back(std::make_unique<usb_dev_handle[]>(kChunk));
        chunk_by_address_[reinterpret_cast<uintptr_t>(chunks_.back().get())] = chunks_.size() - 1;
        used_in_last_ = 0;
    }
    usb_dev_handle* h = &chunks_.back()[used_in_last_++];
    h->adapter = adapter;
    h->open = true;
    return h;
}

usb_dev_handle* Simulator::find_handle(const void* pointer) const {
    const auto address = reinterpret_cast<uintptr_t>(pointer);
    auto it = chunk_by_address_.upper_bound(address);
    if (pointer == nullptr || it == chunk_by_address_.begin()) return nullptr;
    --it;
    const uintptr_t offset = address - it->first;
    const std::size_t used = it->second + 1 == chunks_.size() ? used_in_last_ : kChunk;
    if (offset % sizeof(usb_dev_handle) != 0 || offset / sizeof(usb_dev_handle) >= used) return nullptr;
    return &chunks_[it->second][offset / sizeof(usb_dev_handle)];
}

int Simulator::read(Adapter& a, int endpoint, char* buffer, int size, int timeout_ms, fw::Bytes& delivered) {
    // Hold the model: an event fired below may reconfigure the bus.
    const std::shared_ptr<fw::Firmware> model = a.firmware;
    const uint64_t wait_us = timeout_ms > 0 ? static_cast<uint64_t>(timeout_ms) * 1000 : 0;
    const uint64_t deadline = fw::saturating_add(clock.now_us(), wait_us);
    for (;;) {
        if (!a.present()) return -ENODEV;
        if (auto got = model->read(endpoint, static_cast<std::size_t>(size))) {
            if (!got->empty()) std::memcpy(buffer, got->data(), got->size());
            delivered = std::move(*got);
            return static_cast<int>(delivered.size());
        }
        // A read of no bytes has nothing to wait for: it completes at once, taking nothing.
        if (size == 0) return 0;
        // Nothing waits: let time pass, one event at a time, until something arrives. With the
        // clock off only events already due may run; the read never waits in real time.
        if (!clock.run_next(clock.on() ? deadline : clock.now_us())) break;
    }
    if (clock.on()) clock.advance_to(deadline);
    return -ETIMEDOUT;
}

void Simulator::fail_next(Call call, int count, int code) {
    if (count <= 0) {
        failures_.erase(call);
    } else {
        failures_[call] = Failure{count, code};
    }
}

std::optional<int> Simulator::take_failure(Call call) {
    auto it = failures_.find(call);
    if (it == failures_.end()) return std::nullopt;
    const int code = it->second.code;
    if (--it->second.count <= 0) failures_.erase(it);
    return code;
}

}  // namespace corvel::sim
