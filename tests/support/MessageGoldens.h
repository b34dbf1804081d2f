// The golden bodies of the service messages: every message class, filled field by field, with
// the body that its offset table gives, built by hand (B) independently of the coders. The
// message tests check the classes against them; the emulator's tests feed them to its request
// path. Plain data and pure functions; any thread may use them.
#ifndef PELK_TESTS_MESSAGEGOLDENS_H
#define PELK_TESTS_MESSAGEGOLDENS_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ActionManager/Struct.h"

namespace pelktest {

using Bytes = std::vector<uint8_t>;
using Msg = std::unique_ptr<PELK::ReqResBase>;

// Builds expected bodies straight from the offset tables, independently of the coders under test.
struct B {
    Bytes v;
    B& i32(int64_t x) {
        for (int i = 0; i < 4; ++i) v.push_back(static_cast<unsigned char>(static_cast<uint64_t>(x) >> (8 * i)));
        return *this;
    }
    B& i64(uint64_t x) { return i32(static_cast<uint32_t>(x)).i32(static_cast<uint32_t>(x >> 32)); }
    B& u8(int x) {
        v.push_back(static_cast<unsigned char>(x));
        return *this;
    }
    B& str(const std::string& s, size_t n) {
        for (size_t i = 0; i < n; ++i) v.push_back(i < s.size() ? s[i] : 0);
        return *this;
    }
    B& zeros(size_t n) { return str("", n); }
    // Records: InteractionApp 304, DLNADevice 612, FileInfo 1844, NetworkCard 50, send tag 8 bytes.
    B& app(int k) {
        const std::string s = std::to_string(k);
        str("app" + s, 260).i32(100 + k).i32(200 + k);
        return str("10.0.0." + s, 16).str("aa:bb:cc:dd:ee:0" + s, 18).u8(1).u8(0);
    }
    B& dev(int k) {
        const std::string s = std::to_string(k);
        return str("dev" + s, 260).i32(k % 3).str("uuid-" + s, 100).str("10.1.0." + s, 16).u8(1).u8(k).zeros(230);
    }
    B& file(int k) {
        const std::string s = std::to_string(k);
        str("udn" + s, 100).str("parent" + s, 100).str("id" + s, 100);
        return str("title" + s, 260).str("type" + s, 260).str("http://h/" + s, 1024);
    }
    B& card(int k) { return str("eth" + std::to_string(k), 16).str("10.2.0." + std::to_string(k), 16).str("mac", 18); }
    B& tag(int k) { return u8(k).u8(k + 1).u8(3).u8(0).i32(1000 + k); }
    // The 308-byte head of the file events.
    B& fileHead(int32_t id) {
        i32(id).i32(9).i64(0x100000002ull).i64(0x300000004ull).i64(0x500000006ull);
        return i32(1).i32(2).i32(3).i32(4).str("report.pdf", 260);
    }
};

// A record holding exactly the image that B writes for it (record layouts are pinned by the header).
template <class R>
R Rec(const Bytes& image) {
    R r;
    memcpy(static_cast<void*>(&r), image.data(), sizeof(R));
    return r;
}
PELK::InteractionApp App(int k);
PELK::DLNADevice Dev(int k);
PELK::FileInfo File(int k);
PELK::SendTag Tag(int k);

// The body that a message writes (GetBuffer's count of bytes).
Bytes Encode(const PELK::ReqResBase& m);
// Decodes from a heap copy of exactly `bytes`, so that any read beyond it is caught by ASan.
void Decode(PELK::ReqResBase& m, const Bytes& bytes, unsigned int nBufferSize);

struct Golden {
    const char* name;
    std::function<Msg()> make;   // filled
    std::function<Msg()> fresh;  // as constructed
    Bytes body;
};

// One case per message class.
std::vector<Golden> Goldens();

}  // namespace pelktest

#endif  // PELK_TESTS_MESSAGEGOLDENS_H
