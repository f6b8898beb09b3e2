#ifndef OSTRELLED_STRINGASSISTANT_H
#define OSTRELLED_STRINGASSISTANT_H

#include <cstdarg>
#include <list>
#include <string>

#include <ostrelled/Types.h>

/// @file
/// String helpers, among them the library's text out-parameter convention.

/// Static string helpers shared by the whole library. Character classes and case are
/// plain ASCII; bytes of 0x80 and above are never white space, letters or digits.
class OSTRELLED_EXPORT CStringAssistant {
 public:
  /// The text out-parameter convention of the library. pValue null: dwLen gets
  /// the needed size (length + 1), true. dwLen large enough: the text and its
  /// terminator are copied, dwLen gets the needed size, true. Too small: nothing
  /// is written, dwLen keeps its value, false. An embedded zero ends the copy.
  static bool getBaseStringFromSTLString(const std::string& strValue, char* pValue, DWORD& dwLen);

  /// strSource with strFrom replaced by strTo: every non-overlapping occurrence, left to
  /// right, when bReplaceAll is true; only the first otherwise. An empty strFrom changes
  /// nothing. Replaced text is not searched again.
  static std::string replaceSTLString(const std::string& strSource, const std::string& strFrom,
                                      const std::string& strTo, bool bReplaceAll);
  /// Byte-wise order: -1, 0 or 1.
  static int compare(const std::string& str1, const std::string& str2);
  /// As compare, with ASCII letters folded to lower case.
  static int compareNoCase(const std::string& str1, const std::string& str2);
  /// Removes leading white space (" \t\n\v\f\r") from str in place and returns the result.
  static std::string trimLeft(std::string& str);
  /// Removes trailing white space from str in place and returns the result.
  static std::string trimRight(std::string& str);
  /// Removes leading and trailing white space from str in place and returns the result.
  static std::string trim(std::string& str);
  /// Changes the ASCII letters of str to upper case in place and returns the result.
  static std::string upper(std::string& str);
  /// Changes the ASCII letters of str to lower case in place and returns the result.
  static std::string lower(std::string& str);
  /// Case-sensitive prefix test; an empty prefix matches every text.
  static bool startsWith(const std::string& str, const std::string& strPrefix);
  /// Case-sensitive suffix test; an empty suffix matches every text.
  static bool endsWith(const std::string& str, const std::string& strSuffix);
  /// printf-style formatting into a string of any length; a null format gives "".
  static std::string format(const char* pFormat, ...) __attribute__((format(printf, 1, 2)));
  /// As format, with the arguments as a va_list (which is copied, so the caller's stays usable).
  static std::string formatV(const char* pFormat, va_list args);
  /// The pieces between separators, empty pieces included: n separators give n + 1
  /// pieces, so "" gives one empty piece. An empty separator gives the whole text.
  static std::list<std::string> split(const std::string& str, const std::string& strSeparator);
  /// Every '/' and '\\' becomes chSeparator, and runs of separators collapse into one.
  static std::string fixFilePath(const std::string& strPath, char chSeparator);
  /// A letter or '_', then letters, digits and '_'.
  static bool isIdentifier(const std::string& str);
  /// A usable single path component: 1 to 255 bytes, not "." or "..", no '/' or zero byte.
  static bool isFilename(const std::string& str);
};

#endif
