#include <ostrelled/StringAssistant.h>

#include <cstring>

bool CStringAssistant::getBaseStringFromSTLString(const std::string& strValue, char* pValue, DWORD& dwLen) {
  const DWORD needed = strValue.size() + 1;
  if (pValue == nullptr) {
    dwLen = needed;
    return true;
  }
  if (dwLen < needed) return false;
  std::strcpy(pValue, strValue.c_str());
  dwLen = needed;
  return true;
}
