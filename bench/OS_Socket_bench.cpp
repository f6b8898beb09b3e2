#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <unistd.h>

#include <ostrelled/OS_Socket.h>

// A readiness poll (time-out 0) on a socket that has data waiting: the
// library's wait against one raw select() call on the same socket.

namespace {

// A loopback TCP pair whose receiving end holds one unread byte.
struct ReadableSocket {
  int listener = -1;
  int client = -1;
  int server = -1;

  ReadableSocket() {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    listener = socket(AF_INET, SOCK_STREAM, 0);
    bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    listen(listener, 1);
    getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
    client = socket(AF_INET, SOCK_STREAM, 0);
    connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    server = accept(listener, nullptr, nullptr);
    send(client, "x", 1, 0);
  }
  ~ReadableSocket() {
    close(server);
    close(client);
    close(listener);
  }
};

void BM_LibraryReadable(benchmark::State& state) {
  ReadableSocket sockets;
  if (!os_socket_readable(sockets.server, 1000, nullptr, USE_DEFAULT)) state.SkipWithError("not readable");
  for (auto _ : state) {
    benchmark::DoNotOptimize(os_socket_readable(sockets.server, 0, nullptr, USE_DEFAULT));
  }
}
BENCHMARK(BM_LibraryReadable);

void BM_RawSelect(benchmark::State& state) {
  ReadableSocket sockets;
  if (!os_socket_readable(sockets.server, 1000, nullptr, USE_DEFAULT)) state.SkipWithError("not readable");
  for (auto _ : state) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(sockets.server, &set);
    timeval none{};
    int ready = select(sockets.server + 1, &set, nullptr, nullptr, &none);
    benchmark::DoNotOptimize(ready > 0 && FD_ISSET(sockets.server, &set));
  }
}
BENCHMARK(BM_RawSelect);

}  // namespace

BENCHMARK_MAIN();
