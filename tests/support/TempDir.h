// A private temporary directory for one test, removed with everything in it at destruction.
#ifndef PELK_TESTS_TEMPDIR_H
#define PELK_TESTS_TEMPDIR_H

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
    std::string file(const std::string& name) const;
    // Writes content to path() + "/" + name (creating the file) and returns the full path.
    std::string write(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};

}  // namespace pelktest

#endif  // PELK_TESTS_TEMPDIR_H
