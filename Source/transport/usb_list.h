// The process-wide list of adapters found on the USB buses, addressed by device index, and the
// handles the library holds on them: the only place that opens and closes libusb handles.
#pragma once

#include <usb.h>
#include <atomic>
#include <cstdint>

#include "CorvelBoard.h"
#include "corvel/protocol.hpp"

// One node per adapter, doubly linked between two sentinels that are never freed.
struct kd_list {
    kd_list* next;
    kd_list* prev;
    struct usb_device* pDev;                        // the device as the bus scan reported it
    usb_dev_handle* pDevHandle;                     // the handle opened on it; null when not open
    int32_t devNum;                                 // the device index callers use
    char Serial[corvel::proto::kSerialStringSize];  // USB serial-number string, NUL-terminated
    // pDevHandle was closed by the library (a failed claim, a connection test, a close through a
    // node sharing it): it is never handed to libusb again. Cleared when a handle is opened into
    // this node.
    bool handle_closed;
};

extern kd_list head;
extern kd_list tail;
extern int usb_list_init_flag;
// Set once the buses were read; read without the lock by the open and the connection test.
extern std::atomic<int> usb_init_flag;
// The handle of the adapter last used by a write or a read (the fast read uses it). Read and
// written only under the list's internal guard; see select_board and current_board.
extern usb_dev_handle* pCorvelBoardHandle;

// The list operations below act on the list as it is; the device operations and the look-ups for
// the raw layer take the list's internal guard around them, so that threads driving different
// adapters never see a node half linked or freed under them.
void inti_list();
void list_add(kd_list* list);
int list_length();
bool list_is_head(const kd_list* list);
bool list_is_tail(const kd_list* list);
void list_del(kd_list* list);
bool list_empty();
kd_list* list_post(int index);
// list_clear is exported; it is declared in CorvelBoard.h.

// usb_init, usb_find_busses and usb_find_devices: libusb reads the buses again.
void read_buses();
int32_t scan_dev();
bool open_dev(int32_t devNum);
bool check_dev(int32_t devNum);
bool close_dev(int32_t devNum);
// Whether the list holds a node for devNum with a handle the library has not closed.
bool is_open_dev(int32_t devNum);

// A handle the raw layer transfers on, copied out of the list under its guard. While a lease is
// held the handle stays open: a close by another thread (a rescan, a connection test, a board
// close on an adapter sharing it) marks it closed at once and leaves the usb_close to the last
// lease, so a transfer never runs on a handle freed under it. `closed` means it must not reach
// libusb at all.
class BoardHandle {
  public:
    BoardHandle() = default;
    BoardHandle(usb_dev_handle* handle, bool closed);
    ~BoardHandle();
    BoardHandle(const BoardHandle&) = delete;
    BoardHandle& operator=(const BoardHandle&) = delete;

    usb_dev_handle* handle() const { return handle_; }
    bool closed() const { return closed_; }

  private:
    usb_dev_handle* handle_ = nullptr;
    bool closed_ = false;
};

// Looks the adapter up and makes its handle the current board handle: a null handle when the
// index names no node or the node holds none.
BoardHandle select_board(int index);
// The current board handle, provided the index names a node that holds a handle (else null).
BoardHandle current_board(int index);
// Closes a handle whose claim failed, unless the library closed it already, and marks every node
// (and the current board handle) holding it as closed.
void close_unclaimable(usb_dev_handle* handle);
