// A process that holds a named mutex is killed with SIGKILL; the next process
// to lock it finds it repaired and carries on, and so does everybody after.
// The same holds for the other named objects. The killed process never gave
// back its attachment, so the block outlives this program as a stale one:
// `ostrelled-ctl list` shows it and `ostrelled-ctl remove example_crash`
// removes it. Needs a running sync manager (ostrelled-syncd).

#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ostrelled/OS_Clock.h>
#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_Sync.h>

#include "ShowObjects.h"

int main(int argc, char** argv) {
  if (!os_sync_environment_ping(1000)) {
    puts("no sync manager answers: start ostrelled-syncd first");
    return 1;
  }
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, "example_crash");
  auto* holding =
      static_cast<int*>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  pid_t holder = fork();
  if (holder == 0) {
    mutex_handle* own = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, "example_crash");  // attached too
    os_mutex_lock(own);
    __atomic_store_n(holding, 1, __ATOMIC_SEQ_CST);
    pause();  // dies here, holding the mutex
  }
  while (__atomic_load_n(holding, __ATOMIC_SEQ_CST) == 0) usleep(100);
  kill(holder, SIGKILL);
  waitpid(holder, nullptr, 0);
  puts("the holder was killed while it held the mutex");
  showObjects(argc, argv);

  timespec deadline;
  os_clock_get_time(CLOCK_MONOTONIC, &deadline, USE_DEFAULT);
  deadline.tv_sec += 2;
  bool recovered = os_mutex_lock_timeout(mutex, deadline);  // repaired on the way in
  if (recovered) os_mutex_unlock(mutex);
  pid_t next = fork();
  if (next == 0) {
    os_mutex_lock(mutex);
    os_mutex_unlock(mutex);
    _exit(0);
  }
  int status = 1;
  waitpid(next, &status, 0);
  printf("the next locker %s, and the one after it %s\n", recovered ? "carried on" : "did not get it",
         status == 0 ? "too" : "did not");
  os_mutex_destroy(mutex);
  return recovered && status == 0 ? 0 : 1;
}
