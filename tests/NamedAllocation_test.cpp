// Named creates whose allocations fail from the Nth on: one that throws leaves nothing behind.
#include "SyncKinds.h"

#include "ReplacedAllocator.h"

using NamedCreate = NoManager;

TEST_F(NamedCreate, ACreateThatFailsToAllocateLeavesNothingBehind) {
  pid_t manager = startManagerChild();
  for (const SyncKind& kind : kNamedKinds) {
    std::string name = uniqueName(kind.name);
    bool succeeded = false;
    for (long allowed = 0; allowed < 200 && !succeeded; ++allowed) {
      gAllowedAllocations = allowed;
      try {
        succeeded = kind(name)->attached();
        gAllowedAllocations = -1;
        EXPECT_TRUE(succeeded) << kind.name << " after " << allowed << " allocations: neither attached nor thrown";
      } catch (const std::bad_alloc&) {
        gAllowedAllocations = -1;
        ASSERT_FALSE(shmExists(name)) << kind.name << ": the block stayed after a failure at allocation " << allowed;
        ASSERT_TRUE(requestLockFree()) << kind.name << ": the request lock stayed taken after allocation " << allowed;
      }
    }
    EXPECT_TRUE(succeeded) << kind.name << " never succeeded in 200 allocations";
  }
  EXPECT_TRUE(liveManagerAnswers()) << "the manager stopped serving";
  kill(manager, SIGTERM);
  EXPECT_EQ(waitChild(manager), 0) << "the manager did not stop on SIGTERM";
  EXPECT_EQ(managerNamesLeft(), 0) << "names left after SIGTERM";
}
