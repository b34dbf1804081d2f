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
#include "support/FakeService.h"

namespace pelktest {

using Msg = std::unique_ptr<PELK::ReqResBase>;

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
