// Field coding for service message bodies: little-endian integer writers and readers, bounded
// text copies, and the four coders that every message class in Struct.h runs over its one list
// of fields (write, size an object, size a received body, read). A coder lives for one call on
// the caller's thread and owns nothing except, for Reader, the data block it is handed.
#ifndef PELK_ACTIONMANAGER_WIREFORMAT_H
#define PELK_ACTIONMANAGER_WIREFORMAT_H

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace PELK {
namespace Wire {

// Records travel as raw memory images, so their integers are in host order; the service
// and the wire are little-endian.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are copied as little-endian images");

inline void EncodeFixed32(unsigned char* dst, uint32_t value) {
    dst[0] = static_cast<unsigned char>(value);
    dst[1] = static_cast<unsigned char>(value >> 8);
    dst[2] = static_cast<unsigned char>(value >> 16);
    dst[3] = static_cast<unsigned char>(value >> 24);
}

inline uint32_t DecodeFixed32(const unsigned char* src) {
    return static_cast<uint32_t>(src[0]) | (static_cast<uint32_t>(src[1]) << 8) |
           (static_cast<uint32_t>(src[2]) << 16) | (static_cast<uint32_t>(src[3]) << 24);
}

inline void EncodeFixed64(unsigned char* dst, uint64_t value) {
    EncodeFixed32(dst, static_cast<uint32_t>(value));
    EncodeFixed32(dst + 4, static_cast<uint32_t>(value >> 32));
}

inline uint64_t DecodeFixed64(const unsigned char* src) {
    return static_cast<uint64_t>(DecodeFixed32(src)) | (static_cast<uint64_t>(DecodeFixed32(src + 4)) << 32);
}

// The one text cutter of the records: how many bytes of text (up to its terminator) stay when it
// is cut to at most room bytes. The cut falls on a UTF-8 character boundary, so no character is
// left in halves; bytes that are not UTF-8 are cut where room ends. A null text is empty.
inline size_t CutLength(const char* text, size_t room) {
    if (text == nullptr) {
        return 0;
    }
    size_t start = 0;  // where the last character (or stray byte) seen begins
    size_t i = 0;
    for (; text[i] != '\0'; ++i) {
        const unsigned char byte = static_cast<unsigned char>(text[i]);
        const bool continues = (byte & 0xC0) == 0x80;
        if (i == room) {
            // A character crosses the cut when its lead byte promises more bytes than fit.
            const unsigned char lead = static_cast<unsigned char>(text[start]);
            const size_t width = lead >= 0xF8 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
            return continues && room - start < width ? start : room;
        }
        if (!continues) {
            start = i;
        }
    }
    return i;
}

// Copies text into a field of size bytes, cut to at most room bytes (room <= size), and zeroes
// the rest of the field.
inline void PutText(char* field, size_t size, size_t room, const char* text) {
    const size_t length = CutLength(text, room);
    // Byte by byte: the length is known only at run time, and GCC warns about a memcpy of a short
    // literal that it cannot see the length keep within.
    for (size_t i = 0; i < length; ++i) {
        field[i] = text[i];
    }
    memset(field + length, 0, size - length);
}

// A terminated field: at most N - 1 bytes, so the last byte is always the terminator.
template <size_t N>
inline void CopyText(char (&dst)[N], const char* src) {
    static_assert(N > 0, "no room for the terminator");
    PutText(dst, N, N - 1, src);
}

// A field filled up to its full size: a text of N bytes or more keeps no terminator there, as the
// readers of such fields (FileInfo, the Java bridge's device fields) expect.
template <size_t N>
inline void FillText(char (&dst)[N], const char* src) {
    PutText(dst, N, N, src);
}

// The text of a field, bounded by its size (a full field has no terminator).
template <size_t N>
inline std::string TextOf(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

template <class T>
using Int32Like = std::enable_if_t<sizeof(T) == 4 && (std::is_integral<T>::value || std::is_enum<T>::value)>;

template <class R>
constexpr void CheckRecord() {
    static_assert(std::is_trivially_copyable<R>::value && std::is_standard_layout<R>::value,
                  "records travel as raw images");
}

// A message's fields, described by a function template
//     template <class Self, class Coder> static void Fields(Self& m, Coder& c);
// that calls, for each field in order, one of
//     Int32(off, v)  Int64(off, v)  Flag(off, v)  Text(off, chars)  Record(off, r)
//     List(off, vector)  (a 32-bit count, then the records)
//     Data(off, length, block)  (a 32-bit length, then the bytes; at most one per message)
// Each returns the offset just past the field, which places the fields behind a list or block.
// Offsets are 64-bit so that a count read from a body cannot wrap them.

// Writes the fields of an object into a body sized by Sizer.
class Writer {
public:
    explicit Writer(void* buf) : m_pBuf(static_cast<unsigned char*>(buf)) {}
    uint64_t End() const { return m_nEnd; }

    template <class T, class = Int32Like<T>>
    uint64_t Int32(uint64_t off, const T& value) {
        EncodeFixed32(m_pBuf + off, static_cast<uint32_t>(value));
        return Mark(off + 4);
    }
    uint64_t Int64(uint64_t off, const uint64_t& value) {
        EncodeFixed64(m_pBuf + off, value);
        return Mark(off + 8);
    }
    uint64_t Flag(uint64_t off, const bool& value) {
        m_pBuf[off] = value ? 1 : 0;
        return Mark(off + 1);
    }
    template <size_t N>
    uint64_t Text(uint64_t off, const char (&chars)[N]) {
        memcpy(m_pBuf + off, chars, N);
        return Mark(off + N);
    }
    template <class R>
    uint64_t Record(uint64_t off, const R& record) {
        CheckRecord<R>();
        memcpy(m_pBuf + off, &record, sizeof(R));
        return Mark(off + sizeof(R));
    }
    template <class R>
    uint64_t List(uint64_t off, const std::vector<R>& records) {
        CheckRecord<R>();
        EncodeFixed32(m_pBuf + off, static_cast<uint32_t>(records.size()));
        if (!records.empty()) {
            memcpy(m_pBuf + off + 4, records.data(), records.size() * sizeof(R));
        }
        return Mark(off + 4 + records.size() * sizeof(R));
    }
    uint64_t Data(uint64_t off, const int32_t& length, const char* const& block) {
        EncodeFixed32(m_pBuf + off, static_cast<uint32_t>(length));
        if (length > 0) {
            memcpy(m_pBuf + off + 4, block, static_cast<size_t>(length));
        }
        return Mark(off + 4 + static_cast<uint64_t>(length > 0 ? length : 0));
    }

private:
    uint64_t Mark(uint64_t end) {
        m_nEnd = end > m_nEnd ? end : m_nEnd;
        return end;
    }
    unsigned char* m_pBuf;
    uint64_t m_nEnd = 0;
};

// Measures the fixed-size fields; Sizer and BodySizer differ only in how lists and blocks count.
class Extent {
public:
    uint64_t End() const { return m_nEnd; }

    template <class T, class = Int32Like<T>>
    uint64_t Int32(uint64_t off, const T&) {
        return Mark(off + 4);
    }
    uint64_t Int64(uint64_t off, const uint64_t&) { return Mark(off + 8); }
    uint64_t Flag(uint64_t off, const bool&) { return Mark(off + 1); }
    template <size_t N>
    uint64_t Text(uint64_t off, const char (&)[N]) {
        return Mark(off + N);
    }
    template <class R>
    uint64_t Record(uint64_t off, const R&) {
        return Mark(off + sizeof(R));
    }

protected:
    uint64_t Mark(uint64_t end) {
        m_nEnd = end > m_nEnd ? end : m_nEnd;
        return end;
    }
    uint64_t m_nEnd = 0;
};

// Measures the body that Writer would produce for an object in its present state.
class Sizer : public Extent {
public:
    template <class R>
    uint64_t List(uint64_t off, const std::vector<R>& records) {
        return Mark(off + 4 + records.size() * sizeof(R));
    }
    uint64_t Data(uint64_t off, const int32_t& length, const char* const&) {
        return Mark(off + 4 + static_cast<uint64_t>(length > 0 ? length : 0));
    }
};

// Measures the body that a received buffer claims, from the counts and lengths it holds, without
// reading past nBufferSize. Fits() is false when a count or length is negative or when the claimed
// body (End()) runs past the buffer.
class BodySizer : public Extent {
public:
    BodySizer(const void* buf, unsigned int nBufferSize)
        : m_pBuf(static_cast<const unsigned char*>(buf)), m_nBufferSize(nBufferSize) {}
    bool Fits() const { return m_fValid && m_nEnd <= m_nBufferSize; }
    bool HasData() const { return m_fHasData; }
    int32_t DataLength() const { return m_nDataLength; }

    template <class R>
    uint64_t List(uint64_t off, const std::vector<R>&) {
        return Mark(off + 4 + Count(off) * sizeof(R));
    }
    uint64_t Data(uint64_t off, const int32_t&, const char* const&) {
        const uint64_t length = Count(off);
        m_fHasData = true;
        m_nDataLength = static_cast<int32_t>(length);
        return Mark(off + 4 + length);
    }

private:
    // The count or length at off; a negative one (or one beyond the buffer) invalidates the body
    // and counts as its unsigned value, so the claimed size shows how far it overshoots.
    uint64_t Count(uint64_t off) {
        if (off + 4 > m_nBufferSize) {
            m_fValid = false;
            return 0;
        }
        const uint32_t count = DecodeFixed32(m_pBuf + off);
        if (count > 0x7FFFFFFFu) {
            m_fValid = false;
        }
        return count;
    }
    const unsigned char* m_pBuf;
    uint64_t m_nBufferSize;
    bool m_fValid = true;
    bool m_fHasData = false;
    int32_t m_nDataLength = 0;
};

// Reads the fields of a body that BodySizer has accepted. List records are appended to the
// object's vector; the data block (allocated by the caller for BodySizer's length) replaces the
// object's block, whose old one is freed.
class Reader {
public:
    Reader(const void* buf, char* pBlock) : m_pBuf(static_cast<const unsigned char*>(buf)), m_pBlock(pBlock) {}

    template <class T, class = Int32Like<T>>
    uint64_t Int32(uint64_t off, T& value) {
        value = static_cast<T>(static_cast<int32_t>(DecodeFixed32(m_pBuf + off)));
        return off + 4;
    }
    uint64_t Int64(uint64_t off, uint64_t& value) {
        value = DecodeFixed64(m_pBuf + off);
        return off + 8;
    }
    uint64_t Flag(uint64_t off, bool& value) {
        value = m_pBuf[off] != 0;
        return off + 1;
    }
    template <size_t N>
    uint64_t Text(uint64_t off, char (&chars)[N]) {
        memcpy(chars, m_pBuf + off, N);
        return off + N;
    }
    template <class R>
    uint64_t Record(uint64_t off, R& record) {
        CheckRecord<R>();
        memcpy(static_cast<void*>(&record), m_pBuf + off, sizeof(R));
        return off + sizeof(R);
    }
    template <class R>
    uint64_t List(uint64_t off, std::vector<R>& records) {
        CheckRecord<R>();
        const size_t count = DecodeFixed32(m_pBuf + off);
        if (count > 0) {
            const size_t first = records.size();
            records.resize(first + count);
            memcpy(static_cast<void*>(&records[first]), m_pBuf + off + 4, count * sizeof(R));
        }
        return off + 4 + count * sizeof(R);
    }
    uint64_t Data(uint64_t off, int32_t& length, char*& block) {
        length = static_cast<int32_t>(DecodeFixed32(m_pBuf + off));
        if (length > 0) {
            memcpy(m_pBlock, m_pBuf + off + 4, static_cast<size_t>(length));
        }
        delete[] block;
        block = m_pBlock;
        return off + 4 + static_cast<uint64_t>(length);
    }

private:
    const unsigned char* m_pBuf;
    char* m_pBlock;
};

}  // namespace Wire
}  // namespace PELK

#endif  // PELK_ACTIONMANAGER_WIREFORMAT_H
