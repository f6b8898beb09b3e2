#ifndef OSTRELLED_SRC_OS_INTERNAL_DEADLINE_H
#define OSTRELLED_SRC_OS_INTERNAL_DEADLINE_H

// The one time type of the private layer. A Deadline is an absolute
// CLOCK_MONOTONIC time in normal form, made in one of three ways (never, a span
// from now, a caller's absolute time) and normalised right there, so no wait
// downstream meets an out-of-range tv_nsec. Spans are std::chrono::nanoseconds;
// the wall clock never decides how long anything waits. pollUntil is the one
// loop that looks again after a step. Header-only: the timed paths inline it.

#include <time.h>

#include <chrono>
#include <limits>

#include <ostrelled/OS.h>
#include <ostrelled/OS_Clock.h>

namespace ostrelled {
namespace internal {

using Span = std::chrono::nanoseconds;

constexpr long kNanosPerSecond = 1000000000L;

// A span as the relative timespec of nanosleep, ppoll, semtimedop and
// aio_suspend, split by truncation: a negative span gives negative fields,
// which those calls refuse with EINVAL, as select() refuses a negative timeval.
constexpr timespec relativeTime(Span span) {
  return timespec{static_cast<time_t>(span.count() / kNanosPerSecond),
                  static_cast<long>(span.count() % kNanosPerSecond)};
}

class Deadline {
 public:
  // No deadline: a wait lasts until it is answered. A constant, so that an
  // untimed wait builds nothing on its fast path.
  static const Deadline& never();

  // span from now; a span of zero or less has passed already, so a wait only tries.
  static Deadline after(Span span, RT_MODE mode = USE_STD) {
    timespec now = clockNow(mode);
    timespec more = relativeTime(span);
    return Deadline(timespec{now.tv_sec + more.tv_sec, now.tv_nsec + more.tv_nsec});
  }

  // A caller's absolute CLOCK_MONOTONIC time. An out-of-range tv_nsec carries
  // into the seconds (os_clock_adjust_clock_time) instead of failing the wait.
  static Deadline at(const timespec& when) { return Deadline(when); }

  bool isNever() const { return m_time.tv_sec == kNeverSeconds; }

  // Time left: zero or less once passed, Span::max() for never (and for a
  // time too far off for a span to hold).
  Span left(RT_MODE mode = USE_STD) const {
    if (isNever()) return Span::max();
    timespec now = clockNow(mode);
    // Monotonic seconds are small, so these bounds cannot overflow.
    if (m_time.tv_sec >= now.tv_sec + kSpanSeconds) return Span::max();
    if (m_time.tv_sec <= now.tv_sec - kSpanSeconds) return Span::min();
    return Span((m_time.tv_sec - now.tv_sec) * kNanosPerSecond + (m_time.tv_nsec - now.tv_nsec));
  }

  bool passed(RT_MODE mode = USE_STD) const { return left(mode) <= Span::zero(); }

  // The time left for calls that take a relative span (semtimedop, ppoll):
  // zero once passed, so that a late call still takes what is there.
  timespec leftTime(RT_MODE mode = USE_STD) const {
    Span rest = left(mode);
    return relativeTime(rest > Span::zero() ? rest : Span::zero());
  }

  // The absolute time for calls on CLOCK_MONOTONIC (sem_clockwait,
  // pthread_mutex_clocklock, clock_nanosleep); meaningless for never().
  const timespec& time() const { return m_time; }
  // As time(), or null for never(): the "no time-out" of futex and the like.
  const timespec* timeOrNull() const { return isNever() ? nullptr : &m_time; }

  bool operator<(const Deadline& other) const {
    return m_time.tv_sec < other.m_time.tv_sec ||
           (m_time.tv_sec == other.m_time.tv_sec && m_time.tv_nsec < other.m_time.tv_nsec);
  }
  Deadline earlier(const Deadline& other) const { return other < *this ? other : *this; }

 private:
  static constexpr time_t kNeverSeconds = std::numeric_limits<time_t>::max();
  struct NeverTag {};
  static constexpr time_t kSpanSeconds = std::numeric_limits<Span::rep>::max() / kNanosPerSecond - 1;

  static timespec clockNow(RT_MODE mode) {
    timespec now{};
    os_clock_get_time(CLOCK_MONOTONIC, &now, mode);
    return now;
  }

  // The one place a time is normalised; the check keeps the usual case to two
  // comparisons. The fields are copied one by one, the seconds passed through
  // a register the optimiser cannot see into: merged into one wide load, the
  // copy of a caller's time (stored just before as two halves from its
  // registers) would stall the processor for several nanoseconds.
  explicit Deadline(timespec time) {
    time_t seconds = time.tv_sec;
    __asm__("" : "+r"(seconds));
    m_time.tv_sec = seconds;
    m_time.tv_nsec = time.tv_nsec;
    if (__builtin_expect(m_time.tv_nsec < 0 || m_time.tv_nsec >= kNanosPerSecond, 0))
      os_clock_adjust_clock_time(&m_time);
  }

  constexpr explicit Deadline(NeverTag) : m_time{kNeverSeconds, 0} {}

  timespec m_time;
};

inline const Deadline& Deadline::never() {
  static constexpr Deadline kNever{NeverTag{}};
  return kNever;
}

// Sleeps until the deadline or a signal, whichever comes first.
inline void sleepUntil(const Deadline& deadline) {
  clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline.time(), nullptr);
}

// Asks done() until it answers true (then true) or the deadline passes (then
// false); done() is asked before each look at the clock, so a passed deadline
// still gets one ask. Between asks it sleeps `step`, never past the deadline; a
// zero step spins with the processor's pause instead, for answers expected
// within microseconds.
template <class Done>
bool pollUntil(const Deadline& deadline, Span step, Done done) {
  for (;;) {
    if (done()) return true;
    if (deadline.passed()) return false;
    if (step > Span::zero())
      sleepUntil(Deadline::after(step).earlier(deadline));
    else
      __builtin_ia32_pause();
  }
}

}  // namespace internal
}  // namespace ostrelled

#endif
