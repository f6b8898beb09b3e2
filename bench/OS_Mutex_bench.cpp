// Mutex costs beside their raw POSIX equivalents, in the same run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <boost/interprocess/sync/named_mutex.hpp>

#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_RWMutex.h>
#include <ostrelled/OS_Sync.h>

namespace {

const std::string kNamePrefix = "ostrelled_bench_" + std::to_string(getpid());

void BM_NamedMutexLockUnlock(benchmark::State& state) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, (kNamePrefix + "_lock").c_str());
  for (auto _ : state) {
    os_mutex_lock(mutex);
    os_mutex_unlock(mutex);
  }
  os_mutex_destroy(mutex);
}

void BM_NamedMutexTrylockUnlock(benchmark::State& state) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, (kNamePrefix + "_try").c_str());
  for (auto _ : state) {
    benchmark::DoNotOptimize(os_mutex_trylock(mutex));
    os_mutex_unlock(mutex);
  }
  os_mutex_destroy(mutex);
}

// Uncontended: the deadline is never looked at.
void BM_NamedMutexLockTimeoutUnlock(benchmark::State& state) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, (kNamePrefix + "_timed").c_str());
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += 3600;
  for (auto _ : state) {
    benchmark::DoNotOptimize(os_mutex_lock_timeout(mutex, deadline));
    os_mutex_unlock(mutex);
  }
  os_mutex_destroy(mutex);
}

void BM_NamedRWMutexReaderLockUnlock(benchmark::State& state) {
  rw_mutex_handle* rw = os_rw_mutex_create(USE_DEFAULT, (kNamePrefix + "_rw").c_str());
  for (auto _ : state) {
    os_rw_mutex_lock_rd(rw);
    os_rw_mutex_unlock(rw);
  }
  os_rw_mutex_destroy(rw);
}

// The same layout as a named mutex block: a 4-byte count, then the mutex.
void BM_RawRobustSharedMutexLockUnlock(benchmark::State& state) {
  std::string name = kNamePrefix + "_raw";
  int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
  if (fd < 0 || ftruncate(fd, 44) != 0) return state.SkipWithError("shm_open");
  void* block = mmap(nullptr, 44, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  auto* mutex = reinterpret_cast<pthread_mutex_t*>(static_cast<char*>(block) + 4);
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  for (auto _ : state) {
    pthread_mutex_lock(mutex);
    pthread_mutex_unlock(mutex);
  }
  pthread_mutex_destroy(mutex);
  munmap(block, 44);
  shm_unlink(name.c_str());
}

void BM_AnonymousMutexLockUnlock(benchmark::State& state) {
  mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, nullptr);
  for (auto _ : state) {
    os_mutex_lock(mutex);
    os_mutex_unlock(mutex);
  }
  os_mutex_destroy(mutex);
}

void BM_RawPrivateMutexLockUnlock(benchmark::State& state) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  for (auto _ : state) {
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
  }
}

// Create (attach through the manager) and destroy (detach, unlink) per iteration.
void BM_NamedMutexLife(benchmark::State& state) {
  std::string name = kNamePrefix + "_life";
  for (auto _ : state) {
    mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
    os_mutex_destroy(mutex);
  }
  state.SetItemsProcessed(state.iterations());
}

