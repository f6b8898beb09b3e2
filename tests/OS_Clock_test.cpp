#include <gtest/gtest.h>

#include <chrono>

#include <ostrelled/OS.h>
#include <ostrelled/OS_Clock.h>

#include "TestSupport.h"

namespace {

constexpr long kNanos = 1000000000L;

long long toNanos(const timespec& t) { return static_cast<long long>(t.tv_sec) * kNanos + t.tv_nsec; }

timespec monotonicAfter(long long nanos) {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  long long total = toNanos(t) + nanos;
  return timespec{static_cast<time_t>(total / kNanos), static_cast<long>(total % kNanos)};
}

}  // namespace

TEST(OS_Default, DefaultModeIsStandardAndCannotBeChanged) {
  EXPECT_EQ(get_default_rt_mode(), USE_STD);
  EXPECT_FALSE(set_default_rt_mode(USE_RT));
  EXPECT_EQ(get_default_rt_mode(), USE_STD);
}

TEST(OS_Clock, AdjustCarriesAnyNumberOfSecondsEitherWay) {
  struct Row {
    timespec in, out;
  } rows[] = {
      {{5, -1}, {4, 999999999}},          {{5, 2500000000L}, {7, 500000000}},
      {{0, -3000000000L}, {-3, 0}},       {{1, 1000000000L}, {2, 0}},
      {{1, 999999999}, {1, 999999999}},   {{0, -1}, {-1, 999999999}},
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
}

TEST(OS_Clock, ConversionsRoundTripInEveryMode) {
  // 3 names no enumerator and must take the standard path like the others.
  for (RT_MODE mode : {USE_DEFAULT, USE_RT, USE_STD, static_cast<RT_MODE>(3)}) {
    timespec monotonic{}, wall{}, wallNow{}, back{};
    ASSERT_EQ(os_clock_get_time(CLOCK_MONOTONIC, &monotonic, mode), 0);
    os_clock_monotonic_to_realtime(&monotonic, &wall, mode);
    clock_gettime(CLOCK_REALTIME, &wallNow);
    EXPECT_NEAR(double(toNanos(wall)), double(toNanos(wallNow)), 50e6);
    os_clock_realtime_to_monotonic(&wall, &back, mode);
    EXPECT_NEAR(double(toNanos(back)), double(toNanos(monotonic)), 50e6);
    EXPECT_TRUE(back.tv_nsec >= 0 && back.tv_nsec < kNanos);
  }
  timespec unused{};
  EXPECT_EQ(os_clock_get_time(static_cast<clockid_t>(12345), &unused, USE_STD), -1);
}

TEST(OS_Clock, NanoSleepWaitsForAnAbsoluteMonotonicDeadline) {
  timespec past = monotonicAfter(-kNanos);
  auto start = std::chrono::steady_clock::now();
  os_clock_nano_sleep(&past, USE_DEFAULT);
  EXPECT_LT(testsupport::secondsSince(start), 0.5);

  timespec deadline = monotonicAfter(30000000), woke{};
  os_clock_nano_sleep(&deadline, USE_RT);
  clock_gettime(CLOCK_MONOTONIC, &woke);
  EXPECT_GE(toNanos(woke), toNanos(deadline));
}
