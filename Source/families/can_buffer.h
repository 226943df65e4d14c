// The CAN receive queues: fixed-capacity circular queues of received frames, one kind for the
// ControlCAN-style interface (VCI_CAN_OBJ) and one for the buffered interface (CanRxMsg). Both kinds
// share one algorithm. Internal: nothing here is exported.
//
// A queue holds at most 10000 frames in 10001 slots: one slot always stays free, so head == tail
// means empty and (tail + 1) mod 10001 == head means full. `head` indexes the oldest frame, `tail`
// the slot the next frame is written to. An enqueue on a full queue overwrites the oldest frame.
//
// The operations take no lock; every caller holds the board lock of the device concerned.
#pragma once

#include <cstdint>
#include <algorithm>

#include "ControlCAN.h"
#include "ControlCANBuffered.h"
#include "corvel/protocol.hpp"

typedef uint32_t CAN_QElemType;

struct CAN_SqQueue {
    CAN_QElemType head;
    CAN_QElemType tail;
    CAN_ElemType data[corvel::proto::can::kQueueSlots];
};

struct VCI_CAN_SqQueue {
    uint32_t head;
    uint32_t tail;
    VCI_CAN_ElemType data[corvel::proto::can::kQueueSlots];
};

namespace corvel::can_queue {

inline constexpr uint32_t kSlots = proto::can::kQueueSlots;

// Intended: only the first 10001 bytes of the slot storage are cleared, not every slot. No slot is
// read before it is written, so nothing depends on the rest being zero.
// The number of bytes the clear covers.
inline constexpr std::size_t kClearedBytes = kSlots;

template <typename Queue>
bool init(Queue* q) {
    std::fill_n(reinterpret_cast<unsigned char*>(q->data), kClearedBytes, 0);
    q->head = 0;
    q->tail = 0;
    return true;
}

template <typename Queue>
int length(const Queue* q) {
    return static_cast<int>((q->tail - q->head + kSlots) % kSlots);
}

template <typename Queue, typename Elem>
bool enqueue(Queue* q, const Elem& e) {
    if ((q->tail + 1) % kSlots == q->head) q->head = (q->head + 1) % kSlots;  // full: drop the oldest
    q->data[q->tail] = e;
    q->tail = (q->tail + 1) % kSlots;
    return true;
}

template <typename Queue, typename Elem>
bool dequeue(Queue* q, Elem* e) {
    if (q->head == q->tail) return false;
    *e = q->data[q->head];
    q->head = (q->head + 1) % kSlots;
    return true;
}

}  // namespace corvel::can_queue

bool CAN_InitQueue(CAN_SqQueue* q);
int CAN_QueueLength(const CAN_SqQueue* q);
bool CAN_EnQueue(CAN_SqQueue* q, CAN_ElemType e);
bool CAN_DeQueue(CAN_SqQueue* q, CAN_ElemType* e);

bool VCI_CAN_InitQueue(VCI_CAN_SqQueue* q);
int VCI_CAN_QueueLength(const VCI_CAN_SqQueue* q);
bool VCI_CAN_EnQueue(VCI_CAN_SqQueue* q, VCI_CAN_ElemType e);
bool VCI_CAN_DeQueue(VCI_CAN_SqQueue* q, VCI_CAN_ElemType* e);

// The queues, in static storage (zero at load, never freed): per device index 0 to 29 for the two
// channels of the ControlCAN-style interface, and one per channel for the buffered interface.
extern VCI_CAN_SqQueue CAN1_DataBufQueue[corvel::proto::can::kDevices];
extern VCI_CAN_SqQueue CAN2_DataBufQueue[corvel::proto::can::kDevices];
extern CAN_SqQueue CAN1_DataBufQueueEx;
extern CAN_SqQueue CAN2_DataBufQueueEx;
