#include "CommonLib/Queue.h"

#include <gtest/gtest.h>

#include "support/LogCapture.h"

using PELK::Common::Queue;

namespace {

char* tag(long n) {
    return reinterpret_cast<char*>(n);
}

}  // namespace

TEST(QueueTest, GrowsWhenFullKeepingFifoOrderAcrossTheWrap) {
    Queue<char*> queue(64);
    char* out = nullptr;
    // Move head away from slot 0 so that the full ring wraps before it grows.
    for (long i = 1; i <= 10; ++i) {
        queue.lock();
        ASSERT_TRUE(queue.push_unlock(tag(i)));
        queue.unlock();
    }
    for (long i = 1; i <= 10; ++i) {
        ASSERT_TRUE(queue.pop(&out));
        ASSERT_EQ(tag(i), out);
    }
    pelktest::LogCapture log;
    queue.lock();
    for (long i = 100; i < 165; ++i) {  // 65 elements into 64 slots
        ASSERT_TRUE(queue.push_unlock(tag(i)));
    }
    EXPECT_EQ(128u, queue.capacity());
    queue.unlock();
    EXPECT_EQ(1u, log.count("Queue::Assign(128)"));
    EXPECT_EQ(65u, queue.size());
    for (long i = 100; i < 165; ++i) {
        ASSERT_TRUE(queue.pop(&out));
        ASSERT_EQ(tag(i), out);
    }
    EXPECT_TRUE(queue.empty());
}

TEST(QueueTest, PopOnEmptyOrIntoNullTakesNothing) {
    pelktest::LogCapture log;
    Queue<char*> queue(4);
    char* out = tag(7);
    EXPECT_FALSE(queue.pop(&out));
    EXPECT_EQ(tag(7), out);

    queue.lock();
    queue.push_unlock(tag(1));
    queue.unlock();
    EXPECT_FALSE(queue.pop(nullptr));
    EXPECT_EQ(1u, log.count("elem == NULL!"));
    EXPECT_EQ(1u, queue.size());
    EXPECT_TRUE(queue.pop(&out));
    EXPECT_EQ(tag(1), out);
}
