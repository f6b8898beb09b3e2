#ifndef OSTRELLED_SRC_OS_INTERNAL_SHAREMEMORYHANDLE_H
#define OSTRELLED_SRC_OS_INTERNAL_SHAREMEMORYHANDLE_H

// The shared-memory handle's definition, defined in OS_ShareMemory.cpp: for the
// library's other users of its members (the manager, the sync client, named objects).

#include <stddef.h>
#include <sys/mman.h>

#include <string>

#include <ostrelled/OS_ShareMemory.h>

class sharememory_handle {
 public:
  explicit sharememory_handle(RT_MODE mode);
  ~sharememory_handle();
  sharememory_handle(const sharememory_handle&) = delete;
  sharememory_handle& operator=(const sharememory_handle&) = delete;

  // bManaged: a name of the sync manager's, given to its group (ManagedAccess.h).
  bool sharememory_create(const char* strShmName, unsigned int uintMemorySize, bool bManaged = false);
  // As sharememory_create of a managed name, leaving the object unmapped (for
  // the sync manager, which never reads the blocks it makes).
  bool sharememory_create_unmapped(const char* strShmName, unsigned int uintMemorySize);
  bool sharememory_open(const char* strShmName);
  // Makes room for a name of `length` bytes, so that a later open of such a
  // name allocates nothing (an attach opens its block holding the request lock).
  void sharememory_reserve_name(size_t length) { m_strShareMemoryName.reserve(length); }
  void sharememory_close();
  void sharememory_destroy();
  // Removes the name only; the mapping stays until the handle closes.
  void sharememory_unlink() { shm_unlink(m_strShareMemoryName.c_str()); }
  void* sharememory_get_buffer() const { return m_pMemoryBuffer; }
  size_t sharememory_get_size() const { return m_uintMemorySize; }

 private:
  bool prepareObject(const char* strShmName, unsigned int uintMemorySize, bool& created, bool managed);
  void closeDescriptor();
  bool openForCreate(const char* name, bool& created, bool managed);
  bool backDescriptor(unsigned int size, bool created);
  bool mapDescriptor(size_t size);

  int m_hShareMemoryHandle;
  size_t m_uintMemorySize;
  std::string m_strShareMemoryName;
  void* m_pMemoryBuffer;
  RT_MODE m_RtMode;
};

namespace ostrelled {
namespace internal {

// os_sharememory_create of one of the sync manager's names, given to its group
// when it has one: null on failure, errno kept.
sharememory_handle* createManagedShareMemory(const char* strShmName, unsigned int uintMemorySize);
// The same without the mapping, for the blocks of named objects.
sharememory_handle* createUnmappedShareMemory(const char* strShmName, unsigned int uintMemorySize, RT_MODE mode);

}  // namespace internal
}  // namespace ostrelled

#endif
