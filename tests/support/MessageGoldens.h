// The golden bodies of the service messages: every message class, filled field by field, with
// the body that its offset table gives, built by hand (B) independently of the coders. The
// message tests check the classes against them; the emulator's tests feed them to its request
// path. Plain data and pure functions; any thread may use them.
#ifndef PELK_TESTS_MESSAGEGOLDENS_H
#define PELK_TESTS_MESSAGEGOLDENS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ActionManager/Struct.h"
#include "support/FakeService.h"

namespace pelktest {

using Msg = std::unique_ptr<PELK::ReqResBase>;

// The body that a message writes (GetBuffer's count of bytes).
Bytes Encode(const PELK::ReqResBase& m);

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
