#ifndef OSTRELLED_TOOLS_SERVICENOTIFY_H
#define OSTRELLED_TOOLS_SERVICENOTIFY_H

// The service manager's readiness protocol, for the daemon: one datagram of
// "KEY=value" lines to the socket named by $NOTIFY_SOCKET. Header-only.

#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// Sends state (for instance "READY=1"); without NOTIFY_SOCKET, or when the
// socket is gone, nothing happens. A name starting with '@' is abstract.
inline void notifyService(const char* state) {
  const char* path = getenv("NOTIFY_SOCKET");
  if (path == nullptr || path[0] == '\0') return;
  size_t length = strlen(path);
  sockaddr_un address{};
  if ((path[0] != '/' && path[0] != '@') || length >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path, length);
  if (path[0] == '@') address.sun_path[0] = '\0';
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  sendto(fd, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), size);
  close(fd);
}

#endif
