// Clock reads, sleeping and the time-value helpers.

#include <ostrelled/OS_Clock.h>

#include "OS/internal/Private.h"

namespace internal = ostrelled::internal;

using internal::inMode;
using internal::kNanosPerSecond;

namespace {

// a + b - c field by field, then normalised: the offset between the two clocks
// applied to a time.
void shiftAndNormalise(const timespec& a, const timespec& b, const timespec& c, timespec* out) {
  out->tv_sec = a.tv_sec + b.tv_sec - c.tv_sec;
  out->tv_nsec = a.tv_nsec + b.tv_nsec - c.tv_nsec;
  os_clock_adjust_clock_time(out);
}

// Reads the wall clock first and the monotonic clock second; the two
// conversions depend on that order. Failed reads are not detected.
void readBothClocks(timespec* realNow, timespec* monotonicNow, RT_MODE mode) {
  os_clock_get_time(CLOCK_REALTIME, realNow, mode);
  os_clock_get_time(CLOCK_MONOTONIC, monotonicNow, mode);
}

}  // namespace

int os_clock_get_time(clockid_t clock_id, timespec* tp, RT_MODE mode) {
  return inMode(mode, [&] { return clock_gettime(clock_id, tp); });
}

void os_clock_nano_sleep(const timespec* req, RT_MODE mode) {
  // clock_nanosleep reports EINTR as its result, never -1, so the retry never
  // repeats it: a signal ends the sleep early, which callers rely on.
  inMode(mode, [req] {
    return internal::retryOnEintr([req] { return clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, req, nullptr); });
  });
}

void os_clock_get_clock_span(const timespec* startTime, const timespec* endTime, timespec* timeSpan) {
  timeSpan->tv_sec = endTime->tv_sec - startTime->tv_sec;
  timeSpan->tv_nsec = endTime->tv_nsec - startTime->tv_nsec;
}

void os_clock_adjust_clock_time(timespec* tp) {
  // Floor division: the result of carrying one second at a time, either way,
  // however far the nanoseconds have strayed, in constant time.
  time_t carry = tp->tv_nsec / kNanosPerSecond;
  long nanos = tp->tv_nsec % kNanosPerSecond;
  if (nanos < 0) {
    nanos += kNanosPerSecond;
    --carry;
  }
  tp->tv_sec += carry;
  tp->tv_nsec = nanos;
}

void os_clock_realtime_to_monotonic(timespec* realTime, timespec* monotonicTime, RT_MODE mode) {
  timespec realNow, monotonicNow;
  readBothClocks(&realNow, &monotonicNow, mode);
  shiftAndNormalise(monotonicNow, *realTime, realNow, monotonicTime);
}

void os_clock_monotonic_to_realtime(timespec* monotonicTime, timespec* realTime, RT_MODE mode) {
  timespec realNow, monotonicNow;
  readBothClocks(&realNow, &monotonicNow, mode);
  shiftAndNormalise(realNow, *monotonicTime, monotonicNow, realTime);
}
