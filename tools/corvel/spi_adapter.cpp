#include "spi_adapter.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include <fmt/core.h>

#include "ControlSPI.h"
#include "adapters.hpp"
#include "corvel/protocol.hpp"
#include "output.hpp"
#include "usb_adapters.hpp"

namespace corvel::cli {
namespace {

constexpr std::size_t kShortTransferMax = 0xFFFF;  // the counts KSI_WriteBytes and KSI_WriteReadBytes take

// The first adapter whose product name says SPI, else adapter 0; nothing when the bus has none.
std::optional<int32_t> find_spi_adapter() {
    if (KSI_ScanDevice(1) <= 0) return std::nullopt;
    auto adapters = read_usb_adapters();
    std::vector<std::string> keys;
    for (const auto& a : adapters) keys.push_back(a.serial.value_or(""));
    auto indices = scan_indices(keys);
    for (std::size_t i = 0; i < adapters.size(); ++i) {
        if (adapters[i].product.find("SPI") != std::string::npos) return indices[i];
    }
    return 0;
}

// The library's transfer functions take their write data through a non-const pointer; they only
// read it. A transfer without write bytes still needs a pointer.
uint8_t* write_data(std::span<const uint8_t> out) {
    static uint8_t nothing = 0;
    return out.empty() ? &nothing : const_cast<uint8_t*>(out.data());
}

int redirect(int from, int to) {
    int rc = 0;
    do rc = dup2(from, to);
    while (rc < 0 && (errno == EINTR || errno == EBUSY));
    return rc;
}

}  // namespace

int with_spi_adapter(int32_t dev, const std::function<int(int32_t dev)>& body) {
    if (dev == kAnyAdapter) {
        auto found = find_spi_adapter();
        if (!found) return fail_no_adapter();
        dev = *found;
    }
    if (int32_t rc = KSI_OpenDevice(KD_DEVTYPE_SPI, dev, 0); rc != 0) return fail_open(dev, rc);
    int status = body(dev);
    if (int32_t rc = KSI_CloseDevice(KD_DEVTYPE_SPI, dev); rc != 0 && status == 0) {
        status = fail(fmt::format("close adapter {}", dev), rc);
    }
    return status;
}

QuietStdout::QuietStdout() {
    std::fflush(stdout);
    if (fcntl(STDOUT_FILENO, F_GETFD) < 0) return;  // no stdout: nothing to keep clean
    int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null_fd < 0) return;
    saved_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (saved_ >= 0 && redirect(null_fd, STDOUT_FILENO) < 0) {
        close(saved_);
        saved_ = -1;
    }
    close(null_fd);
}

QuietStdout::~QuietStdout() {
    if (saved_ < 0) return;
    std::fflush(stdout);
    redirect(saved_, STDOUT_FILENO);
    close(saved_);
}

int32_t spi_init(int32_t dev, int32_t channel, const SpiSetup& setup) {
    KSI_INIT_CONFIG_EX config{};
    config.SPIIndex = static_cast<uint8_t>(channel);
    config.ControlMode = 0;
    config.TranBits = static_cast<uint8_t>(setup.bits);
    config.MasterMode = 1;
    config.CPOL = static_cast<uint8_t>((setup.mode >> 1) & 1);
    config.CPHA = static_cast<uint8_t>(setup.mode & 1);
    config.LSBFirst = setup.lsb_first ? 1 : 0;
    config.SelPolarity = setup.cs_high ? 1 : 0;
    config.ClockSpeed = setup.speed;
    return KSI_InitSPIEx(KD_DEVTYPE_SPI, dev, &config);
}

int32_t spi_write(int32_t dev, int32_t channel, std::span<const uint8_t> out) {
    if (out.size() > kShortTransferMax) return KD_ERR_INPUT_DATA_TOO_MUCH;
    return KSI_WriteBytes(KD_DEVTYPE_SPI, dev, channel, write_data(out), static_cast<uint16_t>(out.size()));
}

int32_t spi_write_read(int32_t dev, int32_t channel, std::span<const uint8_t> out, std::span<uint8_t> in) {
    QuietStdout quiet;
    if (out.size() <= kShortTransferMax && in.size() <= kShortTransferMax) {
        return KSI_WriteReadBytes(KD_DEVTYPE_SPI, dev, channel, write_data(out),
                                  static_cast<uint16_t>(out.size()), in.data(),
                                  static_cast<uint16_t>(in.size()));
    }
    if (out.size() > proto::spi::kLongWriteMax || in.size() > UINT32_MAX) return KD_ERR_INPUT_DATA_TOO_MUCH;
    return KSI_WriteReadBytesEx(KD_DEVTYPE_SPI, dev, channel, write_data(out),
                                static_cast<uint32_t>(out.size()), in.data(),
                                static_cast<uint32_t>(in.size()));
}

}  // namespace corvel::cli
