// The control API of the virtual adapter's SPI side (corvel/sim_spi.hpp).
#include "corvel/sim_spi.hpp"
#include "firmware/spi_engine.hpp"
#include "simulator.hpp"
#include "targets/microwire_eeprom.hpp"
#include "targets/spi_flash.hpp"
#include "targets/spi_loopback.hpp"

namespace corvel::sim {
namespace {

constexpr int kFlashChannel = 0;
constexpr int kLoopbackChannel = 1;

template <typename Fn>
auto with_spi(int index, Fn&& fn) {
    return with_engine<fw::SpiEngine>(index, std::forward<Fn>(fn));
}

// The part of type T on a chip select, or null.
template <typename T>
T* part_at(fw::SpiEngine& e, int channel) {
    return dynamic_cast<T*>(e.part(channel));
}

fw::MicrowireEeprom* microwire(fw::SpiEngine& e) {
    return dynamic_cast<fw::MicrowireEeprom*>(e.microwire_part());
}

}  // namespace

SpiChannel spi_channel(int adapter, int channel) {
    return with_spi(adapter, [&](fw::SpiEngine& e) {
        const fw::SpiConfig* c = e.config(channel);
        return c != nullptr ? *c : SpiChannel{};
    });
}

SpiFlashState spi_flash_state(int adapter) {
    return with_spi(adapter, [](fw::SpiEngine& e) {
        auto* flash = part_at<fw::SerialFlash>(e, kFlashChannel);
        if (flash == nullptr) return SpiFlashState{};
        return SpiFlashState{flash->status(e.part_time()), flash->powered_down(), flash->programs(),
                             flash->erases(), flash->memory().bytes_written()};
    });
}

std::vector<uint8_t> spi_flash(int adapter, uint32_t offset, std::size_t count) {
    return with_spi(adapter, [&](fw::SpiEngine& e) {
        auto* flash = part_at<fw::SerialFlash>(e, kFlashChannel);
        return flash != nullptr ? flash->memory().read(offset, count) : fw::Bytes{};
    });
}

void set_spi_flash(int adapter, uint32_t offset, const std::vector<uint8_t>& bytes) {
    with_spi(adapter, [&](fw::SpiEngine& e) {
        if (auto* flash = part_at<fw::SerialFlash>(e, kFlashChannel)) flash->memory().write(offset, bytes);
    });
}

void erase_spi_flash(int adapter) {
    with_spi(adapter, [](fw::SpiEngine& e) {
        if (auto* flash = part_at<fw::SerialFlash>(e, kFlashChannel)) flash->erase_all();
    });
}

std::string spi_loopback_bits(int adapter) {
    return with_spi(adapter, [](fw::SpiEngine& e) {
        auto* loopback = part_at<fw::SpiLoopback>(e, kLoopbackChannel);
        return loopback != nullptr ? loopback->pending() : std::string{};
    });
}

void clear_spi_loopback(int adapter) {
    with_spi(adapter, [](fw::SpiEngine& e) {
        if (auto* loopback = part_at<fw::SpiLoopback>(e, kLoopbackChannel)) loopback->clear();
    });
}

std::vector<uint16_t> spi_microwire(int adapter) {
    return with_spi(adapter, [](fw::SpiEngine& e) {
        std::vector<uint16_t> words;
        if (auto* eeprom = microwire(e)) {
            const fw::Bytes& b = eeprom->memory().bytes();
            for (std::size_t i = 0; i + 1 < b.size(); i += 2)
                words.push_back(static_cast<uint16_t>(b[i] << 8 | b[i + 1]));
        }
        return words;
    });
}

void set_spi_microwire(int adapter, const std::vector<uint16_t>& words) {
    with_spi(adapter, [&](fw::SpiEngine& e) {
        auto* eeprom = microwire(e);
        if (eeprom == nullptr) return;
        fw::Bytes bytes;
        for (uint16_t w : words)
            bytes.insert(bytes.end(), {static_cast<uint8_t>(w >> 8), static_cast<uint8_t>(w)});
        eeprom->memory().write(0, bytes);
    });
}

void spi_detach(int adapter, int channel) {
    with_spi(adapter, [&](fw::SpiEngine& e) { e.detach(channel); });
}

void spi_attach_defaults(int adapter) {
    with_spi(adapter, [](fw::SpiEngine& e) { e.attach_defaults(); });
}

std::vector<uint8_t> spi_master_transfer(int adapter, const std::vector<uint8_t>& bytes) {
    return with_spi(adapter,
                    [&](fw::SpiEngine& e) { return e.external_transfer(bytes).value_or(fw::Bytes{}); });
}

}  // namespace corvel::sim
