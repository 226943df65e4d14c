#include "libusb_driver.h"

#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>

#include "usb_list.h"

usb_dev_handle* pCorvelBoardHandle = nullptr;

namespace {

constexpr int kInterface = 0;
constexpr int kZeroLengthPacketMultiple = 64;

// Handles the library closed, most recent last. A handle libusb hands out again is taken off.
struct ClosedHandles {
    std::mutex mutex;
    std::array<const usb_dev_handle*, 64> ring{};
    std::size_t next = 0;
} closed;

void forget_closed(const usb_dev_handle* handle) {
    std::lock_guard guard(closed.mutex);
    std::replace(closed.ring.begin(), closed.ring.end(), handle, static_cast<const usb_dev_handle*>(nullptr));
}

int claim(usb_dev_handle* handle) {
    if (handle_is_closed(handle)) return -EBADF;
    return usb_claim_interface(handle, kInterface);
}

// One attempt loop around `attempt`, between a claim and a release of interface 0. The loop ends
// on a byte count or on -5; any other failure is retried with a 100 ms pause after it, the last
// attempt included.
template <typename Attempt>
int32_t claimed_transfer(usb_dev_handle* handle, int attempts, Attempt attempt) {
    if (claim(handle) < 0) {
        close_handle(handle);  // the node keeps the stale pointer; it is never used with libusb again
        return -5;
    }
    int32_t ret = 0;
    for (int retry = 0; retry < attempts;) {
        ret = attempt(handle);
        if (ret >= 0 || ret == kUsbNoRetry) break;
        ++retry;
        if (attempts > 1) usleep(kRetryPauseUs);
    }
    usb_release_interface(handle, kInterface);
    return ret;
}

usb_dev_handle* load_board_handle(uint32_t nBoardID) {
    const kd_list* node = list_post(static_cast<int>(nBoardID));
    pCorvelBoardHandle = node ? node->pDevHandle : nullptr;
    return pCorvelBoardHandle;
}

int32_t read_once(usb_dev_handle* h, int32_t pipenum, char* buffer, int32_t len, int32_t waittime) {
    return pipenum == kPipeIntIn ? usb_interrupt_read(h, kEndpointIntIn, buffer, len, waittime)
                                 : usb_bulk_read(h, kEndpointBulkIn, buffer, len, waittime);
}

}  // namespace

usb_dev_handle* open_handle(struct usb_device* dev) {
    usb_dev_handle* handle = dev ? usb_open(dev) : nullptr;
    if (handle) forget_closed(handle);
    return handle;
}

int close_handle(usb_dev_handle* handle) {
    if (handle == nullptr || handle_is_closed(handle)) return -1;
    const int r = usb_close(handle);
    std::lock_guard guard(closed.mutex);
    closed.ring[closed.next] = handle;
    closed.next = (closed.next + 1) % closed.ring.size();
    return r;
}

bool handle_is_closed(const usb_dev_handle* handle) {
    std::lock_guard guard(closed.mutex);
    return std::find(closed.ring.begin(), closed.ring.end(), handle) != closed.ring.end();
}

// Every bulk write whose length is a multiple of 64, zero included, is followed at once by a
// zero-length write, whatever the first one returned; the adapter's firmware relies on it.
int32_t LibUSBWriteData(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len, int32_t waittime) {
    usb_dev_handle* handle = load_board_handle(nBoardID);
    if (handle == nullptr) return -1;
    return claimed_transfer(handle, kTransferAttempts, [&](usb_dev_handle* h) {
        if (pipenum == kPipeIntOut) return usb_interrupt_write(h, kEndpointIntOut, sendbuffer, len, waittime);
        const int ret = usb_bulk_write(h, kEndpointBulkOut, sendbuffer, len, waittime);
        if (len % kZeroLengthPacketMultiple == 0)
            usb_bulk_write(h, kEndpointBulkOut, sendbuffer, 0, waittime);
        return ret;
    });
}

// A short read is not retried: the message layer judges the count.
int32_t LibUSBReadData(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len, int32_t waittime) {
    usb_dev_handle* handle = load_board_handle(nBoardID);
    if (handle == nullptr) return -1;
    return claimed_transfer(handle, kTransferAttempts, [&](usb_dev_handle* h) {
        return read_once(h, pipenum, sendbuffer, len, waittime);
    });
}

// One attempt on the current board handle, which is deliberately not reloaded from the node: it
// is the handle of the adapter last used by a write or read.
int32_t LibUSBReadDataFast(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len,
                           int32_t waittime) {
    const kd_list* node = list_post(static_cast<int>(nBoardID));
    if (node == nullptr || node->pDevHandle == nullptr || pCorvelBoardHandle == nullptr) return -1;
    return claimed_transfer(pCorvelBoardHandle, 1, [&](usb_dev_handle* h) {
        return read_once(h, pipenum, sendbuffer, len, waittime);
    });
}
