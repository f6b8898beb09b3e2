#ifndef OSTRELLED_STRINGASSISTANT_H
#define OSTRELLED_STRINGASSISTANT_H

#include <cstdarg>
#include <list>
#include <string>

#include <ostrelled/Types.h>

// Static string helpers shared by the whole library.
class OSTRELLED_EXPORT CStringAssistant {
 public:
  // The text out-parameter convention of the library. pValue null: dwLen gets
  // the needed size (length + 1), true. dwLen large enough: the text and its
  // terminator are copied, dwLen gets the needed size, true. Too small: nothing
  // is written, dwLen keeps its value, false. An embedded zero ends the copy.
  static bool getBaseStringFromSTLString(const std::string& strValue, char* pValue, DWORD& dwLen);
};

#endif
