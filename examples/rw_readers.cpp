// Three reader processes hold one named reader/writer mutex at the same time;
// a writer that arrives meanwhile waits until all of them have left, and a
// timed writer gives up at its deadline while they are inside.
// Needs a running sync manager (ostrelled-syncd).

#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ostrelled/OS_Clock.h>
#include <ostrelled/OS_RWMutex.h>
#include <ostrelled/OS_Sync.h>

#include "ShowObjects.h"

namespace {

constexpr int kReaders = 3;

timespec millisFromNow(long millis) {
  timespec deadline;
  os_clock_get_time(CLOCK_MONOTONIC, &deadline, USE_DEFAULT);
  deadline.tv_nsec += millis * 1000000L;
  os_clock_adjust_clock_time(&deadline);  // carries the nanoseconds into seconds
  return deadline;
}

}  // namespace

int main(int argc, char** argv) {
  if (!os_sync_environment_ping(1000)) {
    puts("no sync manager answers: start ostrelled-syncd first");
    return 1;
  }
  rw_mutex_handle* lock = os_rw_mutex_create(USE_DEFAULT, "example_rw");
  // inside[0]: readers inside; inside[1]: set when they may leave.
  auto* inside =
      static_cast<int*>(mmap(nullptr, 2 * sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  pid_t readers[kReaders];
  for (pid_t& pid : readers)
    if ((pid = fork()) == 0) {
      os_rw_mutex_lock_rd(lock);
      __atomic_add_fetch(inside, 1, __ATOMIC_SEQ_CST);
      while (__atomic_load_n(inside, __ATOMIC_SEQ_CST) < kReaders) usleep(100);  // all three inside together
      while (__atomic_load_n(&inside[1], __ATOMIC_SEQ_CST) == 0) usleep(100);
      __atomic_sub_fetch(inside, 1, __ATOMIC_SEQ_CST);
      os_rw_mutex_unlock(lock);
      _exit(0);
    }
  while (__atomic_load_n(inside, __ATOMIC_SEQ_CST) < kReaders) usleep(100);
  showObjects(argc, argv);
  bool gaveUp = !os_rw_mutex_lock_wr_timeout(lock, millisFromNow(20));
  __atomic_store_n(&inside[1], 1, __ATOMIC_SEQ_CST);
  os_rw_mutex_lock_wr(lock);  // waits for the readers to leave
  int left = __atomic_load_n(inside, __ATOMIC_SEQ_CST);
  os_rw_mutex_unlock(lock);
  int status = 0;
  for (pid_t pid : readers) waitpid(pid, &status, 0);
  printf("%d readers inside at once; a timed writer %s; the writer got in with %d readers inside\n", kReaders,
         gaveUp ? "gave up" : "did not give up", left);
  os_rw_mutex_destroy(lock);
  return gaveUp && left == 0 ? 0 : 1;
}
