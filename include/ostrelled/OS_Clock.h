#ifndef OSTRELLED_OS_CLOCK_H
#define OSTRELLED_OS_CLOCK_H

#include <time.h>

#include <ostrelled/OS.h>

/// @file
/// Clock reads, sleeping and the time-value helpers. Every timed wait of the named objects
/// takes an absolute CLOCK_MONOTONIC deadline: read the clock, add the span, carry the
/// nanoseconds with os_clock_adjust_clock_time.

extern "C" {
/// clock_gettime(clock_id, tp): 0, or -1 with errno set.
/// @param mode selects the branch; both read the same clock.
OSTRELLED_EXPORT int os_clock_get_time(clockid_t clock_id, timespec* tp, RT_MODE mode);
/// Sleeps until the absolute CLOCK_MONOTONIC time *req, or less when a signal ends the sleep
/// early; that is intended.
/// @param req a deadline, not a duration: build it from os_clock_get_time(CLOCK_MONOTONIC).
OSTRELLED_EXPORT void os_clock_nano_sleep(const timespec* req, RT_MODE mode);
/// timeSpan = endTime - startTime field by field, not normalised (tv_nsec may be negative).
OSTRELLED_EXPORT void os_clock_get_clock_span(const timespec* startTime, const timespec* endTime, timespec* timeSpan);
/// Brings tv_nsec into 0..999999999 by carrying whole seconds; seconds may go negative.
OSTRELLED_EXPORT void os_clock_adjust_clock_time(timespec* tp);
/// Converts a wall-clock time to CLOCK_MONOTONIC (reads the wall clock first).
OSTRELLED_EXPORT void os_clock_realtime_to_monotonic(timespec* realTime, timespec* monotonicTime, RT_MODE mode);
/// Converts a CLOCK_MONOTONIC time to the wall clock (reads the wall clock first).
OSTRELLED_EXPORT void os_clock_monotonic_to_realtime(timespec* monotonicTime, timespec* realTime, RT_MODE mode);
}

#endif
