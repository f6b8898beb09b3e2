// A TCP echo server and its client on the loopback interface, the client on
// a second thread. Every blocking step is preceded by a bounded readiness
// wait, so a silent peer ends the program instead of hanging it.
//
// Shows: os_socket, bind/listen/accept/connect/send/recv, the readiness waits
// os_socket_readable and os_socket_writable (false on time-out and on failure
// alike; only a failure fills in the error code), os_socket_is_link_broken
// after the peer closes, and os_socket_set_sock_opt, which returns true when
// it FAILED.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include <ostrelled/OS_Socket.h>
#include <ostrelled/OS_Thread.h>

namespace {

constexpr DWORD kWaitMs = 2000;
const char kMessage[] = "hello, echo";
sockaddr_in g_server = {};
bool g_clientGood = false;

void* client(void*) {
  int s = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
  if (os_socket_connect(s, reinterpret_cast<sockaddr*>(&g_server), sizeof g_server, USE_DEFAULT) != 0) return nullptr;
  int error = 0;
  char echo[sizeof kMessage] = {};
  g_clientGood = os_socket_writable(s, kWaitMs, &error, USE_DEFAULT) &&
                 os_socket_send(s, kMessage, sizeof kMessage, 0, USE_DEFAULT) == int(sizeof kMessage) &&
                 os_socket_readable(s, kWaitMs, &error, USE_DEFAULT) &&
                 os_socket_recv(s, echo, sizeof echo, MSG_WAITALL, USE_DEFAULT) == int(sizeof echo) &&
                 strcmp(echo, kMessage) == 0;
  os_socket_close(s, USE_DEFAULT);
  return nullptr;
}

}  // namespace

int main() {
  int listener = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
  int on = 1;
  if (os_socket_set_sock_opt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on, USE_DEFAULT))
    return 1;  // true means the option could not be set
  g_server.sin_family = AF_INET;
  g_server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);  // port 0: the system picks one
  socklen_t len = sizeof g_server;
  if (os_socket_bind(listener, reinterpret_cast<sockaddr*>(&g_server), sizeof g_server, USE_DEFAULT) != 0 ||
      os_socket_listen(listener, 1, USE_DEFAULT) != 0 ||
      os_socket_get_sock_name(listener, reinterpret_cast<sockaddr*>(&g_server), &len, USE_DEFAULT) != 0)
    return 1;
  printf("socket_echo: serving on 127.0.0.1:%u\n", ntohs(g_server.sin_port));

  pthread_t thread;
  os_thread_create(&thread, client, nullptr, USE_DEFAULT, 0);

  // A listening socket turns readable when a connection waits to be accepted.
  int error = 0;
  bool good = os_socket_readable(listener, kWaitMs, &error, USE_DEFAULT);
  int conn = good ? os_socket_accept(listener, nullptr, nullptr, USE_DEFAULT) : -1;
  char buffer[64] = {};
  int got = 0;
  good = conn >= 0 && os_socket_readable(conn, kWaitMs, &error, USE_DEFAULT) &&
         (got = os_socket_recv(conn, buffer, sizeof buffer, 0, USE_DEFAULT)) > 0 &&
         os_socket_writable(conn, kWaitMs, &error, USE_DEFAULT) &&
         os_socket_send(conn, buffer, got, 0, USE_DEFAULT) == got;

  // After the client has closed, the connection reads as broken: readable,
  // with nothing to read. Unread data would count as intact.
  os_thread_join(thread, USE_DEFAULT);
  good = good && os_socket_readable(conn, kWaitMs, &error, USE_DEFAULT) && os_socket_is_link_broken(conn, USE_DEFAULT);
  if (!good && error != 0) printf("socket_echo: a wait failed: %s\n", strerror(error));

  os_socket_close(conn, USE_DEFAULT);
  os_socket_close(listener, USE_DEFAULT);
  printf("socket_echo: echoed %d bytes, client saw its message back: %s\n", got, good && g_clientGood ? "yes" : "NO");
  return good && g_clientGood ? 0 : 1;
}
