#include <arpa/inet.h>
#include <netinet/in.h>

#include "TestSupport.h"

// A connected TCP pair on 127.0.0.1 made through the library's own calls.
class LoopbackTcp : public ::testing::Test {
 protected:
  LoopbackTcp() {
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof(addr);
    sockaddr* address = reinterpret_cast<sockaddr*>(&addr);
    os_socket_bind(listener, address, length, USE_RT);
    os_socket_listen(listener, 4, USE_DEFAULT);
    os_socket_get_sock_name(listener, address, &length, USE_DEFAULT);  // now with the port that bind chose
    if (os_socket_connect(client, address, length, USE_STD) == 0)
      server = os_socket_accept(listener, nullptr, nullptr, USE_DEFAULT);
    // Set directly so that no receive below can block for good, whatever the library does.
    const timeval bound{8, 0};
    setsockopt(server, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
  }
  ~LoopbackTcp() override {
    for (int s : {listener, client, server}) os_socket_close(s, USE_DEFAULT);
  }
  void SetUp() override { ASSERT_GE(server, 0); }
  int listener = os_socket(AF_INET, SOCK_STREAM, 0, USE_STD);
  int client = os_socket(AF_INET, SOCK_STREAM, 0, USE_RT), server = -1;
};

TEST_F(LoopbackTcp, TheLinkBreaksOnlyOnceAllIsRead) {
  EXPECT_FALSE(os_socket_is_link_broken(server, USE_DEFAULT));  // nothing to read
  EXPECT_EQ(os_socket_send(client, "tail", 4, 0, USE_STD), 4);
  os_socket_close(std::exchange(client, -1), USE_DEFAULT);
  ASSERT_TRUE(os_socket_readable(server, 2000, nullptr, USE_DEFAULT));
  // The peer is gone but its last bytes are unread: intact, and nothing consumed.
  EXPECT_FALSE(os_socket_is_link_broken(server, USE_RT));
  char buf[8] = {};
  EXPECT_EQ(os_socket_recv(server, buf, sizeof(buf), 0, USE_STD), 4);
  EXPECT_EQ(std::string(buf, 4), "tail");
  EXPECT_TRUE(os_socket_is_link_broken(server, USE_DEFAULT));
}

TEST_F(LoopbackTcp, ReceiveTimeoutBeyondASecondHolds) {
  int value = 0;
  // Beyond a second, so the milliseconds must be split into seconds and microseconds.
  ASSERT_EQ(os_socket_set_recv_timeout(server, 1300, USE_DEFAULT), 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(os_socket_recv(server, &value, sizeof(value), 0, USE_DEFAULT), -1);
  EXPECT_EQ(os_socket_get_errno_code(), EAGAIN);
  EXPECT_GE(secondsSince(start), 1.25);
  EXPECT_LT(secondsSince(start), 5.0);
}

TEST_F(LoopbackTcp, ASignalDoesNotShortenTheWait) {
  int code = 777, signals = 0;
  double waited = secondsUnderSignals([&] { EXPECT_FALSE(os_socket_readable(server, 400, &code, USE_DEFAULT)); },
                                      std::chrono::milliseconds(100), &signals);
  EXPECT_GE(waited, 0.38);
  EXPECT_GE(signals, 1);
  EXPECT_FALSE(os_socket_writable(-1, 1000, &code, USE_DEFAULT));  // refused before any wait
  EXPECT_EQ(code, 777);

  // Far beyond select()'s fixed set size: same answers, no memory touched.
  ASSERT_EQ(dup2(server, 1500), 1500);
  EXPECT_FALSE(os_socket_readable(1500, 0, nullptr, USE_DEFAULT));
  EXPECT_TRUE(os_socket_precision_writable(1500, 0, nullptr, USE_DEFAULT));
  EXPECT_EQ(os_socket_send(client, "x", 1, 0, USE_DEFAULT), 1);
  EXPECT_TRUE(os_socket_precision_readable(1500, 2000000, nullptr, USE_DEFAULT));
  close(1500);
  EXPECT_FALSE(os_socket_readable(1500, 2000, &code, USE_DEFAULT));
  EXPECT_EQ(code, EBADF);
}
