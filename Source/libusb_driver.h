// Raw transfers to and from one adapter through libusb-0.1, with the retry discipline of the
// adapter: claim interface 0, transfer (retrying failures), release.
#pragma once

#include <usb.h>
#include <cstdint>

inline constexpr int kEndpointIntOut = 0x01;
inline constexpr int kEndpointBulkOut = 0x02;
inline constexpr int kEndpointIntIn = 0x81;
inline constexpr int kEndpointBulkIn = 0x82;
inline constexpr int kPipeIntOut = 1;   // pipenum selecting interrupt OUT; anything else is bulk OUT
inline constexpr int kPipeIntIn = 129;  // pipenum selecting interrupt IN; anything else is bulk IN
inline constexpr int kPipeBulkOut = 2;
inline constexpr int kPipeBulkIn = 130;
inline constexpr int kTransferAttempts = 100;
inline constexpr unsigned kRetryPauseUs = 100000;
inline constexpr int kUsbNoRetry = -5;  // a libusb result that ends the attempt loop at once

// The handle of the adapter last used by LibUSBWriteData or LibUSBReadData.
extern usb_dev_handle* pCorvelBoardHandle;

int32_t LibUSBWriteData(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len, int32_t waittime);
int32_t LibUSBReadData(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len, int32_t waittime);
int32_t LibUSBReadDataFast(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len,
                           int32_t waittime);

// Every handle the library opens or closes goes through these two, so that a handle closed behind
// a node's back (a failed claim closes it, a connection test replaces it) is never handed to libusb
// again: using it answers as a closed descriptor would (-1 from a close, a failed claim).
usb_dev_handle* open_handle(struct usb_device* dev);
int close_handle(usb_dev_handle* handle);
bool handle_is_closed(const usb_dev_handle* handle);
