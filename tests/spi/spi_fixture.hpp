// An open SPI-type adapter.
#pragma once

#include "ControlSPI.h"
#include "adapter_fixture.hpp"

namespace corvel::test {

inline const Opener kSpiOpen{[](int32_t dev) { return KSI_OpenDevice(KD_DEVTYPE_SPI, dev, 0); }};

// A master on 8-bit units, mode 0, at 1 MHz.
inline KSI_INIT_CONFIG spi_master_config() {
    KSI_INIT_CONFIG c{};
    c.ControlMode = 0;
    c.TranBits = 8;
    c.MasterMode = 1;
    c.ClockSpeed = 1000000;
    return c;
}

class SpiAdapter : public VirtualAdapters {
  protected:
    void SetUp() override {
        reset({adapter("SPI0001", KD_DEVTYPE_SPI)});
        ASSERT_NO_FATAL_FAILURE(open(kSpiOpen));
        settle();
    }
};

}  // namespace corvel::test
