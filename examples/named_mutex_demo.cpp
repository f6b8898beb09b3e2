// Several processes share one named mutex: each adds to a counter in shared
// memory N times with a deliberately slow read-modify-write, under the lock.
// The total comes out exact. Needs a running sync manager (ostrelled-syncd).

#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_ShareMemory.h>
#include <ostrelled/OS_Sync.h>

#include "ShowObjects.h"

namespace {

constexpr int kWorkers = 4;
constexpr int kRounds = 20000;

int work(const std::string& mutexName, volatile long* counter, int* attached) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, mutexName.c_str());
  __atomic_add_fetch(attached, 1, __ATOMIC_SEQ_CST);
  for (int round = 0; round < kRounds; ++round) {
    os_mutex_lock(mutex);
    long seen = *counter;
    if (round % 100 == 0) usleep(0);  // invites the other workers in, were the lock not there
    *counter = seen + 1;
    os_mutex_unlock(mutex);
  }
  os_mutex_destroy(mutex);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (!os_sync_environment_initialize(true)) {
    printf("named_mutex_demo: no sync manager is reachable; start ostrelled-syncd first\n");
    return 1;
  }
  std::string suffix = std::to_string(getpid());
  std::string mutexName = "named_mutex_demo_lock_" + suffix;
  std::string counterName = "named_mutex_demo_counter_" + suffix;
  sharememory_handle* shared = os_sharememory_create(counterName.c_str(), sizeof(long), USE_DEFAULT);
  if (shared == nullptr) {
    perror("named_mutex_demo: shared counter");
    return 1;
  }
  auto* counter = static_cast<volatile long*>(os_sharememory_get_buffer(shared));

  // This process holds the mutex too, so its block lives for the whole run.
  mutex_handle* mine = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, mutexName.c_str());
  printf("named_mutex_demo: %d processes add %d each under the named mutex \"%s\"\n", kWorkers, kRounds,
         mutexName.c_str());
  fflush(stdout);
  // The workers attach while this process holds the lock, and start once it lets go.
  auto* attached =
      static_cast<int*>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  os_mutex_lock(mine);
  for (int i = 0; i < kWorkers; ++i) {
    pid_t pid = fork();
    if (pid == 0) _exit(work(mutexName, counter, attached));
  }
  while (__atomic_load_n(attached, __ATOMIC_SEQ_CST) < kWorkers) usleep(100);
  showObjects(argc, argv);
  os_mutex_unlock(mine);
  int failed = 0;
  for (int i = 0; i < kWorkers; ++i) {
    int status = 0;
    if (wait(&status) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
  }
  os_mutex_destroy(mine);

  long expected = long{kWorkers} * kRounds;
  long total = *counter;
  printf("named_mutex_demo: total %ld, expected %ld: %s\n", total, expected, total == expected ? "exact" : "WRONG");
  os_sharememory_close(shared, true);
  os_sharememory_destroy(shared);
  return failed == 0 && total == expected ? 0 : 1;
}
