#ifndef OSTRELLED_SRC_OS_INTERNAL_PATHS_H
#define OSTRELLED_SRC_OS_INTERNAL_PATHS_H

// Path-name tests shared by the file, folder and directory-walk sources:
// bad paths, separators, trailing slashes and existence by type.

#include <string>

namespace ostrelled {
namespace internal {
namespace Paths {

// True for a null pointer or an empty string: such paths are refused before
// anything touches the file system.
inline bool isBadPath(const char* path) { return path == nullptr || path[0] == '\0'; }

// The separators a caller's path may use: both slashes count.
inline bool isSeparator(char c) { return c == '/' || c == '\\'; }

// The path without its trailing "/". A path of slashes only throws
// std::out_of_range; file and folder tests rely on that being kept.
std::string withoutTrailingSlashes(const char* path);

// The existence test of files and folders: access(F_OK) after stripping
// trailing slashes, then the stat type is directory (or not, for files).
bool existsAs(const char* path, bool bDirectory);

}  // namespace Paths
}  // namespace internal
}  // namespace ostrelled

#endif
