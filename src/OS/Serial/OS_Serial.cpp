// Serial lines: raw non-blocking configuration, and reads and writes through
// POSIX asynchronous I/O so that a silent device cannot hold the caller past
// the time-out.

#include <ostrelled/OS_Serial.h>

#include <aio.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <memory>

#include "OS/internal/Private.h"
#include "OS/internal/Wait.h"

namespace internal = ostrelled::internal;

namespace {

// aio_cancel answers AIO_CANCELED, AIO_NOTCANCELED, AIO_ALLDONE or -1, never
// this number (ECANCELED), so the cancel message is printed on every
// time-out. Intended and kept: the line marks every time-out.
constexpr int kCancelledQuietly = 125;

const char* const kWriteCancelMessage = "Can not cancel write operator, application maybe crashed!";
const char* const kReadCancelMessage = "Can not cancel read operator, application maybe crashed!";

bool timeoutInRange(int milliseconds) { return milliseconds >= 0 && milliseconds <= 1000; }

// The patience of one aio_suspend: the whole time-out sits in the nanosecond
// field, which is why time-outs stop at 1000 ms.
timespec suspendPatience(int milliseconds) {
  timespec patience{};
  patience.tv_nsec = static_cast<long>(internal::Span(std::chrono::milliseconds(milliseconds)).count());
  return patience;
}

// One asynchronous read or write on the descriptor into or out of a buffer
// that the caller keeps alive until finish() or abandon() has returned.
class Transfer {
 public:
  Transfer(int fd, unsigned char* buffer, size_t length, int opcode) {
    memset(&m_cb, 0, sizeof(m_cb));
    m_cb.aio_fildes = fd;
    m_cb.aio_buf = buffer;
    m_cb.aio_nbytes = length;
    m_cb.aio_offset = 0;
    m_cb.aio_lio_opcode = opcode;
    m_cb.aio_sigevent.sigev_notify = SIGEV_NONE;
    // A refused submission is not checked: the block then reads as finished.
    if (opcode == LIO_WRITE) {
      aio_write(&m_cb);
    } else {
      aio_read(&m_cb);
    }
  }

  // Waits for the transfer, each wait lasting at most patience. True with the
  // byte count (-1 for a failed transfer) once it is done; false when a wait
  // ended without it (time-out, signal).
  bool finish(const timespec& patience, LONG& count) {
    const aiocb* list[1] = {&m_cb};
    while (aio_error(&m_cb) == EINPROGRESS) {
      if (aio_suspend(list, 1, &patience) == -1) return false;
    }
    count = reap();
    return true;
  }

  // Time-out path: cancel, report, and make sure nothing touches the buffers
  // any more before the caller frees them.
  void abandon(const char* message) {
    if (aio_cancel(m_cb.aio_fildes, &m_cb) != kCancelledQuietly) {
      puts(message);
      fflush(stdout);
    }
    // A transfer already running cannot be cancelled; on the non-blocking
    // descriptor it ends at once, so waiting for it is short.
    const aiocb* list[1] = {&m_cb};
    while (aio_error(&m_cb) == EINPROGRESS) aio_suspend(list, 1, nullptr);
    reap();
  }

 private:
  // The C library publishes the finished status while its worker thread still
  // reads the control block under its request lock; aio_suspend takes that
  // lock, so once it returns the block (on our stack) is ours alone.
  LONG reap() {
    const aiocb* list[1] = {&m_cb};
    timespec none{};
    aio_suspend(list, 1, &none);
    return static_cast<LONG>(aio_return(&m_cb));
  }

