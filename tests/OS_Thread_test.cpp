#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <ostrelled/OS_Clock.h>
#include <ostrelled/OS_Thread.h>

#include "TestSupport.h"

namespace {

void* recordStackSize(void* arg) {
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) == 0) {
    pthread_attr_getstacksize(&attr, static_cast<size_t*>(arg));
    pthread_attr_destroy(&attr);
  }
  return nullptr;
}

std::atomic<int> g_entryRuns{0};
void* countRunAndReturnJunk(void* arg) {
  g_entryRuns.fetch_add(1);
  *static_cast<void**>(arg) = arg;  // proves the argument arrived
  return reinterpret_cast<void*>(0x1234);
}

}  // namespace

TEST(OS_Thread, StackSizeHasAFloorAndZeroMeansTheDefault) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  size_t defaultSize = 0;
  pthread_attr_getstacksize(&attr, &defaultSize);
  pthread_attr_destroy(&attr);

  struct Row {
    size_t requested, expected;
  } rows[] = {{0, defaultSize}, {1, 16384}, {16383, 16384}, {16384, 16384}, {1 << 20, 1 << 20}};
  for (const Row& row : rows) {
    size_t seen = 0;
    pthread_t handle{};
    os_thread_create(&handle, recordStackSize, &seen, USE_STD, row.requested);
    os_thread_join(handle, USE_STD);
    EXPECT_EQ(seen, row.expected) << "requested " << row.requested;
  }
}

