// An open I2C-type adapter with channel 0 initialised as a master at 100 kHz, 1-byte sub-address.
#pragma once

#include <gtest/gtest.h>

#include "ControlI2C.h"
#include "corvel/sim_i2c.hpp"
#include "wire.hpp"

namespace corvel::test {

inline KII_INIT_CONFIG master_config(uint8_t sub_addr_width = 1) {
    KII_INIT_CONFIG c{};
    c.MasterMode = 1;
    c.ControlMode = 0;
    c.AddrType = 7;
    c.SubAddrWidth = sub_addr_width;
    c.Addr = 0;
    c.ClockSpeed = 100000;
    return c;
}

class I2cAdapter : public testing::Test {
  protected:
    void SetUp() override {
        sim::configure({adapter("I2C0001")});
        ASSERT_EQ(KII_OpenDevice(1, 0, 0), 0);
        KII_INIT_CONFIG c = master_config();
        ASSERT_EQ(KII_InitI2C(1, 0, 0, &c), 0);
        sim::clear_records();
        sim::reset_clock();
    }
    // The payload of the n-th frame sent (header stripped).
    static Bytes payload(std::size_t n = 0) {
        const auto f = frames().at(n);
        return Bytes(f.begin() + 7, f.end());
    }
    static uint32_t code(std::size_t n = 0) {
        const auto f = frames().at(n);
        return uint32_t(f[0]) << 24 | uint32_t(f[1]) << 16 | uint32_t(f[2]) << 8 | f[3];
    }
};

}  // namespace corvel::test