// The system calls of one block's life, of the same size, without the protocol.
void BM_RawShmLife(benchmark::State& state) {
  std::string name = kNamePrefix + "_rawlife";
  for (auto _ : state) {
    int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
    if (ftruncate(fd, 44) != 0) state.SkipWithError("ftruncate");
    void* block = mmap(nullptr, 44, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    munmap(block, 44);
    shm_unlink(name.c_str());
  }
  state.SetItemsProcessed(state.iterations());
}

// The peer reference: a named mutex of Boost.Interprocess opened or created
// and removed per iteration, the nearest equivalent of a named object's life.
void BM_BoostNamedMutexLife(benchmark::State& state) {
  using boost::interprocess::named_mutex;
  std::string name = kNamePrefix + "_boost";
  for (auto _ : state) {
    { named_mutex mutex(boost::interprocess::open_or_create, name.c_str()); }
    named_mutex::remove(name.c_str());
  }
  state.SetItemsProcessed(state.iterations());
}

// N processes create and destroy named mutexes (a name each) at once for a
// second: the lives of all of them per second (items), and the smallest
// share one process got of them (1/N when they are served alike).
void BM_NamedMutexLivesInProcesses(benchmark::State& state) {
  const int processes = static_cast<int>(state.range(0));
  auto* shared = static_cast<long*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  long lives = 0, fewest = 0;
  for (auto _ : state) {
    __atomic_store_n(&shared[0], 0, __ATOMIC_SEQ_CST);  // 0: wait, 1: go, 2: stop
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
      shared[1 + i] = 0;
      pid_t child = fork();
      if (child == 0) {
        std::string name = kNamePrefix + "_lives_" + std::to_string(i);
        while (__atomic_load_n(&shared[0], __ATOMIC_SEQ_CST) == 0) sched_yield();
        while (__atomic_load_n(&shared[0], __ATOMIC_SEQ_CST) == 1) {
          mutex_handle* mutex = os_mutex_create(DEFAULT_MUTEX_ATTRIBUTE, USE_DEFAULT, name.c_str());
          os_mutex_destroy(mutex);
          __atomic_add_fetch(&shared[1 + i], 1, __ATOMIC_RELAXED);
        }
        _exit(0);
      }
      children.push_back(child);
    }
    __atomic_store_n(&shared[0], 1, __ATOMIC_SEQ_CST);
    usleep(1000000);
    __atomic_store_n(&shared[0], 2, __ATOMIC_SEQ_CST);
    for (pid_t child : children) waitpid(child, nullptr, 0);
    lives = 0;
    fewest = shared[1];
    for (int i = 0; i < processes; ++i) {
      lives += shared[1 + i];
      fewest = std::min(fewest, shared[1 + i]);
    }
    state.SetIterationTime(1.0);
  }
  state.counters["lives_per_second"] = static_cast<double>(lives);
  state.counters["smallest_share"] = lives > 0 ? static_cast<double>(fewest) / static_cast<double>(lives) : 0.0;
  munmap(shared, 4096);
}

BENCHMARK(BM_NamedMutexLockUnlock);
BENCHMARK(BM_NamedMutexTrylockUnlock);
BENCHMARK(BM_NamedMutexLockTimeoutUnlock);
BENCHMARK(BM_NamedRWMutexReaderLockUnlock);
BENCHMARK(BM_RawRobustSharedMutexLockUnlock);
BENCHMARK(BM_AnonymousMutexLockUnlock);
BENCHMARK(BM_RawPrivateMutexLockUnlock);

BENCHMARK(BM_RawShmLife)->UseRealTime();
BENCHMARK(BM_BoostNamedMutexLife)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  // Uses the machine's manager when one runs (the daemon: its figures are
  // named so); otherwise hosts one for the run.
  bool hosted = !os_sync_environment_initialize(true) && os_sync_environment_initialize(false);
  const char* suffix = hosted ? "" : "WithDaemon";
  benchmark::RegisterBenchmark((std::string("BM_NamedMutexLife") + suffix).c_str(), BM_NamedMutexLife)->UseRealTime();
  benchmark::RegisterBenchmark((std::string("BM_NamedMutexLivesInProcesses") + suffix).c_str(),
                               BM_NamedMutexLivesInProcesses)
      ->Arg(1)
      ->Arg(2)
      ->Arg(4)
      ->Arg(8)
      ->UseManualTime()
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
  benchmark::RunSpecifiedBenchmarks();
  if (hosted) os_sync_environment_uninitialize();
  benchmark::Shutdown();
  return 0;
}
