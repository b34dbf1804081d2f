#include "TextConversion.h"

namespace PELK {
namespace Bridge {

namespace {

constexpr uint32_t kReplacement = 0xFFFD;

bool isHighSurrogate(uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

void appendUtf8(std::string& out, uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

void appendUtf16(std::vector<uint16_t>& out, uint32_t code) {
    if (code < 0x10000) {
        out.push_back(static_cast<uint16_t>(code));
        return;
    }
    code -= 0x10000;
    out.push_back(static_cast<uint16_t>(0xD800 | (code >> 10)));
    out.push_back(static_cast<uint16_t>(0xDC00 | (code & 0x3FF)));
}

}  // namespace

std::string Utf8FromUtf16(const uint16_t* units, size_t count) {
    std::string out;
    out.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        uint32_t code = units[i];
        if (isHighSurrogate(code) && i + 1 < count && isLowSurrogate(units[i + 1])) {
            code = 0x10000 + ((code - 0xD800) << 10) + (units[++i] - 0xDC00u);
        } else if (isHighSurrogate(code) || isLowSurrogate(code)) {
            code = kReplacement;
        }
        appendUtf8(out, code);
    }
    return out;
}

// The byte ranges of the second byte depend on the lead (no overlong forms, no surrogates, nothing
// past U+10FFFF); every later byte is 80..BF. A byte that breaks a sequence off ends it as one
// U+FFFD and is then read again as the start of what follows.
std::vector<uint16_t> Utf16FromUtf8(const char* bytes, size_t length) {
    std::vector<uint16_t> out;
    out.reserve(length);
    uint32_t code = 0;
    size_t needed = 0;
    unsigned char lower = 0x80;
    unsigned char upper = 0xBF;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char byte = static_cast<unsigned char>(bytes[i]);
        if (needed == 0) {
            if (byte < 0x80) {
                out.push_back(byte);
            } else if (byte >= 0xC2 && byte <= 0xDF) {
                needed = 1;
                code = byte & 0x1F;
            } else if (byte >= 0xE0 && byte <= 0xEF) {
                needed = 2;
                code = byte & 0x0F;
                lower = byte == 0xE0 ? 0xA0 : 0x80;
                upper = byte == 0xED ? 0x9F : 0xBF;
            } else if (byte >= 0xF0 && byte <= 0xF4) {
                needed = 3;
                code = byte & 0x07;
                lower = byte == 0xF0 ? 0x90 : 0x80;
                upper = byte == 0xF4 ? 0x8F : 0xBF;
            } else {
                out.push_back(kReplacement);
            }
            continue;
        }
        if (byte < lower || byte > upper) {
            out.push_back(kReplacement);
            needed = 0;
            lower = 0x80;
            upper = 0xBF;
            --i;
            continue;
        }
        lower = 0x80;
        upper = 0xBF;
        code = (code << 6) | (byte & 0x3F);
        if (--needed == 0) {
            appendUtf16(out, code);
        }
    }
    if (needed != 0) {
        out.push_back(kReplacement);
    }
    return out;
}

}  // namespace Bridge
}  // namespace PELK
