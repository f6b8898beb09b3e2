#ifndef OSTRELLED_SRC_OS_INTERNAL_WAIT_H
#define OSTRELLED_SRC_OS_INTERNAL_WAIT_H

// Readiness waits on one descriptor with poll, bounded by a timeout; header-only,
// used by the serial and socket sources.

#include <errno.h>
#include <poll.h>
#include <time.h>

namespace ostrelled {
namespace internal {

enum class Readiness { Readable, Writable };

// One wait on fd for at most span, answering as select() would for a set that
// holds fd alone, but without select's FD_SETSIZE ceiling: 1 when fd is marked,
// 0 when the time ran out, -1 with errno on failure (EBADF for a descriptor
// that is not open, EINTR when a signal arrived).
inline int waitOnce(int fd, Readiness what, const timespec& span) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  // The conditions select() counts as ready for each set.
  const short readyMask = what == Readiness::Readable ? short(POLLIN | POLLRDNORM | POLLRDBAND | POLLHUP | POLLERR)
                                                      : short(POLLOUT | POLLWRNORM | POLLWRBAND | POLLERR);
  pollfd entry{};
  entry.fd = fd;
  entry.events =
      what == Readiness::Readable ? short(POLLIN | POLLRDNORM | POLLRDBAND) : short(POLLOUT | POLLWRNORM | POLLWRBAND);
  int result = ppoll(&entry, 1, &span, nullptr);
  if (result <= 0) return result;
  if (entry.revents & POLLNVAL) {
    errno = EBADF;
    return -1;
  }
  return (entry.revents & readyMask) != 0 ? 1 : 0;
}

}  // namespace internal
}  // namespace ostrelled

#endif
