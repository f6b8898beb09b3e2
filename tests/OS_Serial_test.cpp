#include <dlfcn.h>
#include <poll.h>
#include <termios.h>

#include "TestSupport.h"

// LeakSanitizer's switches, defined only in the sanitizer build.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

static termios g_asked;

// A pseudo-terminal forces 8 data bits and drops PARENB: what was asked is recorded.
extern "C" int tcsetattr(int fd, int action, const termios* settings) noexcept {
  static const auto real = reinterpret_cast<int (*)(int, int, const termios*)>(dlsym(RTLD_NEXT, "tcsetattr"));
  g_asked = *settings;
  return real(fd, action, settings);
}

namespace {

using Bytes = std::basic_string<unsigned char>;

// The library opens a pseudo-terminal's slave as a serial device; the test holds the master.
class SerialLine : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(grantpt(m_master) | unlockpt(m_master), 0); }
  void TearDown() override {
    os_serial_close(m_fd);
    close(m_master);
  }
  int openLine(BYTE parity = NOPARITY, BYTE stopbits = ONESTOPBIT) {
    return m_fd = os_serial_open(ptsname(m_master), 115200, parity, stopbits, B9600);
  }
  // The device sends; returns once the library's side sees it.
  void feed(const Bytes& data) {
    ASSERT_EQ(write(m_master, data.data(), data.size()), ssize_t(data.size()));
    ASSERT_TRUE(os_serial_select(m_fd, 2000));
  }
  int m_master = posix_openpt(O_RDWR | O_NOCTTY), m_fd = -1;
};

}  // namespace

TEST_F(SerialLine, OpenConfiguresTheLine) {
  // Each row starts from what the row before left, so it must clear what that one set.
  const std::tuple<BYTE, BYTE, tcflag_t, bool, const char*> cases[] = {
      {ODDPARITY, TWOSTOPBITS, PARENB | PARODD | CSTOPB, true, ""},
      {EVENPARITY, ONESTOPBIT, PARENB, true, ""},
      {NOPARITY, TWOSTOPBITS, CSTOPB, false, ""},
      {SPACEPARITY, ONESTOPBIT, 0, true, ""},
      {SPACEPARITY, TWOSTOPBITS, CSTOPB, true, ""},  // the stop bits win over space's cleared CSTOPB
      {MARKPARITY, ONESTOPBIT, 0, false, "Unsupported parity\n"},
      {EVENPARITY, 2, 0, false, "Unsupported stopbits\n"},
      {9, 7, 0, false, "Unsupported parity\nUnsupported stopbits\n"},
  };
  for (auto [parity, stopbits, cflag, inputCheck, printed] : cases) {
    SCOPED_TRACE(testing::Message() << "parity " << int(parity) << ", stop bits " << int(stopbits));
    testing::internal::CaptureStdout();
    openLine(parity, stopbits);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), printed);
    EXPECT_EQ(m_fd == -1, *printed != '\0');
    if (m_fd == -1) continue;
    const termios& t = g_asked;
    EXPECT_EQ(t.c_cflag & (PARENB | CSTOPB | CSIZE | (cflag & PARENB ? PARODD : 0)), cflag | CS8);
    EXPECT_EQ((t.c_iflag & INPCK) != 0, inputCheck);
    EXPECT_FALSE(t.c_iflag & IXON || t.c_lflag & (ICANON | ECHO) || t.c_oflag & OPOST || t.c_cc[VMIN]);  // raw
    EXPECT_EQ(cfgetospeed(&t), speed_t(B9600));
    os_serial_close(m_fd);
  }
}

TEST_F(SerialLine, WriteDeliversRawBytes) {
  ASSERT_GE(openLine(), 0);
  feed({1, 2, 3, 4, 5, 6, 7, 8});
  const Bytes frame = {'\n', '\r', 0x03, 0x11, 0x00, 0xFF};  // untranslated on a raw line
  unsigned char header[3] = {0xAA, 0x55, 0x00}, buf[8] = {};
  for (int timeout : {-1, 1001}) {
    EXPECT_EQ(os_serial_write(m_fd, frame.data(), 1, timeout), -1);
    EXPECT_EQ(os_serial_read(m_fd, buf, 8, nullptr, 0, 50, timeout), -1);
  }
  EXPECT_EQ(os_serial_write(-1, frame.data(), 1, 100), -1);
  EXPECT_EQ(os_serial_read(-1, buf, 8, nullptr, 0, 50, 500), -1);
  EXPECT_EQ(os_serial_read(m_fd, buf, 2, header, 3, 50, 500), -1);  // shorter than its header

  EXPECT_EQ(os_serial_write(m_fd, frame.data(), int(frame.size()), 1000), int(frame.size()));
  pollfd p{m_master, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 2000), 1);
  EXPECT_EQ(Bytes(buf, read(m_master, buf, sizeof(buf))), frame);  // and nothing of the refused writes

  // No header among the first six bytes: the read keeps its buffer (intended), unseen by LeakSanitizer.
  if (__lsan_disable != nullptr) __lsan_disable();
  EXPECT_EQ(os_serial_read(m_fd, buf, 6, header, 2, 100, 500), -1);
  if (__lsan_enable != nullptr) __lsan_enable();
}

TEST_F(SerialLine, ReadDeliversTheFrameAfterItsHeader) {
  unsigned char header[2] = {0xAA, 0x55}, buf[16];
  const std::tuple<Bytes, bool, Bytes, const char*> cases[] = {
      {{5, 6}, false, {5, 6}, ""},
      {{0x10, 0xAA, 0x20, 0xAA, 0x55, 1, 2, 3, 4, 5, 6, 7, 8}, true, {0xAA, 0x55, 1, 2, 3, 4, 5, 6, 7, 8}, ""},
      {{1, 2, 0xAA}, true, {}, "The frame header may be truncated.\n"},  // noise only
  };
  ASSERT_GE(openLine(), 0);
  for (const auto& [line, withHeader, frame, printed] : cases) {
    feed(line);
    auto start = std::chrono::steady_clock::now();
    testing::internal::CaptureStdout();
    const int got = os_serial_read(m_fd, buf, 10, header, withHeader ? 2 : 0, 120, 500);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), printed);
    EXPECT_EQ(Bytes(buf, got > 0 ? got : 0), frame);
    EXPECT_TRUE(got == 10 || secondsSince(start) >= 0.11);  // a short frame ends at the gap
  }

  feed({5, 6});
  close(std::exchange(m_master, -1));
  // Aside, so that a read spinning on the dead line cannot hang the test.
  std::atomic<int> got{-2};
  std::thread reader([&] { got = os_serial_read(m_fd, buf, 10, nullptr, 0, 5000, 500); });
  const bool ended = waitUntil([&] { return got != -2; }, 3.0);
  if (!ended) os_serial_close(m_fd);
  reader.join();
  EXPECT_TRUE(ended);
  EXPECT_TRUE(got == 0 || got == 2) << got;  // the hang-up may discard the queue
}
