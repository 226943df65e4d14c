// The libusb-0.1 C interface over the virtual adapters: every function of <usb.h>, answering as
// Debian's libusb-0.1.12 does (byte counts on success, negative errno values on failure).
//
// Whatever a caller passes, nothing here crashes or touches memory outside the caller's buffers:
// handles and device records are looked up before use, and unknown or closed handles give -EBADF.
#include <usb.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "corvel/sim.hpp"
#include "cpu_meter.hpp"
#include "simulator.hpp"

// <usb.h> declares it outside its extern "C" block; a variable name is not mangled either way.
CORVEL_SIM_API struct usb_bus* usb_busses = nullptr;

namespace corvel::sim {
namespace {

using Lock = std::lock_guard<std::recursive_mutex>;
using fw::Bytes;

constexpr uint16_t kLanguageEnglishUs = 0x0409;

// Runs `fn`, turning an exception (only an allocation failure can get here) into `on_error`: no
// exception may cross the C interface.
// Every entry point goes through here, so this is also where the drop-in's CPU time is measured.
template <typename R, typename Fn>
R guarded(R on_error, Fn&& fn) noexcept {
    const CpuMeter meter;
    try {
        return fn();
    } catch (...) {
        return on_error;
    }
}

// One libusb call being served, and what the capture records about it.
class Served {
  public:
    Served(Simulator& s, Call call, const usb_dev_handle* h = nullptr) : sim_(s) {
        rec.call = call;
        rec.adapter = h != nullptr ? h->adapter->index : -1;
        rec.endpoint = -1;
        rec.timeout_ms = -1;
        rec.result = 0;
        rec.time_us = s.clock.now_us();
    }
    int done(int result) {
        rec.result = result;
        if (sim_.capturing) sim_.records.push_back(std::move(rec));
        return result;
    }
    Record rec;

  private:
    Simulator& sim_;
};

// The open handle `dev` names, or null (unknown pointer, or closed).
usb_dev_handle* open_handle(Simulator& s, usb_dev_handle* dev) {
    usb_dev_handle* h = s.find_handle(dev);
    return h != nullptr && h->open ? h : nullptr;
}

std::optional<std::string> string_of(const Adapter& a, int index) {
    switch (index) {
        case 1:
            return std::string("Corvel");
        case 2:
            return fw::product_name(a.setup.personality);
        case 3:
            if (a.setup.has_serial) return a.setup.serial;
            return std::nullopt;
        default:
            return std::nullopt;
    }
}

// A string descriptor: length, type, then UTF-16LE text (index 0: the supported language).
std::optional<Bytes> string_descriptor(const Adapter& a, int index) {
    if (index == 0) return Bytes{4, USB_DT_STRING, kLanguageEnglishUs & 0xFF, kLanguageEnglishUs >> 8};
    auto text = string_of(a, index);
    if (!text) return std::nullopt;
    const std::size_t chars = std::min<std::size_t>(text->size(), 126);
    Bytes out{static_cast<uint8_t>(2 + 2 * chars), USB_DT_STRING};
    for (std::size_t i = 0; i < chars; ++i) {
        out.push_back(static_cast<uint8_t>((*text)[i]));
        out.push_back(0);
    }
    return out;
}

void put_le16(Bytes& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}

std::optional<Bytes> descriptor(const Adapter& a, int type, int index) {
    const DeviceRecord& r = a.record;
    if (type == USB_DT_DEVICE) {
        const usb_device_descriptor& d = r.device.descriptor;
        Bytes out{d.bLength, d.bDescriptorType};
        put_le16(out, d.bcdUSB);
        out.insert(out.end(), {d.bDeviceClass, d.bDeviceSubClass, d.bDeviceProtocol, d.bMaxPacketSize0});
        put_le16(out, d.idVendor);
        put_le16(out, d.idProduct);
        put_le16(out, d.bcdDevice);
        out.insert(out.end(), {d.iManufacturer, d.iProduct, d.iSerialNumber, d.bNumConfigurations});
        return out;
    }
    if (type == USB_DT_CONFIG && index == 0) {
        const usb_config_descriptor& c = r.config;
        Bytes out{c.bLength, c.bDescriptorType};
        put_le16(out, c.wTotalLength);
        out.insert(out.end(),
                   {c.bNumInterfaces, c.bConfigurationValue, c.iConfiguration, c.bmAttributes, c.MaxPower});
        const usb_interface_descriptor& i = r.altsetting;
        out.insert(out.end(),
                   {i.bLength, i.bDescriptorType, i.bInterfaceNumber, i.bAlternateSetting, i.bNumEndpoints,
                    i.bInterfaceClass, i.bInterfaceSubClass, i.bInterfaceProtocol, i.iInterface});
        for (const usb_endpoint_descriptor& e : r.endpoints) {
            out.insert(out.end(), {e.bLength, e.bDescriptorType, e.bEndpointAddress, e.bmAttributes});
            put_le16(out, e.wMaxPacketSize);
            out.push_back(e.bInterval);
        }
        return out;
    }
    if (type == USB_DT_STRING) return string_descriptor(a, index);
    return std::nullopt;
}

bool endpoint_exists(int endpoint) {
    return endpoint == proto::kEndpointBulkOut || endpoint == proto::kEndpointIntOut ||
           endpoint == proto::kEndpointBulkIn || endpoint == proto::kEndpointIntIn;
}

// As usbfs: a bulk call may also reach an interrupt endpoint, an interrupt call only an
// interrupt endpoint.
bool endpoint_fits(int endpoint, bool out, bool interrupt) {
    if (out) return endpoint == proto::kEndpointIntOut || (!interrupt && endpoint == proto::kEndpointBulkOut);
    return endpoint == proto::kEndpointIntIn || (!interrupt && endpoint == proto::kEndpointBulkIn);
}

int transfer(Call call, usb_dev_handle* dev, int ep, char* bytes, int size, int timeout, bool out,
             bool interrupt) {
    return guarded(-ENOMEM, [&] {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        usb_dev_handle* h = s.find_handle(dev);
        // libusb-0.1 sets the direction bit of the endpoint for reads.
        const int endpoint = out ? ep : (ep | USB_ENDPOINT_IN);
        Served served(s, call, h);
        served.rec.endpoint = endpoint;
        served.rec.timeout_ms = timeout;
        if (out && bytes != nullptr && size > 0) served.rec.data.assign(bytes, bytes + size);
        if (auto code = s.take_failure(call)) return served.done(*code);
        if (h == nullptr || !h->open) return served.done(-EBADF);
        if (size < 0) return served.done(-EINVAL);
        if (bytes == nullptr && size > 0) return served.done(-EFAULT);
        if (!endpoint_fits(endpoint, out, interrupt)) return served.done(-EINVAL);
        Adapter& a = *h->adapter;
        if (!a.present()) return served.done(-ENODEV);
        if (out) {
            a.firmware->write(endpoint, std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes),
                                                                 static_cast<std::size_t>(size)));
            return served.done(size);
        }
        return served.done(s.read(a, endpoint, bytes, size, timeout, served.rec.data));
    });
}

