// What every synchronisation kind promises, over the table in SyncKinds.h.
#include "SyncKinds.h"

namespace {

// One manager for the whole suite: each stop takes a request period.
class SyncContract : public ::testing::TestWithParam<SyncKind> {
 protected:
  static void SetUpTestSuite() { s_hosting = !liveManagerAnswers() && os_sync_environment_initialize(false); }
  static void TearDownTestSuite() { os_sync_environment_uninitialize(); }
  void SetUp() override {
    if (!s_hosting) GTEST_SKIP() << "a sync manager is already running on this machine";
    m_object = GetParam()(m_name);
    ASSERT_TRUE(m_object->attached()) << kind() << ": a new handle is not attached";
  }
  std::string kind() const { return std::string(GetParam().named ? "named " : "anonymous ") + GetParam().name; }
  // Takes the object in another thread (anonymous kinds) or process (named ones) until told to let go.
  std::unique_ptr<Holder> holdElsewhere() {
    auto holder =
        std::make_unique<Holder>([this] { m_object->hold(); }, [this] { m_object->give(); }, GetParam().named);
    EXPECT_TRUE(holder->held()) << kind() << ": the holder did not take it within 5 s";
    return holder;
  }

  static inline bool s_hosting = false;
  std::string m_name = uniqueName("contract");
  std::unique_ptr<SyncObject> m_object;
};

// Kinds shared between processes, and those of them that a holder owns.
class NamedSyncContract : public SyncContract {};
class OwnedSyncContract : public SyncContract {};

std::vector<SyncKind> ownedNamedKinds() {
  std::vector<SyncKind> owned;
  for (const SyncKind& kind : kNamedKinds)
    if (kind.owned) owned.push_back(kind);
  return owned;
}

std::string nameOf(const ::testing::TestParamInfo<SyncKind>& info) { return info.param.name; }

}  // namespace

// Under a signal every millisecond, the timed take still waits its full time.
TEST_P(SyncContract, TakesGiveUpAtTheirDeadlineWhileAnotherHoldsIt) {
  auto holder = holdElsewhere();
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(m_object->tryTake()) << kind() << ": the try took it from its holder";
  EXPECT_LT(secondsSince(start), kLateSlack) << kind() << ": the try waited";
  bool taken = true;
  double seconds =
      secondsUnderSignals([&] { taken = m_object->takeBy(deadlineIn(200)); }, std::chrono::milliseconds(1));
  EXPECT_FALSE(taken) << kind() << ": the timed take took it from its holder under signals";
  EXPECT_GE(seconds, 0.199) << kind() << ": the timed take of 200 ms under signals ended early";
  EXPECT_LT(seconds, 0.2 + kLateSlack) << kind() << ": the timed take of 200 ms under signals ended late";
  holder->letGo();
  EXPECT_TRUE(m_object->takeBy(deadlineIn(5000))) << kind() << ": not taken within 5 s after the holder let go";
  m_object->give();
  EXPECT_TRUE(m_object->takeBy(deadlineIn(-1))) << kind() << ": a past deadline did not take the free object";
  m_object->give();
}

// A signal every millisecond, and a let-go after 100 ms.
TEST_P(SyncContract, AnUntimedTakeUnderASignalStormEndsOnlyAtTheLetGo) {
  auto holder = holdElsewhere();
  bool taken = false;
  auto start = std::chrono::steady_clock::now();
  std::thread letGo([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    holder->letGo();
  });
  secondsUnderSignals([&] { taken = m_object->take(); }, std::chrono::milliseconds(1));
  double seconds = secondsSince(start);
  letGo.join();
  EXPECT_TRUE(taken) << kind() << ": the untimed take failed under signals";
  EXPECT_GE(seconds, 0.1) << kind() << ": a signal ended the untimed take before the holder let go";
  EXPECT_LT(seconds, 0.1 + kLateSlack) << kind() << ": the untimed take went on after the holder let go";
  m_object->give();
}

TEST_P(SyncContract, UnusableHandlesRefuseEverything) {
  std::vector<std::pair<std::string, std::unique_ptr<SyncObject>>> unusable;
  unusable.emplace_back("null", GetParam()(m_name));
  unusable.back().second->destroy();
  if (GetParam().named) unusable.emplace_back("name of 1024", GetParam()(std::string(1024, 'n')));
  if (GetParam().sysV) unusable.emplace_back("real-time System V", GetParam()(uniqueName("rt"), USE_RT));
  if (GetParam().named) {
    m_object.reset();
    os_sync_environment_uninitialize();
    unusable.emplace_back("no manager", GetParam()(uniqueName("alone")));
    EXPECT_TRUE(os_sync_environment_initialize(false)) << "the manager did not start again";
  }
  for (auto& [why, object] : unusable) {
    EXPECT_FALSE(object->attached()) << kind() << ", " << why << ": attached";
    EXPECT_FALSE(object->tryTake()) << kind() << ", " << why << ": the try took it";
    EXPECT_FALSE(object->takeBy(deadlineIn(10))) << kind() << ", " << why << ": the timed take took it";
    SyncObject* raw = object.get();  // a second take blocks if the first did anything
    EXPECT_TRUE(startWaiters(1, [raw](int) { return raw->take(), raw->take(), raw->give(), true; })->allFinish())
        << kind() << ", " << why << ": two takes did not return within 5 s";
  }
}

