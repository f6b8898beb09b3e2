// Threads, processor affinity, atomic counters, real-time scheduling and the
// processor-latency request.

#include <ostrelled/OS_Thread.h>

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "OS/internal/Private.h"

namespace internal = ostrelled::internal;

using internal::inMode;

namespace {

constexpr size_t kMinimumStackSize = 16384;
const char kLatencyDevice[] = "/dev/cpu_dma_latency";

// Runs the caller's entry function and frees the start block. The entry
// function's result is dropped: every thread exits with null.
void* os_thread_func(void* lpData) {
  OS_THREAD_DATA* data = static_cast<OS_THREAD_DATA*>(lpData);
  if (data->func != nullptr) data->func(data->lpParameter);
  delete data;
  return nullptr;
}

// One processor's bit, or an empty set for an index outside 0..1023 (negative
// indexes wrap to huge unsigned values and land there too).
cpu_set_t singleProcessorSet(int iCpuIndex) {
  cpu_set_t mask;
  CPU_ZERO(&mask);
  size_t index = static_cast<size_t>(iCpuIndex);
  if (index < CPU_SETSIZE) CPU_SET(index, &mask);
  return mask;
}

template <class T>
inline bool compareAndSwap(volatile T* var, T compare, T value) {
  return __atomic_compare_exchange_n(var, &compare, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

}  // namespace

void os_thread_create(pthread_t* hHandle, OS_THREAD_FUNCTION func, void* lpParameter, RT_MODE mode,
                      size_t uintStackSize) {
  if (hHandle == nullptr) return;
  OS_THREAD_DATA* data = new OS_THREAD_DATA{lpParameter, func};
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  if (uintStackSize == 0) pthread_attr_getstacksize(&attr, &uintStackSize);
  if (uintStackSize < kMinimumStackSize) uintStackSize = kMinimumStackSize;
  pthread_attr_setstacksize(&attr, uintStackSize);
  // Nothing is reported to the caller; a thread that never started only gets
  // its start block back so that it is not lost.
  if (inMode(mode, [&] { return pthread_create(hHandle, &attr, os_thread_func, data); }) != 0) delete data;
  pthread_attr_destroy(&attr);
}

void os_thread_join(pthread_t hHandle, RT_MODE mode) {
  inMode(mode, [&] { return pthread_join(hHandle, nullptr); });
}

bool os_thread_sched_set_thread_affinity(pthread_t hHandle, int iCpuIndex) {
  cpu_set_t mask = singleProcessorSet(iCpuIndex);
  // pthread_setaffinity_np returns an error number, never -1, so this is true
  // even when the call fails. Intended: callers depend on the result as is.
  return pthread_setaffinity_np(hHandle, sizeof(mask), &mask) != -1;
}

bool os_thread_sched_set_affinity(int iCpuIndex) {
  cpu_set_t mask = singleProcessorSet(iCpuIndex);
  return sched_setaffinity(0, sizeof(mask), &mask) != -1;
}

unsigned long os_thread_sync_fetch_add(volatile unsigned long* Addend) {
  return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

unsigned long os_thread_sync_fetch_sub(volatile unsigned long* Addend) {
  return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

bool os_thread_sync_compare_and_swap(volatile long* var, long compare_var, long new_var) {
  return compareAndSwap(var, compare_var, new_var);
}

// long and long long are both 64 bits here: the same operation under a second name.
bool os_thread_sync_compare_and_swap_64(volatile long long* var, long long compare_var, long long new_var) {
  return compareAndSwap(var, compare_var, new_var);
}

bool os_thread_init_rt_schedule(int iPriority, RT_MODE mode) {
  sched_param param{};
  param.sched_priority = iPriority;
  return inMode(mode, [&] { return sched_setscheduler(0, SCHED_FIFO, &param); }) != -1;
}

// Empty on purpose: the policy set by os_thread_init_rt_schedule is kept.
void os_thread_exit_rt_schedule(RT_MODE /*mode*/) {}

bool os_thread_install_latency(const int& intLatencyTargetFd) {
  // The caller's variable receives the descriptor although it is passed as const.
  int& targetFd = const_cast<int&>(intLatencyTargetFd);
  struct stat info;
  if (stat(kLatencyDevice, &info) != 0) {
    targetFd = -1;
    return false;
  }
  const int32_t latency = 0;
  targetFd = open(kLatencyDevice, O_RDWR);
  if (targetFd == -1) return false;
  // Only a zero-length write counts as failure, -1 included in success: intended.
  if (write(targetFd, &latency, sizeof(latency)) == 0) {
    int saved = errno;
    printf("error setting cpu_dma_latency to %d!: %s\n", latency, strerror(saved));
    close(targetFd);
    errno = saved;
    targetFd = -1;
    return false;
  }
  // The kernel holds the request only while the descriptor stays open.
  printf("/dev/cpu_dma_latency set to %dus\n", latency);
  return true;
}

void os_thread_uninstall_latency(int intLatencyTargetFd) {
  if (intLatencyTargetFd >= 0) close(intLatencyTargetFd);
}

void os_thread_sleep_milliseconds(DWORD dwMilliseconds, RT_MODE mode) {
  timespec ts = internal::relativeTime(std::chrono::milliseconds(dwMilliseconds));
  // nanosleep writes the time left back into ts, so each retry after a signal
  // sleeps only the remainder and the total is the full request.
  inMode(mode, [&ts] { return internal::retryOnEintr([&ts] { return nanosleep(&ts, &ts); }); });
}

void os_thread_yield(RT_MODE mode) {
  inMode(mode, [] { return sched_yield(); });
}

void os_thread_barrier() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }

unsigned long os_thread_current() { return static_cast<unsigned long>(pthread_self()); }
