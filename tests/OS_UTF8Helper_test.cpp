#include <ostrelled/OS_UTF8Helper.h>
#include "TestSupport.h"

TEST(OS_UTF8Helper, BothDirectionsCopyUnchangedAndDifferOnNull) {
  const char* text = "gr\xc3\xbc\xc3\x9f dich";
  DWORD size = 0;
  for (auto convert : {os_utf8helper_oem_from_utf8, os_utf8helper_oem_to_utf8}) {
    char buffer[32] = "#";
    EXPECT_TRUE(convert(text, nullptr, size) && convert(text, buffer, size));  // size query, then exactly that
    EXPECT_STREQ(buffer, text);
  }
  char buffer[4] = "#";
  EXPECT_TRUE(os_utf8helper_oem_from_utf8(nullptr, buffer, size) && size == 1);  // the empty text
  EXPECT_STREQ(buffer, "");
  EXPECT_FALSE(os_utf8helper_oem_to_utf8(nullptr, buffer, size));
}
