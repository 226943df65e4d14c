#include "i2c_adapter.hpp"

#include <fmt/core.h>

#include "ControlI2C.h"
#include "output.hpp"

namespace corvel::cli {

int with_i2c_adapter(int32_t dev, const std::function<int()>& body) {
    if (int32_t rc = KII_OpenDevice(KD_DEVTYPE_I2C, dev, 0); rc != 0) return fail_open(dev, rc);
    int status = body();
    if (int32_t rc = KII_CloseDevice(KD_DEVTYPE_I2C, dev); rc != 0 && status == 0) {
        status = fail(fmt::format("close adapter {}", dev), rc);
    }
    return status;
}

}  // namespace corvel::cli
