// Thin wrappers of C-library file calls, and natural string order.

#include <ostrelled/OS_CLibrary.h>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

// The wrappers are deliberately bare: no checks, errno as the callee left it.
int os_clibrary_file_open(const char* _FileName, int _OpenFlag, int _PMode) {
  return open(_FileName, _OpenFlag, _PMode);
}
int os_clibrary_file_close(int _FileHandle) { return close(_FileHandle); }
int os_clibrary_file_access(const char* _FileName, int _AccessMode) { return access(_FileName, _AccessMode); }
int os_clibrary_file_umask(int _Mode) { return umask(_Mode); }
long os_clibrary_file_seek(int _FileHandle, long _Offset, int _Origin) { return lseek(_FileHandle, _Offset, _Origin); }
int os_clibrary_file_read(int _FileHandle, void* _DstBuf, unsigned int _MaxCharCount) {
  return static_cast<int>(read(_FileHandle, _DstBuf, _MaxCharCount));
}
int os_clibrary_file_write(int _FileHandle, const void* _Buf, unsigned int _MaxCharCount) {
  return static_cast<int>(write(_FileHandle, _Buf, _MaxCharCount));
}
int os_clibrary_file_unlink(const char* _FileName) { return unlink(_FileName); }
int os_clibrary_file_mkdir(const char* _Path, mode_t iFlag) { return mkdir(_Path, iFlag); }
int os_clibrary_file_chdir(const char* path) { return chdir(path); }
char* os_clibrary_file_getcwd(char* buf, int size) { return getcwd(buf, size); }

bool os_clibrary_string_is_ascii(const char* strVarName1) {
  for (const char* p = strVarName1; *p != '\0'; ++p) {
    if (static_cast<signed char>(*p) < 0) return false;
  }
  return true;
}

int os_clibrary_string_get_formatted_length(const char* strFormat, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  const int needed = vsnprintf(nullptr, 0, strFormat, copy);
  va_end(copy);
  // INT_MAX bytes and the terminator do not fit the result: unrepresentable too.
  return needed < 0 || needed == INT_MAX ? -1 : needed + 1;
}

namespace {

inline bool isDigit(char c) { return static_cast<unsigned>(static_cast<signed char>(c) - '0') <= 9; }

// What atoi gives for a run of digits on this C library: strtol's value,
// saturated at LONG_MAX, then cut to int. Done by hand because the locale and
// sign handling of strtol would cost more than the whole comparison.
int saturatedRunValue(const char* p) {
  unsigned long value = 0;
  for (; isDigit(*p); ++p) {
    const unsigned long digit = static_cast<unsigned long>(*p - '0');
    if (value > (static_cast<unsigned long>(LONG_MAX) - digit) / 10) return static_cast<int>(LONG_MAX);
    value = value * 10 + digit;
  }
  return static_cast<int>(static_cast<long>(value));
}

// The common case: 18 digits cannot overflow a long, so no check per digit.
inline int digitRunValue(const char* start) {
  unsigned long value = 0;
  for (const char* p = start; isDigit(*p); ++p) {
    if (p - start == 18) return saturatedRunValue(start);
    value = value * 10 + static_cast<unsigned long>(*p - '0');
  }
  return static_cast<int>(static_cast<long>(value));
}

// Natural "first orders after second". One pass to the first difference (or
// the shared end); the comparison then restarts at the beginning of the run
// of digits both strings share just before it, if any.
bool naturalGreater(const char* first, const char* second) {
  size_t sameLen = 0;
  while (first[sameLen] == second[sameLen] && first[sameLen] != '\0') ++sameLen;
  size_t ignoreOffset = sameLen;
  while (ignoreOffset > 0 && isDigit(first[ignoreOffset - 1])) --ignoreOffset;
  const char a = first[ignoreOffset];
  const char b = second[ignoreOffset];
  if (a == '\0') return false;
  if (b == '\0') return true;
  if (isDigit(a)) {
    // Equal values end the comparison: nothing after the runs is looked at.
    return isDigit(b) && digitRunValue(first + ignoreOffset) > digitRunValue(second + ignoreOffset);
  }
  if (isDigit(b)) return true;
  return static_cast<signed char>(a) > static_cast<signed char>(b);
}

}  // namespace

bool os_clibrary_string_intelligent_greater(const char* strVarName1, const char* strVarName2) {
  return naturalGreater(strVarName1, strVarName2);
}

// The scan is symmetric in its two strings and every rule after it mirrors,
// so "less" is exactly "greater" with the arguments swapped.
bool os_clibrary_string_intelligent_less(const char* strVarName1, const char* strVarName2) {
  return naturalGreater(strVarName2, strVarName1);
}
