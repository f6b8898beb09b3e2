#include <gtest/gtest.h>

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <ostrelled/OS_MemoryManager.h>

#include "Sanitizers.h"
#include "TestSupport.h"

TEST(OS_MemoryManager, LockAndUnlockPassThrough) {
  const long page = sysconf(_SC_PAGESIZE);
  void* memory = aligned_alloc(page, page);
  ASSERT_NE(memory, nullptr);
  EXPECT_TRUE(os_memory_manager_mlock(memory, page));
  EXPECT_TRUE(os_memory_manager_munlock(memory, page));
  free(memory);
  EXPECT_TRUE(os_memory_manager_munlockall());
  if (OSTRELLED_TEST_UNDER_ASAN) GTEST_SKIP() << "the sanitizer runtime turns mlock and mlockall into no-ops";
  errno = 0;
  EXPECT_FALSE(os_memory_manager_mlock(reinterpret_cast<void*>(page), 0xFFFF0000u));
  EXPECT_NE(errno, 0);
}

TEST(OS_MemoryManager, LockAllKeepsOnlyTheTwoKnownBits) {
  if (OSTRELLED_TEST_UNDER_ASAN) GTEST_SKIP() << "the sanitizer runtime turns mlockall into a no-op";
  // Bit 4 alone maps to mlockall(0), which the system refuses.
  errno = 0;
  EXPECT_FALSE(os_memory_manager_mlockall(4));
  EXPECT_EQ(errno, EINVAL);
  // In a child, so the test process itself is never pinned.
  if (geteuid() == 0) {
    EXPECT_EQ(testsupport::runChild([] { return os_memory_manager_mlockall(1 | 2 | 8) ? 0 : 1; }), 0);
  }
}
