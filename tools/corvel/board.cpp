// Board-level commands: list the adapters, ask one for its firmware version.
#include <usb.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "CorvelBoard.h"
#include "adapters.hpp"
#include "context.hpp"
#include "corvel/protocol.hpp"
#include "output.hpp"

namespace corvel::cli {
namespace {

// Serial strings of the adapters on the USB buses, in bus order: empty for a device without one,
// nothing when the device could not be opened. The library exports no serials, so they are read
// here through libusb-0.1, whose buses the library's enumeration has just read.
std::vector<std::optional<std::string>> read_serials() {
    std::vector<std::optional<std::string>> serials;
    for (usb_bus* bus = usb_get_busses(); bus != nullptr; bus = bus->next) {
        for (struct usb_device* dev = bus->devices; dev != nullptr; dev = dev->next) {
            if (dev->descriptor.idVendor != proto::kVendorId ||
                dev->descriptor.idProduct != proto::kProductId) {
                continue;
            }
            if (dev->descriptor.iSerialNumber == 0) {
                serials.emplace_back("");
                continue;
            }
            usb_dev_handle* handle = usb_open(dev);
            if (handle == nullptr) {
                serials.emplace_back(std::nullopt);
                continue;
            }
            std::array<char, proto::kSerialStringSize> text{};
            int n = usb_get_string_simple(handle, dev->descriptor.iSerialNumber, text.data(), text.size());
            usb_close(handle);
            serials.emplace_back(n > 0 ? std::string(text.data()) : std::string());
        }
    }
    return serials;
}

int list_adapters() {
    if (KD_EnumBoard(1) == 0) return fail_no_adapter();
    auto serials = read_serials();
    std::vector<std::string> keys;
    for (const auto& s : serials) keys.push_back(s.value_or(""));
    auto indices = scan_indices(keys);
    if (indices.empty()) return fail_no_adapter();

    auto width = fmt::formatted_size("{}", indices.back());
    for (std::size_t i = 0; i < serials.size(); ++i) {
        std::string shown = !serials[i] ? "? (cannot open)" : serials[i]->empty() ? "-" : *serials[i];
        fmt::print("{:>{}}  {}\n", indices[i], width, shown);
    }
    return 0;
}

int show_version(int32_t dev) {
    if (int32_t rc = KD_OpenBoard(dev); rc != 0) return fail_open(dev, rc);
    std::array<uint8_t, proto::kCommandSize> answer{};
    int32_t rc = KD_ExecuteCommand(KD_CMD_GET_CORVEL_VN, 0, dev, answer.data());
    int status = 0;
    if (rc != 0) {
        status = fail(fmt::format("adapter {}: no answer to the version command (result {})", dev, rc));
    } else {
        fmt::print("firmware {}.{}.{}.{}\n", answer[4], answer[5], answer[6], answer[7]);
        fmt::print("answer: {}\n", hex_bytes(answer));
    }
    if (int32_t closed = KD_CloseBoard(dev); closed != 0 && status == 0) {
        status = fail(fmt::format("close adapter {}", dev), closed);
    }
    return status;
}

}  // namespace

void add_board_commands(CLI::App& app, Context& ctx) {
    auto* list = app.add_subcommand("list", "List the adapters with their device index and serial number");
    list->callback([&ctx] { ctx.run = list_adapters; });

    auto* version = app.add_subcommand("version", "Show an adapter's firmware version");
    auto dev = std::make_shared<int32_t>(0);
    version->add_option("-d,--device", *dev, "Device index (see `corvel list`)")->capture_default_str();
    version->callback([&ctx, dev] { ctx.run = [dev] { return show_version(*dev); }; });
}

}  // namespace corvel::cli
