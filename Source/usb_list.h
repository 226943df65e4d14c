// The process-wide list of adapters found on the USB buses, addressed by device index.
#pragma once

#include <usb.h>
#include <cstdint>

#include "CorvelBoard.h"

// USB identity and endpoints of the adapter.
inline constexpr uint16_t kAdapterVendorId = 0x0483;
inline constexpr uint16_t kAdapterProductId = 0x0666;
inline constexpr int kSerialSize = 128;

// One node per adapter, doubly linked between two sentinels that are never freed.
struct kd_list {
    kd_list* next;
    kd_list* prev;
    struct usb_device* pDev;     // the device as the bus scan reported it
    usb_dev_handle* pDevHandle;  // the handle opened on it; null when not open
    int32_t devNum;              // the device index callers use
    char Serial[kSerialSize];    // USB serial-number string, NUL-terminated
};

extern kd_list head;
extern kd_list tail;
extern int usb_list_init_flag;
extern int usb_init_flag;

void inti_list();
void list_add(kd_list* list);
int list_length();
bool list_is_head(const kd_list* list);
bool list_is_tail(const kd_list* list);
void list_del(kd_list* list);
bool list_empty();
kd_list* list_post(int index);
// list_clear is exported; it is declared in CorvelBoard.h.

int32_t scan_dev();
bool open_dev(int32_t devNum);
bool check_dev(int32_t devNum);
bool close_dev(int32_t devNum);
