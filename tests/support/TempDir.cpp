#include "support/TempDir.h"

#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace pelktest {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/pelk-test-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) m_path = pattern;
}

TempDir::~TempDir() {
    auto removeEntry = [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); };
    if (!m_path.empty()) nftw(m_path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    std::string full = file(name);
    std::ofstream(full, std::ios::binary | std::ios::trunc) << content;
    return full;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string pattern(size_t size, unsigned seed) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 2654435761u + seed) >> 13);
    return text;
}

}  // namespace pelktest
