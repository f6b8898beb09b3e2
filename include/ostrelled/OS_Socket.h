#ifndef OSTRELLED_OS_SOCKET_H
#define OSTRELLED_OS_SOCKET_H

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <ostrelled/Types.h>

/// @file
/// Sockets, as plain descriptors (-1 means none). Unless said otherwise each
/// function resolves its mode, makes the system call of the same role and
/// returns its result unchanged, errno holding the cause of a failure.

extern "C" {
/// socket(): descriptor or -1.
OSTRELLED_EXPORT int os_socket(int domain, int type, int protocol, RT_MODE mode);
/// bind(): 0 or -1.
OSTRELLED_EXPORT int os_socket_bind(int s, const sockaddr* addr, socklen_t addrlen, RT_MODE mode);
/// listen(): 0 or -1.
OSTRELLED_EXPORT int os_socket_listen(int s, int backlog, RT_MODE mode);
/// connect(): 0 or -1.
OSTRELLED_EXPORT int os_socket_connect(int s, const sockaddr* addr, socklen_t addrlen, RT_MODE mode);
/// accept(): descriptor or -1.
OSTRELLED_EXPORT int os_socket_accept(int s, sockaddr* addr, socklen_t* addrlen, RT_MODE mode);
/// send(): bytes or -1.
OSTRELLED_EXPORT int os_socket_send(int s, const void* buf, int len, int flags, RT_MODE mode);
/// recv(): bytes, 0 when the peer closed in order, or -1.
OSTRELLED_EXPORT int os_socket_recv(int s, void* buf, int len, int flags, RT_MODE mode);
/// sendto(): bytes or -1.
OSTRELLED_EXPORT int os_socket_send_to(int s, const void* buf, int len, int flags, const sockaddr* dest_addr,
                                       socklen_t addrlen, RT_MODE mode);
/// recvfrom(): bytes or -1.
OSTRELLED_EXPORT int os_socket_recv_from(int s, void* buf, int len, int flags, sockaddr* src_addr, socklen_t* addrlen,
                                         RT_MODE mode);
/// getpeername(): 0 or -1.
OSTRELLED_EXPORT int os_socket_get_peer_name(int s, sockaddr* addr, socklen_t* addrlen, RT_MODE mode);
/// getsockname(): 0 or -1.
OSTRELLED_EXPORT int os_socket_get_sock_name(int s, sockaddr* addr, socklen_t* addrlen, RT_MODE mode);
/// select() as it is, FD_SETSIZE limit included: count, 0 or -1.
OSTRELLED_EXPORT int os_socket_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout,
                                      RT_MODE mode);
/// ioctl(s, cmd, argp): the call's result.
OSTRELLED_EXPORT int os_socket_ioctl(int s, ULONG cmd, ULONG* argp, RT_MODE mode);
/// close(); the result is not reported.
OSTRELLED_EXPORT void os_socket_close(int s, RT_MODE mode);
/// getsockopt(). Inverted on purpose: returns true when the call FAILED; test for false.
OSTRELLED_EXPORT bool os_socket_get_sock_opt(int s, int iLevel, int iOptname, void* pOptval, socklen_t* uOptlen,
                                             RT_MODE mode);
/// setsockopt(). Inverted on purpose: returns true when the call FAILED; test for false.
OSTRELLED_EXPORT bool os_socket_set_sock_opt(int s, int iLevel, int iOptname, const void* pOptval, socklen_t uOptlen,
                                             RT_MODE mode);

/// Nothing to set up on Linux: always true, any number of times.
OSTRELLED_EXPORT bool os_socket_init_library();
/// Nothing to tear down on Linux: always true, any number of times.
OSTRELLED_EXPORT bool os_socket_clear_library();
/// The calling thread's errno.
OSTRELLED_EXPORT int os_socket_get_errno_code();
/// Does nothing on Linux; kept for portable callers.
OSTRELLED_EXPORT void os_socket_disable_udp_unreached_report(int s);

/// SO_SNDTIMEO of dwMillionSecond milliseconds (0 switches it off): setsockopt's result.
OSTRELLED_EXPORT int os_socket_set_send_timeout(int s, DWORD dwMillionSecond, RT_MODE mode);
/// SO_RCVTIMEO of dwMillionSecond milliseconds (0 switches it off): setsockopt's result.
OSTRELLED_EXPORT int os_socket_set_recv_timeout(int s, DWORD dwMillionSecond, RT_MODE mode);

/// Waits up to dwMillionSecond milliseconds for s to become readable, false on time-out
/// and on failure alike: only a failure stores errno in *intErrorCode (when not null). A
/// signal does not end the wait early. False for s == -1.
OSTRELLED_EXPORT bool os_socket_readable(int s, DWORD dwMillionSecond, int* intErrorCode, RT_MODE mode);
/// As os_socket_readable, for writability.
OSTRELLED_EXPORT bool os_socket_writable(int s, DWORD dwMillionSecond, int* intErrorCode, RT_MODE mode);
/// As os_socket_readable with the time-out in microseconds.
OSTRELLED_EXPORT bool os_socket_precision_readable(int s, DWORD dwMicroSecond, int* intErrorCode, RT_MODE mode);
/// As os_socket_writable with the time-out in microseconds.
OSTRELLED_EXPORT bool os_socket_precision_writable(int s, DWORD dwMicroSecond, int* intErrorCode, RT_MODE mode);
/// True only when the peer closed the connection in order. Consumes nothing:
/// unread data, nothing to read and a failed peek all count as intact.
OSTRELLED_EXPORT bool os_socket_is_link_broken(int s, RT_MODE mode);
}

#endif
