#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include <ostrelled/OS_Socket.h>

#include "TestSupport.h"

namespace {

using testsupport::secondsSince;

sockaddr_in loopback(uint16_t port = 0) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

uint16_t portOf(int s) {
  sockaddr_in addr{};
  socklen_t len = sizeof(addr);
  os_socket_get_sock_name(s, reinterpret_cast<sockaddr*>(&addr), &len, USE_DEFAULT);
  return ntohs(addr.sin_port);
}

// A connected TCP pair on 127.0.0.1 made through the library's own calls;
// small buffers let a test fill the link quickly.
struct TcpPair {
  int listener, client = -1, server = -1;
  explicit TcpPair(bool smallBuffers = false) : listener(os_socket(AF_INET, SOCK_STREAM, 0, USE_STD)) {
    const int small = 4096;
    if (smallBuffers) os_socket_set_sock_opt(listener, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small), USE_STD);
    sockaddr_in addr = loopback();
    if (os_socket_bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr), USE_RT) != 0 ||
        os_socket_listen(listener, 4, USE_DEFAULT) != 0)
      return;
    client = os_socket(AF_INET, SOCK_STREAM, 0, USE_DEFAULT);
    if (smallBuffers) os_socket_set_sock_opt(client, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small), USE_STD);
    addr = loopback(portOf(listener));
    if (os_socket_connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof(addr), USE_STD) == 0)
      server = os_socket_accept(listener, nullptr, nullptr, USE_DEFAULT);
  }
  ~TcpPair() {
    for (int s : {listener, client, server}) os_socket_close(s, USE_DEFAULT);
  }
  bool ok() const { return listener >= 0 && client >= 0 && server >= 0; }
  void closeClient() {
    os_socket_close(client, USE_DEFAULT);
    client = -1;
  }
  // Sends until the peer's receive buffer and the own send buffer stay full.
  bool fillServer() {
    char chunk[4096] = {};
    return testsupport::waitUntil([&] {
      while (os_socket_send(server, chunk, sizeof(chunk), MSG_DONTWAIT, USE_DEFAULT) > 0) {
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      return !os_socket_writable(server, 0, nullptr, USE_DEFAULT);
    });
  }
};

std::atomic<int> g_signals{0};
void onSignal(int) { ++g_signals; }

}  // namespace

TEST(SocketPassThrough, TcpAndUdpCarryDataEndToEnd) {
  TcpPair pair;
  ASSERT_TRUE(pair.ok());
  sockaddr_in peer{};
  socklen_t len = sizeof(peer);
  ASSERT_EQ(os_socket_get_peer_name(pair.server, reinterpret_cast<sockaddr*>(&peer), &len, USE_RT), 0);
  EXPECT_EQ(ntohs(peer.sin_port), portOf(pair.client));
  EXPECT_EQ(os_socket_send(pair.client, "ping", 4, 0, USE_STD), 4);
  ASSERT_TRUE(os_socket_readable(pair.server, 2000, nullptr, USE_DEFAULT));
  ULONG waiting = 0;
  EXPECT_EQ(os_socket_ioctl(pair.server, FIONREAD, &waiting, USE_DEFAULT), 0);
  EXPECT_EQ(int(waiting), 4);
  fd_set set;
  FD_ZERO(&set);
  FD_SET(pair.server, &set);
  timeval none{};
  EXPECT_EQ(os_socket_select(pair.server + 1, &set, nullptr, nullptr, &none, USE_DEFAULT), 1);
  char buf[16] = {};
  EXPECT_EQ(os_socket_recv(pair.server, buf, sizeof(buf), 0, USE_STD), 4);
  EXPECT_EQ(std::string(buf, 4), "ping");
  pair.closeClient();
  EXPECT_EQ(os_socket_recv(pair.server, buf, sizeof(buf), 0, USE_DEFAULT), 0);  // orderly close
  EXPECT_EQ(os_socket_recv(-1, buf, sizeof(buf), 0, USE_DEFAULT), -1);
  EXPECT_EQ(os_socket_get_errno_code(), EBADF);

  int a = os_socket(AF_INET, SOCK_DGRAM, 0, USE_DEFAULT), b = os_socket(AF_INET, SOCK_DGRAM, 0, USE_RT);
  sockaddr_in any = loopback();
  ASSERT_EQ(os_socket_bind(a, reinterpret_cast<sockaddr*>(&any), sizeof(any), USE_DEFAULT), 0);
  ASSERT_EQ(os_socket_bind(b, reinterpret_cast<sockaddr*>(&any), sizeof(any), USE_DEFAULT), 0);
  sockaddr_in to = loopback(portOf(b)), from{};
  EXPECT_EQ(os_socket_send_to(a, "datagram", 8, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to), USE_STD), 8);
  ASSERT_TRUE(os_socket_readable(b, 2000, nullptr, USE_DEFAULT));
  len = sizeof(from);
  EXPECT_EQ(os_socket_recv_from(b, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &len, USE_STD), 8);
  EXPECT_EQ(std::string(buf, 8), "datagram");
  EXPECT_EQ(ntohs(from.sin_port), portOf(a));
  os_socket_close(a, USE_DEFAULT);
  os_socket_close(b, USE_DEFAULT);
}

