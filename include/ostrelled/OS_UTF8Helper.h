#ifndef OSTRELLED_OS_UTF8HELPER_H
#define OSTRELLED_OS_UTF8HELPER_H

#include <ostrelled/Types.h>

/// @file
/// Character-set conversion. The host's local character set is UTF-8, so both directions
/// copy their input unchanged by the text-buffer convention (dwLen written back despite
/// the const).

extern "C" {
/// Copies UTF-8 text unchanged into the local character set; a null input gives the empty text.
OSTRELLED_EXPORT bool os_utf8helper_oem_from_utf8(const char* strUTF8, char* strOEM, const DWORD& dwLen);
/// Copies local text unchanged into UTF-8; a null input is refused: false, nothing written.
OSTRELLED_EXPORT bool os_utf8helper_oem_to_utf8(const char* strOEM, char* strUTF8, const DWORD& dwLen);
}

#endif
