// Board-level commands: list the adapters, ask one for its firmware version.
#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "CorvelBoard.h"
#include "adapters.hpp"
#include "context.hpp"
#include "corvel/protocol.hpp"
#include "output.hpp"
#include "usb_adapters.hpp"

namespace corvel::cli {
namespace {

int list_adapters() {
    if (KD_EnumBoard(1) == 0) return fail_no_adapter();
    auto adapters = read_usb_adapters();
    std::vector<std::string> keys;
    for (const auto& a : adapters) keys.push_back(a.serial.value_or(""));
    auto indices = scan_indices(keys);
    if (indices.empty()) return fail_no_adapter();

    std::vector<std::string> shown;
    std::size_t serial_width = 0;
    for (const auto& a : adapters) {
        shown.push_back(!a.serial ? "? (cannot open)" : a.serial->empty() ? "-" : *a.serial);
        serial_width = std::max(serial_width, shown.back().size());
    }
    auto width = fmt::formatted_size("{}", indices.back());
    for (std::size_t i = 0; i < adapters.size(); ++i) {
        if (adapters[i].product.empty()) {
            fmt::print("{:>{}}  {}\n", indices[i], width, shown[i]);
        } else {
            fmt::print("{:>{}}  {:<{}}  {}\n", indices[i], width, shown[i], serial_width,
                       adapters[i].product);
        }
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
    auto* list = app.add_subcommand(
        "list", "List the adapters with their device index, serial number and product name");
    list->callback([&ctx] { ctx.run = list_adapters; });

    auto* version = app.add_subcommand("version", "Show an adapter's firmware version");
    auto dev = std::make_shared<int32_t>(0);
    version->add_option("-d,--device", *dev, "Device index (see `corvel list`)")->capture_default_str();
    version->callback([&ctx, dev] { ctx.run = [dev] { return show_version(*dev); }; });
}

}  // namespace corvel::cli
