#ifndef OSTRELLED_OS_THREAD_H
#define OSTRELLED_OS_THREAD_H

#include <pthread.h>
#include <stddef.h>

#include <ostrelled/OS.h>

/// @file
/// Threads, processor affinity, atomic counters, real-time scheduling and the
/// processor-latency request.

/// Body of a thread started by os_thread_create; its result is dropped.
typedef void* (*OS_THREAD_FUNCTION)(void*);

/// Start block handed to a new thread; freed by the thread after func returns.
typedef struct _OS_THREAD_DATA {
  void* lpParameter;        ///< The argument handed to func.
  OS_THREAD_FUNCTION func;  ///< The thread's body.
} OS_THREAD_DATA;

extern "C" {
/// Starts func(lpParameter) on a new thread and reports nothing, not even a failure. The
/// stack has at least 16384 bytes (0 means the default size); a null hHandle starts nothing.
OSTRELLED_EXPORT void os_thread_create(pthread_t* hHandle, OS_THREAD_FUNCTION func, void* lpParameter, RT_MODE mode,
                                       size_t uintStackSize);
/// pthread_join; the result is ignored.
OSTRELLED_EXPORT void os_thread_join(pthread_t hHandle, RT_MODE mode);
/// Pins hHandle to one processor and returns true even when pthread_setaffinity_np
/// fails (it reports errors by value, never -1): kept as is.
OSTRELLED_EXPORT bool os_thread_sched_set_thread_affinity(pthread_t hHandle, int iCpuIndex);
/// Pins the calling thread to one processor; false when the kernel refuses
/// (an index outside 0..1023 gives an empty set and is refused).
OSTRELLED_EXPORT bool os_thread_sched_set_affinity(int iCpuIndex);
/// Atomic increment; returns the new value.
OSTRELLED_EXPORT unsigned long os_thread_sync_fetch_add(volatile unsigned long* Addend);
/// Atomic decrement; returns the new value (0 means the count just reached zero).
OSTRELLED_EXPORT unsigned long os_thread_sync_fetch_sub(volatile unsigned long* Addend);
/// Stores new_var when *var equals compare_var; true when it did.
OSTRELLED_EXPORT bool os_thread_sync_compare_and_swap(volatile long* var, long compare_var, long new_var);
/// The same operation under a second name, for 64-bit integers.
OSTRELLED_EXPORT bool os_thread_sync_compare_and_swap_64(volatile long long* var, long long compare_var,
                                                         long long new_var);
/// Switches the calling process to SCHED_FIFO at iPriority; false when refused.
OSTRELLED_EXPORT bool os_thread_init_rt_schedule(int iPriority, RT_MODE mode);
/// Does nothing: the policy set by os_thread_init_rt_schedule stays. Kept empty on purpose.
OSTRELLED_EXPORT void os_thread_exit_rt_schedule(RT_MODE mode);
/// Holds the processor DMA latency at 0 while the descriptor it stores in
/// intLatencyTargetFd, despite the const, stays open. Only a zero-length write counts as
/// failure.
OSTRELLED_EXPORT bool os_thread_install_latency(const int& intLatencyTargetFd);
/// Closes a descriptor from os_thread_install_latency; negative values are ignored.
OSTRELLED_EXPORT void os_thread_uninstall_latency(int intLatencyTargetFd);
/// Sleeps the whole time even when signals arrive meanwhile.
OSTRELLED_EXPORT void os_thread_sleep_milliseconds(DWORD dwMilliseconds, RT_MODE mode);
/// sched_yield.
OSTRELLED_EXPORT void os_thread_yield(RT_MODE mode);
/// Full sequentially consistent memory fence.
OSTRELLED_EXPORT void os_thread_barrier();
/// pthread_self() as an integer.
OSTRELLED_EXPORT unsigned long os_thread_current();
}

/// The library's C++ helpers over its flat functions.
namespace OS {
/// Inline forwarders to the os_thread_* functions.
namespace Thread {
/// Atomic increment, as os_thread_sync_fetch_add: returns the new value.
inline unsigned long syncFetchAdd(volatile unsigned long* Addend) { return os_thread_sync_fetch_add(Addend); }
/// Atomic decrement, as os_thread_sync_fetch_sub: returns the new value.
inline unsigned long syncFetchSub(volatile unsigned long* Addend) { return os_thread_sync_fetch_sub(Addend); }
/// Starts a thread, as os_thread_create.
inline void create(pthread_t* hHandle, OS_THREAD_FUNCTION func, void* lpParameter, RT_MODE mode, size_t uintStackSize) {
  os_thread_create(hHandle, func, lpParameter, mode, uintStackSize);
}
/// Joins a thread, as os_thread_join.
inline void join(pthread_t hHandle, RT_MODE mode) { os_thread_join(hHandle, mode); }
}  // namespace Thread
}  // namespace OS

#endif
