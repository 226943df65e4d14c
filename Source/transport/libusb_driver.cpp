#include "libusb_driver.h"

#include <unistd.h>

#include "corvel/protocol.hpp"
#include "usb_list.h"

namespace proto = corvel::proto;

namespace {

// One attempt loop around `attempt`, between a claim and a release of interface 0. The loop ends
// on a byte count or on -5; any other failure is retried with a 100 ms pause after it, the last
// attempt included. A handle the library closed earlier fails the claim as a closed descriptor
// would, without reaching libusb (and without a second close).
//
// The handle was leased from the device list under the list's guard; the transfer runs without the
// guard, so threads on different adapters do not wait for each other, and the lease keeps the
// handle open until the transfer ends.
template <typename Attempt>
int32_t claimed_transfer(const BoardHandle& board, int attempts, Attempt attempt) {
    if (board.closed()) return -5;
    usb_dev_handle* handle = board.handle();
    if (usb_claim_interface(handle, proto::kInterface) < 0) {
        close_unclaimable(handle);  // the node keeps the pointer, marked closed
        return -5;
    }
    int32_t ret = 0;
    for (int retry = 0; retry < attempts;) {
        ret = attempt(handle);
        if (ret >= 0 || ret == kUsbNoRetry) break;
        ++retry;
        if (attempts > 1) usleep(kRetryPauseUs);
    }
    usb_release_interface(handle, proto::kInterface);
    return ret;
}

int32_t read_once(usb_dev_handle* h, int32_t pipenum, char* buffer, int32_t len, int32_t waittime) {
    return pipenum == proto::kPipeIntIn ? usb_interrupt_read(h, proto::kEndpointIntIn, buffer, len, waittime)
                                        : usb_bulk_read(h, proto::kEndpointBulkIn, buffer, len, waittime);
}

}  // namespace

// Every bulk write whose length is a multiple of 64, zero included, is followed at once by a
// zero-length write, whatever the first one returned; the adapter's firmware relies on it.
int32_t LibUSBWriteData(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len, int32_t waittime) {
    const BoardHandle board = select_board(static_cast<int>(nBoardID));
    if (board.handle() == nullptr) return -1;
    return claimed_transfer(board, kTransferAttempts, [&](usb_dev_handle* h) {
        if (pipenum == proto::kPipeIntOut)
            return usb_interrupt_write(h, proto::kEndpointIntOut, sendbuffer, len, waittime);
        const int ret = usb_bulk_write(h, proto::kEndpointBulkOut, sendbuffer, len, waittime);
        if (len % static_cast<int32_t>(proto::kUsbPacketSize) == 0)
            usb_bulk_write(h, proto::kEndpointBulkOut, sendbuffer, 0, waittime);
        return ret;
    });
}

// A short read is not retried: the message layer judges the count.
int32_t LibUSBReadData(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len, int32_t waittime) {
    const BoardHandle board = select_board(static_cast<int>(nBoardID));
    if (board.handle() == nullptr) return -1;
    return claimed_transfer(board, kTransferAttempts, [&](usb_dev_handle* h) {
        return read_once(h, pipenum, sendbuffer, len, waittime);
    });
}

// One attempt on the current board handle, which is deliberately not reloaded from the node: it
// is the handle of the adapter last used by a write or read, whichever thread made it.
int32_t LibUSBReadDataFast(uint32_t nBoardID, int32_t pipenum, char* sendbuffer, int32_t len,
                           int32_t waittime) {
    const BoardHandle board = current_board(static_cast<int>(nBoardID));
    if (board.handle() == nullptr) return -1;
    return claimed_transfer(
        board, 1, [&](usb_dev_handle* h) { return read_once(h, pipenum, sendbuffer, len, waittime); });
}
