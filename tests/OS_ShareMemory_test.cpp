#include <sys/resource.h>

#include "TestSupport.h"

// In a child that may not lock memory; a handle that fails to come shows as its crash.
TEST(OS_ShareMemory, CreateClearsTheObjectForEveryone) {
  std::string name = "/" + uniqueName("shm");  // a leading slash reaches /dev/shm as well
  EXPECT_EQ(runChild([&] {
              rlimit none{0, 0};
              if (setrlimit(RLIMIT_MEMLOCK, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0)) return 10;
              sharememory_handle* first = os_sharememory_create(name.c_str(), 1029, USE_DEFAULT);
              memset(bytesOf(first), 0xAB, 1029);
              // Creating over a live object resizes it and zeroes it, also in the first mapping.
              sharememory_handle* second = os_sharememory_create(name.c_str(), 4096 + 128, USE_STD);
              EXPECT_EQ(shmSize(name), 4096 + 128);
              EXPECT_EQ(bytesOf(first)[1028], 0);
              bytesOf(second)[4096 + 127] = 7;
              os_sharememory_close(first, false);
              sharememory_handle* opened = os_sharememory_open(name.c_str(), USE_DEFAULT);
              EXPECT_EQ(bytesOf(opened)[4096 + 127], 7) << "open does not clear";
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

// body's checks in a child with its own /dev/shm of 128 KiB; skipped where the machine refuses that.
static void onSmallShm(const std::function<void()>& body) {
  const int result = runChild([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=128k") != 0)
      return 77;
    body();
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  if (result == 77) GTEST_SKIP() << "a private mount namespace with a small tmpfs is not permitted here";
  EXPECT_EQ(result, 0) << "1: a check failed in the child (above); 128 + 7: it was killed by SIGBUS";
}

TEST(OS_ShareMemory, AFullFileSystemRefusesABlockWithEnospcInsteadOfABusError) {
  onSmallShm([] {
    std::string name = uniqueName("big");
    errno = 0;
    EXPECT_EQ(os_sharememory_create(name.c_str(), 4u << 20, USE_STD), nullptr);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(shmExists(name)) << "a block that could not be backed is not left behind";
    sharememory_handle* small = os_sharememory_create(name.c_str(), 16384, USE_STD);
    EXPECT_NE(small, nullptr);
    os_sharememory_close(small, true);
    os_sharememory_destroy(small);
  });
}

TEST(OS_ShareMemory, TheManagerOutlivesAFullFileSystem) {
  onSmallShm([] {
    ASSERT_TRUE(os_sync_environment_initialize(false));
    static char page[4096];  // every free block of /dev/shm into one file
    for (FILE* filler = fopen("/dev/shm/filler", "w"); filler != nullptr;)
      if (fwrite(page, 1, sizeof page, filler) != sizeof page || fflush(filler) != 0)
        filler = (fclose(filler), nullptr);
    std::string name = uniqueName("full");
    EXPECT_FALSE(attaches(name)) << "attached with /dev/shm full";
    unlink("/dev/shm/filler");
    EXPECT_TRUE(attaches(name)) << "not attached once /dev/shm had room again";
    os_sync_environment_uninitialize();
  });
}
