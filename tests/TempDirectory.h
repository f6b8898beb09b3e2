#ifndef OSTRELLED_TESTS_TEMPDIRECTORY_H
#define OSTRELLED_TESTS_TEMPDIRECTORY_H

// A fresh directory under /tmp per test, removed with everything in it, and
// small file helpers.

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace testsupport {

class TempDirectory {
 public:
  TempDirectory() {
    char pattern[] = "/tmp/ostrelled_test_XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    m_strPath = pattern;
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_strPath, ignored);
  }
  const std::string& path() const { return m_strPath; }
  std::string operator/(const std::string& name) const { return m_strPath + "/" + name; }

 private:
  std::string m_strPath;
};

// Makes dir the working directory for the lifetime of the object.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::string& dir) : m_old(std::filesystem::current_path()) {
    std::filesystem::current_path(dir);
  }
  ~WorkingDirectory() { std::filesystem::current_path(m_old); }

 private:
  std::filesystem::path m_old;
};

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace testsupport

#endif
