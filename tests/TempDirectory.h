#ifndef OSTRELLED_TESTS_TEMPDIRECTORY_H
#define OSTRELLED_TESTS_TEMPDIRECTORY_H

// A fresh directory under /tmp per test, removed with everything in it, and
// small file helpers.

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace testsupport {

// When entered, the directory is also the working directory for its lifetime.
struct TempDirectory {
  explicit TempDirectory(bool enter = false) : previous(enter ? std::filesystem::current_path() : "") {
    char pattern[] = "/tmp/ostrelled_test_XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    path = pattern;
    if (enter) std::filesystem::current_path(path);
  }
  ~TempDirectory() {
    if (!previous.empty()) std::filesystem::current_path(previous);
    std::filesystem::remove_all(path, error);
  }
  std::string operator/(const std::string& name) const { return path + "/" + name; }

  std::filesystem::path previous;
  std::string path;
  std::error_code error;
};

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string readFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

}  // namespace testsupport

#endif
