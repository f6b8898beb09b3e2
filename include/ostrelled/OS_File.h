#ifndef OSTRELLED_OS_FILE_H
#define OSTRELLED_OS_FILE_H

#include <utime.h>

#include <ostrelled/Export.h>

/// @file
/// Files by path. Every function returns false at once for a null or empty path. Paths
/// made only of slashes make os_file_exist, os_file_create and os_file_remove throw
/// std::out_of_range; that is intended and kept.

/// Access time then modification time, whole seconds since the epoch.
typedef struct utimbuf OS_FILE_TIME;

extern "C" {
/// True when the path does not begin with "/" (./a, a/b and ~/a are relative).
OSTRELLED_EXPORT bool os_file_is_relative_path(const char* strPath);
/// True when something other than a directory exists there (links followed;
/// trailing slashes ignored, so file/ counts and a dangling link does not).
OSTRELLED_EXPORT bool os_file_exist(const char* strFilePath);
/// Creates the file with mode 0777 whatever the umask, or opens an existing one
/// and leaves it untouched; true when either worked.
OSTRELLED_EXPORT bool os_file_create(const char* strFilePath);
/// unlink (trailing slashes stripped); false for directories.
OSTRELLED_EXPORT bool os_file_remove(const char* strFilePath);
/// Reads the times into tv and returns true even when the file is missing (then tv holds
/// zeros): test existence first.
OSTRELLED_EXPORT bool os_file_gettime(const char* strFilePath, OS_FILE_TIME* tv);
/// utime(path, tv); the outcome is not reported: true for any valid arguments.
OSTRELLED_EXPORT bool os_file_settime(const char* strFilePath, OS_FILE_TIME* tv);
/// rename; no copy fallback, so a move across file systems fails.
OSTRELLED_EXPORT bool os_file_move(const char* strSrcFilePath, const char* strDstFilePath);
/// Copies the content in 8 KiB blocks and carries the two times over, ignoring
/// bFailedIfExist: an existing destination is always overwritten. A
/// failed copy leaves its partial destination; a read error ends the copy early
/// and still reports success. Both are intended.
OSTRELLED_EXPORT bool os_file_copy(const char* strSrcFilePath, const char* strDstFilePath, bool bFailedIfExist);
}

#endif
