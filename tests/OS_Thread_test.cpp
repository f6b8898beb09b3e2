#include "TestSupport.h"

extern "C" void __tsan_init() __attribute__((weak));  // defined under ThreadSanitizer only

TEST(OS_Thread, StackSizeHasAFloor) {
  auto recordStackSize = [](void* arg) -> void* {
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, static_cast<size_t*>(arg));
    pthread_attr_destroy(&attr);
    return nullptr;
  };
  size_t defaultSize = 0;
  std::thread([&] { recordStackSize(&defaultSize); }).join();

  const std::pair<size_t, size_t> rows[] = {{0, defaultSize}, {1, 16384}, {16383, 16384}, {1 << 20, 1 << 20}};
  for (auto [requested, expected] : rows) {
    size_t seen = 0;
    pthread_t handle{};
    os_thread_create(&handle, recordStackSize, &seen, USE_STD, requested);
    os_thread_join(handle, USE_STD);
    // ThreadSanitizer raises small stacks to what its runtime needs: only a lower bound shows there.
    EXPECT_TRUE(seen == expected || (__tsan_init != nullptr && seen > expected))
        << "requested " << requested << ", expected " << expected << ", got " << seen;
  }
}

// The counters' atomicity under threads: VariantWrapper_test.cpp, whose reference counts they are.
TEST(OS_Atomic, SwapsReportWhetherTheyHappened) {
  volatile long word = 5;
  EXPECT_FALSE(os_thread_sync_compare_and_swap(&word, 4, 9));
  EXPECT_TRUE(os_thread_sync_compare_and_swap(&word, 5, -9) && word == -9);
  volatile long long wide = 1LL << 40;
  EXPECT_FALSE(os_thread_sync_compare_and_swap_64(&wide, 1, 2));
  EXPECT_TRUE(os_thread_sync_compare_and_swap_64(&wide, 1LL << 40, 1LL << 50) && wide == 1LL << 50);
}

TEST(OS_Thread, AffinityPinsToOneProcessor) {
  // A thread of its own, so that the pinning ends with it.
  std::thread([] {
    const int cpu = sched_getcpu();
    EXPECT_FALSE(os_thread_sched_set_affinity(-1));
    EXPECT_FALSE(os_thread_sched_set_affinity(1024));
    ASSERT_TRUE(os_thread_sched_set_affinity(cpu));
    cpu_set_t set;
    sched_getaffinity(0, sizeof(set), &set);
    EXPECT_TRUE(CPU_COUNT(&set) == 1 && CPU_ISSET(cpu, &set));
  }).join();
}

// The signals keep coming until the sleeper is back, so one lands mid-sleep.
TEST(OS_Sleep, MillisecondSleepLastsDespiteSignalsWhileAbsoluteSleepEndsOnOne) {
  int signals = 0;
  double slept = secondsUnderSignals([] { os_thread_sleep_milliseconds(1100, USE_DEFAULT); },
                                     std::chrono::milliseconds(40), &signals);
  EXPECT_GE(signals, 3);
  EXPECT_GE(slept, 1.1);
  EXPECT_LT(slept, 10.0);

  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += 10;
  slept =
      secondsUnderSignals([&] { os_clock_nano_sleep(&deadline, USE_STD); }, std::chrono::milliseconds(40), &signals);
  EXPECT_GE(signals, 1);
  EXPECT_LT(slept, 5.0);
}
