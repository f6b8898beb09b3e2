#include <gtest/gtest.h>

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <ostrelled/OS_MemoryManager.h>

#include "Sanitizers.h"
#include "TestSupport.h"

TEST(OS_MemoryManager, LockCallsPassThroughAndLockAllKeepsTwoBits) {
  const long page = sysconf(_SC_PAGESIZE);
  void* memory = aligned_alloc(page, page);
  EXPECT_TRUE(os_memory_manager_mlock(memory, page) && os_memory_manager_munlock(memory, page));
  free(memory);
  EXPECT_TRUE(os_memory_manager_munlockall());
  if (OSTRELLED_TEST_UNDER_ASAN) GTEST_SKIP() << "the sanitizer runtime turns mlock and mlockall into no-ops";
  errno = 0;
  EXPECT_FALSE(os_memory_manager_mlockall(4));  // only unknown bits: mlockall(0), refused
  EXPECT_EQ(errno, EINVAL);
  if (geteuid() == 0) {  // in a child, so the test process is never pinned
    EXPECT_EQ(testsupport::runChild([] { return os_memory_manager_mlockall(1 | 2 | 8) ? 0 : 1; }), 0);
  }
}
