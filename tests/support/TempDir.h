// A private temporary directory for one test, removed with everything in it at destruction.
#ifndef PELK_TESTS_TEMPDIR_H
#define PELK_TESTS_TEMPDIR_H

#include <cstddef>
#include <string>

namespace pelktest {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    // path() + "/" + name
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    // Writes content to path() + "/" + name (creating the file) and returns the full path.
    std::string write(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};

// The whole content of a file; empty when it cannot be read.
std::string readFile(const std::string& path);
// size bytes that differ from seed to seed and repeat only after a long stretch.
std::string pattern(size_t size, unsigned seed);

}  // namespace pelktest

#endif  // PELK_TESTS_TEMPDIR_H
