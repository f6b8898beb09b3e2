#include <gtest/gtest.h>

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <ostrelled/OS_MemoryManager.h>

#include "TestSupport.h"

TEST(OS_MemoryManager, LockAndUnlockPassThrough) {
  const long page = sysconf(_SC_PAGESIZE);
  void* memory = aligned_alloc(page, page);
  ASSERT_NE(memory, nullptr);
  EXPECT_TRUE(os_memory_manager_mlock(memory, page));
  EXPECT_TRUE(os_memory_manager_munlock(memory, page));
  free(memory);
  errno = 0;
  EXPECT_FALSE(os_memory_manager_mlock(reinterpret_cast<void*>(page), 0xFFFF0000u));
  EXPECT_NE(errno, 0);
}

TEST(OS_MemoryManager, LockAllKeepsOnlyTheTwoKnownBits) {
  // Bit 4 alone maps to mlockall(0), which the system refuses.
  errno = 0;
  EXPECT_FALSE(os_memory_manager_mlockall(4));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(os_memory_manager_munlockall());
#if defined(__SANITIZE_ADDRESS__)
#define OSTRELLED_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OSTRELLED_UNDER_ASAN 1
#endif
#endif
#ifndef OSTRELLED_UNDER_ASAN
  // In a child, so the test process itself is never pinned; the sanitizer's
  // shadow memory is too large to lock, so that build skips it.
  if (geteuid() == 0) {
    EXPECT_EQ(testsupport::runChild([] { return os_memory_manager_mlockall(1 | 2 | 8) ? 0 : 1; }), 0);
  }
#endif
}
