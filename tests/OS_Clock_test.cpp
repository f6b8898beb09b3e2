#include "TestSupport.h"

// The early end of os_clock_nano_sleep on a signal is checked in OS_Thread_test.cpp.

static long long toNanos(const timespec& t) { return t.tv_sec * 1000000000LL + t.tv_nsec; }

TEST(OS_Clock, AdjustNormalisesAnySpan) {
  timespec start{1, 900000000}, end{2, 100000000}, span{};
  os_clock_get_clock_span(&start, &end, &span);
  EXPECT_EQ(std::make_pair(span.tv_sec, span.tv_nsec), std::make_pair(time_t(1), -800000000L));

  const std::pair<timespec, timespec> inAndOut[] = {
      {{5, -1}, {4, 999999999}},
      {{5, 2500000000L}, {7, 500000000}},
      {{0, -3000000000L}, {-3, 0}},
      {{1, 1000000000L}, {2, 0}},
      {{1, 999999999}, {1, 999999999}},
      {{0, -1}, {-1, 999999999}},
      // Billions of seconds carried at once, in no more time than one.
      {{0, LONG_MAX}, {9223372036L, 854775807}},
      {{0, LONG_MIN}, {-9223372037L, 145224192}},
  };
  for (auto [in, out] : inAndOut) {
    timespec t = in;
    os_clock_adjust_clock_time(&t);
    EXPECT_EQ(std::make_pair(t.tv_sec, t.tv_nsec), std::make_pair(out.tv_sec, out.tv_nsec)) << in.tv_nsec;
  }
}

TEST(OS_Clock, AbsoluteSleepEndsAtItsDeadlineInEveryMode) {
  EXPECT_FALSE(set_default_rt_mode(USE_RT));
  EXPECT_EQ(get_default_rt_mode(), USE_STD);
  // 3 names no enumerator and must take the standard path like the others.
  for (RT_MODE mode : {USE_DEFAULT, USE_RT, static_cast<RT_MODE>(3)}) {
    timespec monotonic{}, wall{}, wallNow{}, back{}, woke{}, deadline{2, 0};
    ASSERT_EQ(os_clock_get_time(CLOCK_MONOTONIC, &monotonic, mode), 0);
    os_clock_monotonic_to_realtime(&monotonic, &wall, mode);
    clock_gettime(CLOCK_REALTIME, &wallNow);
    EXPECT_NEAR(double(toNanos(wall)), double(toNanos(wallNow)), 50e6);
    os_clock_realtime_to_monotonic(&wall, &back, mode);
    EXPECT_NEAR(double(toNanos(back)), double(toNanos(monotonic)), 50e6);

    // Two seconds after boot is long past: no wait, where a relative sleep would take 2 s.
    os_clock_nano_sleep(&deadline, mode);
    clock_gettime(CLOCK_MONOTONIC, &woke);
    ASSERT_LT(toNanos(woke), toNanos(monotonic) + 1000000000LL);
    deadline = timespec{monotonic.tv_sec, monotonic.tv_nsec + 30000000};
    os_clock_adjust_clock_time(&deadline);
    os_clock_nano_sleep(&deadline, mode);
    clock_gettime(CLOCK_MONOTONIC, &woke);
    EXPECT_GE(toNanos(woke), toNanos(deadline));
  }
}

// Times too far off for a span stay on their side of now; pollUntil asks once more at the end.
TEST(OS_Clock, DeadlinesTellPassedFromComing) {
  using internal::Deadline;
  const std::pair<Deadline, bool> passed[] = {
      {Deadline::at({0, 0}), true},
      {Deadline::at({LONG_MIN / 2, 0}), true},
      {Deadline::after(std::chrono::milliseconds(-1)), true},
      {Deadline::after(std::chrono::hours(1)), false},
      {Deadline::at({0, LONG_MAX}), false},
      {Deadline::at({LONG_MAX - 1, 0}), false},
      {Deadline::never(), false},
  };
  for (const auto& [deadline, expected] : passed) {
    EXPECT_EQ(deadline.passed(), expected) << deadline.time().tv_sec;
    EXPECT_EQ(deadline.left() > internal::Span::zero(), !expected) << deadline.time().tv_sec;
  }
  EXPECT_EQ(Deadline::never().timeOrNull(), nullptr);

  int asks = 0;
  EXPECT_FALSE(internal::pollUntil(Deadline::at({0, 0}), std::chrono::milliseconds(1), [&] { return ++asks < 0; }));
  EXPECT_EQ(asks, 1);
  EXPECT_TRUE(internal::pollUntil(Deadline::after(std::chrono::seconds(5)), std::chrono::milliseconds(1),
                                  [&] { return ++asks == 4; }));
}
