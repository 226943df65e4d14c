// The board layer's internal face: what the families use besides the exported KD_ functions.
#pragma once

#include <cstdint>

// Connection test every family function makes first: enumerates if nothing was enumerated yet,
// then closes and re-opens the adapter's handle under the lock.
bool DeviceIsConnected(int devNum);

// For the text interface, whose open holds the board lock around the open itself: enumerates when
// nothing was enumerated yet (before the caller takes the lock, as the enumeration takes it too).
void ensure_enumerated();
// Opens the adapter's handle; the caller holds lock(devNum).
bool open_board_locked(int32_t devNum);
// Whether the device list holds an open handle for devNum.
bool board_is_open(int32_t devNum);
