#include "FrameReader.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "ActionManager/WireFormat.h"

namespace PELK {
namespace Agent {

namespace {

void putLittleEndian32(char* at, uint32_t value) {
    Wire::EncodeFixed32(reinterpret_cast<unsigned char*>(at), value);
}

uint32_t getLittleEndian32(const char* at) {
    return Wire::DecodeFixed32(reinterpret_cast<const unsigned char*>(at));
}

}  // namespace

namespace Frame {

uint32_t lengthOf(const char* frame) {
    return getLittleEndian32(frame);
}

int32_t actionIdOf(const char* frame) {
    return static_cast<int32_t>(getLittleEndian32(frame + MSG_LENGTH_OFFSET));
}

char* build(const char* message, uint32_t length) {
    char* frame = new (std::nothrow) char[static_cast<size_t>(length) + MSG_LENGTH_OFFSET];
    if (frame != nullptr) {
        putLittleEndian32(frame, length);
        memcpy(frame + MSG_LENGTH_OFFSET, message, length);
    }
    return frame;
}

Reader::Reader()
    : m_pStaging(nullptr), m_nBegin(0), m_nEnd(0), m_pLarge(nullptr), m_nLargeTotal(0), m_nLargeFilled(0),
      m_nLargeCapacity(0) {}

Reader::~Reader() {
    delete[] m_pLarge;
    delete[] m_pStaging;
}

char* Reader::space(int* room) {
    if (m_pLarge != nullptr) {
        if (m_nLargeFilled == m_nLargeCapacity) {
            const size_t capacity = std::min(m_nLargeTotal, 2 * m_nLargeCapacity);
            char* grown = new (std::nothrow) char[capacity];
            if (grown == nullptr) {
                return nullptr;
            }
            memcpy(grown, m_pLarge, m_nLargeFilled);
            delete[] m_pLarge;
            m_pLarge = grown;
            m_nLargeCapacity = capacity;
        }
        *room = static_cast<int>(std::min<size_t>(m_nLargeCapacity - m_nLargeFilled, INT_MAX));
        return m_pLarge + m_nLargeFilled;
    }
    if (m_pStaging == nullptr) {
        m_pStaging = new (std::nothrow) char[kStagingSize];
        if (m_pStaging == nullptr) {
            return nullptr;
        }
    }
    if (m_nBegin > 0) {
        memmove(m_pStaging, m_pStaging + m_nBegin, static_cast<size_t>(m_nEnd - m_nBegin));
        m_nEnd -= m_nBegin;
        m_nBegin = 0;
    }
    *room = kStagingSize - m_nEnd;
    return m_pStaging + m_nEnd;
}

void Reader::commit(int count) {
    if (m_pLarge != nullptr) {
        m_nLargeFilled += static_cast<size_t>(count);
    } else {
        m_nEnd += count;
    }
}

Reader::Result Reader::next(char** frame, uint32_t* length) {
    if (m_pLarge != nullptr) {
        if (m_nLargeFilled < m_nLargeTotal) {
            return kIncomplete;
        }
        *length = static_cast<uint32_t>(m_nLargeTotal - MSG_LENGTH_OFFSET);
        *frame = m_pLarge;
        m_pLarge = nullptr;
        m_nLargeTotal = m_nLargeFilled = m_nLargeCapacity = 0;
        return kComplete;
    }
    const int available = m_nEnd - m_nBegin;
    if (available < MSG_LENGTH_OFFSET) {
        return kIncomplete;
    }
    const char* at = m_pStaging + m_nBegin;
    *length = lengthOf(at);
    if (*length > kMaxLength) {
        return kTooLong;
    }
    const size_t total = static_cast<size_t>(*length) + MSG_LENGTH_OFFSET;
    if (static_cast<size_t>(available) < total) {
        if (total <= static_cast<size_t>(kStagingSize)) {
            return kIncomplete;
        }
        // Grown from here as the bytes come, never to more than arrive.
        const size_t capacity = std::min(total, std::max<size_t>(2 * kStagingSize, static_cast<size_t>(available)));
        m_pLarge = new (std::nothrow) char[capacity];
        if (m_pLarge == nullptr) {
            return kOutOfMemory;
        }
        memcpy(m_pLarge, at, static_cast<size_t>(available));
        m_nLargeTotal = total;
        m_nLargeFilled = static_cast<size_t>(available);
        m_nLargeCapacity = capacity;
        m_nBegin = m_nEnd = 0;
        return kIncomplete;
    }
    if (*length < sizeof(int32_t)) {
        m_nBegin += static_cast<int>(total);
        return kTooShort;
    }
    *frame = new (std::nothrow) char[total];
    if (*frame == nullptr) {
        return kOutOfMemory;
    }
    memcpy(*frame, at, total);
    m_nBegin += static_cast<int>(total);
    return kComplete;
}

size_t Reader::pending() const {
    return m_pLarge != nullptr ? m_nLargeFilled : static_cast<size_t>(m_nEnd - m_nBegin);
}

bool Reader::partialHeader() const {
    const size_t held = pending();
    return m_pLarge == nullptr && held > 0 && held < static_cast<size_t>(kHeaderSize);
}

void Reader::discardPending(uint32_t* length, int32_t* actionID) {
    const size_t held = pending();
    const char* at = m_pLarge != nullptr ? m_pLarge : m_pStaging + (held > 0 ? m_nBegin : 0);
    *length = held >= static_cast<size_t>(MSG_LENGTH_OFFSET) ? lengthOf(at) : 0;
    *actionID = held >= static_cast<size_t>(kHeaderSize) ? actionIdOf(at) : 0;
    delete[] m_pLarge;
    m_pLarge = nullptr;
    m_nLargeTotal = m_nLargeFilled = m_nLargeCapacity = 0;
    m_nBegin = m_nEnd = 0;
}

}  // namespace Frame

}  // namespace Agent
}  // namespace PELK