TEST(SocketOptions, InvertedResultsAndTimeouts) {
  TcpPair pair;
  ASSERT_TRUE(pair.ok());
  int on = 1, value = 0;
  socklen_t len = sizeof(value);
  EXPECT_FALSE(os_socket_set_sock_opt(pair.server, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on), USE_DEFAULT));
  EXPECT_TRUE(os_socket_set_sock_opt(pair.server, 12345, SO_KEEPALIVE, &on, sizeof(on), USE_DEFAULT));
  EXPECT_FALSE(os_socket_get_sock_opt(pair.server, SOL_SOCKET, SO_KEEPALIVE, &value, &len, USE_RT));
  EXPECT_EQ(value, 1);
  EXPECT_TRUE(os_socket_get_sock_opt(-1, SOL_SOCKET, SO_KEEPALIVE, &value, &len, USE_RT));

  ASSERT_EQ(os_socket_set_send_timeout(pair.server, 2500, USE_DEFAULT), 0);
  timeval tv{};
  len = sizeof(tv);
  ASSERT_FALSE(os_socket_get_sock_opt(pair.server, SOL_SOCKET, SO_SNDTIMEO, &tv, &len, USE_DEFAULT));
  EXPECT_EQ(tv.tv_sec * 1000000 + tv.tv_usec, 2500000);

  ASSERT_EQ(os_socket_set_recv_timeout(pair.server, 300, USE_DEFAULT), 0);
  char buf[4];
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(os_socket_recv(pair.server, buf, sizeof(buf), 0, USE_DEFAULT), -1);
  EXPECT_TRUE(os_socket_get_errno_code() == EAGAIN || os_socket_get_errno_code() == EWOULDBLOCK);
  EXPECT_GE(secondsSince(start), 0.28);
  EXPECT_LT(secondsSince(start), 3.0);
}

TEST(SocketWait, ReportsReadinessTimeoutsAndBadDescriptors) {
  TcpPair pair;
  ASSERT_TRUE(pair.ok());
  int code = 777;
  EXPECT_FALSE(os_socket_readable(pair.server, 0, &code, USE_DEFAULT));
  EXPECT_TRUE(os_socket_precision_writable(pair.server, 0, &code, USE_DEFAULT));
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_socket_precision_readable(pair.server, 120000, &code, USE_DEFAULT));
  EXPECT_GE(secondsSince(start), 0.11);
  std::thread peer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    os_socket_send(pair.client, "x", 1, 0, USE_DEFAULT);
  });
  EXPECT_TRUE(os_socket_readable(pair.server, 5000, &code, USE_DEFAULT));
  peer.join();
  EXPECT_EQ(code, 777);  // untouched by time-outs, and by -1, which is refused before any wait
  EXPECT_FALSE(os_socket_writable(-1, 1000, &code, USE_DEFAULT));
  EXPECT_EQ(code, 777);

  int closed = dup(0);
  close(closed);
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(os_socket_readable(closed, 2000, &code, USE_DEFAULT));
  EXPECT_EQ(code, EBADF);
  EXPECT_LT(secondsSince(start), 1.0);

  // Far beyond select()'s fixed set size: same answers, no memory touched.
  ASSERT_EQ(dup2(pair.server, 1500), 1500);
  EXPECT_TRUE(os_socket_precision_readable(1500, 0, &code, USE_DEFAULT));
  EXPECT_TRUE(os_socket_writable(1500, 0, &code, USE_DEFAULT));
  EXPECT_FALSE(os_socket_is_link_broken(1500, USE_DEFAULT));
  close(1500);
}

TEST(SocketWait, ASignalDoesNotShortenTheWait) {
  using Wait = std::function<bool(int, int*)>;  // each waits 400 ms
  const std::pair<bool, Wait> writableAndWait[] = {
      {false, [](int s, int* c) { return os_socket_readable(s, 400, c, USE_DEFAULT); }},
      {false, [](int s, int* c) { return os_socket_precision_readable(s, 400000, c, USE_RT); }},
      {true, [](int s, int* c) { return os_socket_writable(s, 400, c, USE_STD); }},
      {true, [](int s, int* c) { return os_socket_precision_writable(s, 400000, c, USE_DEFAULT); }},
  };
  struct sigaction sa {}, old{};
  sa.sa_handler = onSignal;  // no SA_RESTART: the wait itself sees EINTR
  sigaction(SIGUSR1, &sa, &old);
  const pthread_t waiter = pthread_self();
  for (const auto& [writable, wait] : writableAndWait) {
    TcpPair pair(writable);
    ASSERT_TRUE(pair.ok());
    ASSERT_TRUE(!writable || pair.fillServer());
    const int before = g_signals;
    std::thread interrupter([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      pthread_kill(waiter, SIGUSR1);
    });
    int code = 777;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(wait(pair.server, &code));
    const double waited = secondsSince(start);
    interrupter.join();
    EXPECT_GT(g_signals, before);
    EXPECT_GE(waited, 0.38) << "writable " << writable;
    EXPECT_LT(waited, 3.0);
    EXPECT_EQ(code, 777);
  }
  sigaction(SIGUSR1, &old, nullptr);
}

TEST(SocketLink, BrokenOnlyOnceThePeerClosedAndAllIsRead) {
  TcpPair pair;
  ASSERT_TRUE(pair.ok());
  EXPECT_FALSE(os_socket_is_link_broken(pair.server, USE_DEFAULT));  // nothing to read
  EXPECT_EQ(os_socket_send(pair.client, "tail", 4, 0, USE_DEFAULT), 4);
  pair.closeClient();
  ASSERT_TRUE(os_socket_readable(pair.server, 2000, nullptr, USE_DEFAULT));
  // The peer is gone but its last bytes are unread: intact, and nothing consumed.
  EXPECT_FALSE(os_socket_is_link_broken(pair.server, USE_DEFAULT));
  EXPECT_FALSE(os_socket_is_link_broken(pair.server, USE_RT));
  char buf[8] = {};
  EXPECT_EQ(os_socket_recv(pair.server, buf, sizeof(buf), 0, USE_DEFAULT), 4);
  EXPECT_EQ(std::string(buf, 4), "tail");
  EXPECT_TRUE(os_socket_is_link_broken(pair.server, USE_DEFAULT));
}
