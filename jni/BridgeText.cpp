// Texts across the Java boundary (see Bridge.h).
#include <jni.h>

#include <cstring>
#include <string>

#include "Bridge.h"

namespace PELK {
namespace Bridge {

jstring newJavaText(JNIEnv* env, const char* field, size_t size) {
    const std::string text(field, strnlen(field, size));
    jstring result = env->NewStringUTF(text.c_str());
    if (result == nullptr) {
        clearException(env);
    }
    return result;
}

void copyCut(char* field, size_t size, const char* text) {
    const size_t length = strnlen(text, size);
    memcpy(field, text, length);
    memset(field + length, 0, size - length);
}

bool jstringToString(JNIEnv* env, jstring text, std::string& out) {
    const UtfChars chars(env, text);
    if (chars.get() == nullptr) {
        clearException(env);
        LOG_WARN("GetStringUTFChars fail!");
        return false;
    }
    out.assign(chars.get());
    return true;
}

}  // namespace Bridge
}  // namespace PELK
