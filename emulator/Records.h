// Small helpers over the protocol's fixed-size text fields, shared by the emulator's units:
// reading a field as a string (bounded by its size, since a full field has no terminator) and
// filling one. Pure functions; any thread may use them.
#ifndef PELK_EMULATOR_RECORDS_H
#define PELK_EMULATOR_RECORDS_H

#include <cstring>
#include <string>

namespace PELK {
namespace Emulator {

template <size_t N>
std::string textOf(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// Fills a FileInfo-style field: up to its full size, the rest zero (a text of exactly N bytes
// has no terminator, as the record's readers expect).
template <size_t N>
void fillField(char (&field)[N], const std::string& text) {
    const size_t length = text.size() < N ? text.size() : N;
    memcpy(field, text.data(), length);
    memset(field + length, 0, N - length);
}

}  // namespace Emulator
}  // namespace PELK

#endif  // PELK_EMULATOR_RECORDS_H
