#ifndef OSTRELLED_SRC_OS_INTERNAL_EVENTKINDS_H
#define OSTRELLED_SRC_OS_INTERNAL_EVENTKINDS_H

// What the event source offers the rest of the library beyond its exported
// functions: construction of every kind, of which os_event_create picks one.

#include <ostrelled/OS_Event.h>

namespace ostrelled {
namespace internal {

// The wake-up of a named event: a System V set when bManageByOS (whatever
// bUseConditionInsteadOfSem says), else a futex condition when
// bUseConditionInsteadOfSem, else a POSIX semaphore. An anonymous event always
// uses a futex condition. Never null.
event_handle* createEvent(bool bManualReset, bool bInitial, RT_MODE mode, const char* strEventName, bool bManageByOS,
                          bool bUseConditionInsteadOfSem);

}  // namespace internal
}  // namespace ostrelled

#endif
