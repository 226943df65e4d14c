// The board layer's internal face: what the families use besides the exported KD_ functions.
#pragma once

// Connection test every family function makes first: enumerates if nothing was enumerated yet,
// then closes and re-opens the adapter's handle under the lock.
bool DeviceIsConnected(int devNum);