// By a try, by a timed take, and by a take already blocked when the holder died.
TEST_P(OwnedSyncContract, AHolderKilledWhileHoldingIsRecoveredByTheNextTaker) {
  const char* const ways[] = {"try", "timed take", "take blocked before the kill"};
  for (int way = 0; way < 3; ++way) {
    auto holder = holdElsewhere();
    std::atomic<int> blockedTook{-1};
    std::thread blocked;
    if (way == 2) {
      blocked = std::thread([&] {
        blockedTook = m_object->takeBy(deadlineIn(5000));
        if (blockedTook) m_object->give();  // by the thread that took it
      });
      std::this_thread::sleep_for(std::chrono::milliseconds(50));  // lets it block first
    }
    auto start = std::chrono::steady_clock::now();
    holder->kill();
    bool taken = way == 2   ? (blocked.join(), blockedTook == 1)
                 : way == 0 ? m_object->tryTake()
                            : m_object->takeBy(deadlineIn(5000));
    EXPECT_TRUE(taken) << kind() << ": the " << ways[way] << " did not recover it from the killed holder";
    EXPECT_LT(secondsSince(start), 1.0 + kLateSlack) << kind() << ": the " << ways[way] << " recovered it late";
    if (taken && way != 2) m_object->give();
    EXPECT_TRUE(m_object->tryTake()) << kind() << ": not free and consistent after the " << ways[way] << " repaired it";
    m_object->give();
  }
}

// The first of two takers repairs it; neither loses an update of the other after that.
TEST_P(OwnedSyncContract, TakersAfterAKilledHolderStillExcludeEachOther) {
  holdElsewhere()->kill();
  constexpr int kRounds = 5000;
  SharedFlags shared;  // [0] the count, [1] takers ready
  auto count = [&] {
    ++shared[1];
    while (shared[1] < 2) sched_yield();  // bounded by the test, which kills an overstaying child
    for (int round = 0; round < kRounds; ++round) {
      m_object->take();
      int seen = shared[0];
      if (round % 64 == 0) sched_yield();
      shared[0] = seen + 1;
      m_object->give();
    }
    return 0;
  };
  for (pid_t child : {startChild(count), startChild(count)})
    EXPECT_EQ(waitChild(child, 30.0), 0) << kind() << ": a taker did not finish its rounds within 30 s";
  EXPECT_EQ(shared[0], 2 * kRounds) << kind() << ": updates were lost, two takers were in at once";
}

TEST_P(NamedSyncContract, SurvivorsCarryOnWhileUsersAreKilledAtRandom) {
  auto use = [this](bool asHolder) {
    return [this, asHolder] {
      asHolder ? m_object->hold() : static_cast<void>(m_object->take());
      usleep(100);
      m_object->give();
      usleep(400);
    };
  };
  auto give = [this] {
    m_object->give();
    usleep(300);
  };
  auto take = [this] { m_object->take(); };
  std::vector<std::function<void()>> roles = {give, give, take, take, take};
  if (GetParam().owned) roles = {use(true), use(true), use(false), use(false)};
  EXPECT_TRUE(KillLoop::run(roles, 12)) << kind();
  const int refused = runChild([&] {
    auto mine = GetParam()(m_name);
    if (!GetParam().owned) mine->give();
    bool taken = mine->takeBy(deadlineIn(2000));
    if (taken && GetParam().owned) mine->give();
    return taken ? 0 : 1;
  });
  EXPECT_EQ(refused, 0) << kind() << ": a process that opened the name after the kills could not take it within 2 s";
}

INSTANTIATE_TEST_SUITE_P(Anonymous, SyncContract, ::testing::ValuesIn(kAnonymousKinds), nameOf);
INSTANTIATE_TEST_SUITE_P(Named, SyncContract, ::testing::ValuesIn(kNamedKinds), nameOf);
INSTANTIATE_TEST_SUITE_P(Named, NamedSyncContract, ::testing::ValuesIn(kNamedKinds), nameOf);
INSTANTIATE_TEST_SUITE_P(Named, OwnedSyncContract, ::testing::ValuesIn(ownedNamedKinds()), nameOf);
