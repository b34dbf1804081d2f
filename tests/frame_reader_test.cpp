// The frame reader on bytes alone: frames built little-endian, and the same frames out of a stream
// however it is cut into receives.
#include "FrameReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "support/FakeService.h"

using pelktest::body;
using pelktest::Bytes;

namespace Frame = PELK::Agent::Frame;

namespace {

// Frames are built length word first, little-endian; however a stream of them is cut into
// receives, the same frames come out, a too-short one skipped and one too long refused.
TEST(FrameTest, BuiltFramesComeOutOfTheReaderTheSameForAnyCuttingOfTheStreamUpToTheLimit) {
    const std::vector<Bytes> bodies = {body(20, {1}), pelktest::B().i32(45).zeros(200000), body(44),
                                       pelktest::B().i32(20).zeros(65536 - 8), body(2, {3})};
    Bytes stream;
    std::vector<Bytes> frames;
    for (const Bytes& one : bodies) {
        frames.push_back(pelktest::frame(one));
        std::unique_ptr<char[]> built(Frame::build(reinterpret_cast<const char*>(one.data()),
                                                   static_cast<uint32_t>(one.size())));
        EXPECT_EQ(frames.back(), Bytes(built.get(), built.get() + frames.back().size()));
        stream.insert(stream.end(), frames.back().begin(), frames.back().end());
        if (frames.size() == 3) {
            stream.insert(stream.end(), {2, 0, 0, 0, 9, 9});
        }
    }
    for (size_t chunk : {size_t(1), size_t(7), size_t(4096), stream.size()}) {
        SCOPED_TRACE(chunk);
        Frame::Reader reader;
        std::vector<Bytes> got;
        int tooShort = 0;
        for (size_t at = 0; at < stream.size();) {
            int room = 0;
            char* space = reader.space(&room);
            ASSERT_NE(nullptr, space);
            const size_t count = std::min({chunk, static_cast<size_t>(room), stream.size() - at});
            memcpy(space, stream.data() + at, count);
            reader.commit(static_cast<int>(count));
            at += count;
            for (;;) {
                char* frame = nullptr;
                uint32_t length = 0;
                const Frame::Reader::Result result = reader.next(&frame, &length);
                if (result == Frame::Reader::kComplete) {
                    got.emplace_back(frame, frame + length + 4);
                    delete[] frame;
                } else if (result == Frame::Reader::kTooShort) {
                    ++tooShort;
                } else {
                    ASSERT_EQ(Frame::Reader::kIncomplete, result);
                    break;
                }
            }
        }
        EXPECT_EQ(frames, got);
        EXPECT_EQ(1, tooShort);
        EXPECT_EQ(0u, reader.pending());
    }

    // A length word up to the limit is a frame still arriving; one past it can never be framed.
    for (uint32_t length : {Frame::kMaxLength, Frame::kMaxLength + 1}) {
        Frame::Reader reader;
        int room = 0;
        const Bytes header = pelktest::B().i32(length).i32(20);
        memcpy(reader.space(&room), header.data(), header.size());
        reader.commit(static_cast<int>(header.size()));
        char* frame = nullptr;
        uint32_t got = 0;
        EXPECT_EQ(length > Frame::kMaxLength ? Frame::Reader::kTooLong : Frame::Reader::kIncomplete,
                  reader.next(&frame, &got))
            << length;
    }
}

}  // namespace
