// An open I2C-type adapter for the GPIO, ADC, PWM and counter families (the SPI-type adapter carries
// the same pins).
#pragma once

#include "ControlADC.h"
#include "ControlCNT.h"
#include "ControlGPIO.h"
#include "ControlPWM.h"
#include "adapter_fixture.hpp"

namespace corvel::test {

inline const Opener kGpioOpen{[](int32_t dev) { return KGI_OpenDevice(KD_DEVTYPE_I2C, dev, 0); }};

class IoAdapter : public VirtualAdapters {
  protected:
    void SetUp() override {
        reset({adapter("IO0001")});
        ASSERT_NO_FATAL_FAILURE(open(kGpioOpen));
        settle();
    }
};

}  // namespace corvel::test
