// Adapters of the CAN family, found, opened and closed around one command, through the library's
// ControlCAN-style interface as an application uses it.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "can_format.hpp"

namespace corvel::cli {

struct CanAdapter {
    uint32_t dev = 0;
    uint32_t type = VCI_USBCAN2;  // VCI_USBCAN1 for a one-channel adapter
    int channels = 2;
};

// -d/--device left out: the command looks for its adapter itself.
inline constexpr int32_t kAnyCanAdapter = -1;

// Finds the adapter (with kAnyCanAdapter the first whose USB product name says "CAN"), opens it with
// VCI_OpenDevice as the type its product name tells ("Dual": two channels), runs `body` and closes
// the adapter again, which also stops its read threads. An adapter whose name says it is of another
// family is refused. Failures to find, open or close are reported as an error line. Returns the
// body's exit status, or kExitFailure.
int with_can_adapter(int32_t dev, const std::function<int(const CanAdapter&)>& body);

// The CAN index of channel 1 or 2.
inline uint32_t can_index(int channel) {
    return static_cast<uint32_t>(channel - 1);
}

// An error line for a channel the adapter does not have; 0 when it has it.
int check_channel(const CanAdapter& adapter, int channel);

// Prints "corvel: <what>: <the channel's error record in words> (error record 0x....)" on stderr
// and returns kExitFailure. The record is read (and so cleared) with VCI_ReadErrInfo; failures the
// library records on the first channel whatever the channel (a status read) are found there.
int fail_vci(std::string_view what, const CanAdapter& adapter, int channel);

enum class CanMode { normal, silent, loopback };

// Sets a channel up at a bit rate and mode: VCI_InitCAN with the table's timing pair and an
// acceptance filter that lets every frame through, or VCI_InitCANEx with the computed timing and
// the channel's first filter bank opened with VCI_SetFilter. Returns an exit status after an error
// line.
int init_channel(const CanAdapter& adapter, int channel, const BitTiming& timing, CanMode mode);

}  // namespace corvel::cli