// The shape of the remaining handle calls: fault, then handle, then the adapter's presence.
template <typename Fn>
int on_handle(Call call, usb_dev_handle* dev, int endpoint, Fn&& fn) {
    return guarded(-ENOMEM, [&] {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        usb_dev_handle* h = open_handle(s, dev);
        Served served(s, call, s.find_handle(dev));
        served.rec.endpoint = endpoint;
        if (auto code = s.take_failure(call)) return served.done(*code);
        if (h == nullptr) return served.done(-EBADF);
        return served.done(fn(s, *h, served.rec));
    });
}

// Copies a descriptor into the caller's buffer: the byte count, or the reason there is none.
int copy_out(const std::optional<Bytes>& bytes, void* buf, std::size_t size) {
    if (!bytes) return -EPIPE;
    const std::size_t n = std::min(bytes->size(), size);
    if (n > 0) std::memcpy(buf, bytes->data(), n);
    return static_cast<int>(n);
}

}  // namespace
}  // namespace corvel::sim

using namespace corvel::sim;

extern "C" {

CORVEL_SIM_API void usb_init(void) {
    guarded(0, [] {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        Served served(s, Call::Init);
        s.take_failure(Call::Init);
        return served.done(0);
    });
}

CORVEL_SIM_API void usb_set_debug(int) {
    guarded(0, [] {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        return Served(s, Call::Other).done(0);
    });
}

CORVEL_SIM_API int usb_find_busses(void) {
    return guarded(-ENOMEM, [] {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        Served served(s, Call::FindBusses);
        if (auto code = s.take_failure(Call::FindBusses)) return served.done(*code);
        return served.done(s.find_busses());
    });
}

CORVEL_SIM_API int usb_find_devices(void) {
    return guarded(-ENOMEM, [] {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        Served served(s, Call::FindDevices);
        if (auto code = s.take_failure(Call::FindDevices)) return served.done(*code);
        return served.done(s.find_devices());
    });
}

CORVEL_SIM_API struct usb_bus* usb_get_busses(void) {
    return guarded<usb_bus*>(nullptr, [] {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        Served served(s, Call::GetBusses);
        usb_bus* busses = s.take_failure(Call::GetBusses) ? nullptr : usb_busses;
        served.done(busses != nullptr ? 1 : 0);
        return busses;
    });
}

CORVEL_SIM_API usb_dev_handle* usb_open(struct usb_device* dev) {
    return guarded<usb_dev_handle*>(nullptr, [&]() -> usb_dev_handle* {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        Adapter* a = s.adapter_of(dev);
        Served served(s, Call::Open);
        served.rec.adapter = a != nullptr ? a->index : -1;
        // Unplugged, configured away or not one of ours: no handle.
        if (s.take_failure(Call::Open) || a == nullptr || !a->present()) {
            served.done(0);
            return nullptr;
        }
        usb_dev_handle* h = s.open_handle(a);
        served.done(1);
        return h;
    });
}

CORVEL_SIM_API int usb_close(usb_dev_handle* dev) {
    return guarded(-ENOMEM, [&] {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        usb_dev_handle* h = s.find_handle(dev);
        Served served(s, Call::Close, h);
        if (auto code = s.take_failure(Call::Close)) return served.done(*code);
        if (h == nullptr) return served.done(-EBADF);
        if (!h->open) return served.done(-1);
        h->open = false;
        if (h->adapter->claimed_by == h) h->adapter->claimed_by = nullptr;
        return served.done(0);
    });
}

CORVEL_SIM_API int usb_reset(usb_dev_handle* dev) {
    return on_handle(Call::Reset, dev, -1, [](Simulator&, usb_dev_handle& h, Record&) {
        if (!h.adapter->present()) return -ENODEV;
        h.adapter->firmware->reset();
        return 0;
    });
}

CORVEL_SIM_API int usb_claim_interface(usb_dev_handle* dev, int interface) {
    return on_handle(Call::ClaimInterface, dev, interface, [&](Simulator&, usb_dev_handle& h, Record&) {
        Adapter& a = *h.adapter;
        if (interface != corvel::proto::kInterface) return -EINVAL;
        if (!a.present()) return -ENODEV;
        if (a.claimed_by != nullptr && a.claimed_by != &h) return -EBUSY;
        a.claimed_by = &h;
        return 0;
    });
}

CORVEL_SIM_API int usb_release_interface(usb_dev_handle* dev, int interface) {
    return on_handle(Call::ReleaseInterface, dev, interface, [&](Simulator&, usb_dev_handle& h, Record&) {
        Adapter& a = *h.adapter;
        if (interface != corvel::proto::kInterface) return -EINVAL;
        if (!a.present()) return -ENODEV;
        if (a.claimed_by == &h) a.claimed_by = nullptr;
        return 0;
    });
}

CORVEL_SIM_API int usb_get_string_simple(usb_dev_handle* dev, int index, char* buf, size_t buflen) {
    return on_handle(Call::GetString, dev, index, [&](Simulator&, usb_dev_handle& h, Record& rec) {
        if (buflen == 0) return -EINVAL;
        if (buf == nullptr) return -EFAULT;
        if (!h.adapter->present()) return -ENODEV;
        auto text = string_of(*h.adapter, index);
        if (!text) return -EPIPE;
        const std::size_t n = std::min(text->size(), buflen - 1);
        std::memcpy(buf, text->data(), n);
        buf[n] = '\0';
        rec.data.assign(text->begin(), text->begin() + static_cast<std::ptrdiff_t>(n));
        return static_cast<int>(n);
    });
}

CORVEL_SIM_API int usb_get_string(usb_dev_handle* dev, int index, int, char* buf, size_t buflen) {
    return on_handle(Call::Other, dev, index, [&](Simulator&, usb_dev_handle& h, Record&) {
        if (buf == nullptr && buflen > 0) return -EFAULT;
        if (!h.adapter->present()) return -ENODEV;
        return copy_out(string_descriptor(*h.adapter, index), buf, buflen);
    });
}

CORVEL_SIM_API int usb_get_descriptor(usb_dev_handle* udev, unsigned char type, unsigned char index,
                                      void* buf, int size) {
    return on_handle(Call::Other, udev, -1, [&](Simulator&, usb_dev_handle& h, Record&) {
        if (size < 0) return -EINVAL;
        if (buf == nullptr && size > 0) return -EFAULT;
        if (!h.adapter->present()) return -ENODEV;
        return copy_out(descriptor(*h.adapter, type, index), buf, static_cast<std::size_t>(size));
    });
}

CORVEL_SIM_API int usb_get_descriptor_by_endpoint(usb_dev_handle* udev, int ep, unsigned char type,
                                                  unsigned char index, void* buf, int size) {
    return on_handle(Call::Other, udev, ep, [&](Simulator&, usb_dev_handle& h, Record&) {
        if (size < 0) return -EINVAL;
        if (buf == nullptr && size > 0) return -EFAULT;
        if (!h.adapter->present()) return -ENODEV;
        return copy_out(descriptor(*h.adapter, type, index), buf, static_cast<std::size_t>(size));
    });
}

CORVEL_SIM_API int usb_bulk_write(usb_dev_handle* dev, int ep, const char* bytes, int size, int timeout) {
    return transfer(Call::BulkWrite, dev, ep, const_cast<char*>(bytes), size, timeout, true, false);
}

CORVEL_SIM_API int usb_bulk_read(usb_dev_handle* dev, int ep, char* bytes, int size, int timeout) {
    return transfer(Call::BulkRead, dev, ep, bytes, size, timeout, false, false);
}

CORVEL_SIM_API int usb_interrupt_write(usb_dev_handle* dev, int ep, const char* bytes, int size,
                                       int timeout) {
    return transfer(Call::InterruptWrite, dev, ep, const_cast<char*>(bytes), size, timeout, true, true);
}

CORVEL_SIM_API int usb_interrupt_read(usb_dev_handle* dev, int ep, char* bytes, int size, int timeout) {
    return transfer(Call::InterruptRead, dev, ep, bytes, size, timeout, false, true);
}

// The adapter answers no control request beyond what the descriptor calls above give.
CORVEL_SIM_API int usb_control_msg(usb_dev_handle* dev, int, int, int, int, char*, int, int) {
    return on_handle(Call::Other, dev, 0, [](Simulator&, usb_dev_handle& h, Record&) {
        return h.adapter->present() ? -EPIPE : -ENODEV;
    });
}

CORVEL_SIM_API int usb_set_configuration(usb_dev_handle* dev, int configuration) {
    return on_handle(Call::Other, dev, -1, [&](Simulator&, usb_dev_handle& h, Record&) {
        if (!h.adapter->present()) return -ENODEV;
        return configuration == 1 ? 0 : -EINVAL;
    });
}

CORVEL_SIM_API int usb_set_altinterface(usb_dev_handle* dev, int alternate) {
    return on_handle(Call::Other, dev, -1, [&](Simulator&, usb_dev_handle& h, Record&) {
        if (!h.adapter->present()) return -ENODEV;
        // As libusb: only on a claimed interface, and interface 0 has only setting 0.
        return h.adapter->claimed_by == &h && alternate == 0 ? 0 : -EINVAL;
    });
}

CORVEL_SIM_API int usb_resetep(usb_dev_handle* dev, unsigned int ep) {
    return on_handle(Call::Other, dev, static_cast<int>(ep & 0xFF),
                     [&](Simulator&, usb_dev_handle& h, Record&) {
                         if (!h.adapter->present()) return -ENODEV;
                         return endpoint_exists(static_cast<int>(ep)) ? 0 : -EINVAL;
                     });
}

CORVEL_SIM_API int usb_clear_halt(usb_dev_handle* dev, unsigned int ep) {
    return on_handle(Call::Other, dev, static_cast<int>(ep & 0xFF),
                     [&](Simulator&, usb_dev_handle& h, Record&) {
                         if (!h.adapter->present()) return -ENODEV;
                         return endpoint_exists(static_cast<int>(ep)) ? 0 : -EINVAL;
                     });
}

// No kernel driver is ever bound to a virtual adapter.
CORVEL_SIM_API int usb_get_driver_np(usb_dev_handle* dev, int interface, char*, unsigned int) {
    return on_handle(Call::Other, dev, interface, [](Simulator&, usb_dev_handle& h, Record&) {
        return h.adapter->present() ? -ENODATA : -ENODEV;
    });
}

CORVEL_SIM_API int usb_detach_kernel_driver_np(usb_dev_handle* dev, int interface) {
    return on_handle(Call::Other, dev, interface, [](Simulator&, usb_dev_handle& h, Record&) {
        return h.adapter->present() ? -ENODATA : -ENODEV;
    });
}

CORVEL_SIM_API char* usb_strerror(void) {
    static char text[] = "virtual adapter: see the negative errno value the call returned";
    guarded(0, [] {
        Simulator& s = Simulator::instance();
        Lock lock(s.mutex());
        return Served(s, Call::Other).done(0);
    });
    return text;
}

CORVEL_SIM_API struct usb_device* usb_device(usb_dev_handle* dev) {
    return guarded<struct usb_device*>(
        nullptr, [&]() -> struct usb_device* {
            Simulator& s = Simulator::instance();
            Lock lock(s.mutex());
            usb_dev_handle* h = s.find_handle(dev);
            Served served(s, Call::Other, h);
            struct usb_device* device = h != nullptr ? &h->adapter->record.device : nullptr;
            served.done(device != nullptr ? 1 : 0);
            return device;
        });
}

}  // extern "C"
