// The CAN receive queues, white-box: 10000 frames in 10001 slots, the oldest overwritten when full.
#include <gtest/gtest.h>

#include "can_buffer.h"

namespace {

VCI_CAN_OBJ frame(uint32_t id) {
    VCI_CAN_OBJ f{};
    f.ID = id;
    return f;
}

VCI_CAN_SqQueue queue;

TEST(CanQueue, EmptyFullOverwriteAndWrap) {
    VCI_CAN_OBJ out = frame(77);
    ASSERT_TRUE(VCI_CAN_InitQueue(&queue));
    EXPECT_EQ(VCI_CAN_QueueLength(&queue), 0);
    EXPECT_FALSE(VCI_CAN_DeQueue(&queue, &out));
    EXPECT_EQ(out.ID, 77u);  // untouched

    for (uint32_t i = 0; i < 10000; ++i) VCI_CAN_EnQueue(&queue, frame(i));
    EXPECT_EQ(VCI_CAN_QueueLength(&queue), 10000);
    VCI_CAN_EnQueue(&queue, frame(10000));  // full: frame 0 goes
    EXPECT_EQ(VCI_CAN_QueueLength(&queue), 10000);
    ASSERT_TRUE(VCI_CAN_DeQueue(&queue, &out));
    EXPECT_EQ(out.ID, 1u);

    // The tail has wrapped past the end: tail 0 < head 2.
    EXPECT_EQ(queue.tail, 0u);
    EXPECT_EQ(queue.head, 2u);
    VCI_CAN_EnQueue(&queue, frame(10001));
    EXPECT_EQ(VCI_CAN_QueueLength(&queue), 10000);
    for (uint32_t i = 2; i <= 10001; ++i) {
        ASSERT_TRUE(VCI_CAN_DeQueue(&queue, &out));
        ASSERT_EQ(out.ID, i);
    }
    EXPECT_EQ(queue.head, queue.tail);
    EXPECT_EQ(VCI_CAN_QueueLength(&queue), 0);
    EXPECT_FALSE(VCI_CAN_DeQueue(&queue, &out));
}

TEST(CanQueue, TheBufferedKindAndItsClear) {
    CanRxMsg in{}, out{};
    in.ExtId = 0x1ABCDE;
    CAN_EnQueue(&CAN1_DataBufQueueEx, in);
    EXPECT_EQ(CAN_QueueLength(&CAN1_DataBufQueueEx), 1);
    ASSERT_TRUE(CAN_DeQueue(&CAN1_DataBufQueueEx, &out));
    EXPECT_EQ(out.ExtId, 0x1ABCDEu);
    CAN_EnQueue(&CAN1_DataBufQueueEx, in);
    CAN_InitQueue(&CAN1_DataBufQueueEx);
    EXPECT_EQ(CAN_QueueLength(&CAN1_DataBufQueueEx), 0);
}

}  // namespace
