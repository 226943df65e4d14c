#include "usb_list.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <vector>

namespace proto = corvel::proto;

kd_list head;
kd_list tail;
int usb_list_init_flag = 0;
std::atomic<int> usb_init_flag{0};
usb_dev_handle* pCorvelBoardHandle = nullptr;

namespace {

// The list's internal guard. It is not one of the documented locks (those stay as the board
// functions take them): it only keeps the list itself consistent. Bus scans, opens, connection
// tests and closes change nodes and hold it exclusively; transfers look a handle up under it shared
// and then transfer without it.
// Never destroyed (nor the other guard and the lease table): a CAN read thread may still be
// transferring while the process exits and runs the destructors of static objects.
std::shared_mutex& list_guard = *new std::shared_mutex;
// Guards the current board handle and its closed flag; taken after list_guard when both are held.
std::mutex& board_guard = *new std::mutex;
bool board_handle_closed = false;

// Handles transfers are running on (guarded by board_guard). Entries are reused, so the table grows
// only when more transfers than ever before run at once, never per message.
struct InUse {
    usb_dev_handle* handle;
    int leases;
    bool close_pending;  // closed by the library while leased: the last lease calls usb_close
};
std::vector<InUse>& in_use = *new std::vector<InUse>;

InUse* in_use_entry(const usb_dev_handle* h) {
    for (InUse& e : in_use)
        if (e.handle == h && (e.leases > 0 || e.close_pending)) return &e;
    return nullptr;
}

void lease(usb_dev_handle* h) {
    if (InUse* e = in_use_entry(h)) {
        ++e->leases;
        return;
    }
    for (InUse& e : in_use)
        if (e.leases == 0 && !e.close_pending) {
            e = InUse{h, 1, false};
            return;
        }
    in_use.push_back(InUse{h, 1, false});
}

constexpr std::size_t kSerialSize = proto::kSerialStringSize;

bool is_adapter(const struct usb_device* dev) {
    return dev->descriptor.idVendor == proto::kVendorId && dev->descriptor.idProduct == proto::kProductId;
}

void init_list_once() {
    if (!usb_list_init_flag) {
        inti_list();
        usb_list_init_flag = 1;
    }
}

// Calls fn(device) for every adapter on every bus in libusb's order; stops when fn returns true.
template <typename Fn>
bool for_each_adapter(Fn fn) {
    for (struct usb_bus* bus = usb_get_busses(); bus; bus = bus->next)
        for (struct usb_device* dev = bus->devices; dev; dev = dev->next)
            if (is_adapter(dev) && fn(dev)) return true;
    return false;
}

// ---- Handle bookkeeping (list_guard held exclusively) ----------------------------------------
//
// libusb-0.1 frees a handle in usb_close, and may hand the same address out again at the next
// usb_open. So whether a pointer is live is a property of the slot that holds it: every slot holding
// a handle the library closes is marked closed, and a slot a handle is opened into is live again.

bool held_live_elsewhere(const kd_list* except, const usb_dev_handle* h) {
    for (const kd_list* n = head.next; n != &tail; n = n->next)
        if (n != except && n->pDevHandle == h && !n->handle_closed) return true;
    return false;
}

void mark_closed(const usb_dev_handle* h) {
    for (kd_list* n = head.next; usb_list_init_flag && n != &tail; n = n->next)
        if (n->pDevHandle == h) n->handle_closed = true;
    std::lock_guard board(board_guard);
    if (pCorvelBoardHandle == h) board_handle_closed = true;
}

// usb_close on a live handle; a handle closed before fails as a closed descriptor would. A handle
// a transfer is running on is closed by the transfer's lease when it ends; the close counts as done.
int close_live(usb_dev_handle* h, bool closed) {
    if (h == nullptr || closed) return -1;
    mark_closed(h);
    {
        std::lock_guard board(board_guard);
        if (InUse* e = in_use_entry(h)) {
            e->close_pending = true;
            return 0;
        }
    }
    return usb_close(h);  // libusb frees the handle whatever it answers
}

// Before a slot's handle is overwritten: the earlier handle is closed unless it is already closed
// or another node still uses it (two devices with one serial share a handle after a merge).
void release_earlier(kd_list* node) {
    if (node->pDevHandle != nullptr && !node->handle_closed && !held_live_elsewhere(node, node->pDevHandle))
        close_live(node->pDevHandle, false);
}

// Stores a freshly opened handle (or null) in the node, which makes that address live again there
// and, when it equals the current board handle, there too.
void store_opened(kd_list* node, usb_dev_handle* h) {
    node->pDevHandle = h;
    node->handle_closed = false;
    if (h == nullptr) return;
    std::lock_guard board(board_guard);
    if (pCorvelBoardHandle == h) board_handle_closed = false;
}

void reopen(kd_list* node, struct usb_device* dev) {
    release_earlier(node);
    store_opened(node, dev ? usb_open(dev) : nullptr);
}

}  // namespace

