#ifndef OSTRELLED_OS_CLIBRARY_H
#define OSTRELLED_OS_CLIBRARY_H

#include <stdarg.h>
#include <sys/types.h>

#include <ostrelled/Export.h>

/// @file
/// Thin wrappers of C-library file calls, and natural string order. The file wrappers
/// forward their arguments unchanged and return the callee's result unchanged, errno
/// included; they add no checks (null is the callee's business).

extern "C" {
/// open(_FileName, _OpenFlag, _PMode): a descriptor, or -1.
OSTRELLED_EXPORT int os_clibrary_file_open(const char* _FileName, int _OpenFlag, int _PMode);
/// close: 0 or -1.
OSTRELLED_EXPORT int os_clibrary_file_close(int _FileHandle);
/// access: 0 or -1.
OSTRELLED_EXPORT int os_clibrary_file_access(const char* _FileName, int _AccessMode);
/// umask: returns the previous mask.
OSTRELLED_EXPORT int os_clibrary_file_umask(int _Mode);
/// lseek: the new position, or -1.
OSTRELLED_EXPORT long os_clibrary_file_seek(int _FileHandle, long _Offset, int _Origin);
/// read: the byte count narrowed to 32 bits, or -1.
OSTRELLED_EXPORT int os_clibrary_file_read(int _FileHandle, void* _DstBuf, unsigned int _MaxCharCount);
/// write: the byte count narrowed to 32 bits, or -1.
OSTRELLED_EXPORT int os_clibrary_file_write(int _FileHandle, const void* _Buf, unsigned int _MaxCharCount);
/// unlink: 0 or -1.
OSTRELLED_EXPORT int os_clibrary_file_unlink(const char* _FileName);
/// mkdir(_Path, iFlag): 0 or -1; the process umask applies.
OSTRELLED_EXPORT int os_clibrary_file_mkdir(const char* _Path, mode_t iFlag);
/// chdir: 0 or -1.
OSTRELLED_EXPORT int os_clibrary_file_chdir(const char* path);
/// getcwd(buf, size): buf, or null.
OSTRELLED_EXPORT char* os_clibrary_file_getcwd(char* buf, int size);

/// True when no byte of the string has its high bit set; the empty string is ASCII.
OSTRELLED_EXPORT bool os_clibrary_string_is_ascii(const char* strVarName1);
/// Bytes needed to format strFormat with ap, terminator included, or -1. ap is
/// copied, so the caller's list stays usable.
OSTRELLED_EXPORT int os_clibrary_string_get_formatted_length(const char* strFormat, va_list ap);
/// Natural order, which is not a total order: runs of digits of equal value end the
/// comparison (file007 and file7, a1 and a1b are neither greater nor less). Digit runs
/// compare by value (file9 before file10), digits before every other byte, other bytes
/// as signed chars.
/// @return true when strVarName1 sorts after strVarName2.
OSTRELLED_EXPORT bool os_clibrary_string_intelligent_greater(const char* strVarName1, const char* strVarName2);
/// Natural order as os_clibrary_string_intelligent_greater; less(x, y) is always greater(y, x).
/// @return true when strVarName1 sorts before strVarName2.
OSTRELLED_EXPORT bool os_clibrary_string_intelligent_less(const char* strVarName1, const char* strVarName2);
}

namespace OS {
/// Inline forwarders to the os_clibrary_* functions.
namespace CLibrary {
/// The one way the library's own file code reaches open, access, umask, read,
/// write, unlink and mkdir.
namespace File {
/// As os_clibrary_file_open.
inline int open(const char* _FileName, int _OpenFlag, int _PMode) {
  return os_clibrary_file_open(_FileName, _OpenFlag, _PMode);
}
/// As os_clibrary_file_close.
inline int close(int _FileHandle) { return os_clibrary_file_close(_FileHandle); }
/// As os_clibrary_file_access.
inline int access(const char* _FileName, int _AccessMode) { return os_clibrary_file_access(_FileName, _AccessMode); }
/// As os_clibrary_file_umask.
inline int umask(int _Mode) { return os_clibrary_file_umask(_Mode); }
/// As os_clibrary_file_read.
inline int read(int _FileHandle, void* _DstBuf, unsigned int _MaxCharCount) {
  return os_clibrary_file_read(_FileHandle, _DstBuf, _MaxCharCount);
}
/// As os_clibrary_file_write.
inline int write(int _FileHandle, const void* _Buf, unsigned int _MaxCharCount) {
  return os_clibrary_file_write(_FileHandle, _Buf, _MaxCharCount);
}
/// As os_clibrary_file_unlink.
inline int unlink(const char* _FileName) { return os_clibrary_file_unlink(_FileName); }
/// As os_clibrary_file_mkdir.
inline int mkdir(const char* _Path, mode_t iFlag) { return os_clibrary_file_mkdir(_Path, iFlag); }
}  // namespace File
}  // namespace CLibrary
}  // namespace OS

#endif
