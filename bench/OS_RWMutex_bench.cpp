// Uncontended reader lock and unlock: the library's reader/writer mutex against the
// same design written directly with pthread calls (two counters under a ref mutex, a
// condition and a resource-access mutex), and beside pthread_rwlock.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <ostrelled/OS_RWMutex.h>

namespace {

// The reader/writer steps by hand, with nothing around them: no handle, no null or
// attachment checks, no recovery from a dead owner.
class HandWrittenRW {
 public:
  HandWrittenRW() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_allow, &attr);
    pthread_condattr_destroy(&attr);
  }
  ~HandWrittenRW() {
    pthread_cond_destroy(&m_allow);
    pthread_mutex_destroy(&m_ref);
    pthread_mutex_destroy(&m_resource);
  }

  void lockRead() {
    pthread_mutex_lock(&m_ref);
    while (m_writeFlag == 1) pthread_cond_wait(&m_allow, &m_ref);
    if (++m_readCount == 1) pthread_mutex_lock(&m_resource);
    pthread_mutex_unlock(&m_ref);
  }

  void lockWrite() {
    pthread_mutex_lock(&m_ref);
    while (m_readCount != 0 || m_writeFlag != 0) pthread_cond_wait(&m_allow, &m_ref);
    m_writeFlag = 1;
    pthread_mutex_lock(&m_resource);
    pthread_mutex_unlock(&m_ref);
  }

  void unlock() {
    pthread_mutex_lock(&m_ref);
    bool readerLeft = false;
    if (m_readCount != 0) {
      --m_readCount;
      readerLeft = true;
    }
    if ((readerLeft && m_readCount > 0) || (!readerLeft && m_writeFlag != 1)) {
      pthread_mutex_unlock(&m_ref);
      return;
    }
    m_readCount = 0;
    m_writeFlag = 0;
    pthread_cond_broadcast(&m_allow);
    pthread_mutex_unlock(&m_resource);
    pthread_mutex_unlock(&m_ref);
  }

 private:
  unsigned int m_readCount = 0;
  unsigned int m_writeFlag = 0;
  pthread_mutex_t m_ref = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t m_resource = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t m_allow;
};

// One lock (reader or writer) and one unlock per iteration, on the library's handle.
// Templates, so that both sides call their lock directly.
template <class Lock>
void libraryLockUnlock(benchmark::State& state, Lock lock) {
  rw_mutex_handle* rw = os_rw_mutex_create(USE_STD, nullptr);
  for (auto _ : state) {
    lock(rw);
    os_rw_mutex_unlock(rw);
  }
  os_rw_mutex_destroy(rw);
}

// The same on the hand-written design.
template <class Lock>
void handWrittenLockUnlock(benchmark::State& state, Lock lock) {
  HandWrittenRW rw;
  for (auto _ : state) {
    lock(rw);
    rw.unlock();
  }
}

void BM_RWMutexReaderLockUnlock(benchmark::State& state) {
  libraryLockUnlock(state, [](rw_mutex_handle* rw) { os_rw_mutex_lock_rd(rw); });
}
void BM_HandWrittenRWReaderLockUnlock(benchmark::State& state) {
  handWrittenLockUnlock(state, [](HandWrittenRW& rw) { rw.lockRead(); });
}
void BM_RWMutexWriterLockUnlock(benchmark::State& state) {
  libraryLockUnlock(state, [](rw_mutex_handle* rw) { os_rw_mutex_lock_wr(rw); });
}
void BM_HandWrittenRWWriterLockUnlock(benchmark::State& state) {
  handWrittenLockUnlock(state, [](HandWrittenRW& rw) { rw.lockWrite(); });
}

void BM_RawRwlockReaderLockUnlock(benchmark::State& state) {
  pthread_rwlock_t rw = PTHREAD_RWLOCK_INITIALIZER;
  for (auto _ : state) {
    pthread_rwlock_rdlock(&rw);
    pthread_rwlock_unlock(&rw);
  }
  pthread_rwlock_destroy(&rw);
}

BENCHMARK(BM_RWMutexReaderLockUnlock);
BENCHMARK(BM_HandWrittenRWReaderLockUnlock);
BENCHMARK(BM_RWMutexWriterLockUnlock);
BENCHMARK(BM_HandWrittenRWWriterLockUnlock);
BENCHMARK(BM_RawRwlockReaderLockUnlock);

}  // namespace

BENCHMARK_MAIN();
