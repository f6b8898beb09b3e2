// Uncontended cost of a semaphore release and wait against raw sem_post and sem_wait.

#include <benchmark/benchmark.h>
#include <semaphore.h>

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

BENCHMARK(BM_SemaphoreReleaseWait);
BENCHMARK(BM_RawSemPostWait);

}  // namespace

BENCHMARK_MAIN();
