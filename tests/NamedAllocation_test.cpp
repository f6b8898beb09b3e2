// Creating named objects when the allocator fails from its Nth call on: every
// create succeeds or throws std::bad_alloc, and one that throws leaves nothing
// behind, in the block, the request lock or the manager.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include <ostrelled/OS_Event.h>
#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_RWMutex.h>
#include <ostrelled/OS_Semaphore.h>

#include "SyncTestSupport.h"

#include "ReplacedAllocator.h"

using namespace testsupport;

namespace {

struct Kind {
  const char* name;
  std::function<bool(const char*)> lifeOf;  // creates, checks attached, destroys
};

const Kind kKinds[] = {
    {"mutex", [](const char* n) { auto* h = os_mutex_create(MUTEX_RECURSIVE, USE_DEFAULT, n); bool a = os_mutex_is_attached(h); os_mutex_destroy(h); return a; }},
    {"rw-mutex", [](const char* n) { auto* h = os_rw_mutex_create(USE_DEFAULT, n); bool a = os_rw_mutex_is_attached(h); os_rw_mutex_destroy(h); return a; }},
    {"semaphore", [](const char* n) { auto* h = os_semaphore_create(0, USE_DEFAULT, n); bool a = os_semaphore_is_attached(h); os_semaphore_destroy(h); return a; }},
    {"event", [](const char* n) { auto* h = os_event_create(false, false, USE_DEFAULT, n); bool a = os_event_is_attached(h); os_event_destroy(h); return a; }},
};

}  // namespace

TEST_F(NoManager, ACreateThatFailsToAllocateLeavesNothingBehind) {
  pid_t manager = startManagerChild();
  for (const Kind& kind : kKinds) {
    std::string name = uniqueName(kind.name);
    bool succeeded = false;
    for (long allowed = 0; allowed < 200 && !succeeded; ++allowed) {
      bool threw = false;
      gAllowedAllocations = allowed;
      try {
        succeeded = kind.lifeOf(name.c_str());
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      gAllowedAllocations = -1;
      if (!threw) {
        EXPECT_TRUE(succeeded) << kind.name << " after " << allowed << " allocations: neither attached nor thrown";
        continue;
      }
      ASSERT_FALSE(shmExists(name)) << kind.name << ": the block stayed after a failure at allocation " << allowed;
      ASSERT_TRUE(requestLockFree()) << kind.name << ": the request lock stayed taken after allocation " << allowed;
    }
    EXPECT_TRUE(succeeded) << kind.name << " never succeeded in 200 allocations";
  }
  EXPECT_TRUE(liveManagerAnswers()) << "the manager stopped serving";
  kill(manager, SIGTERM);
  waitChild(manager);
}
