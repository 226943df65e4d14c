// `--sim`: running the tool on the virtual adapter.
#pragma once

#include <cstdlib>

namespace corvel::cli {

// Set in the environment of a process that runs on the virtual adapter.
inline constexpr const char* kVirtualAdapterMarker = "CORVEL_SIM_ACTIVE";

// The adapters on the virtual bus when CORVEL_SIM is not set: adapter 0 of I2C type, adapter 1 of
// SPI type, adapter 2 a two-channel CAN adapter with a traffic generator of 10 frames a second.
inline constexpr const char* kVirtualBench = "type=1;type=2;type=4,gen=10";

inline bool on_virtual_adapter() {
    return std::getenv(kVirtualAdapterMarker) != nullptr;
}

// Makes this process run on the virtual adapter. Unless CORVEL_SIM_ACTIVE says that this was done
// already, the program re-executes itself (/proc/self/exe, same arguments) with the drop-in
// libusb-0.1 first in LD_PRELOAD and CORVEL_SIM_ACTIVE=1, so the library binds to the drop-in
// from the start. Where the user has not set them, CORVEL_SIM becomes kVirtualBench and
// CORVEL_SIM_CLOCK `clock` ("virtual" or "real"). Must run before anything calls into the library.
//
// The drop-in is $CORVEL_SIM_LIBRARY when that is set (it must exist), else
// <directory of the program>/../sim/libusb-0.1.so.4, else the path the build configured.
//
// Returns 0 when the process already runs on the virtual adapter; otherwise it returns only on
// failure, with the exit status to use, after printing an error line.
int enter_virtual_adapter(char** argv, const char* clock);

}  // namespace corvel::cli
