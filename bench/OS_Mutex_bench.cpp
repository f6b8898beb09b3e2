// Mutex costs beside their raw POSIX equivalents, in the same run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

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

BENCHMARK(BM_NamedMutexLockUnlock);
BENCHMARK(BM_NamedMutexTrylockUnlock);
BENCHMARK(BM_NamedMutexLockTimeoutUnlock);
BENCHMARK(BM_NamedRWMutexReaderLockUnlock);
BENCHMARK(BM_RawRobustSharedMutexLockUnlock);
BENCHMARK(BM_AnonymousMutexLockUnlock);
BENCHMARK(BM_RawPrivateMutexLockUnlock);
BENCHMARK(BM_NamedMutexLife)->UseRealTime();
BENCHMARK(BM_RawShmLife)->UseRealTime();
BENCHMARK(BM_BoostNamedMutexLife)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  // Uses the machine's manager when one runs; otherwise hosts one for the run.
  bool hosted = !os_sync_environment_initialize(true) && os_sync_environment_initialize(false);
  benchmark::RunSpecifiedBenchmarks();
  if (hosted) os_sync_environment_uninitialize();
  benchmark::Shutdown();
  return 0;
}
