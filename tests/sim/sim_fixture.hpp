// Shared set-up of the virtual adapter tests: a fresh state directory, capture and the virtual
// clock on, the buses read, and small helpers for frames and transfers.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <usb.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "corvel/sim.hpp"

namespace corvel::sim::test {

using Bytes = std::vector<uint8_t>;

inline AdapterSpec adapter(const std::string& serial, int type = 1) {
    AdapterSpec a;
    a.serial = serial;
    a.personality = type;
    return a;
}

// A request frame: 7-byte header, or 9 bytes when the code is above 32767.
inline Bytes frame(uint32_t code, const Bytes& payload, uint8_t packet = 0) {
    Bytes out{uint8_t(code >> 24), uint8_t(code >> 16), uint8_t(code >> 8), uint8_t(code), packet};
    const uint32_t n = static_cast<uint32_t>(payload.size());
    if (code > 32767) out.insert(out.end(), {uint8_t(n >> 24), uint8_t(n >> 16)});
    out.insert(out.end(), {uint8_t(n >> 8), uint8_t(n)});
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

inline Bytes be32(uint32_t v) {
    return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct Read {
    int result;
    Bytes data;
};

class SimTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string dir = (std::filesystem::temp_directory_path() / "corvel-sim-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(dir.data()), nullptr);
        dir_ = dir;
        set_state_dir(dir_);
        clear_faults();
        virtual_clock(true);
        reset_clock();
        rebuild({adapter("CV0000000001")});
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }

    // Configures the bus afresh and reads it, with an empty capture.
    void rebuild(const std::vector<AdapterSpec>& adapters) {
        configure(adapters);
        usb_init();
        usb_find_busses();
        usb_find_devices();
        capture(true);
        clear_records();
    }

    static struct usb_device* device(int index) {
        struct usb_device* d = usb_busses ? usb_busses->devices : nullptr;
        for (; d != nullptr && index > 0; --index) d = d->next;
        return d;
    }

    static usb_dev_handle* open(int index = 0) { return usb_open(device(index)); }

    static int write(usb_dev_handle* h, const Bytes& bytes, int endpoint = 0x02) {
        const char* p = reinterpret_cast<const char*>(bytes.data());
        const int n = static_cast<int>(bytes.size());
        return endpoint == 0x01 ? usb_interrupt_write(h, endpoint, p, n, 500)
                                : usb_bulk_write(h, endpoint, p, n, 500);
    }

    static Read read(usb_dev_handle* h, int size, int endpoint = 0x82, int timeout_ms = 100) {
        Bytes buf(static_cast<std::size_t>(size));
        char* p = reinterpret_cast<char*>(buf.data());
        const int r = endpoint == 0x81 ? usb_interrupt_read(h, endpoint, p, size, timeout_ms)
                                       : usb_bulk_read(h, endpoint, p, size, timeout_ms);
        buf.resize(r > 0 ? static_cast<std::size_t>(r) : 0);
        return {r, buf};
    }

    std::string dir_;
};

}  // namespace corvel::sim::test
