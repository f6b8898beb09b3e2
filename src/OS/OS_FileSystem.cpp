// Directory walks and path names.

#include <ostrelled/OS_FileSystem.h>

#include <dirent.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <ostrelled/StringAssistant.h>

#include "OS/internal/Paths.h"
#include "OS/internal/Private.h"

namespace internal = ostrelled::internal;

using internal::Paths::isSeparator;

namespace {

constexpr unsigned int kNoDepthLimit = 0xFFFFFFFF;

// One walk: the full path of the current entry lives in one buffer that grows
// and shrinks as the walk goes down and up, and the relative path is its tail
// after the root, so no entry costs an allocation of its own.
struct Walk {
  std::string root;  // as prepared: ends in "/" or "\\" unless empty
  std::string path;  // root + relative path of the current entry
  unsigned int maxDeep;
  IWalkThroughCallback* callback;

  const char* relative() const { return path.c_str() + root.size(); }

  // The type lstat would give, from the directory entry where the file system
  // records it; links, FIFOs, sockets and devices are all "not a directory".
  bool isDirectory(const dirent* entry) const {
    if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_DIR;
    struct stat info {};  // a failed lstat reads as "not a directory"
    lstat(path.c_str(), &info);
    return S_ISDIR(info.st_mode);
  }

  // Reports the directory at path, then, depth allowing, everything in it.
  void level(unsigned int currentDeep) {
    if (callback != nullptr) callback->onWalkDirectory(relative(), root.c_str());
    if (maxDeep != kNoDepthLimit && currentDeep >= maxDeep) return;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return;  // unreadable or vanished: skipped without notice
    const size_t parentLength = path.size();
    while (const dirent* entry = readdir(dir)) {
      const char* name = entry->d_name;
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
      if (parentLength > root.size()) path += '/';
      path += name;
      if (isDirectory(entry)) {
        level(currentDeep + 1);
      } else if (callback != nullptr) {
        callback->onWalkFile(relative(), root.c_str());
      }
      path.resize(parentLength);
    }
    closedir(dir);
  }
};

void os_filesystem_walk_through_ex_p(const char* dirPath, const char* rootDir, unsigned int uintCurrentDeep,
                                     unsigned int uintMaxDeep, IWalkThroughCallback* pCallback) {
  if (dirPath == nullptr || rootDir == nullptr) return;  // not accepted: nothing is walked or reported
  Walk walk{rootDir, {}, uintMaxDeep, pCallback};
  if (!walk.root.empty() && !isSeparator(walk.root.back())) walk.root += '/';
  walk.path = walk.root + dirPath;
  walk.level(uintCurrentDeep);
}

// Cuts trailing separators (writing zeros over them) and turns every other
// separator into "/". False when the path holds nothing but separators.
bool os_filesystem_resolve_path_p(char* absoluteFilePath, size_t& len) {
  bool seenName = false;
  for (size_t i = len; i-- > 0;) {
    if (!isSeparator(absoluteFilePath[i])) {
      seenName = true;
    } else if (!seenName) {
      absoluteFilePath[i] = '\0';
      --len;
    } else {
      absoluteFilePath[i] = '/';
    }
  }
  return seenName;
}

enum class NamePart { Base, Directory, Suffix };

// The three name functions: clean a private copy, cut out the part, deliver.
bool deliverNamePart(const char* absoluteFilePath, char* buffer, const DWORD& len, NamePart part) {
  if (absoluteFilePath == nullptr) return false;
  DWORD& length = internal::writableLength(len);
  std::string cleaned(absoluteFilePath);
  size_t n = cleaned.size();
  if (!os_filesystem_resolve_path_p(&cleaned[0], n)) {
    if (buffer != nullptr) buffer[0] = '\0';
    length = 0;  // 0, not 1: intended for empty and separator-only paths
    return true;
  }
  cleaned.resize(n);
  const size_t slash = cleaned.rfind('/');
  const size_t start = slash == std::string::npos ? 0 : slash + 1;
  std::string result;
  switch (part) {
    case NamePart::Base:
      result = cleaned.substr(start);
      break;
    case NamePart::Directory:
      result = slash == std::string::npos ? std::string(".") : cleaned.substr(0, slash + 1);
      break;
    case NamePart::Suffix: {
      // The scan stops at the last dot of the last component.
      const size_t dot = cleaned.rfind('.');
      if (dot != std::string::npos && dot >= start) result = cleaned.substr(dot + 1);
      break;
    }
  }
  return internal::deliverText(result, buffer, length);
}

}  // namespace

void os_filesystem_walk_through(const char* dirPath, const char* rootDir, IWalkThroughCallback* pCallback) {
  os_filesystem_walk_through_ex_p(dirPath, rootDir, 0, kNoDepthLimit, pCallback);
}

void os_filesystem_walk_through_ex(const char* dirPath, const char* rootDir, unsigned int uintMaxDeep,
                                   IWalkThroughCallback* pCallback) {
  os_filesystem_walk_through_ex_p(dirPath, rootDir, 0, uintMaxDeep, pCallback);
}

bool os_filesystem_base_name(const char* absoluteFilePath, char* baseName, const DWORD& len) {
  return deliverNamePart(absoluteFilePath, baseName, len, NamePart::Base);
}

bool os_filesystem_dir_name(const char* absoluteFilePath, char* dirName, const DWORD& len) {
  return deliverNamePart(absoluteFilePath, dirName, len, NamePart::Directory);
}

bool os_filesystem_file_suffix(const char* absoluteFilePath, char* fileSuffix, const DWORD& len) {
  return deliverNamePart(absoluteFilePath, fileSuffix, len, NamePart::Suffix);
}

void os_filesystem_sync() { sync(); }
