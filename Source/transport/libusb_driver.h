// Raw transfers to and from one adapter through libusb-0.1, with the retry discipline of the
// adapter: claim interface 0, transfer (retrying failures), release.
#pragma once

#include <cstdint>

inline constexpr int kTransferAttempts = 100;
inline constexpr unsigned kRetryPauseUs = 100000;
inline constexpr int kUsbNoRetry = -5;  // a libusb result that ends the attempt loop at once

int32_t LibUSBWriteData(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len, int32_t waittime);
int32_t LibUSBReadData(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len, int32_t waittime);
int32_t LibUSBReadDataFast(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len,
                           int32_t waittime);
