// Files by path; the path tests are shared with folders and walks (internal/Paths.h).

#include <ostrelled/OS_File.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ostrelled/OS_CLibrary.h>

#include "OS/internal/Paths.h"
#include "OS/internal/Private.h"

namespace internal = ostrelled::internal;

namespace File = OS::CLibrary::File;
using internal::Paths::isBadPath;
using internal::Paths::withoutTrailingSlashes;

namespace {
constexpr int kCreateFlags = O_CREAT;                         // 0x40: read-only, no truncation
constexpr int kCopyTargetFlags = O_RDWR | O_CREAT | O_TRUNC;  // 0x242
constexpr mode_t kAllPermissions = 0777;
constexpr unsigned int kCopyBlock = 8192;
}  // namespace

bool os_file_is_relative_path(const char* strPath) { return !isBadPath(strPath) && strPath[0] != '/'; }

bool os_file_exist(const char* strFilePath) {
  return !isBadPath(strFilePath) && internal::Paths::existsAs(strFilePath, false);
}

bool os_file_create(const char* strFilePath) {
  if (isBadPath(strFilePath)) return false;
  const std::string path = withoutTrailingSlashes(strFilePath);
  int fd;
  {
    internal::UmaskCleared exactMode;  // for the open alone: the new file gets exactly 0777
    fd = File::open(path.c_str(), kCreateFlags, kAllPermissions);
  }
  if (fd == -1) return false;
  File::close(fd);
  return true;
}

bool os_file_remove(const char* strFilePath) {
  if (isBadPath(strFilePath)) return false;
  return File::unlink(withoutTrailingSlashes(strFilePath).c_str()) != -1;
}

bool os_file_gettime(const char* strFilePath, OS_FILE_TIME* tv) {
  if (isBadPath(strFilePath) || tv == nullptr) return false;
  // The stat result is not checked on purpose: a missing file gives true with
  // zero times. The record is cleared so that those zeros are all it gives.
  struct stat info {};
  stat(strFilePath, &info);
  tv->actime = info.st_atime;
  tv->modtime = info.st_mtime;
  return true;
}

bool os_file_settime(const char* strFilePath, OS_FILE_TIME* tv) {
  if (isBadPath(strFilePath) || tv == nullptr) return false;
  utime(strFilePath, tv);  // outcome not reported, by design
  return true;
}

bool os_file_move(const char* strSrcFilePath, const char* strDstFilePath) {
  if (isBadPath(strSrcFilePath) || isBadPath(strDstFilePath)) return false;
  return rename(strSrcFilePath, strDstFilePath) == 0;
}

namespace {

// The bulk of a regular file, copied inside the kernel from both descriptors'
// offsets, which it advances. It stops at the end or at the first failure,
// where the block loop takes over and meets that failure itself, so the
// result and errno are the loop's. Files without a size (/proc and the like)
// are left to the loop.
void copyInKernel(int source, int target) {
  struct stat info {};
  if (fstat(source, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size == 0) return;
  while (copy_file_range(source, nullptr, target, nullptr, size_t{1} << 30, 0) > 0) {
  }
}

}  // namespace

bool os_file_copy(const char* strSrcFilePath, const char* strDstFilePath, bool /*bFailedIfExist*/) {
  if (isBadPath(strSrcFilePath) || isBadPath(strDstFilePath)) return false;
  OS_FILE_TIME times{};
  os_file_gettime(strSrcFilePath, &times);
  const int source = File::open(strSrcFilePath, 0, kAllPermissions);
  if (source == -1) return false;
  bool result = true;
  int failure = 0;  // errno of the failing call, given back after the clean-up
  const int target = File::open(strDstFilePath, kCopyTargetFlags, kAllPermissions);
  if (target == -1) {
    result = false;
    failure = errno;
  } else {
    copyInKernel(source, target);
    char block[kCopyBlock];
    for (;;) {
      // A read error ends the copy like the end of the file does and still
      // counts as success; kept as the interface promises.
      const int count = File::read(source, block, kCopyBlock);
      if (count < 1) break;
      const int written = File::write(target, block, static_cast<unsigned int>(count));
      if (written != count) {
        // A short write sets no errno of its own: report it as an I/O error.
        result = false;
        failure = written == -1 ? errno : EIO;
        break;
      }
    }
    File::close(target);
    os_file_settime(strDstFilePath, &times);
  }
  File::close(source);
  if (!result) errno = failure;
  return result;
}
