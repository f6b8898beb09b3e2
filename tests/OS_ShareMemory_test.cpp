#include <gtest/gtest.h>
#include <string.h>
#include <sys/resource.h>

#include <ostrelled/OS_ShareMemory.h>

#include "SyncTestSupport.h"

using namespace testsupport;

static unsigned char* bytes(sharememory_handle* h) { return static_cast<unsigned char*>(os_sharememory_get_buffer(h)); }

// Run in a child that may not lock memory, so that every mapping has to do without.
// A handle that fails to come shows as the child's crash.
TEST(OS_ShareMemory, CreateClearsForEveryoneOpenJoinsAndOnlyCloseWithDestroyUnlinks) {
  std::string name = "/" + uniqueName("shm");  // a leading slash reaches /dev/shm as well
  EXPECT_EQ(runChild([&] {
              rlimit none{0, 0};
              if (setrlimit(RLIMIT_MEMLOCK, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0)) return 10;
              sharememory_handle* first = os_sharememory_create(name.c_str(), 1029, USE_DEFAULT);
              memset(bytes(first), 0xAB, 1029);
              // Creating over a live object resizes it and zeroes it, also in the first mapping.
              sharememory_handle* second = os_sharememory_create(name.c_str(), 4096 + 128, USE_STD);
              EXPECT_EQ(shmSize(name), 4096 + 128);
              EXPECT_EQ(bytes(first)[1028], 0);
              bytes(second)[4096 + 127] = 7;
              os_sharememory_close(first, false);
              sharememory_handle* opened = os_sharememory_open(name.c_str(), USE_DEFAULT);
              EXPECT_EQ(bytes(opened)[4096 + 127], 7) << "open does not clear";
              os_sharememory_close(opened, true);
              EXPECT_EQ(os_sharememory_open(name.c_str(), USE_DEFAULT), nullptr);
              for (sharememory_handle* handle : {first, second, opened}) os_sharememory_destroy(handle);
              return ::testing::Test::HasFailure() ? 1 : 0;
            }),
            0);
  EXPECT_FALSE(shmExists(name));
}

TEST(OS_ShareMemory, MissingOrInvalidNamesGiveNull) {
  errno = 0;
  EXPECT_EQ(os_sharememory_open(uniqueName("missing").c_str(), USE_DEFAULT), nullptr);
  EXPECT_EQ(errno, ENOENT) << "errno stays as shm_open set it";
  for (const char* bad : {"", "a/b"}) EXPECT_EQ(os_sharememory_create(bad, 16, USE_DEFAULT), nullptr) << bad;
  EXPECT_EQ(os_sharememory_get_buffer(nullptr), nullptr);
  os_sharememory_close(nullptr, true);
}
