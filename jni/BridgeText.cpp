// Texts across the Java boundary (see Bridge.h): Java strings are read as UTF-16 and handed on as
// standard UTF-8; texts for Java are decoded from UTF-8 and made from UTF-16, so that invalid or
// cut bytes reach Java as U+FFFD and never as input the VM would refuse.
#include <jni.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "Bridge.h"
#include "TextConversion.h"

namespace PELK {
namespace Bridge {

static_assert(std::is_same<jchar, uint16_t>::value, "Java characters are UTF-16 code units");

jstring newJavaText(JNIEnv* env, const char* field, size_t size) {
    const std::vector<uint16_t> units = Utf16FromUtf8(field, strnlen(field, size));
    const jchar none = 0;
    jstring result = env->NewString(units.empty() ? &none : units.data(), static_cast<jsize>(units.size()));
    if (result == nullptr) {
        clearException(env);
    }
    return result;
}

bool javaText(JNIEnv* env, jstring text, std::string& out) {
    if (text == nullptr) {
        return false;
    }
    const jsize length = env->GetStringLength(text);
    std::vector<uint16_t> units(static_cast<size_t>(length));
    if (length > 0) {
        env->GetStringRegion(text, 0, length, units.data());
    }
    if (env->ExceptionCheck()) {
        clearException(env);
        return false;
    }
    out = Utf8FromUtf16(units.data(), units.size());
    return true;
}

bool jstringToString(JNIEnv* env, jstring text, std::string& out) {
    if (!javaText(env, text, out)) {
        // Named after the call the bridge once made; the log's readers know it so.
        LOG_WARN("GetStringUTFChars fail!");
        return false;
    }
    return true;
}

}  // namespace Bridge
}  // namespace PELK