  aiocb m_cb;
};

// The parity bits of the line; false (with its line) for an unknown choice.
bool setParity(termios& tio, BYTE byteParity) {
  switch (byteParity) {
    case NOPARITY:
      tio.c_cflag &= ~PARENB;
      tio.c_iflag &= ~INPCK;
      return true;
    case ODDPARITY:
      tio.c_cflag |= PARENB | PARODD;
      tio.c_iflag |= INPCK;
      return true;
    case SPACEPARITY:
      // No parity bit generated, yet input checking stays on; the stop-bit
      // choice that follows overrides the CSTOPB cleared here.
      tio.c_cflag &= ~(PARENB | CSTOPB);
      tio.c_iflag |= INPCK;
      return true;
    case EVENPARITY:
      tio.c_cflag |= PARENB;
      tio.c_cflag &= ~PARODD;
      tio.c_iflag |= INPCK;
      return true;
    default:
      puts("Unsupported parity");
      return false;
  }
}

// The stop bits; false (with its line) for an unknown choice.
bool setStopBits(termios& tio, BYTE byteStopbits) {
  switch (byteStopbits) {
    case ONESTOPBIT:
      tio.c_cflag &= ~CSTOPB;
      return true;
    case TWOSTOPBITS:
      tio.c_cflag |= CSTOPB;
      return true;
    default:
      puts("Unsupported stopbits");
      return false;
  }
}

// Raw bytes both ways: no processing, no echo, no flow control, reads that
// return at once, and the speed given by its index.
void setRawLine(termios& tio, int iBaudIndex) {
  tio.c_oflag &= ~(OPOST | ONLCR | OCRNL);
  tio.c_lflag &= ~(ISIG | ICANON | ECHO | ECHOE);
  tio.c_iflag &= ~(INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF);
  tio.c_cc[VTIME] = 0;
  tio.c_cc[VMIN] = 0;
  cfsetispeed(&tio, static_cast<speed_t>(iBaudIndex));
  cfsetospeed(&tio, static_cast<speed_t>(iBaudIndex));
}

// Line settings of an open: false after one of the fixed diagnostics. Both
// the parity and the stop bits are examined, so both lines may appear.
bool configureLine(int fd, BYTE byteParity, BYTE byteStopbits, int iBaudIndex) {
  termios tio;
  memset(&tio, 0, sizeof(tio));
  if (tcgetattr(fd, &tio) != 0) {
    puts("tcgetattr failed");
    return false;
  }
  tio.c_cflag &= ~CSIZE;
  tio.c_cflag |= CREAD | CLOCAL | CS8;
  bool parityKnown = setParity(tio, byteParity);
  bool stopBitsKnown = setStopBits(tio, byteStopbits);
  if (!parityKnown || !stopBitsKnown) return false;
  setRawLine(tio, iBaudIndex);
  if (tcsetattr(fd, TCSANOW, &tio) != 0) {
    puts("tcsetattr failed");
    return false;
  }
  return true;
}

// Low latency and a custom divisor for drivers that support them; a device
// without TIOCGSERIAL (a pseudo-terminal, a USB adapter) is no failure.
void requestCustomDivisor(int fd, UINT uBaudRate) {
  serial_struct serial;
  memset(&serial, 0, sizeof(serial));
  if (ioctl(fd, TIOCGSERIAL, &serial) != 0) return;
  // A zero rate would divide by zero; such a request is simply not made.
  if (uBaudRate == 0 || serial.baud_base <= static_cast<int>(uBaudRate)) return;
  serial.flags = ASYNC_SPD_CUST | ASYNC_LOW_LATENCY;  // replaces the old flags
  serial.custom_divisor = static_cast<int>(static_cast<unsigned>(serial.baud_base) / uBaudRate);
  ioctl(fd, TIOCSSERIAL, &serial);
}

}  // namespace

int os_serial_open(const char* strSerialName, UINT uBaudRate, BYTE byteParity, BYTE byteStopbits, int iBaudIndex) {
  if (strSerialName == nullptr) return -1;
  int fd = open(strSerialName, O_RDWR | O_NOCTTY | O_APPEND | O_NONBLOCK);
  if (fd == -1) return -1;
  if (!configureLine(fd, byteParity, byteStopbits, iBaudIndex)) {
    internal::ErrnoGuard keep;
    close(fd);
    return -1;
  }
  requestCustomDivisor(fd, uBaudRate);
  tcflush(fd, TCIOFLUSH);
  return fd;
}

void os_serial_close(const int& hHandle) {
  if (hHandle == -1) return;
  close(hHandle);
  // The reference is const in the interface yet the caller's variable is reset.
  const_cast<int&>(hHandle) = -1;
}

void os_serial_purge(int hHandle, int iFlag) {
  if (hHandle == -1) return;
  const bool tx = (iFlag & SERIAL_TX_BIT) != 0;
  const bool rx = (iFlag & SERIAL_RX_BIT) != 0;
  // Crossed on purpose: the transmit bit drops received input and the
  // receive bit drops pending output. Neither bit gives a selector tcflush
  // refuses, so nothing is flushed.
  int selector = -1;
  if (tx && rx) {
    selector = TCIOFLUSH;
  } else if (tx) {
    selector = TCIFLUSH;
  } else if (rx) {
    selector = TCOFLUSH;
  }
  tcflush(hHandle, selector);
}

bool os_serial_select(int hHandle, int dwMillionTimeout) {
  if (hHandle == -1) return false;
  return internal::waitOnce(hHandle, internal::Readiness::Readable,
                            internal::relativeTime(std::chrono::milliseconds(dwMillionTimeout))) == 1;
}

