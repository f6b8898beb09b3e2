// Character-set conversion; the local set is UTF-8, so text is copied unchanged.

#include <ostrelled/OS_UTF8Helper.h>

#include <string>

#include <ostrelled/StringAssistant.h>

#include "OS/internal/Private.h"

namespace internal = ostrelled::internal;

namespace {

// The host's local character set is UTF-8: no conversion can fail, so the
// output is the input unchanged (the "Error Encode!" fallback of a converting
// host is never reached and therefore not kept here).
bool deliverUnchanged(const std::string& text, char* buffer, const DWORD& dwLen) {
  return internal::deliverText(text, buffer, dwLen);
}

}  // namespace

bool os_utf8helper_oem_from_utf8(const char* strUTF8, char* strOEM, const DWORD& dwLen) {
  return deliverUnchanged(strUTF8 == nullptr ? std::string() : std::string(strUTF8), strOEM, dwLen);
}

bool os_utf8helper_oem_to_utf8(const char* strOEM, char* strUTF8, const DWORD& dwLen) {
  // Unlike the other direction, a null input is not turned into empty text.
  if (strOEM == nullptr) return false;
  return deliverUnchanged(strOEM, strUTF8, dwLen);
}
