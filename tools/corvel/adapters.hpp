// How the library numbers the adapters it finds, for listing them next to their serials.
#pragma once

#include <string>
#include <vector>

namespace corvel::cli {

// The device index each adapter gets from the first bus scan of a process, given the serial
// strings of the matching USB devices in bus order (empty when a device has none). The library
// keeps one list entry per serial: a device whose serial was already seen shares that entry's
// index instead of taking the next one. With distinct serials the i-th device gets index i.
std::vector<int> scan_indices(const std::vector<std::string>& serials);

}  // namespace corvel::cli
