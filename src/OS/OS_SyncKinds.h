#ifndef OSTRELLED_SRC_OS_SYNCKINDS_H
#define OSTRELLED_SRC_OS_SYNCKINDS_H

// Construction of every kind of semaphore and event. The exported create
// functions choose one kind each (POSIX semaphore, condition-variable event);
// the other kinds are reached only from inside the library and its tests.

#include <ostrelled/OS_Event.h>
#include <ostrelled/OS_Semaphore.h>

namespace OS {

// bManageByOS selects a System V set for a named semaphore; it is refused for a
// named semaphore in real-time mode (the handle stays unattached). An anonymous
// semaphore is always POSIX. Never null.
OSTRELLED_EXPORT semaphore_handle* createSemaphore(int intInitialCount, RT_MODE mode, const char* strSemaphoreName,
                                                   bool bManageByOS);

// The wake-up of a named event: a System V set when bManageByOS (whatever
// bUseConditionInsteadOfSem says), else a futex condition when
// bUseConditionInsteadOfSem, else a POSIX semaphore. An anonymous event always
// uses a futex condition. Never null.
OSTRELLED_EXPORT event_handle* createEvent(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName,
                                           bool bManageByOS, bool bUseConditionInsteadOfSem);

}  // namespace OS

#endif