TEST(OS_Thread, EntryGetsItsArgumentExitValueIsNullAndNullHandleStartsNothing) {
  // 3 names no enumerator and must take the standard path like the others.
  for (RT_MODE mode : {USE_DEFAULT, USE_RT, USE_STD, static_cast<RT_MODE>(3)}) {
    void* slot = nullptr;
    void* exitValue = &slot;
    pthread_t handle{};
    os_thread_create(&handle, countRunAndReturnJunk, &slot, mode, 0);
    ASSERT_EQ(pthread_join(handle, &exitValue), 0);
    EXPECT_EQ(exitValue, nullptr);
    EXPECT_EQ(slot, &slot);
  }

  g_entryRuns = 0;
  void* slot = nullptr;
  os_thread_create(nullptr, countRunAndReturnJunk, &slot, USE_STD, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(g_entryRuns.load(), 0);

  // Without an entry function the thread still starts, frees its block and ends.
  pthread_t handle{};
  os_thread_create(&handle, nullptr, nullptr, USE_STD, 0);
  void* exitValue = &slot;
  ASSERT_EQ(pthread_join(handle, &exitValue), 0);
  EXPECT_EQ(exitValue, nullptr);
}

TEST(OS_Atomic, CountersReturnTheNewValueAndCompareAndSwapStoresOnlyOnAMatch) {
  volatile unsigned long count = 0;
  EXPECT_EQ(os_thread_sync_fetch_add(&count), 1UL);
  EXPECT_EQ(OS::Thread::syncFetchAdd(&count), 2UL);
  EXPECT_EQ(os_thread_sync_fetch_sub(&count), 1UL);
  EXPECT_EQ(OS::Thread::syncFetchSub(&count), 0UL);
  EXPECT_EQ(os_thread_sync_fetch_sub(&count), ULONG_MAX);

  volatile long word = 5;
  EXPECT_FALSE(os_thread_sync_compare_and_swap(&word, 4, 9));
  EXPECT_EQ(word, 5);
  EXPECT_TRUE(os_thread_sync_compare_and_swap(&word, 5, -9));
  EXPECT_EQ(word, -9);
  volatile long long wide = 1LL << 40;
  EXPECT_FALSE(os_thread_sync_compare_and_swap_64(&wide, 1, 2));
  EXPECT_TRUE(os_thread_sync_compare_and_swap_64(&wide, 1LL << 40, (1LL << 50) + 3));
  EXPECT_EQ(wide, (1LL << 50) + 3);
}

namespace {

constexpr int kRounds = 200000;

struct Shared {
  volatile unsigned long counter = 0;
  volatile long casCounter = 0;
  std::atomic<int> zeroHits{0};
};

void* addAndSwap(void* arg) {
  Shared* shared = static_cast<Shared*>(arg);
  for (int i = 0; i < kRounds; ++i) {
    os_thread_sync_fetch_add(&shared->counter);
    long seen;
    do {
      seen = shared->casCounter;
    } while (!os_thread_sync_compare_and_swap(&shared->casCounter, seen, seen + 1));
  }
  return nullptr;
}

void* subtract(void* arg) {
  Shared* shared = static_cast<Shared*>(arg);
  for (int i = 0; i < kRounds; ++i)
    if (os_thread_sync_fetch_sub(&shared->counter) == 0) shared->zeroHits.fetch_add(1);
  return nullptr;
}

// Runs two threads of entry through the library and joins both.
void runPair(OS_THREAD_FUNCTION entry, Shared* shared) {
  pthread_t first{}, second{};
  OS::Thread::create(&first, entry, shared, USE_STD, 0);
  OS::Thread::create(&second, entry, shared, USE_RT, 0);
  OS::Thread::join(first, USE_STD);
  OS::Thread::join(second, USE_RT);
}

}  // namespace

TEST(OS_Atomic, TwoThreadsCountExactly) {
  Shared shared;
  runPair(addAndSwap, &shared);
  EXPECT_EQ(shared.counter, 2UL * kRounds);
  EXPECT_EQ(shared.casCounter, 2L * kRounds);
  // Counting back down, exactly one decrement sees the count reach zero.
  runPair(subtract, &shared);
  EXPECT_EQ(shared.counter, 0UL);
  EXPECT_EQ(shared.zeroHits.load(), 1);
}

TEST(OS_Thread, AffinityPinsToOneProcessorAndRefusesEmptySets) {
  // A thread of its own, so that the pinning ends with it.
  std::thread([] {
    cpu_set_t set;
    sched_getaffinity(0, sizeof(set), &set);
    int cpu = 0;
    while (cpu < CPU_SETSIZE && !CPU_ISSET(cpu, &set)) ++cpu;
    EXPECT_FALSE(os_thread_sched_set_affinity(-1));
    EXPECT_FALSE(os_thread_sched_set_affinity(1024));
    ASSERT_TRUE(os_thread_sched_set_affinity(cpu));
    sched_getaffinity(0, sizeof(set), &set);
    EXPECT_TRUE(CPU_COUNT(&set) == 1 && CPU_ISSET(cpu, &set));
    // The kernel refuses the empty set, yet this one reports success.
    EXPECT_TRUE(os_thread_sched_set_thread_affinity(pthread_self(), -1));
  }).join();
}

TEST(OS_Thread, RealTimeScheduleRefusesAnInvalidPriority) {
  // Priorities outside 1..99 are refused whatever the privileges, so the test
  // never switches itself to SCHED_FIFO.
  for (int priority : {0, 100}) {
    errno = 0;
    EXPECT_FALSE(os_thread_init_rt_schedule(priority, USE_DEFAULT)) << priority;
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST(OS_Thread, LatencyRequestHoldsTheDeviceOrFailsSilently) {
  int fd = 12345;
  testing::internal::CaptureStdout();
  bool installed = os_thread_install_latency(fd);
  std::string output = testing::internal::GetCapturedStdout();
  if (installed) {
    ASSERT_GE(fd, 0);
    EXPECT_EQ(output, "/dev/cpu_dma_latency set to 0us\n");
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    os_thread_uninstall_latency(fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  } else {
    // No device or no permission to open it.
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(output, "");
  }
}

namespace {

std::atomic<int> g_signalsSeen{0};
void countSignal(int) { g_signalsSeen.fetch_add(1); }

// Times sleep() while another thread keeps sending SIGUSR1, handled without
// SA_RESTART, until the sleeper is back: one of the signals lands mid-sleep
// however late the sleeper gets going.
template <class Sleep>
double secondsSleptUnderSignals(Sleep sleep) {
  struct sigaction action {}, previous{};
  action.sa_handler = countSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGUSR1, &action, &previous);
  g_signalsSeen = 0;
  std::atomic<bool> done{false};
  pthread_t sleeper = pthread_self();
  std::thread sender([&] {
    auto start = std::chrono::steady_clock::now();
    while (!done && testsupport::secondsSince(start) < 20.0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
      if (!done) pthread_kill(sleeper, SIGUSR1);
    }
  });
  auto start = std::chrono::steady_clock::now();
  sleep();
  double slept = testsupport::secondsSince(start);
  done = true;
  sender.join();
  sigaction(SIGUSR1, &previous, nullptr);
  return slept;
}

}  // namespace

TEST(OS_Sleep, MillisecondSleepLastsItsFullTimeDespiteSignals) {
  double slept = secondsSleptUnderSignals([] { os_thread_sleep_milliseconds(1100, USE_DEFAULT); });
  EXPECT_GE(g_signalsSeen.load(), 3);
  EXPECT_GE(slept, 1.1);
  EXPECT_LT(slept, 10.0);
}

TEST(OS_Sleep, AbsoluteSleepEndsEarlyOnASignal) {
  double slept = secondsSleptUnderSignals([] {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += 10;
    os_clock_nano_sleep(&deadline, USE_STD);
  });
  EXPECT_GE(g_signalsSeen.load(), 1);
  EXPECT_LT(slept, 5.0);
}
