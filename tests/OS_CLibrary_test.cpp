#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <ostrelled/OS_CLibrary.h>

namespace {

// The rules written out the long way (lengths first, atoi on the digit runs),
// as an independent oracle for the single-scan comparison.
bool referenceGreater(const char* x, const char* y) {
  const size_t maxCheck = std::min(strlen(x), strlen(y));
  size_t same = maxCheck, digits = 0;
  for (size_t i = 0; i < maxCheck && same == maxCheck; ++i) {
    if (x[i] != y[i]) same = i;
    else digits = (x[i] >= '0' && x[i] <= '9') ? digits + 1 : 0;
  }
  const signed char a = x[same - digits], b = y[same - digits];
  auto digit = [](signed char c) { return c >= '0' && c <= '9'; };
  if (a == 0 || b == 0) return a != 0;
  if (digit(a)) return digit(b) && atoi(x + same - digits) > atoi(y + same - digits);
  return digit(b) || a > b;
}

int formattedLength(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const int first = os_clibrary_string_get_formatted_length(format, ap);
  const int again = os_clibrary_string_get_formatted_length(format, ap);  // ap must be left untouched
  va_end(ap);
  return first == again ? first : -2;
}

}  // namespace

TEST(OS_CLibrary, NaturalOrderTableHoldsBothWays) {
  struct Row {
    const char *first, *second;
    bool greater, less;
  } const rows[] = {
      {"file9", "file10", false, true}, {"file10", "file9", true, false}, {"a12b", "a13", false, true},
      {"a1x", "a12", false, true}, {"ver1.2", "ver1.10", false, true}, {"abc", "abcd", false, true},
      {"abc", "abc", false, false}, {"ab", "a1", true, false}, {"a-", "a1", true, false}, {"B", "a", false, true},
      {"file007", "file7", false, false}, {"a1b", "a01c", false, false}, {"a1", "a1b", false, false},
      {"", "", false, false}, {"", "x", false, true}, {"\x80", "A", false, true}, {"\x80", "0", true, false}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.first) + " vs " + row.second);
    EXPECT_EQ(os_clibrary_string_intelligent_greater(row.first, row.second), row.greater);
    EXPECT_EQ(os_clibrary_string_intelligent_less(row.first, row.second), row.less);
    EXPECT_EQ(os_clibrary_string_intelligent_greater(row.second, row.first), row.less);
    EXPECT_EQ(os_clibrary_string_intelligent_less(row.second, row.first), row.greater);
  }
}

TEST(OS_CLibrary, NaturalOrderAgreesWithTheLongFormIncludingOverflowingRuns) {
  // Runs beyond int follow what atoi yields on this C library.
  std::vector<std::string> names = {"n2147483648", "n4294967301", "n99999999999999999999", "n2147483647",
                                    "n18446744073709551615", "n-5", "n 7", "n\xff"};
  std::mt19937 random(7);
  const std::string alphabet = "0123456789ab.-";
  for (int i = 0; i < 400; ++i) {
    std::string name;
    for (int n = random() % 8; n > 0; --n) name += alphabet[random() % alphabet.size()];
    names.push_back(name);
  }
  for (const std::string& x : names)
    for (const std::string& y : names) {
      ASSERT_EQ(os_clibrary_string_intelligent_greater(x.c_str(), y.c_str()), referenceGreater(x.c_str(), y.c_str()))
          << x << " vs " << y;
      ASSERT_EQ(os_clibrary_string_intelligent_less(x.c_str(), y.c_str()), referenceGreater(y.c_str(), x.c_str()));
    }
}

TEST(OS_CLibrary, AsciiTestAndFormattedLength) {
  EXPECT_TRUE(os_clibrary_string_is_ascii("abc"));
  EXPECT_TRUE(os_clibrary_string_is_ascii(""));
  EXPECT_FALSE(os_clibrary_string_is_ascii("caf\xc3\xa9"));
  EXPECT_EQ(formattedLength("%d", 12345), 6);
  EXPECT_EQ(formattedLength(""), 1);
  EXPECT_EQ(formattedLength("%s-%s", "ab", "cde"), 7);
}
