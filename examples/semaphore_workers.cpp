// A named counting semaphore of 2 units bounds how many of 6 worker processes
// work at once: each takes a unit before its work and gives it back after.
// A shared counter records the most workers ever inside together.
// Needs a running sync manager (ostrelled-syncd).

#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ostrelled/OS_Clock.h>
#include <ostrelled/OS_Semaphore.h>
#include <ostrelled/OS_Sync.h>

#include "ShowObjects.h"

namespace {

constexpr int kUnits = 2;
constexpr int kWorkers = 6;

struct Shared {
  int inside;
  int most;
  int go;  // the workers start together once it is set
};

int work(semaphore_handle* units, Shared* shared) {
  while (__atomic_load_n(&shared->go, __ATOMIC_SEQ_CST) == 0) usleep(100);
  for (int job = 0; job < 20; ++job) {
    if (!os_semaphore_wait(units)) return 1;
    int now = __atomic_add_fetch(&shared->inside, 1, __ATOMIC_SEQ_CST);
    for (int most = __atomic_load_n(&shared->most, __ATOMIC_SEQ_CST); now > most;)
      if (__atomic_compare_exchange_n(&shared->most, &most, now, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) break;
    usleep(500);  // the work
    __atomic_sub_fetch(&shared->inside, 1, __ATOMIC_SEQ_CST);
    os_semaphore_release(units);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (!os_sync_environment_ping(1000)) {
    puts("no sync manager answers: start ostrelled-syncd first");
    return 1;
  }
  semaphore_handle* units = os_semaphore_create(kUnits, USE_DEFAULT, "example_units");
  auto* shared =
      static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  pid_t workers[kWorkers];
  for (pid_t& pid : workers)
    if ((pid = fork()) == 0) _exit(work(units, shared));
  showObjects(argc, argv);
  __atomic_store_n(&shared->go, 1, __ATOMIC_SEQ_CST);
  int failed = 0, status = 0;
  for (pid_t pid : workers) failed += waitpid(pid, &status, 0) != pid || WEXITSTATUS(status) != 0;
  printf("%d workers, %d units: at most %d worked at once; %d units free at the end\n", kWorkers, kUnits, shared->most,
         os_semaphore_get_value(units));
  bool bounded = failed == 0 && shared->most <= kUnits && os_semaphore_get_value(units) == kUnits;
  os_semaphore_destroy(units);
  return bounded ? 0 : 1;
}
