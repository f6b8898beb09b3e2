#include <gtest/gtest.h>

#include <errno.h>

#include <chrono>

#include <ostrelled/OS.h>
#include <ostrelled/OS_Clock.h>

#include "TestSupport.h"

namespace {

constexpr long kNanos = 1000000000L;

long long toNanos(const timespec& t) { return static_cast<long long>(t.tv_sec) * kNanos + t.tv_nsec; }

timespec now(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return t;
}

timespec after(clockid_t clock, long long nanos) {
  long long total = toNanos(now(clock)) + nanos;
  return timespec{static_cast<time_t>(total / kNanos), static_cast<long>(total % kNanos)};
}

// Every mode, including one outside the enumeration, takes the standard path.
const RT_MODE kAllModes[] = {USE_DEFAULT, USE_RT, USE_STD, static_cast<RT_MODE>(7)};

}  // namespace

TEST(OS_Default, DefaultModeIsStandardAndCannotBeChanged) {
  EXPECT_EQ(get_default_rt_mode(), USE_STD);
  EXPECT_FALSE(set_default_rt_mode(USE_RT));
  EXPECT_EQ(get_default_rt_mode(), USE_STD);
  EXPECT_EQ(xenomai::rtDefaultMode, USE_STD);
}

TEST(OS_Clock, AdjustCarriesAnyNumberOfSecondsEitherWay) {
  struct Row {
    timespec in, out;
  } rows[] = {
      {{5, -1}, {4, 999999999}},
      {{5, 2500000000L}, {7, 500000000}},
      {{0, -3000000000L}, {-3, 0}},
      {{1, 1000000000L}, {2, 0}},
      {{1, 999999999}, {1, 999999999}},
      {{0, 0}, {0, 0}},
      {{0, -1}, {-1, 999999999}},
      {{-2, 7 * kNanos + 5}, {5, 5}},
  };
  for (const Row& row : rows) {
    timespec t = row.in;
    os_clock_adjust_clock_time(&t);
    EXPECT_EQ(t.tv_sec, row.out.tv_sec) << row.in.tv_sec << " s " << row.in.tv_nsec << " ns";
    EXPECT_EQ(t.tv_nsec, row.out.tv_nsec) << row.in.tv_sec << " s " << row.in.tv_nsec << " ns";
  }
}

TEST(OS_Clock, SpanIsFieldwiseAndLeftUnnormalised) {
  timespec start{1, 900000000}, end{2, 100000000}, span{};
  os_clock_get_clock_span(&start, &end, &span);
  EXPECT_EQ(span.tv_sec, 1);
  EXPECT_EQ(span.tv_nsec, -800000000);
  os_clock_get_clock_span(&end, &start, &span);
  EXPECT_EQ(span.tv_sec, -1);
  EXPECT_EQ(span.tv_nsec, 800000000);
}

TEST(OS_Clock, GetTimeReadsTheNamedClockInEveryMode) {
  for (RT_MODE mode : kAllModes) {
    for (clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
      timespec before = now(clock), got{-1, -1};
      ASSERT_EQ(os_clock_get_time(clock, &got, mode), 0) << mode;
      EXPECT_GE(toNanos(got), toNanos(before));
      EXPECT_LT(toNanos(got) - toNanos(before), 2LL * kNanos);
    }
  }
  timespec untouched{};
  errno = 0;
  EXPECT_EQ(os_clock_get_time(static_cast<clockid_t>(12345), &untouched, USE_STD), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(OS_Clock, ConversionsRoundTripAndMatchTheOtherClock) {
  const long long slack = 50000000;  // 50 ms for the reads of a loaded machine
  for (RT_MODE mode : kAllModes) {
    timespec monotonic = now(CLOCK_MONOTONIC), wall{}, back{};
    os_clock_monotonic_to_realtime(&monotonic, &wall, mode);
    EXPECT_NEAR(static_cast<double>(toNanos(wall)), static_cast<double>(toNanos(now(CLOCK_REALTIME))), slack);
    os_clock_realtime_to_monotonic(&wall, &back, mode);
    EXPECT_NEAR(static_cast<double>(toNanos(back)), static_cast<double>(toNanos(monotonic)), slack);
    EXPECT_GE(back.tv_nsec, 0);
    EXPECT_LE(back.tv_nsec, kNanos - 1);

    // A time an hour ahead keeps its distance on the other clock.
    timespec ahead = after(CLOCK_REALTIME, 3600LL * kNanos), aheadMonotonic{};
    os_clock_realtime_to_monotonic(&ahead, &aheadMonotonic, mode);
    EXPECT_NEAR(static_cast<double>(toNanos(aheadMonotonic) - toNanos(now(CLOCK_MONOTONIC))),
                3600.0 * kNanos, slack);
  }
}

TEST(OS_Clock, NanoSleepWaitsForAnAbsoluteMonotonicDeadline) {
  timespec past = after(CLOCK_MONOTONIC, -kNanos);
  auto start = std::chrono::steady_clock::now();
  os_clock_nano_sleep(&past, USE_DEFAULT);
  EXPECT_LT(testsupport::secondsSince(start), 0.5);

  for (RT_MODE mode : kAllModes) {
    timespec deadline = after(CLOCK_MONOTONIC, 30000000);
    os_clock_nano_sleep(&deadline, mode);
    EXPECT_GE(toNanos(now(CLOCK_MONOTONIC)), toNanos(deadline)) << mode;
  }
}
