// The string assistant: formatting, trimming, case, splitting and path fixes of std::string.

#include <ostrelled/StringAssistant.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

const char kWhiteSpace[] = " \t\n\v\f\r";

// ASCII only, so the result never depends on the process locale.
char lowerAscii(char ch) { return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch; }
char upperAscii(char ch) { return ch >= 'a' && ch <= 'z' ? static_cast<char>(ch - 'a' + 'A') : ch; }
bool isLetterOrUnderscore(char ch) { return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || ch == '_'; }
bool isDigit(char ch) { return ch >= '0' && ch <= '9'; }

}  // namespace

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

std::string CStringAssistant::replaceSTLString(const std::string& strSource, const std::string& strFrom,
                                               const std::string& strTo, bool bReplaceAll) {
  if (strFrom.empty()) return strSource;
  std::string result;
  size_t done = 0;
  for (size_t found = strSource.find(strFrom); found != std::string::npos; found = strSource.find(strFrom, done)) {
    result.append(strSource, done, found - done).append(strTo);
    done = found + strFrom.size();
    if (!bReplaceAll) break;
  }
  return result.append(strSource, done, std::string::npos);
}

int CStringAssistant::compare(const std::string& str1, const std::string& str2) {
  const int order = str1.compare(str2);
  return (order > 0) - (order < 0);
}

int CStringAssistant::compareNoCase(const std::string& str1, const std::string& str2) {
  const size_t common = std::min(str1.size(), str2.size());
  for (size_t i = 0; i < common; ++i) {
    // Compared as unsigned bytes, like compare, so high bytes order above ASCII.
    const unsigned char ch1 = static_cast<unsigned char>(lowerAscii(str1[i]));
    const unsigned char ch2 = static_cast<unsigned char>(lowerAscii(str2[i]));
    if (ch1 != ch2) return ch1 < ch2 ? -1 : 1;
  }
  if (str1.size() == str2.size()) return 0;
  return str1.size() < str2.size() ? -1 : 1;
}

std::string CStringAssistant::trimLeft(std::string& str) {
  str.erase(0, str.find_first_not_of(kWhiteSpace));
  return str;
}

std::string CStringAssistant::trimRight(std::string& str) {
  const size_t last = str.find_last_not_of(kWhiteSpace);
  str.erase(last == std::string::npos ? 0 : last + 1);
  return str;
}

std::string CStringAssistant::trim(std::string& str) {
  trimRight(str);
  return trimLeft(str);
}

std::string CStringAssistant::upper(std::string& str) {
  for (char& ch : str) ch = upperAscii(ch);
  return str;
}

std::string CStringAssistant::lower(std::string& str) {
  for (char& ch : str) ch = lowerAscii(ch);
  return str;
}

bool CStringAssistant::startsWith(const std::string& str, const std::string& strPrefix) {
  return str.size() >= strPrefix.size() && str.compare(0, strPrefix.size(), strPrefix) == 0;
}

bool CStringAssistant::endsWith(const std::string& str, const std::string& strSuffix) {
  return str.size() >= strSuffix.size() && str.compare(str.size() - strSuffix.size(), strSuffix.size(), strSuffix) == 0;
}

std::string CStringAssistant::format(const char* pFormat, ...) {
  va_list args;
  va_start(args, pFormat);
  std::string result = formatV(pFormat, args);
  va_end(args);
  return result;
}

std::string CStringAssistant::formatV(const char* pFormat, va_list args) {
  if (pFormat == nullptr) return std::string();
  // One pass measures, the other writes; each consumes its own copy of the list.
  va_list measure;
  va_copy(measure, args);
  const int len = std::vsnprintf(nullptr, 0, pFormat, measure);
  va_end(measure);
  if (len <= 0) return std::string();
  std::string result(static_cast<size_t>(len), '\0');
  va_list write;
  va_copy(write, args);
  std::vsnprintf(&result[0], result.size() + 1, pFormat, write);
  va_end(write);
  return result;
}

std::list<std::string> CStringAssistant::split(const std::string& str, const std::string& strSeparator) {
  std::list<std::string> pieces;
  if (strSeparator.empty()) {
    pieces.push_back(str);
    return pieces;
  }
  size_t start = 0;
  for (size_t found = str.find(strSeparator); found != std::string::npos; found = str.find(strSeparator, start)) {
    pieces.push_back(str.substr(start, found - start));
    start = found + strSeparator.size();
  }
  pieces.push_back(str.substr(start));
  return pieces;
}

std::string CStringAssistant::fixFilePath(const std::string& strPath, char chSeparator) {
  std::string result;
  result.reserve(strPath.size());
  for (char ch : strPath) {
    if (ch == '/' || ch == '\\') ch = chSeparator;
    if (ch == chSeparator && !result.empty() && result.back() == chSeparator) continue;
    result.push_back(ch);
  }
  return result;
}

bool CStringAssistant::isIdentifier(const std::string& str) {
  if (str.empty() || !isLetterOrUnderscore(str[0])) return false;
  for (char ch : str)
    if (!isLetterOrUnderscore(ch) && !isDigit(ch)) return false;
  return true;
}

bool CStringAssistant::isFilename(const std::string& str) {
  if (str.empty() || str.size() > 255 || str == "." || str == "..") return false;
  return str.find('/') == std::string::npos && str.find('\0') == std::string::npos;
}
