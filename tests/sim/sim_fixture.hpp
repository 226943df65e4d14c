// Shared set-up of the virtual adapter tests: the kit's adapter fixture with the buses read and a
// handle open, and small helpers for raw frames and transfers.
#pragma once

#include <usb.h>

#include "adapter_fixture.hpp"

namespace corvel::sim::test {

using corvel::test::adapter;
using corvel::test::Bytes;
using corvel::test::reply;

inline Bytes be32(uint32_t v) {
    return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A request frame: 7-byte header, or 9 bytes (a 4-byte length) when the code is above 32767.
inline Bytes frame(uint32_t code, const Bytes& payload, uint8_t packet = 0) {
    const uint32_t n = static_cast<uint32_t>(payload.size());
    const Bytes length = be32(n);
    return be32(code) + Bytes{packet} + Bytes(length.begin() + (code > 32767 ? 0 : 2), length.end()) +
           payload;
}

struct Read {
    int result;
    Bytes data;
};

// One adapter with the default serial on the bus (see VirtualAdapters::reset), read, and its first
// handle `h` open; the capture empty.
class SimTest : public corvel::test::VirtualAdapters {
  protected:
    void SetUp() override {
        reset({adapter("CV0000000001")});
        read_bus();
    }

    // Configures the bus afresh, keeping the state directory, reads it and opens the first device.
    void rebuild(const std::vector<AdapterSpec>& adapters) {
        configure(adapters);
        read_bus();
    }
    void read_bus() {
        usb_init();
        usb_find_busses();
        usb_find_devices();
        h = open();
        clear_records();
    }

    static struct usb_device* device(int index) {
        struct usb_device* d = usb_busses ? usb_busses->devices : nullptr;
        for (; d != nullptr && index > 0; --index) d = d->next;
        return d;
    }
    static usb_dev_handle* open(int index = 0) { return usb_open(device(index)); }

    // Endpoint 0x01 and 0x81 are interrupt transfers, the others bulk.
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
    // Writes a request and returns what comes back on the matching IN endpoint.
    Bytes ask(const Bytes& request, int endpoint = 0x02) {
        EXPECT_EQ(write(h, request, endpoint), static_cast<int>(request.size()));
        return read(h, 70000, endpoint | 0x80).data;
    }
    Bytes ask(uint32_t code, const Bytes& payload) { return ask(frame(code, payload)); }

    usb_dev_handle* h = nullptr;
};

}  // namespace corvel::sim::test
