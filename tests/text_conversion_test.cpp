// The text conversions at the Java boundary and the one text cutter of the records, checked byte
// by byte against encodings written out by hand.
#include "TextConversion.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "ActionManager/WireFormat.h"

using PELK::Bridge::Utf16FromUtf8;
using PELK::Bridge::Utf8FromUtf16;
using Units = std::vector<uint16_t>;

namespace {

constexpr uint16_t kBad = 0xFFFD;

Units decode(const std::string& bytes) { return Utf16FromUtf8(bytes.data(), bytes.size()); }
std::string encode(const Units& units) { return Utf8FromUtf16(units.data(), units.size()); }
Units plus(Units head, const Units& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// Every byte length at both ends of its range, surrogate pairs at theirs.
struct Character {
    const char* bytes;
    Units units;
};
const Character kCharacters[] = {
    {"\x01", {0x0001}}, {"\x7F", {0x007F}}, {"\xC2\x80", {0x0080}}, {"\xC3\xA9", {0x00E9}},
    {"\xDF\xBF", {0x07FF}}, {"\xE0\xA0\x80", {0x0800}}, {"\xE4\xB8\xAD", {0x4E2D}}, {"\xED\x9F\xBF", {0xD7FF}},
    {"\xEE\x80\x80", {0xE000}}, {"\xEF\xBF\xBD", {0xFFFD}}, {"\xEF\xBF\xBF", {0xFFFF}},
    {"\xF0\x90\x80\x80", {0xD800, 0xDC00}}, {"\xF0\x9F\x8E\x89", {0xD83C, 0xDF89}},
    {"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
};

// Every character both ways, all in one text; a lone surrogate becomes U+FFFD, and U+0000 is the
// byte 0 both ways, never the VM's C0 80.
TEST(TextConversionTest, EveryByteLengthConvertsBothWaysAndLoneSurrogatesAreReplaced) {
    std::string allBytes = std::string("A\0B", 3);
    Units allUnits = {'A', 0, 'B'};
    for (const Character& c : kCharacters) {
        allBytes += c.bytes;
        allUnits = plus(allUnits, c.units);
    }
    EXPECT_EQ(encode(allUnits), allBytes);
    EXPECT_EQ(decode(allBytes), allUnits);
    const std::pair<Units, std::string> loneSurrogates[] = {
        {{0xD83C}, "\xEF\xBF\xBD"}, {{0xDF89}, "\xEF\xBF\xBD"}, {{'a', 0xD83C, 'b'}, "a\xEF\xBF\xBD" "b"},
        {{0xDF89, 0xD83C}, "\xEF\xBF\xBD\xEF\xBF\xBD"}, {{0xD83C, 0xD83C, 0xDF89}, "\xEF\xBF\xBD\xF0\x9F\x8E\x89"},
        {{0xDBFF, 0xE000}, "\xEF\xBF\xBD\xEE\x80\x80"},
    };
    for (const auto& c : loneSurrogates) EXPECT_EQ(encode(c.first), c.second) << c.second;
}

// The bytes that may follow each kind of lead byte second; a lead outside the table starts nothing.
struct Lead {
    unsigned char lead, lower, upper;
    int width;
};
const Lead kLeads[] = {
    {0xC2, 0x80, 0xBF, 2}, {0xDF, 0x80, 0xBF, 2}, {0xE0, 0xA0, 0xBF, 3}, {0xE1, 0x80, 0xBF, 3},
    {0xED, 0x80, 0x9F, 3}, {0xEF, 0x80, 0xBF, 3}, {0xF0, 0x90, 0xBF, 4}, {0xF1, 0x80, 0xBF, 4},
    {0xF4, 0x80, 0x8F, 4},
};

// A byte that can lead no sequence is one U+FFFD, even before a continuation (so no overlong C0 80
// is read). A second byte outside the lead's range (overlong forms, encoded surrogates, values past
// U+10FFFF) ends the sequence as one U+FFFD and is read again on its own; inside it, the sequence
// goes on (completed here with 80s). A sequence cut short, at the end or before any other byte, is
// one U+FFFD.
TEST(TextConversionTest, EveryInvalidLeadContinuationOrCutIsOneReplacementAndIsReadAgain) {
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        if (byte < 0xC2 || byte > 0xF4) {
            EXPECT_EQ(decode({static_cast<char>(byte), '\x80'}), (Units{kBad, kBad})) << std::hex << byte;
        }
    }
    for (const Lead& l : kLeads) {
        for (int second = 0; second <= 0xFF; ++second) {
            SCOPED_TRACE(testing::Message() << std::hex << int(l.lead) << " " << second);
            std::string bytes = {static_cast<char>(l.lead), static_cast<char>(second)};
            if (second >= l.lower && second <= l.upper) {
                bytes += std::string(l.width - 2, '\x80');
                const Units units = decode(bytes);
                EXPECT_EQ(units.size(), l.width == 4 ? 2u : 1u);
                EXPECT_EQ(encode(units), bytes) << "valid, so it round-trips";
                for (size_t cut = 1; cut < bytes.size(); ++cut) {
                    const std::string part = bytes.substr(0, cut);
                    EXPECT_EQ(decode(part), Units{kBad});
                    EXPECT_EQ(decode(part + "A" + part + bytes), plus({kBad, 'A', kBad}, units));
                }
            } else {
                EXPECT_EQ(decode(bytes), plus({kBad}, decode(std::string(1, static_cast<char>(second)))));
            }
        }
    }
}

// The cutter keeps whole characters: cut at any room inside one, the text ends before it.
TEST(TextConversionTest, TheCutterCutsOnACharacterBoundary) {
    using namespace PELK::Wire;
    for (const Character& c : kCharacters) {
        const std::string text = std::string("ab") + c.bytes + "c";
        const size_t end = 2 + strlen(c.bytes);
        for (size_t room = 0; room <= text.size() + 1; ++room) {
            const size_t expected = room < 2 ? room : room < end ? 2 : std::min(room, text.size());
            EXPECT_EQ(CutLength(text.c_str(), room), expected) << c.bytes << " room " << room;
        }
    }
    const struct {
        const char* text;
        size_t room, kept;
    } cases[] = {
        {nullptr, 5, 0},
        {"ab\x80\x80\x80\x80\x80", 4, 4},  // stray continuations are not UTF-8: cut at room
        {"\xC3\xA9\x80\x80", 3, 3},        // a whole character then strays
        {"\xF0\x9F\x8E\x89\x80", 4, 4},    // a fifth byte is no part of the character
        {"\xFF\x80\x80", 2, 2},            // no lead at all
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CutLength(c.text, c.room), c.kept) << (c.text == nullptr ? "(null)" : c.text) << " room " << c.room;
    }

    // The two field shapes: a terminated one keeps N - 1 bytes, a full one N.
    char terminated[6], full[6];
    CopyText(terminated, "ab\xF0\x9F\x8E\x89");
    EXPECT_EQ(std::string(terminated, 6), std::string("ab\0\0\0\0", 6));
    FillText(full, "ab\xF0\x9F\x8E\x89");
    EXPECT_EQ(TextOf(full), "ab\xF0\x9F\x8E\x89");
    FillText(full, "abc\xF0\x9F\x8E\x89");
    EXPECT_EQ(std::string(full, 6), std::string("abc\0\0\0", 6));
}

}  // namespace
