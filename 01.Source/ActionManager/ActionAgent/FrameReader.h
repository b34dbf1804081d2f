// The link's frames, kept apart from its sockets so that they can be checked with bytes alone: a
// 32-bit little-endian length, then one message whose first field is its action ID.
#ifndef PELK_AGENT_FRAMEREADER_H
#define PELK_AGENT_FRAMEREADER_H

#include <cstddef>
#include <cstdint>

namespace PELK {
namespace Agent {

// Frames are routed by IsEventActionID (ActionManager/Struct.h): events to the callback, the rest as replies.
namespace Frame {

// Bytes of the length word that starts every frame.
constexpr int MSG_LENGTH_OFFSET = 4;
// A frame is classified once its length word and action ID are available.
constexpr int kHeaderSize = MSG_LENGTH_OFFSET + static_cast<int>(sizeof(int32_t));
// Longer frames are reported, then accepted all the same.
constexpr uint32_t kLengthWarningLimit = 65855;

// The longest message accepted: room for some 36,000 browse records of 1844 bytes, where real
// browse replies take a few MiB. A longer length word can only come from a broken stream.
constexpr uint32_t kMaxLength = 64u * 1024 * 1024;

uint32_t lengthOf(const char* frame);
int32_t actionIdOf(const char* frame);
// A new frame (array new) holding the length word and a copy of message; null when out of memory.
char* build(const char* message, uint32_t length);

// Cuts a received byte stream into frames. It does no I/O: a receive writes into space(), then
// next() hands out what is complete. Memory follows the bytes that actually arrive, whatever a
// length word claims. Used by one thread at a time (the link's socket mutex).
class Reader {
public:
    enum Result {
        kIncomplete,   // more bytes are needed
        kComplete,     // *frame is a new array, length word first; the caller deletes it
        kTooShort,     // a whole frame too short to hold an action ID was skipped
        kTooLong,      // the length word exceeds kMaxLength: the stream cannot go on
        kOutOfMemory,  // the frame cannot be held: the stream cannot go on
    };

    Reader();
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Where the next receive may write *room bytes; null when out of memory.
    char* space(int* room);
    // Counts the bytes that receive wrote.
    void commit(int count);
    // Takes the next frame out of what was received; *length is its length word.
    Result next(char** frame, uint32_t* length);
    // Bytes of an unfinished frame held; partialHeader() while they are 1 to 7 of its header.
    size_t pending() const;
    bool partialHeader() const;
    // Drops the unfinished frame, telling its length word and action ID as far as they came.
    void discardPending(uint32_t* length, int32_t* actionID);

private:
    static constexpr int kStagingSize = 64 * 1024;

    char* m_pStaging;  // small frames, several per receive
    int m_nBegin;
    int m_nEnd;
    char* m_pLarge;  // a frame too long for the staging buffer, grown as it arrives
    size_t m_nLargeTotal;
    size_t m_nLargeFilled;
    size_t m_nLargeCapacity;
};

}  // namespace Frame

}  // namespace Agent
}  // namespace PELK

#endif  // PELK_AGENT_FRAMEREADER_H
