// Board information of an I2C-type adapter: product name, versions, serial number.
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "ControlI2C.h"
#include "context.hpp"
#include "i2c_adapter.hpp"
#include "i2c_format.hpp"
#include "output.hpp"

namespace corvel::cli {
namespace {

std::string version_text(const uint8_t (&v)[4]) {
    return fmt::format("{}.{}.{}.{}", v[0], v[1], v[2], v[3]);
}

int show_info(int32_t dev) {
    return with_i2c_adapter(dev, [dev] {
        KII_BOARD_INFO info{};
        if (int32_t rc = KII_ReadBoardInfo(dev, &info); rc != 0) {
            return fail(fmt::format("read board information of adapter {}", dev), rc);
        }
        fmt::print("product:  {}\n", field_text(info.ProductName));
        fmt::print("firmware: {}\n", version_text(info.FirmwareVersion));
        fmt::print("hardware: {}\n", version_text(info.HardwareVersion));
        fmt::print("serial:   {}\n", field_text(info.SerialNumber));
        return 0;
    });
}

}  // namespace

void add_info_commands(CLI::App& app, Context& ctx) {
    auto* info = app.add_subcommand("info", "Show an I2C adapter's product name, versions and serial number");
    auto dev = std::make_shared<int32_t>(0);
    info->add_option("-d,--device", *dev, "Device index (see `corvel list`)")->capture_default_str();
    info->callback([&ctx, dev] { ctx.run = [dev] { return show_info(*dev); }; });
}

}  // namespace corvel::cli
