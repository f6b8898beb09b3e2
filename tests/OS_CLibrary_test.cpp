#include <gtest/gtest.h>

#include <stdarg.h>

#include <climits>
#include <string>

#include <ostrelled/OS_CLibrary.h>

// Asks twice: the caller's list must be left untouched.
static int formattedLength(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const int first = os_clibrary_string_get_formatted_length(format, ap);
  const int again = os_clibrary_string_get_formatted_length(format, ap);
  va_end(ap);
  return first == again ? first : -2;
}

TEST(OS_CLibrary, NaturalOrderMatchesItsTable) {
  const struct { const char *first, *second; bool greater, less; } rows[] = {
      {"file9", "file10", false, true}, {"file10", "file9", true, false}, {"a12b", "a13", false, true},
      {"a1x", "a12", false, true}, {"ver1.2", "ver1.10", false, true}, {"abc", "abcd", false, true},
      {"abc", "abc", false, false}, {"ab", "a1", true, false}, {"a-", "a1", true, false}, {"B", "a", false, true},
      {"", "", false, false}, {"", "x", false, true}, {"\x80", "A", false, true}, {"\x80", "0", true, false},
      // Neither orders first: equal runs, whatever their zeros or what follows them.
      {"file007", "file7", false, false}, {"a1b", "a01c", false, false}, {"a1", "a1b", false, false},
      // Runs beyond int compare as atoi converts them here: saturated to -1, or wrapped negative.
      {"n99999999999999999999", "n2147483647", false, true}, {"n2147483648", "n5", false, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.first) + " vs " + row.second);
    EXPECT_EQ(os_clibrary_string_intelligent_greater(row.first, row.second), row.greater);
    EXPECT_EQ(os_clibrary_string_intelligent_less(row.first, row.second), row.less);
    EXPECT_EQ(os_clibrary_string_intelligent_greater(row.second, row.first), row.less);
    EXPECT_EQ(os_clibrary_string_intelligent_less(row.second, row.first), row.greater);
  }
}

TEST(OS_CLibrary, FormattedLengthCountsWithoutWriting) {
  EXPECT_TRUE(os_clibrary_string_is_ascii("abc") && os_clibrary_string_is_ascii(""));
  EXPECT_FALSE(os_clibrary_string_is_ascii("caf\xc3\xa9"));
  EXPECT_EQ(formattedLength("%d", 12345), 6);
  EXPECT_EQ(formattedLength(""), 1);
  EXPECT_EQ(formattedLength("%s-%s", "ab", "cde"), 7);
}

static int formattedLengthOnce(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const int length = os_clibrary_string_get_formatted_length(format, ap);
  va_end(ap);
  return length;
}

// INT_MAX bytes need INT_MAX + 1 with the terminator. Asked once: the C
// library pads the whole width even when it writes nothing, seconds of work.
TEST(OS_CLibrary, FormattedLengthBeyondIntIsMinusOne) {
  EXPECT_EQ(formattedLengthOnce("%2147483647d", 1), -1);
}
