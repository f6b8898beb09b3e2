#include <gtest/gtest.h>

#include <ostrelled/OS.h>

TEST(OS_Default, DefaultModeIsStandardAndCannotBeChanged) {
  EXPECT_EQ(get_default_rt_mode(), USE_STD);
  EXPECT_FALSE(set_default_rt_mode(USE_RT));
  EXPECT_EQ(get_default_rt_mode(), USE_STD);
}
