// Adapters of the I2C family, opened for the length of one command.
#pragma once

#include <cstdint>
#include <functional>

namespace corvel::cli {

// Opens adapter `dev` with KII_OpenDevice, runs `body` and closes the adapter again. A failure to
// open or close is reported as an error line. Returns the body's exit status; kExitFailure when the
// adapter could not be opened, or could not be closed after a body that succeeded.
int with_i2c_adapter(int32_t dev, const std::function<int()>& body);

}  // namespace corvel::cli