// The name is spelled so on purpose.
void inti_list() {
    head.next = &tail;
    head.prev = &head;
    head.pDev = nullptr;
    head.pDevHandle = nullptr;
    head.devNum = -1;
    tail.next = &tail;
    tail.prev = &head;
    tail.pDev = nullptr;
    tail.pDevHandle = nullptr;
}

// Merges by serial number: a node whose serial is already listed hands its device and handle to
// that node, which keeps its index. Otherwise the node is appended with the next index.
void list_add(kd_list* list) {
    for (kd_list* n = head.next; n != &tail; n = n->next) {
        if (std::strncmp(n->Serial, list->Serial, kSerialSize) == 0) {
            if (n != list && n->pDevHandle != list->pDevHandle) release_earlier(n);
            n->pDevHandle = list->pDevHandle;
            n->handle_closed = list->handle_closed;
            n->pDev = list->pDev;
            return;
        }
    }
    list->next = &tail;
    list->prev = tail.prev;
    list->devNum = list->prev->devNum + 1;
    tail.prev->next = list;
    tail.prev = list;
}

int list_length() {
    int n = 0;
    for (kd_list* p = head.next; p != &tail && p != nullptr; p = p->next) ++n;
    return n;
}

bool list_is_head(const kd_list* list) {
    return list == &head;
}
bool list_is_tail(const kd_list* list) {
    return list == &tail;
}

void list_del(kd_list* list) {
    if (list == nullptr || list_is_head(list) || list_is_tail(list)) return;
    list->prev->next = list->next;
    list->next->prev = list->prev;
    std::free(list);
}

bool list_empty() {
    return head.next == &tail && tail.prev == &head;
}

// The bound is the number of nodes, not the largest index: after a node is deleted the highest
// indices stay unreachable until the next scan. Intended; families report such an index as an
// open failure.
kd_list* list_post(int index) {
    if (!usb_list_init_flag) return nullptr;
    if (list_length() <= index) return nullptr;
    for (kd_list* n = head.next; n != &tail; n = n->next)
        if (n->devNum == index) return n;
    return nullptr;
}

// The handles the nodes hold are closed with them (the library itself never calls this).
void list_clear() {
    std::unique_lock guard(list_guard);
    if (!usb_list_init_flag) return;
    while (!list_empty()) {
        release_earlier(head.next);
        list_del(head.next);
    }
}

void read_buses() {
    std::unique_lock guard(list_guard);
    usb_init();
    usb_find_busses();
    usb_find_devices();
}

int32_t scan_dev() {
    std::unique_lock guard(list_guard);
    init_list_once();
    int32_t count = 0;
    for_each_adapter([&](struct usb_device* dev) {
        kd_list* node = list_post(count);
        const bool fresh = node == nullptr;
        if (fresh) {
            // A fresh node starts with an empty serial, so a device without one merges with others
            // that have none.
            node = static_cast<kd_list*>(std::calloc(1, sizeof(kd_list)));
            if (node == nullptr) return true;
        }
        node->pDev = dev;
        reopen(node, dev);
        if (dev->descriptor.iSerialNumber != 0 && node->pDevHandle != nullptr)
            usb_get_string_simple(node->pDevHandle, dev->descriptor.iSerialNumber, node->Serial,
                                  static_cast<int>(kSerialSize));
        node->Serial[kSerialSize - 1] = '\0';
        list_add(node);
        // A fresh node whose serial was already listed gave its handle to that node and is not
        // linked; nothing refers to it any more.
        if (fresh && node->next == nullptr) std::free(node);
        ++count;
        return false;
    });
    return count;
}

