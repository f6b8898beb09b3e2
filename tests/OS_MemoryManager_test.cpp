#include "TestSupport.h"

TEST(OS_MemoryManager, LockAllKeepsOnlyItsTwoFlags) {
  char memory[64];
  EXPECT_TRUE(os_memory_manager_mlock(memory, sizeof memory) && os_memory_manager_munlock(memory, sizeof memory));
  if (mlockall(0) == 0) GTEST_SKIP() << "mlockall is a no-op here (the sanitizer runtime)";
  errno = 0;
  EXPECT_FALSE(os_memory_manager_mlockall(4));  // no known bit left: mlockall(0), refused
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(geteuid() != 0 || (os_memory_manager_mlockall(1 | 2 | 8) && os_memory_manager_munlockall()));
}
