#ifndef OSTRELLED_SRC_OS_INTERNAL_SEMAPHOREKINDS_H
#define OSTRELLED_SRC_OS_INTERNAL_SEMAPHOREKINDS_H

// What the semaphore source offers the rest of the library beyond its exported
// functions: construction of every kind, of which os_semaphore_create picks one.

#include <ostrelled/OS_Semaphore.h>

namespace ostrelled {
namespace internal {

// bManageByOS selects a System V set for a named semaphore; it is refused for a
// named semaphore in real-time mode (the handle stays unattached). An anonymous
// semaphore is always POSIX. Never null.
semaphore_handle* createSemaphore(int intInitialCount, RT_MODE mode, const char* strSemaphoreName, bool bManageByOS);

}  // namespace internal
}  // namespace ostrelled

#endif