int os_serial_write(int hHandle, const unsigned char* buf, int len, int dwTimeoutMillisecond) {
  if (!timeoutInRange(dwTimeoutMillisecond) || hHandle == -1 || len < 0) return -1;
  // The transfer works on its own copy so the caller's buffer is free at once.
  std::unique_ptr<unsigned char[]> copy(new unsigned char[len]);
  if (len > 0) memcpy(copy.get(), buf, len);
  Transfer transfer(hHandle, copy.get(), static_cast<size_t>(len), LIO_WRITE);
  LONG written = -1;
  if (!transfer.finish(suspendPatience(dwTimeoutMillisecond), written)) {
    transfer.abandon(kWriteCancelMessage);
    return -1;
  }
  return static_cast<int>(written);
}

namespace {

// One frame read: with a header, a hunt that slides one byte at a time until
// the header ends the input so far, then the body up to len bytes. Each
// transfer is bounded by the timeout; the frame ends early when no byte comes
// within the gap between bytes.
class FrameReader {
 public:
  FrameReader(int fd, int len, const void* head, LONG headLen, int gapMillis, int timeoutMillis)
      : m_fd(fd),
        m_len(len),
        m_head(head),
        m_headLen(headLen),
        m_gapMillis(gapMillis),
        m_patience(suspendPatience(timeoutMillis)),
        m_haveHead(head == nullptr || headLen == 0),
        // The hunt stops short of len bytes and the body adds at most len
        // more, so twice the frame is enough.
        m_input(new unsigned char[2 * static_cast<size_t>(len)]),
        m_aio(new unsigned char[len]) {}

  // The frame's length (0 to len) with the frame in buf, or -1.
  int read(unsigned char* buf) {
    for (;;) {
      if (m_valid >= m_len) return deliver(buf, m_len);
      LONG got = 0;
      Transfer transfer(m_fd, m_aio.get(), static_cast<size_t>(wanted()), LIO_READ);
      if (!transfer.finish(m_patience, got)) {
        transfer.abandon(kReadCancelMessage);
        return -1;
      }
      if (got > 0) {
        m_announced = false;
        if (!store(got)) return -1;
        continue;
      }
      // Nothing at hand (a raw line answers 0, or -1 with EAGAIN): the frame
      // goes on if a byte comes within the gap. A line that was reported
      // readable and still gives nothing has hung up or failed; it would stay
      // "readable" for ever, so the frame ends here instead of spinning.
      if (!m_announced && os_serial_select(m_fd, m_gapMillis)) {
        m_announced = true;
        continue;
      }
      return endByGap(buf);
    }
  }

 private:
  LONG wanted() const {
    if (m_haveHead) return m_len - m_valid;
    if (m_total < m_headLen) return m_headLen - m_total;
    return 1;
  }

  // Appends what came; false when no header came within a frame's length.
  bool store(LONG got) {
    memcpy(m_input.get() + m_total, m_aio.get(), got);
    m_total += got;
    if (m_haveHead) {
      m_valid += got;
      return true;
    }
    if (m_total < m_headLen) return true;
    if (m_total >= m_len) {
      // The one-frame buffer is left allocated on this return: intended,
      // callers know of it.
      m_aio.release();
      return false;
    }
    // The header counts only at the very end of the input so far; it leads the frame.
    if (memcmp(m_input.get() + m_total - m_headLen, m_head, m_headLen) == 0) {
      m_valid = m_headLen;
      m_haveHead = true;
    }
    return true;
  }

  int deliver(unsigned char* buf, LONG count) {
    if (count > 0) memcpy(buf, m_input.get() + m_total - count, count);
    return static_cast<int>(count);
  }

  int endByGap(unsigned char* buf) {
    if (!m_haveHead && m_valid == 0 && m_total > 0) puts("The frame header may be truncated.");
    return deliver(buf, m_valid);
  }

  int m_fd;
  LONG m_len;
  const void* m_head;
  LONG m_headLen;
  int m_gapMillis;
  timespec m_patience;
  bool m_haveHead;
  bool m_announced = false;  // the last gap wait reported input
  LONG m_total = 0;          // bytes read so far
  LONG m_valid = 0;          // bytes of the frame so far, header included
  std::unique_ptr<unsigned char[]> m_input;
  std::unique_ptr<unsigned char[]> m_aio;
};

}  // namespace

int os_serial_read(int hHandle, unsigned char* buf, int len, void* m_pHead, UINT m_uHeadLen, int dwMaxByteInterval,
                   int dwTimeoutMillisecond) {
  if (!timeoutInRange(dwTimeoutMillisecond) || hHandle == -1) return -1;
  const LONG headLen = m_uHeadLen;
  if (len < headLen || len < 0) return -1;
  FrameReader reader(hHandle, len, m_pHead, headLen, dwMaxByteInterval, dwTimeoutMillisecond);
  return reader.read(buf);
}
