#ifndef OSTRELLED_SRC_OS_INTERNAL_MUTEXHANDLE_H
#define OSTRELLED_SRC_OS_INTERNAL_MUTEXHANDLE_H

// The mutex handle's definition, for the library's other users of a mutex
// (conditions, events, the manager) and the tests. Defined in OS_Mutex.cpp.

#include <pthread.h>

#include <string>

#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_ShareMemory.h>

namespace ostrelled {
namespace internal {
struct Recursion;
}  // namespace internal
}  // namespace ostrelled

class mutex_handle {
 public:
  mutex_handle(unsigned int uintFlag, RT_MODE mode, const char* strMutexName);
  ~mutex_handle();
  mutex_handle(const mutex_handle&) = delete;
  mutex_handle& operator=(const mutex_handle&) = delete;

  std::string m_strMutexName;
  sharememory_handle* m_pMutexShareMemory;
  pthread_mutex_t* m_pMutex;  // in the block, at m_anonymous.mutex, or null when unattached
  RT_MODE m_RtMode;
  // A named recursive mutex's recursion, counted here (see OS_Mutex.cpp); null otherwise.
  ostrelled::internal::Recursion* m_pRecursion = nullptr;
  // Such a mutex's mutex: m_pMutex stays null for it, so that the other kinds'
  // path tests nothing more than it always did.
  pthread_mutex_t* m_pCounted = nullptr;
  // The anonymous kind's storage, which the pointer above aims at.
  struct {
    pthread_mutex_t mutex;
  } m_anonymous{};
};

#endif
