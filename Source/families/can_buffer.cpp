#include "can_buffer.h"

namespace q = corvel::can_queue;

VCI_CAN_SqQueue CAN1_DataBufQueue[corvel::proto::can::kDevices];
VCI_CAN_SqQueue CAN2_DataBufQueue[corvel::proto::can::kDevices];
CAN_SqQueue CAN1_DataBufQueueEx;
CAN_SqQueue CAN2_DataBufQueueEx;

bool CAN_InitQueue(CAN_SqQueue* queue) {
    return q::init(queue);
}
int CAN_QueueLength(const CAN_SqQueue* queue) {
    return q::length(queue);
}
bool CAN_EnQueue(CAN_SqQueue* queue, CAN_ElemType e) {
    return q::enqueue(queue, e);
}
bool CAN_DeQueue(CAN_SqQueue* queue, CAN_ElemType* e) {
    return q::dequeue(queue, e);
}

bool VCI_CAN_InitQueue(VCI_CAN_SqQueue* queue) {
    return q::init(queue);
}
int VCI_CAN_QueueLength(const VCI_CAN_SqQueue* queue) {
    return q::length(queue);
}
bool VCI_CAN_EnQueue(VCI_CAN_SqQueue* queue, VCI_CAN_ElemType e) {
    return q::enqueue(queue, e);
}
bool VCI_CAN_DeQueue(VCI_CAN_SqQueue* queue, VCI_CAN_ElemType* e) {
    return q::dequeue(queue, e);
}
