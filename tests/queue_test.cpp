#include "CommonLib/Queue.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"

using PELK::Common::Queue;

namespace {

char* tag(long n) {
    return reinterpret_cast<char*>(n);
}

// Pushes the tags from..to-1 under one hold of the queue's mutex.
void pushRange(Queue<char*>& queue, long from, long to) {
    Queue<char*>::Locked held(queue);
    for (long i = from; i < to; ++i) {
        ASSERT_TRUE(queue.push_unlock(tag(i)));
    }
}

// Pops the tags from..to-1, in that order.
void popRange(Queue<char*>& queue, long from, long to) {
    char* out = nullptr;
    for (long i = from; i < to; ++i) {
        ASSERT_TRUE(queue.pop(&out));
        ASSERT_EQ(tag(i), out);
    }
}

}  // namespace

// A full ring that wraps grows keeping its order; an empty one, or one asked to pop into null,
// gives nothing.
TEST(QueueTest, GrowsWhenFullKeepingFifoOrderAcrossTheWrapAndPopsOnlyWhatItHas) {
    Queue<char*> queue(64);
    // Move head away from slot 0 so that the full ring wraps before it grows.
    pushRange(queue, 1, 11);
    popRange(queue, 1, 11);
    char* out = tag(7);
    EXPECT_FALSE(queue.pop(&out));
    EXPECT_EQ(tag(7), out);
    pelktest::LogCapture log;
    pushRange(queue, 100, 165);  // 65 elements into 64 slots
    EXPECT_EQ(1u, log.count("Queue::Assign(128)"));
    EXPECT_FALSE(queue.pop(nullptr));
    EXPECT_EQ(1u, log.count("elem == NULL!"));
    EXPECT_EQ(65u, queue.size());
    popRange(queue, 100, 165);
    EXPECT_TRUE(queue.empty());
}
