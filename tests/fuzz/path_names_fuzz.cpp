// The path-name functions against their definition (trailing separators cut, "\" as "/", the last
// component), each through the whole size-query protocol.

#include "FuzzInput.h"

namespace {

bool isSeparator(char c) { return c == '/' || c == '\\'; }

// The cleaned path, or nothing when the path holds separators only.
std::optional<std::string> cleaned(std::string path) {
  while (!path.empty() && isSeparator(path.back())) path.pop_back();
  if (path.empty()) return std::nullopt;
  for (char& c : path)
    if (c == '\\') c = '/';
  return path;
}

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string dirName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::string suffix(const std::string& path) {
  const std::string base = baseName(path);
  const size_t dot = base.rfind('.');
  return dot == std::string::npos ? "" : base.substr(dot + 1);
}

using Function = bool (*)(const char*, char*, const DWORD&);

void checkProtocol(Function function, const std::string& path, const std::optional<std::string>& expected,
                   const char* what) {
  // Room for the whole path: dir_name copies all of it before it cuts.
  std::vector<char> buffer(path.size() + 2, 'x');
  DWORD len = 777;
  fuzz::check(function(path.c_str(), nullptr, len), what, path);
  if (!expected) {
    fuzz::check(len == 0 && function(path.c_str(), buffer.data(), len) && len == 0 && buffer[0] == '\0', what, path);
    return;
  }
  const DWORD needed = expected->size() + 1;
  fuzz::check(len == needed, what, path);
  len = needed - 1;
  fuzz::check(!function(path.c_str(), buffer.data(), len) && len == needed - 1 && buffer[0] == 'x', what, path);
  len = needed;
  fuzz::check(function(path.c_str(), buffer.data(), len) && len == needed && buffer.data() == *expected, what, path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  const std::string path = in.rest();
  const std::optional<std::string> clean = cleaned(path);
  auto applied = [&](std::string (*name)(const std::string&)) {
    return clean ? std::optional<std::string>(name(*clean)) : std::nullopt;
  };
  checkProtocol(os_filesystem_base_name, path, applied(baseName), "base name");
  checkProtocol(os_filesystem_dir_name, path, applied(dirName), "dir name");
  checkProtocol(os_filesystem_file_suffix, path, applied(suffix), "suffix");
  return 0;
}
