// Text between Java and the native side: Java strings are UTF-16, the records and the service
// carry standard UTF-8. Malformed input never fails a conversion: what cannot be read becomes
// U+FFFD, so the VM is never handed invalid text. Pure functions; any thread may call them.
#ifndef PELK_JNI_TEXTCONVERSION_H
#define PELK_JNI_TEXTCONVERSION_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace PELK {
namespace Bridge {

// Standard UTF-8 of UTF-16 code units: a surrogate pair becomes one 4-byte sequence, a lone
// surrogate U+FFFD, and U+0000 the byte 0 (not the VM's C0 80).
std::string Utf8FromUtf16(const uint16_t* units, size_t count);

// UTF-16 of UTF-8 bytes: a 4-byte sequence becomes a surrogate pair. Each maximal piece that is
// not UTF-8 (a byte that cannot start a character, a sequence cut short or broken off, an
// overlong form, an encoded surrogate, a value past U+10FFFF) becomes one U+FFFD.
std::vector<uint16_t> Utf16FromUtf8(const char* bytes, size_t length);

}  // namespace Bridge
}  // namespace PELK

#endif  // PELK_JNI_TEXTCONVERSION_H
