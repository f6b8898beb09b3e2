#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <ostrelled/OS_CLibrary.h>

#include "TempDirectory.h"

namespace {

struct NaturalRow {
  const char* first;
  const char* second;
  bool greater;
  bool less;
};

// The rules written out the long way (lengths first, atoi on the digit runs),
// as an independent oracle for the single-pass comparison.
bool referenceGreater(const char* x, const char* y) {
  const size_t maxCheck = std::min(strlen(x), strlen(y));
  size_t same = maxCheck, digits = 0;
  for (size_t i = 0; i < maxCheck; ++i) {
    if (x[i] != y[i]) {
      same = i;
      break;
    }
    digits = (x[i] >= '0' && x[i] <= '9') ? digits + 1 : 0;
  }
  const size_t at = same - digits;
  const signed char a = x[at], b = y[at];
  auto digit = [](signed char c) { return c >= '0' && c <= '9'; };
  if (a == 0) return false;
  if (b == 0) return true;
  if (digit(a)) return digit(b) && atoi(x + at) > atoi(y + at);
  return digit(b) || a > b;
}

int formattedLength(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const int first = os_clibrary_string_get_formatted_length(format, ap);
  const int again = os_clibrary_string_get_formatted_length(format, ap);  // ap must be untouched
  va_end(ap);
  return first == again ? first : -2;
}

}  // namespace

TEST(OS_CLibrary, NaturalOrderTableHoldsBothWays) {
  const NaturalRow rows[] = {
      {"file9", "file10", false, true},  {"file10", "file9", true, false}, {"a12b", "a13", false, true},
      {"a1x", "a12", false, true},       {"ver1.2", "ver1.10", false, true}, {"abc", "abcd", false, true},
      {"abc", "abc", false, false},      {"ab", "a1", true, false},        {"a-", "a1", true, false},
      {"B", "a", false, true},           {"file007", "file7", false, false}, {"a1b", "a01c", false, false},
      {"a1", "a1b", false, false},       {"", "", false, false},           {"", "x", false, true},
      {"\x80", "A", false, true},        {"\x80", "0", true, false},       {"x99", "x100", false, true},
  };
  for (const NaturalRow& row : rows) {
    SCOPED_TRACE(std::string(row.first) + " vs " + row.second);
    EXPECT_EQ(os_clibrary_string_intelligent_greater(row.first, row.second), row.greater);
    EXPECT_EQ(os_clibrary_string_intelligent_less(row.first, row.second), row.less);
    EXPECT_EQ(os_clibrary_string_intelligent_greater(row.second, row.first), row.less);
    EXPECT_EQ(os_clibrary_string_intelligent_less(row.second, row.first), row.greater);
  }
}

TEST(OS_CLibrary, NaturalOrderAgreesWithTheLongFormIncludingOverflowingRuns) {
  // Runs beyond int follow what atoi yields on this C library.
  std::vector<std::string> names = {"n2147483648", "n4294967301", "n99999999999999999999", "n18446744073709551615",
                                    "n2147483647", "n-5", "n 7", "n0x", "n\xff"};
  std::mt19937 random(7);
  const std::string alphabet = "0123456789ab.-_/";
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

TEST(OS_CLibrary, StringHelpers) {
  EXPECT_TRUE(os_clibrary_string_is_ascii("abc"));
  EXPECT_TRUE(os_clibrary_string_is_ascii(""));
  EXPECT_FALSE(os_clibrary_string_is_ascii("caf\xc3\xa9"));
  EXPECT_EQ(formattedLength("%d", 12345), 6);
  EXPECT_EQ(formattedLength(""), 1);
  EXPECT_EQ(formattedLength("%s-%s", "ab", "cde"), 7);
}

TEST(OS_CLibrary, FileWrappersForwardResultsAndErrno) {
  testsupport::TempDirectory dir;
  const std::string file = dir / "f";
  const int fd = os_clibrary_file_open(file.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(os_clibrary_file_write(fd, "hello", 5), 5);
  EXPECT_EQ(os_clibrary_file_seek(fd, 1, SEEK_SET), 1);
  char buffer[8] = {};
  EXPECT_EQ(os_clibrary_file_read(fd, buffer, sizeof buffer), 4);
  EXPECT_STREQ(buffer, "ello");
  EXPECT_EQ(os_clibrary_file_close(fd), 0);
  EXPECT_EQ(os_clibrary_file_access(file.c_str(), F_OK), 0);
  EXPECT_EQ(os_clibrary_file_unlink(file.c_str()), 0);

  errno = 0;
  EXPECT_EQ(os_clibrary_file_open(file.c_str(), O_RDONLY, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(os_clibrary_file_close(-1), -1);
  EXPECT_EQ(errno, EBADF);

  const int previous = os_clibrary_file_umask(027);
  EXPECT_EQ(os_clibrary_file_umask(previous), 027);
  EXPECT_EQ(os_clibrary_file_mkdir((dir / "d").c_str(), 0700), 0);
  EXPECT_EQ(os_clibrary_file_mkdir((dir / "d").c_str(), 0700), -1);
  EXPECT_EQ(errno, EEXIST);

  char cwd[4096];
  ASSERT_NE(os_clibrary_file_getcwd(cwd, sizeof cwd), nullptr);
  const std::string old = cwd;
  ASSERT_EQ(os_clibrary_file_chdir((dir / "d").c_str()), 0);
  EXPECT_EQ(std::string(os_clibrary_file_getcwd(cwd, sizeof cwd)), dir / "d");
  EXPECT_EQ(os_clibrary_file_getcwd(cwd, 2), nullptr);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(os_clibrary_file_chdir(old.c_str()), 0);
}
