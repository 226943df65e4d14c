#include "usb_list.h"

#include <cstdlib>
#include <cstring>

#include "libusb_driver.h"

kd_list head;
kd_list tail;
int usb_list_init_flag = 0;
int usb_init_flag = 0;

namespace {

bool is_adapter(const struct usb_device* dev) {
    return dev->descriptor.idVendor == kAdapterVendorId && dev->descriptor.idProduct == kAdapterProductId;
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
            n->pDevHandle = list->pDevHandle;
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

void list_clear() {
    if (!usb_list_init_flag) return;
    while (!list_empty()) list_del(head.next);
}

int32_t scan_dev() {
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
        node->pDevHandle = open_handle(dev);  // a handle held before is overwritten, not closed
        if (dev->descriptor.iSerialNumber != 0 && node->pDevHandle != nullptr)
            usb_get_string_simple(node->pDevHandle, dev->descriptor.iSerialNumber, node->Serial, kSerialSize);
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
    bool opened = false;
    for_each_adapter([&](struct usb_device* dev) {
        kd_list* node = list_post(devNum);
        if (node == nullptr) return true;
        node->pDevHandle = open_handle(node->pDev);  // the earlier handle is overwritten, not closed
        if (node->pDevHandle == nullptr) return false;
        usb_reset(node->pDevHandle);
        // The string index is the scanned device's, the condition the node's device: both are kept
        // as they are.
        if (node->pDev->descriptor.iSerialNumber != 0 &&
            usb_get_string_simple(node->pDevHandle, dev->descriptor.iSerialNumber, node->Serial,
                                  kSerialSize) > 0) {
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
    init_list_once();
    kd_list* node = list_post(devNum);
    if (node == nullptr || node->pDevHandle == nullptr) return false;
    if (close_handle(node->pDevHandle) != 0) return false;
    node->pDevHandle = open_handle(node->pDev);
    return node->pDevHandle != nullptr;
}

// The node is deleted whatever usb_close answered.
bool close_dev(int32_t devNum) {
    init_list_once();
    kd_list* node = list_post(devNum);
    if (node == nullptr || node->pDevHandle == nullptr) return false;
    const int r = close_handle(node->pDevHandle);
    list_del(node);
    return r == 0;
}
