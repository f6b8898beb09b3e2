#include <stdarg.h>

#include "TestSupport.h"

// Asked twice unless once: the caller's list must be left untouched.
static int formattedLength(bool once, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const int first = os_clibrary_string_get_formatted_length(format, ap);
  const int again = once ? first : os_clibrary_string_get_formatted_length(format, ap);
  va_end(ap);
  return first == again ? first : -2;
}

TEST(OS_CLibrary, FormattedLengthCountsWithoutWriting) {
  EXPECT_TRUE(os_clibrary_string_is_ascii("abc") && os_clibrary_string_is_ascii(""));
  EXPECT_FALSE(os_clibrary_string_is_ascii("caf\xc3\xa9"));
  EXPECT_EQ(formattedLength(false, "%d", 12345), 6);
  EXPECT_EQ(formattedLength(false, ""), 1);
  EXPECT_EQ(formattedLength(false, "%s-%s", "ab", "cde"), 7);
}

// INT_MAX bytes and the terminator. Asked once: the padding alone takes seconds.
TEST(OS_CLibrary, FormattedLengthBeyondIntIsMinusOne) { EXPECT_EQ(formattedLength(true, "%2147483647d", 1), -1); }
