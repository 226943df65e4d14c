// The adapters on the USB buses as libusb-0.1 describes them: serial number and product name.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvel::cli {

struct UsbAdapter {
    std::optional<std::string> serial;  // empty when the device has none; nothing when it cannot be opened
    std::string product;                // the product name; empty when there is none or it cannot be read
};

// The adapters in bus order. The library exports neither string, so they are read here through
// libusb-0.1, whose buses the library's enumeration (KD_EnumBoard and the families' scans) has just
// read; call it after one.
std::vector<UsbAdapter> read_usb_adapters();

}  // namespace corvel::cli
