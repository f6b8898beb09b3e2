// Uncontended costs: a semaphore release and wait against raw sem_post and
// sem_wait, and a reader lock and unlock beside pthread_rwlock.

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <semaphore.h>

#include <ostrelled/OS_RWMutex.h>
#include <ostrelled/OS_Semaphore.h>

namespace {

void BM_SemaphoreReleaseWait(benchmark::State& state) {
  semaphore_handle* sem = os_semaphore_create(0, USE_STD, nullptr);
  for (auto _ : state) {
    os_semaphore_release(sem);
    os_semaphore_wait(sem);
  }
  os_semaphore_destroy(sem);
}

void BM_RawSemPostWait(benchmark::State& state) {
  sem_t sem;
  sem_init(&sem, 0, 0);
  for (auto _ : state) {
    sem_post(&sem);
    sem_wait(&sem);
  }
  sem_destroy(&sem);
}

void BM_RWMutexReaderLockUnlock(benchmark::State& state) {
  rw_mutex_handle* rw = os_rw_mutex_create(USE_STD, nullptr);
  for (auto _ : state) {
    os_rw_mutex_lock_rd(rw);
    os_rw_mutex_unlock(rw);
  }
  os_rw_mutex_destroy(rw);
}

void BM_RawRwlockReaderLockUnlock(benchmark::State& state) {
  pthread_rwlock_t rw = PTHREAD_RWLOCK_INITIALIZER;
  for (auto _ : state) {
    pthread_rwlock_rdlock(&rw);
    pthread_rwlock_unlock(&rw);
  }
  pthread_rwlock_destroy(&rw);
}

// Interleaved and repeated, so that a change of machine load shows in both.
BENCHMARK(BM_SemaphoreReleaseWait)->Repetitions(5);
BENCHMARK(BM_RawSemPostWait)->Repetitions(5);
BENCHMARK(BM_RWMutexReaderLockUnlock)->Repetitions(3);
BENCHMARK(BM_RawRwlockReaderLockUnlock)->Repetitions(3);

}  // namespace

BENCHMARK_MAIN();
