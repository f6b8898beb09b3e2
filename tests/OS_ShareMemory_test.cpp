#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <ostrelled/OS_ShareMemory.h>

#include "SyncTestSupport.h"
#include "TestSupport.h"

using synctest::shmExists;
using synctest::shmSize;
using synctest::uniqueName;

namespace {
unsigned char* bufferOf(sharememory_handle* handle) { return static_cast<unsigned char*>(os_sharememory_get_buffer(handle)); }
}  // namespace

TEST(OS_ShareMemory, CreateClearsForEveryoneAndOnlyDestroyingCloseUnlinks) {
  std::string name = "/" + uniqueName("shm");  // a leading slash reaches /dev/shm as well
  sharememory_handle* first = os_sharememory_create(name.c_str(), 1029, USE_DEFAULT);
  ASSERT_NE(first, nullptr);
  memset(bufferOf(first), 0xAB, 1029);

  // Creating over a live object resizes it and zeroes it, also in the first mapping.
  sharememory_handle* second = os_sharememory_create(name.c_str(), 4096 + 128, USE_STD);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(shmSize(name), 4096 + 128);
  EXPECT_EQ(bufferOf(first)[1028], 0);
  EXPECT_EQ(bufferOf(second)[4096 + 127], 0);
  bufferOf(second)[5] = 7;

  os_sharememory_close(first, false);
  EXPECT_EQ(os_sharememory_get_buffer(first), MAP_FAILED);
  sharememory_handle* reopened = os_sharememory_open(name.c_str(), USE_DEFAULT);
  ASSERT_NE(reopened, nullptr);
  EXPECT_EQ(bufferOf(reopened)[5], 7) << "open does not clear";

  os_sharememory_close(reopened, true);
  EXPECT_EQ(os_sharememory_open(name.c_str(), USE_DEFAULT), nullptr);
  for (sharememory_handle** handle : {&first, &second, &reopened}) {
    os_sharememory_destroy(*handle);
    EXPECT_EQ(*handle, nullptr);
  }
  os_sharememory_destroy(first);  // null: nothing
}

TEST(OS_ShareMemory, MissingOrInvalidNamesGiveNull) {
  errno = 0;
  EXPECT_EQ(os_sharememory_open(uniqueName("missing").c_str(), USE_DEFAULT), nullptr);
  EXPECT_EQ(errno, ENOENT) << "errno stays as shm_open set it";
  EXPECT_EQ(os_sharememory_open(nullptr, USE_DEFAULT), nullptr);
  EXPECT_EQ(os_sharememory_open("a/b", USE_DEFAULT), nullptr);
  EXPECT_EQ(os_sharememory_create("", 16, USE_DEFAULT), nullptr);
  EXPECT_EQ(os_sharememory_get_buffer(nullptr), nullptr);
  os_sharememory_close(nullptr, true);

  // A size the mapping refuses leaves the object behind; only its destroyer unlinks.
  std::string name = uniqueName("zero");
  EXPECT_EQ(os_sharememory_create(name.c_str(), 0, USE_DEFAULT), nullptr);
  EXPECT_TRUE(shmExists(name));
  shm_unlink(name.c_str());
}

TEST(OS_ShareMemory, WorksUnlockedWhereLockingMemoryIsRefused) {
  std::string name = uniqueName("unlocked");
  int code = testsupport::runChild([&] {
    // Without privilege and with no lockable memory, MAP_LOCKED is refused.
    rlimit none{0, 0};
    if (setrlimit(RLIMIT_MEMLOCK, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0)) return 10;
    if (mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_LOCKED, -1, 0) != MAP_FAILED) return 11;
    sharememory_handle* created = os_sharememory_create(name.c_str(), 100, USE_DEFAULT);
    sharememory_handle* opened = os_sharememory_open(name.c_str(), USE_DEFAULT);
    if (created == nullptr || opened == nullptr) return 1;
    bufferOf(created)[99] = 5;
    int result = bufferOf(opened)[99] == 5 ? 0 : 2;
    os_sharememory_close(created, true);
    return result;
  });
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(shmExists(name));
}
