#include <gtest/gtest.h>

#include <string.h>

#include <ostrelled/OS_UTF8Helper.h>

TEST(OS_UTF8Helper, BothDirectionsCopyUnchangedAndDifferOnNull) {
  const char* text = "gr\xc3\xbc\xc3\x9f dich";
  const DWORD needed = strlen(text) + 1;
  for (auto convert : {os_utf8helper_oem_from_utf8, os_utf8helper_oem_to_utf8}) {
    char buffer[32] = "#";
    DWORD size = 0;
    EXPECT_TRUE(convert(text, nullptr, size));
    EXPECT_EQ(size, needed);
    size = needed - 1;
    EXPECT_FALSE(convert(text, buffer, size));
    EXPECT_EQ(size, needed - 1);
    EXPECT_STREQ(buffer, "#");
    size = sizeof buffer;
    EXPECT_TRUE(convert(text, buffer, size));
    EXPECT_STREQ(buffer, text);
    EXPECT_EQ(size, needed);
  }
  char buffer[4] = "##";
  DWORD size = sizeof buffer;
  EXPECT_TRUE(os_utf8helper_oem_from_utf8(nullptr, buffer, size));
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(size, 1u);
  size = sizeof buffer;
  EXPECT_FALSE(os_utf8helper_oem_to_utf8(nullptr, buffer, size));
  EXPECT_EQ(size, sizeof buffer);
}
