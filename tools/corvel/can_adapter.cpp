#include "can_adapter.hpp"

#include <optional>
#include <string>
#include <vector>

#include <fmt/core.h>

#include "adapters.hpp"
#include "corvel/protocol.hpp"
#include "output.hpp"
#include "usb_adapters.hpp"

namespace corvel::cli {
namespace {

struct Found {
    int32_t dev;
    std::string product;  // empty when it could not be read
};

bool says(const std::string& product, std::string_view word) {
    return product.find(word) != std::string::npos;
}

// The adapters of the last scan with their device index and product name.
std::vector<Found> scanned_adapters() {
    auto adapters = read_usb_adapters();
    std::vector<std::string> keys;
    for (const auto& a : adapters) keys.push_back(a.serial.value_or(""));
    auto indices = scan_indices(keys);
    std::vector<Found> found;
    for (std::size_t i = 0; i < adapters.size(); ++i) found.push_back({indices[i], adapters[i].product});
    return found;
}

}  // namespace

int with_can_adapter(int32_t dev, const std::function<int(const CanAdapter&)>& body) {
    if (VCI_ScanDevice(1) == 0) return fail_no_adapter();
    auto adapters = scanned_adapters();
    std::optional<Found> chosen;
    for (const auto& a : adapters) {
        if (dev == kAnyCanAdapter ? says(a.product, "CAN") : a.dev == dev) {
            chosen = a;
            break;
        }
    }
    if (!chosen && dev == kAnyCanAdapter) return fail(fmt::format("no CAN adapter found{}", sim_hint()));
    if (chosen && !chosen->product.empty() && !says(chosen->product, "CAN")) {
        return fail(fmt::format("adapter {} is not a CAN adapter ({})", dev, chosen->product));
    }

    CanAdapter adapter;
    adapter.dev = static_cast<uint32_t>(chosen ? chosen->dev : dev);
    // A name that cannot be read leaves the two-channel type, which reaches both channels.
    if (chosen && says(chosen->product, "CAN") && !says(chosen->product, "Dual")) {
        adapter.type = VCI_USBCAN1;
        adapter.channels = 1;
    }
    if (VCI_OpenDevice(adapter.type, adapter.dev, 0) != STATUS_OK) {
        VCI_ERR_INFO info{};
        VCI_ReadErrInfo(adapter.type, adapter.dev, 0, &info);
        return fail(fmt::format("open adapter {}: {} (error record 0x{:04x}){}", adapter.dev,
                                error_words(info.ErrCode), info.ErrCode, sim_hint()));
    }
    int status = body(adapter);
    if (VCI_CloseDevice(adapter.type, adapter.dev) != STATUS_OK && status == 0) {
        status = fail_vci(fmt::format("close adapter {}", adapter.dev), adapter, 1);
    }
    return status;
}

int check_channel(const CanAdapter& adapter, int channel) {
    if (channel <= adapter.channels) return 0;
    return fail(fmt::format("adapter {} has one CAN channel: there is no channel {}", adapter.dev, channel));
}

int fail_vci(std::string_view what, const CanAdapter& adapter, int channel) {
    VCI_ERR_INFO info{};
    VCI_ReadErrInfo(adapter.type, adapter.dev, can_index(channel), &info);
    if (info.ErrCode == 0 && channel != 1) VCI_ReadErrInfo(adapter.type, adapter.dev, 0, &info);
    if (info.ErrCode == 0) return fail(fmt::format("{}: failed, with no reason recorded", what));
    return fail(fmt::format("{}: {} (error record 0x{:04x})", what, error_words(info.ErrCode), info.ErrCode));
}

int init_channel(const CanAdapter& adapter, int channel, const BitTiming& timing, CanMode mode) {
    const uint32_t index = can_index(channel);
    const std::string what = fmt::format("set up CAN channel {}", channel);
    if (timing.from_table) {
        VCI_INIT_CONFIG config{};
        config.AccCode = 0;
        config.AccMask = 0xFFFFFFFF;  // every frame passes
        config.Filter = 1;
        config.Timing0 = timing.timing0;
        config.Timing1 = timing.timing1;
        config.Mode = mode == CanMode::normal ? 0 : mode == CanMode::silent ? 1 : 2;
        if (VCI_InitCAN(adapter.type, adapter.dev, index, &config) != STATUS_OK) {
            return fail_vci(what, adapter, channel);
        }
        return 0;
    }
    VCI_INIT_CONFIG_EX config{};
    config.CAN_BRP = timing.prescaler;
    config.CAN_SJW = timing.sjw;
    config.CAN_BS1 = timing.bs1;
    config.CAN_BS2 = timing.bs2;
    config.CAN_Mode = mode == CanMode::normal   ? proto::can::kModeNormal
                      : mode == CanMode::silent ? proto::can::kModeSilent
                                                : proto::can::kModeSilentLoopBack;
    // As VCI_InitCAN sets them: no automatic retransmission, a locked receive FIFO, transmission in
    // request order.
    config.CAN_NART = 1;
    config.CAN_RFLM = 1;
    config.CAN_TXFP = 1;
    if (VCI_InitCANEx(adapter.type, adapter.dev, index, &config) != STATUS_OK)
        return fail_vci(what, adapter, channel);
    VCI_FILTER_CONFIG open = open_bank(0);
    if (VCI_SetFilter(adapter.type, adapter.dev, index, &open) != STATUS_OK)
        return fail_vci(what, adapter, channel);
    return 0;
}

}  // namespace corvel::cli
