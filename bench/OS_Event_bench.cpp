// Cross-process ping-pong: a named auto-reset event pair against the same
// protocol written directly on a process-shared mutex and condition variables.
// Hosts a sync manager: run it through scripts/isolated.sh (scripts/bench.sh does).

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <ostrelled/OS_Event.h>
#include <ostrelled/OS_Sync.h>

namespace {

// Forks the answering side, runs the measured loop, then stops and reaps it.
template <class Answer, class Ask, class Stop>
void pingPong(benchmark::State& state, Answer answer, Ask ask, Stop stop) {
  pid_t pid = fork();
  if (pid == 0) {
    answer();
    _exit(0);
  }
  for (auto _ : state) ask();
  stop();
  int status = 0;
  waitpid(pid, &status, 0);
}

void BM_EventPingPong(benchmark::State& state) {
  std::string base = "ostrelled_bench_event_" + std::to_string(getpid());
  event_handle* ping = os_event_create(false, false, USE_STD, (base + "_ping").c_str());
  event_handle* pong = os_event_create(false, false, USE_STD, (base + "_pong").c_str());
  auto* stopFlag = static_cast<std::atomic<bool>*>(
      mmap(nullptr, sizeof(std::atomic<bool>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  new (stopFlag) std::atomic<bool>(false);
  pingPong(
      state,
      [&] {
        for (;;) {
          os_event_wait(ping);
          if (*stopFlag) return;
          os_event_set_event(pong);
        }
      },
      [&] {
        os_event_set_event(ping);
        os_event_wait(pong);
      },
      [&] {
        *stopFlag = true;
        os_event_set_event(ping);
      });
  munmap(stopFlag, sizeof(std::atomic<bool>));
  os_event_destroy(ping);
  os_event_destroy(pong);
}

// The same exchange on raw primitives: one mutex, a flag and a condition per direction.
struct RawChannel {
  pthread_mutex_t mutex;
  pthread_cond_t cond[2];
  bool flag[2];
  bool stop;

  void init() {
    pthread_mutexattr_t ma;
    pthread_mutexattr_init(&ma);
    pthread_mutexattr_setpshared(&ma, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&mutex, &ma);
    pthread_condattr_t ca;
    pthread_condattr_init(&ca);
    pthread_condattr_setpshared(&ca, PTHREAD_PROCESS_SHARED);
    pthread_condattr_setclock(&ca, CLOCK_MONOTONIC);
    for (auto& c : cond) pthread_cond_init(&c, &ca);
    flag[0] = flag[1] = stop = false;
  }
  void set(int i) {
    pthread_mutex_lock(&mutex);
    if (!flag[i]) {
      flag[i] = true;
      pthread_cond_broadcast(&cond[i]);
    }
    pthread_mutex_unlock(&mutex);
  }
  void wait(int i) {
    pthread_mutex_lock(&mutex);
    while (!flag[i]) pthread_cond_wait(&cond[i], &mutex);
    flag[i] = false;
    pthread_mutex_unlock(&mutex);
  }
};

void BM_RawMutexCondPingPong(benchmark::State& state) {
  auto* raw = static_cast<RawChannel*>(
      mmap(nullptr, sizeof(RawChannel), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  raw->init();
  pingPong(
      state,
      [&] {
        for (;;) {
          raw->wait(0);
          if (raw->stop) return;
          raw->set(1);
        }
      },
      [&] {
        raw->set(0);
        raw->wait(1);
      },
      [&] {
        raw->stop = true;
        raw->set(0);
      });
  munmap(raw, sizeof(RawChannel));
}

BENCHMARK(BM_EventPingPong)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_RawMutexCondPingPong)->UseRealTime()->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
  if (!os_sync_environment_initialize(false)) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  os_sync_environment_uninitialize();
  return 0;
}