// An adapter without a serial-number string can never be opened: the serial identifies it.
bool open_dev(int32_t devNum) {
    std::unique_lock guard(list_guard);
    bool opened = false;
    for_each_adapter([&](struct usb_device* dev) {
        kd_list* node = list_post(devNum);
        if (node == nullptr) return true;
        reopen(node, node->pDev);
        if (node->pDevHandle == nullptr) return false;
        usb_reset(node->pDevHandle);
        // The string index is the scanned device's, the condition the node's device: both are kept
        // as they are.
        if (node->pDev->descriptor.iSerialNumber != 0 &&
            usb_get_string_simple(node->pDevHandle, dev->descriptor.iSerialNumber, node->Serial,
                                  static_cast<int>(kSerialSize)) > 0) {
            node->Serial[kSerialSize - 1] = '\0';
            opened = true;
            return true;
        }
        return false;
    });
    return opened;
}

// Deliberately a close and a re-open of the handle: an unplugged adapter fails the re-open.
bool check_dev(int32_t devNum) {
    std::unique_lock guard(list_guard);
    init_list_once();
    kd_list* node = list_post(devNum);
    if (node == nullptr || node->pDevHandle == nullptr) return false;
    if (close_live(node->pDevHandle, node->handle_closed) != 0) return false;
    store_opened(node, usb_open(node->pDev));
    return node->pDevHandle != nullptr;
}

// The node is deleted whatever usb_close answered.
bool close_dev(int32_t devNum) {
    std::unique_lock guard(list_guard);
    init_list_once();
    kd_list* node = list_post(devNum);
    if (node == nullptr || node->pDevHandle == nullptr) return false;
    const int r = close_live(node->pDevHandle, node->handle_closed);
    list_del(node);
    return r == 0;
}

bool is_open_dev(int32_t devNum) {
    std::shared_lock guard(list_guard);
    const kd_list* node = list_post(devNum);
    return node != nullptr && node->pDevHandle != nullptr && !node->handle_closed;
}

BoardHandle::BoardHandle(usb_dev_handle* handle, bool closed) : handle_(handle), closed_(closed) {}

BoardHandle::~BoardHandle() {
    if (handle_ == nullptr || closed_) return;
    std::unique_lock board(board_guard);
    InUse* e = in_use_entry(handle_);
    if (e == nullptr || --e->leases > 0 || !e->close_pending) return;
    e->close_pending = false;
    board.unlock();
    usb_close(handle_);
}

// The lease is taken under the guard, so no close can slip in between the look-up and the lease.
BoardHandle select_board(int index) {
    std::shared_lock guard(list_guard);
    const kd_list* node = list_post(index);
    usb_dev_handle* h = node ? node->pDevHandle : nullptr;
    const bool closed = node ? node->handle_closed : false;
    std::lock_guard board(board_guard);
    pCorvelBoardHandle = h;
    board_handle_closed = closed;
    if (h != nullptr && !closed) lease(h);
    return {h, closed};
}

BoardHandle current_board(int index) {
    std::shared_lock guard(list_guard);
    const kd_list* node = list_post(index);
    if (node == nullptr || node->pDevHandle == nullptr) return {};
    std::lock_guard board(board_guard);
    if (pCorvelBoardHandle != nullptr && !board_handle_closed) lease(pCorvelBoardHandle);
    return {pCorvelBoardHandle, board_handle_closed};
}

void close_unclaimable(usb_dev_handle* handle) {
    std::unique_lock guard(list_guard);
    bool live = false;
    for (const kd_list* n = head.next; usb_list_init_flag && n != &tail; n = n->next)
        live = live || (n->pDevHandle == handle && !n->handle_closed);
    {
        std::lock_guard board(board_guard);
        live = live || (pCorvelBoardHandle == handle && !board_handle_closed);
    }
    close_live(handle, !live);
}
