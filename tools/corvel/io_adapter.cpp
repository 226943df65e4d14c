#include "io_adapter.hpp"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include "ControlADC.h"
#include "ControlCNT.h"
#include "ControlGPIO.h"
#include "ControlPWM.h"
#include "context.hpp"
#include "numbers.hpp"
#include "output.hpp"
#include "usb_adapters.hpp"

namespace corvel::cli {
namespace {

FamilyCalls calls_of(IoFamily family) {
    switch (family) {
        case IoFamily::gpio:
            return {KGI_ScanDevice, KGI_OpenDevice, KGI_CloseDevice};
        case IoFamily::adc:
            return {KAI_ScanDevice, KAI_OpenDevice, KAI_CloseDevice};
        case IoFamily::pwm:
            return {KPI_ScanDevice, KPI_OpenDevice, KPI_CloseDevice};
        case IoFamily::counter:
            break;
    }
    return {CNT_ScanDevice, CNT_OpenDevice, CNT_CloseDevice};
}

// The type the product name tells: the SPI adapter is type 2, anything else is taken as type 1.
int32_t type_of(int32_t dev) {
    auto adapters = read_usb_adapters();
    if (dev >= 0 && static_cast<std::size_t>(dev) < adapters.size() &&
        adapters[static_cast<std::size_t>(dev)].product.find("SPI") != std::string::npos) {
        return KD_DEVTYPE_SPI;
    }
    return KD_DEVTYPE_I2C;
}

}  // namespace

int with_io_adapter(IoFamily family, const IoTarget& target, const std::function<int(int32_t type)>& body) {
    return with_family_adapter(calls_of(family), target, body);
}

int with_family_adapter(const FamilyCalls& calls, const IoTarget& target,
                        const std::function<int(int32_t type)>& body) {
    if (calls.scan(1) <= 0) return fail_no_adapter();
    int32_t type = target.type != 0 ? target.type : type_of(target.dev);
    if (int32_t rc = calls.open(type, target.dev, 0); rc != 0) return fail_open(target.dev, rc);
    int status = body(type);
    if (int32_t rc = calls.close(type, target.dev); rc != 0 && status == 0) {
        status = fail(fmt::format("close adapter {}", target.dev), rc);
    }
    return status;
}

ActionGroup::ActionGroup(CLI::App& group, Context& ctx, IoFamily family) : ctx_(ctx), family_(family) {
    group.require_subcommand(1, 0);
    group.fallthrough();
    group.add_option("-d,--device", state_->target.dev, "Device index (see `corvel list`)")
        ->capture_default_str()
        ->transform(number_in(0, 127));
    group
        .add_option("-t,--type", state_->target.type,
                    "Device type: 1 (I2C adapter) or 2 (SPI adapter); default: the adapter's own")
        ->transform(number_in(1, 2));
}

void ActionGroup::add(Action action) {
    state_->actions.push_back(std::move(action));
    ctx_.run = [state = state_, family = family_] {
        return with_io_adapter(family, state->target, [&](int32_t type) {
            const IoTarget adapter{state->target.dev, type};
            for (const auto& act : state->actions) {
                if (int status = act(adapter); status != 0) return status;
            }
            return 0;
        });
    };
}

void ActionGroup::use_real_clock() {
    ctx_.sim_clock = "real";
}

}  // namespace corvel::cli
