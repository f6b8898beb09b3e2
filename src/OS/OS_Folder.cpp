// Folders by path; removing, moving and copying with contents run shell commands
// through the one runner of internal/Shell.h.

#include <ostrelled/OS_Folder.h>

#include <sys/stat.h>
#include <unistd.h>

#include <ostrelled/OS_CLibrary.h>

#include "OS/internal/Paths.h"
#include "OS/internal/Private.h"
#include "OS/internal/Shell.h"

namespace internal = ostrelled::internal;

using internal::Paths::isBadPath;
using internal::Paths::isSeparator;

namespace {

// Trailing separators cut for remove and move; nothing left means the root.
std::string withoutTrailingSeparators(const char* path) {
  std::string result(path);
  while (!result.empty() && isSeparator(result.back())) result.pop_back();
  if (result.empty()) result = "/";
  return result;
}

// mkdir with mode 0777 whatever the caller's umask.
bool makeDirectory(const std::string& path) {
  internal::UmaskCleared exactMode;
  return OS::CLibrary::File::mkdir(path.c_str(), 0777) != -1;
}

// The last component of a path that ends in a separator. Without any separator
// before the name only its last character is taken (abc/ gives c): intended.
std::string lastComponent(const std::string& path) {
  size_t end = path.size();
  while (end > 0 && isSeparator(path[end - 1])) --end;
  if (end == 0) return std::string();
  size_t start = end - 1;
  for (size_t i = start; i-- > 0;) {
    if (isSeparator(path[i])) {
      start = i + 1;
      break;
    }
  }
  return path.substr(start, end - start);
}

inline void appendSeparator(std::string& path) {
  if (path.empty() || !isSeparator(path.back())) path += '/';
}

bool os_folder_copyinner(const char* strSrcFolderPath, const char* strDstFolderPath, bool bFailedIfExist,
                         bool bIncludeSrcRoot) {
  if (isBadPath(strSrcFolderPath) || isBadPath(strDstFolderPath)) return false;
  std::string source(strSrcFolderPath);
  std::string destination(strDstFolderPath);
  appendSeparator(source);
  appendSeparator(destination);
  if (!OS::Folder::exist(destination)) {
    // A new destination receives the source's contents, not the source itself.
    OS::Folder::create(destination);
    bIncludeSrcRoot = false;
  }
  if (bIncludeSrcRoot) {
    destination += lastComponent(source) + "/";
    if (!OS::Folder::exist(destination)) OS::Folder::create(destination);
  }
  const internal::Shell::Template& command =
      bFailedIfExist ? internal::Shell::kCopyKeeping : internal::Shell::kCopyOverwriting;
  return internal::Shell::run(command, {source.c_str(), destination.c_str()});
}

}  // namespace

bool os_folder_exist(const char* strFolderPath) {
  return !isBadPath(strFolderPath) && internal::Paths::existsAs(strFolderPath, true);
}

bool os_folder_create(const char* strFolderPath) {
  if (isBadPath(strFolderPath)) return false;
  const std::string path(strFolderPath);
  std::string accumulated;
  size_t begin = 0;
  for (;;) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    const std::string component = path.substr(begin, end - begin);
    if (component.empty()) {
      if (accumulated.empty()) accumulated = "/";
    } else if (accumulated.empty() && component == "~") {
      // Taken literally and never created: the home directory is not looked up.
      accumulated = component;
    } else {
      // An absolute path accumulates as //usr, //usr/lib: harmless and kept.
      accumulated = accumulated.empty() ? component : accumulated + "/" + component;
      if (!os_folder_exist(accumulated.c_str()) && !makeDirectory(accumulated)) return false;
    }
    if (end == path.size()) return true;
    begin = end + 1;
  }
}

bool os_folder_remove(const char* strFolderPath, bool bIncludeAllFiles) {
  if (isBadPath(strFolderPath)) return false;
  const std::string path = withoutTrailingSeparators(strFolderPath);
  if (!bIncludeAllFiles) return rmdir(path.c_str()) == 0;
  return internal::Shell::run(internal::Shell::kRemoveTree, {path.c_str()});
}

bool os_folder_move(const char* strSrcFolderPath, const char* strDstFolderPath) {
  if (isBadPath(strSrcFolderPath) || isBadPath(strDstFolderPath)) return false;
  const std::string source = withoutTrailingSeparators(strSrcFolderPath);
  const std::string destination = withoutTrailingSeparators(strDstFolderPath);
  return internal::Shell::run(internal::Shell::kMove, {source.c_str(), destination.c_str()});
}

bool os_folder_copy(const char* strSrcFolderPath, const char* strDstFolderPath, bool bFailedIfExist) {
  return os_folder_copyinner(strSrcFolderPath, strDstFolderPath, bFailedIfExist, true);
}
