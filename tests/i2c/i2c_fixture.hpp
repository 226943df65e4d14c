// An open I2C-type adapter with channel 0 initialised as a master at 100 kHz, 1-byte sub-address.
#pragma once

#include "ControlI2C.h"
#include "adapter_fixture.hpp"
#include "corvel/sim_i2c.hpp"

namespace corvel::test {

inline const Opener kI2cOpen{[](int32_t dev) { return KII_OpenDevice(KD_DEVTYPE_I2C, dev, 0); }};

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

class I2cAdapter : public VirtualAdapters {
  protected:
    void SetUp() override {
        reset({adapter("I2C0001")});
        ASSERT_NO_FATAL_FAILURE(open(kI2cOpen));
        KII_INIT_CONFIG c = master_config();
        ASSERT_EQ(KII_InitI2C(KD_DEVTYPE_I2C, 0, 0, &c), 0);
        settle();
    }
};

}  // namespace corvel::test
