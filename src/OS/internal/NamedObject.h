#ifndef OSTRELLED_SRC_OS_INTERNAL_NAMEDOBJECT_H
#define OSTRELLED_SRC_OS_INTERNAL_NAMEDOBJECT_H

// The one attach/detach procedure of every named object, through the sync manager;
// used by the mutex, reader/writer mutex, semaphore and event sources.

#include <stddef.h>

#include <string>

class sharememory_handle;

namespace ostrelled {
namespace internal {

// Longest name of a named object. Each kind refuses a longer name before it
// attaches (the handle stays unattached); the procedure refuses one as well.
constexpr size_t kMaxObjectNameLength = 1023;

// All steps run while the machine-wide request lock is held.
class NamedObjectSteps {
 public:
  // After the manager's reply, before the block is opened. Returning false
  // leaves the object unattached (for instance when a System V key is refused).
  virtual bool beforeOpen() { return true; }
  // The block is open and at least the requested size: point the object's
  // fields into it (block start = the 4-byte attach count). Runs before initialise.
  virtual void bind(unsigned char* block) = 0;
  // First attach on the machine (the count was 0): initialise the object's state.
  virtual void initialise() = 0;
  // Any later attach (the count was above 0), after bind: false refuses this
  // process the object, which then stays unattached with errno set by the hook.
  virtual bool admit() { return true; }
  // Last detach on the machine (the count reached 0): destroy the primitives.
  virtual void finalise() = 0;

 protected:
  ~NamedObjectSteps() = default;
};

// Attaches to the named block of blockSize bytes, creating it through the sync
// manager on first use. Returns the opened block, or null when the object stays
// unattached (name too long, no manager, no reply in time, beforeOpen refused,
// a block that cannot be opened or is smaller than blockSize); bind was then not
// called, and the object keeps its own pointers null.
sharememory_handle* attachNamedObject(const std::string& name, unsigned int blockSize, NamedObjectSteps& steps);

// Detaches: decrements the count and, at zero, finalises and asks the manager to
// destroy the block. Always releases the caller's mapping and nulls `block`
// (a null block does nothing); the caller then nulls its own pointers into the block.
void detachNamedObject(const std::string& name, sharememory_handle*& block, NamedObjectSteps& steps);

}  // namespace internal
}  // namespace ostrelled

#endif
