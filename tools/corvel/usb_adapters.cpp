#include "usb_adapters.hpp"

#include <usb.h>

#include <array>

#include "corvel/protocol.hpp"

namespace corvel::cli {
namespace {

std::string string_descriptor(usb_dev_handle* handle, uint8_t index) {
    if (index == 0) return {};
    std::array<char, proto::kSerialStringSize> text{};
    int n = usb_get_string_simple(handle, index, text.data(), text.size() - 1);
    return n > 0 ? std::string(text.data()) : std::string();
}

}  // namespace

std::vector<UsbAdapter> read_usb_adapters() {
    std::vector<UsbAdapter> adapters;
    for (usb_bus* bus = usb_get_busses(); bus != nullptr; bus = bus->next) {
        for (struct usb_device* dev = bus->devices; dev != nullptr; dev = dev->next) {
            if (dev->descriptor.idVendor != proto::kVendorId ||
                dev->descriptor.idProduct != proto::kProductId) {
                continue;
            }
            usb_dev_handle* handle = usb_open(dev);
            if (handle == nullptr) {
                // Without a serial string there is nothing to open for.
                adapters.push_back(
                    {dev->descriptor.iSerialNumber == 0 ? std::optional<std::string>("") : std::nullopt, {}});
                continue;
            }
            adapters.push_back({string_descriptor(handle, dev->descriptor.iSerialNumber),
                                string_descriptor(handle, dev->descriptor.iProduct)});
            usb_close(handle);
        }
    }
    return adapters;
}

}  // namespace corvel::cli
