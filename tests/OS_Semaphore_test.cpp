// What sets the semaphore apart; the rest is in SyncContract_test.cpp.
#include <sys/sem.h>

#include "TestSupport.h"

namespace {

enum Kind { Anonymous, NamedPosix, NamedSysV };
const char* const kKindNames[] = {"Anonymous", "NamedPosix", "NamedSysV"};

class Semaphore : public HostedManager, public ::testing::WithParamInterface<Kind> {
 protected:
  semaphore_handle* make(int count) {
    return internal::createSemaphore(count, USE_STD, GetParam() == Anonymous ? nullptr : m_name.c_str(),
                                     GetParam() == NamedSysV);
  }
  std::string m_name = uniqueName("sem");
};
class NamedSemaphore : public Semaphore {};

std::string nameOf(const ::testing::TestParamInfo<Kind>& info) { return kKindNames[info.param]; }

}  // namespace

TEST_P(Semaphore, ValueCountsTheUnitsAvailable) {
  semaphore_handle* sem = make(3);
  EXPECT_EQ(os_semaphore_get_value(sem), 3);
  EXPECT_TRUE(os_semaphore_wait(sem) && os_semaphore_wait_timeout(sem, deadlineIn(-1000)));
  EXPECT_EQ(os_semaphore_get_value(sem), 1) << "after two waits";
  os_semaphore_release(sem);
  os_semaphore_release(sem);
  EXPECT_EQ(os_semaphore_get_value(sem), 3) << "after two releases";
  EXPECT_TRUE(os_semaphore_set_undo_track(sem, true));
  os_semaphore_destroy(sem);
  semaphore_handle* refused = os_semaphore_create(-1, USE_STD, nullptr);
  EXPECT_FALSE(os_semaphore_is_attached(refused)) << "a count the system refuses";
  EXPECT_EQ(os_semaphore_get_value(refused), -1);
  os_semaphore_destroy(refused);
  EXPECT_FALSE(os_semaphore_set_undo_track(nullptr, true));
}

// Sharing across processes is in the contract.
TEST_P(NamedSemaphore, TheFirstCountStandsAndTheLastDetachRemovesBlockAndSet) {
  semaphore_handle* sem = make(1);
  semaphore_handle* second = make(7);
  EXPECT_EQ(os_semaphore_get_value(second), 1) << "the second creator's count replaced the first's";
  int set = semget(ftok(internal::shmPath(m_name).c_str(), 0), 0, 0);  // the kernel's System V set, if any
  EXPECT_EQ(set != -1, GetParam() == NamedSysV);
  os_semaphore_destroy(second);
  EXPECT_TRUE(shmExists(m_name)) << "the block went while a handle remains";
  os_semaphore_destroy(sem);
  EXPECT_FALSE(shmExists(m_name)) << "the last detach left the block";
  EXPECT_EQ(semctl(set, 0, GETVAL), -1) << "the last detach left the System V set";
}

INSTANTIATE_TEST_SUITE_P(All, Semaphore, ::testing::Values(Anonymous, NamedPosix, NamedSysV), nameOf);
INSTANTIATE_TEST_SUITE_P(Named, NamedSemaphore, ::testing::Values(NamedPosix, NamedSysV), nameOf);
