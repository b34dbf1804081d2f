// Queue: FIFO order through a wrap and a growth; an empty queue or a pop into null gives nothing.
#include "CommonLib/Queue.h"

#include <gtest/gtest.h>

#include <utility>

using PELK::Common::Queue;

TEST(QueueTest, GrowsWhenFullKeepingFifoOrderAcrossTheWrapAndPopsOnlyWhatItHas) {
    auto tag = [](long n) { return reinterpret_cast<char*>(n); };
    Queue<char*> queue(64);
    char* out = tag(7);
    // The first round moves the head away from slot 0, so that the second (65 elements into 64
    // slots) wraps before the ring grows.
    for (const std::pair<long, long>& range : {std::make_pair(1L, 11L), std::make_pair(100L, 165L)}) {
        {
            Queue<char*>::Locked held(queue);
            for (long i = range.first; i < range.second; ++i) ASSERT_TRUE(queue.push_unlock(tag(i)));
        }
        EXPECT_FALSE(queue.pop(nullptr));
        ASSERT_EQ(static_cast<size_t>(range.second - range.first), queue.size());
        for (long i = range.first; i < range.second; ++i) {
            ASSERT_TRUE(queue.pop(&out));
            ASSERT_EQ(tag(i), out);
        }
        EXPECT_FALSE(queue.pop(&out));
        EXPECT_EQ(tag(range.second - 1), out);
        EXPECT_TRUE(queue.empty());
    }
}
