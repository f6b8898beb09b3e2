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

bool allZero(const unsigned char* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (p[i] != 0) return false;
  return true;
}

}  // namespace

TEST(OS_ShareMemory, CreatingOverALiveObjectResizesItAndClearsItForEveryone) {
  std::string name = uniqueName("shm");
  sharememory_handle* first = os_sharememory_create(name.c_str(), 64, USE_DEFAULT);
  ASSERT_NE(first, nullptr);
  memset(bufferOf(first), 0xAB, 64);

  sharememory_handle* second = os_sharememory_create(name.c_str(), 4096 + 128, USE_STD);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(shmSize(name), 4096 + 128);
  EXPECT_TRUE(allZero(bufferOf(second), 4096 + 128));
  EXPECT_TRUE(allZero(bufferOf(first), 64)) << "the earlier mapping sees the clearing too";

  os_sharememory_close(second, true);
  os_sharememory_destroy(second);
  os_sharememory_destroy(first);
  EXPECT_FALSE(shmExists(name));
}

TEST(OS_ShareMemory, CloseKeepsTheNameAndDestroyingCloseUnlinksIt) {
  std::string name = "/" + uniqueName("shm");  // a leading slash reaches /dev/shm as well
  sharememory_handle* handle = os_sharememory_create(name.c_str(), 1029, USE_DEFAULT);
  ASSERT_NE(handle, nullptr);
  bufferOf(handle)[1028] = 7;

  os_sharememory_close(handle, false);
  EXPECT_EQ(os_sharememory_get_buffer(handle), MAP_FAILED);
  sharememory_handle* reopened = os_sharememory_open(name.c_str(), USE_DEFAULT);
  ASSERT_NE(reopened, nullptr);
  EXPECT_EQ(bufferOf(reopened)[1028], 7) << "open does not clear";
  EXPECT_EQ(shmSize(name), 1029);

  os_sharememory_close(reopened, true);
  EXPECT_EQ(os_sharememory_open(name.c_str(), USE_DEFAULT), nullptr);
  os_sharememory_close(reopened, true);  // closing a closed handle again is harmless
  os_sharememory_destroy(reopened);
  EXPECT_EQ(reopened, nullptr);
  os_sharememory_destroy(reopened);
  os_sharememory_destroy(handle);
  EXPECT_EQ(handle, nullptr);
}

TEST(OS_ShareMemory, MissingNamesAndNullHandlesGiveNull) {
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

TEST(OS_ShareMemory, ProcessesShareTheMapping) {
  std::string name = uniqueName("shared");
  sharememory_handle* handle = os_sharememory_create(name.c_str(), 256, USE_DEFAULT);
  ASSERT_NE(handle, nullptr);
  int code = testsupport::runChild([&] {
    sharememory_handle* child = os_sharememory_open(name.c_str(), USE_DEFAULT);
    if (child == nullptr) return 1;
    strcpy(static_cast<char*>(os_sharememory_get_buffer(child)), "from the child");
    os_sharememory_destroy(child);
    return 0;
  });
  EXPECT_EQ(code, 0);
  EXPECT_STREQ(reinterpret_cast<char*>(bufferOf(handle)), "from the child");
  os_sharememory_close(handle, true);
  os_sharememory_destroy(handle);
}

TEST(OS_ShareMemory, WorksUnlockedWhereLockingMemoryIsRefused) {
  std::string name = uniqueName("unlocked");
  int code = testsupport::runChild([&] {
    // Without privilege and with no lockable memory, MAP_LOCKED is refused.
    rlimit none{0, 0};
    if (setrlimit(RLIMIT_MEMLOCK, &none) != 0) return 10;
    if (geteuid() == 0 && setuid(65534) != 0) return 11;
    void* probe = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_LOCKED, -1, 0);
    if (probe != MAP_FAILED) return 12;
    sharememory_handle* created = os_sharememory_create(name.c_str(), 100, USE_DEFAULT);
    if (created == nullptr) return 1;
    sharememory_handle* opened = os_sharememory_open(name.c_str(), USE_DEFAULT);
    if (opened == nullptr) return 2;
    bufferOf(created)[99] = 5;
    int result = bufferOf(opened)[99] == 5 ? 0 : 3;
    os_sharememory_destroy(opened);
    os_sharememory_close(created, true);
    os_sharememory_destroy(created);
    return result;
  });
  EXPECT_EQ(code, 0);
  EXPECT_FALSE(shmExists(name));
}
