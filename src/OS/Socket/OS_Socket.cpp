// Sockets: thin pass-throughs to the BSD calls, plus readiness waits that
// outlast signals and a broken-link test. No state is kept here.

#include <ostrelled/OS_Socket.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include "OS/internal/Private.h"
#include "OS/internal/Wait.h"

namespace internal = ostrelled::internal;

using internal::inMode;
using internal::Readiness;

namespace {

// The one wait behind the four readiness functions. A signal does not end it:
// the wait resumes for the time left until the deadline fixed at the start.
// select() would carry the time left in its timeval; the poll-based wait
// (which has no FD_SETSIZE ceiling) does not, so the rest is recomputed.
bool waitFor(int s, internal::Span span, Readiness what, int* intErrorCode, RT_MODE mode) {
  if (s == -1) return false;
  // A poll (zero span) has no deadline to keep, so it reads no clock.
  const bool timed = span > internal::Span::zero();
  const internal::Deadline deadline = timed ? internal::Deadline::after(span, mode) : internal::Deadline::never();
  timespec wait = internal::relativeTime(span);
  int result;
  for (;;) {
    result = inMode(mode, [&] { return internal::waitOnce(s, what, wait); });
    if (result != -1 || errno != EINTR) break;
    if (timed) wait = deadline.leftTime(mode);  // overdue: one last look without waiting
  }
  if (result == -1) {
    if (intErrorCode != nullptr) *intErrorCode = os_socket_get_errno_code();
    return false;
  }
  return result == 1;
}

// SO_SNDTIMEO/SO_RCVTIMEO in full timeval form; a zero value switches the
// time-out off, which is the system's own meaning.
int setTimeout(int s, int optname, DWORD milliseconds, RT_MODE mode) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(milliseconds / 1000);
  tv.tv_usec = static_cast<suseconds_t>((milliseconds % 1000) * 1000);
  return inMode(mode, [&] { return setsockopt(s, SOL_SOCKET, optname, &tv, sizeof(tv)); });
}

}  // namespace

// Pass-throughs: the system call's result and errno, unchanged.

int os_socket(int domain, int type, int protocol, RT_MODE mode) {
  return inMode(mode, [&] { return socket(domain, type, protocol); });
}

int os_socket_bind(int s, const sockaddr* addr, socklen_t addrlen, RT_MODE mode) {
  return inMode(mode, [&] { return bind(s, addr, addrlen); });
}

int os_socket_listen(int s, int backlog, RT_MODE mode) {
  return inMode(mode, [&] { return listen(s, backlog); });
}

int os_socket_connect(int s, const sockaddr* addr, socklen_t addrlen, RT_MODE mode) {
  return inMode(mode, [&] { return connect(s, addr, addrlen); });
}

int os_socket_accept(int s, sockaddr* addr, socklen_t* addrlen, RT_MODE mode) {
  return inMode(mode, [&] { return accept(s, addr, addrlen); });
}

int os_socket_send(int s, const void* buf, int len, int flags, RT_MODE mode) {
  return inMode(mode, [&] { return static_cast<int>(send(s, buf, len, flags)); });
}

int os_socket_recv(int s, void* buf, int len, int flags, RT_MODE mode) {
  return inMode(mode, [&] { return static_cast<int>(recv(s, buf, len, flags)); });
}

int os_socket_send_to(int s, const void* buf, int len, int flags, const sockaddr* dest_addr, socklen_t addrlen,
                      RT_MODE mode) {
  return inMode(mode, [&] { return static_cast<int>(sendto(s, buf, len, flags, dest_addr, addrlen)); });
}

int os_socket_recv_from(int s, void* buf, int len, int flags, sockaddr* src_addr, socklen_t* addrlen, RT_MODE mode) {
  return inMode(mode, [&] { return static_cast<int>(recvfrom(s, buf, len, flags, src_addr, addrlen)); });
}

int os_socket_get_peer_name(int s, sockaddr* addr, socklen_t* addrlen, RT_MODE mode) {
  return inMode(mode, [&] { return getpeername(s, addr, addrlen); });
}

int os_socket_get_sock_name(int s, sockaddr* addr, socklen_t* addrlen, RT_MODE mode) {
  return inMode(mode, [&] { return getsockname(s, addr, addrlen); });
}

int os_socket_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout, RT_MODE mode) {
  return inMode(mode, [&] { return select(nfds, readfds, writefds, exceptfds, timeout); });
}

int os_socket_ioctl(int s, ULONG cmd, ULONG* argp, RT_MODE mode) {
  return inMode(mode, [&] { return ioctl(s, cmd, argp); });
}

void os_socket_close(int s, RT_MODE mode) {
  inMode(mode, [&] { return close(s); });
}

// Both option calls answer true for a FAILED call; callers test for false. Intended.
bool os_socket_get_sock_opt(int s, int iLevel, int iOptname, void* pOptval, socklen_t* uOptlen, RT_MODE mode) {
  return inMode(mode, [&] { return getsockopt(s, iLevel, iOptname, pOptval, uOptlen); }) != 0;
}

bool os_socket_set_sock_opt(int s, int iLevel, int iOptname, const void* pOptval, socklen_t uOptlen, RT_MODE mode) {
  return inMode(mode, [&] { return setsockopt(s, iLevel, iOptname, pOptval, uOptlen); }) != 0;
}

bool os_socket_init_library() { return true; }

// Same body as os_socket_init_library under a second name: Linux needs neither.
bool os_socket_clear_library() { return os_socket_init_library(); }

// errno is per thread, so this is the caller's own last failure.
int os_socket_get_errno_code() { return errno; }

void os_socket_disable_udp_unreached_report(int /*s*/) {}

int os_socket_set_send_timeout(int s, DWORD dwMillionSecond, RT_MODE mode) {
  return setTimeout(s, SO_SNDTIMEO, dwMillionSecond, mode);
}

int os_socket_set_recv_timeout(int s, DWORD dwMillionSecond, RT_MODE mode) {
  return setTimeout(s, SO_RCVTIMEO, dwMillionSecond, mode);
}

// Milliseconds and microseconds both become one span; the rest is shared.
bool os_socket_readable(int s, DWORD dwMillionSecond, int* intErrorCode, RT_MODE mode) {
  return waitFor(s, std::chrono::milliseconds(dwMillionSecond), Readiness::Readable, intErrorCode, mode);
}

bool os_socket_writable(int s, DWORD dwMillionSecond, int* intErrorCode, RT_MODE mode) {
  return waitFor(s, std::chrono::milliseconds(dwMillionSecond), Readiness::Writable, intErrorCode, mode);
}

bool os_socket_precision_readable(int s, DWORD dwMicroSecond, int* intErrorCode, RT_MODE mode) {
  return waitFor(s, std::chrono::microseconds(dwMicroSecond), Readiness::Readable, intErrorCode, mode);
}

bool os_socket_precision_writable(int s, DWORD dwMicroSecond, int* intErrorCode, RT_MODE mode) {
  return waitFor(s, std::chrono::microseconds(dwMicroSecond), Readiness::Writable, intErrorCode, mode);
}

bool os_socket_is_link_broken(int s, RT_MODE mode) {
  // Nothing to read yet counts as intact; only an orderly close reads as 0.
  if (!os_socket_readable(s, 0, nullptr, mode)) return false;
  // MSG_PEEK leaves any waiting bytes for the caller; 0 means an orderly close.
  char peek[4];
  return inMode(mode, [&] { return recv(s, peek, sizeof(peek), MSG_PEEK); }) == 0;
}
