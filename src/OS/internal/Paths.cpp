// Path tests shared by files, folders and walks.

#include "OS/internal/Paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <ostrelled/OS_CLibrary.h>

namespace File = OS::CLibrary::File;

namespace ostrelled {
namespace internal {
namespace Paths {

std::string withoutTrailingSlashes(const char* path) {
  std::string result(path);
  // substr(size - 1) throws out_of_range once the string is empty: a path of
  // slashes only leaves the caller with that exception, which is intended.
  while (result.substr(result.size() - 1) == "/") result.erase(result.size() - 1);
  return result;
}

bool existsAs(const char* path, bool bDirectory) {
  const std::string stripped = withoutTrailingSlashes(path);
  if (File::access(stripped.c_str(), F_OK) != 0) return false;
  // The access test above decided existence; a stat that fails in between
  // leaves the record cleared, which reads as "not a directory".
  struct stat info {};
  stat(stripped.c_str(), &info);
  return S_ISDIR(info.st_mode) == bDirectory;
}

}  // namespace Paths
}  // namespace internal
}  // namespace ostrelled
