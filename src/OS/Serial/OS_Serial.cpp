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

#include "OS/internal/Wait.h"

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
  patience.tv_nsec = static_cast<long>(milliseconds) * 1000000L;
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

// Line settings of an open: false after one of the fixed diagnostics.
bool configureLine(int fd, BYTE byteParity, BYTE byteStopbits, int iBaudIndex) {
  termios tio;
  memset(&tio, 0, sizeof(tio));
  if (tcgetattr(fd, &tio) != 0) {
    puts("tcgetattr failed");
    return false;
  }
  tio.c_cflag &= ~CSIZE;
  tio.c_cflag |= CREAD | CLOCAL | CS8;

  bool good = true;
  switch (byteParity) {
    case NOPARITY:
      tio.c_cflag &= ~PARENB;
      tio.c_iflag &= ~INPCK;
      break;
    case ODDPARITY:
      tio.c_cflag |= PARENB | PARODD;
      tio.c_iflag |= INPCK;
      break;
    case SPACEPARITY:
      // No parity bit generated, yet input checking stays on; the stop-bit
      // choice below overrides the CSTOPB cleared here.
      tio.c_cflag &= ~(PARENB | CSTOPB);
      tio.c_iflag |= INPCK;
      break;
    case EVENPARITY:
      tio.c_cflag |= PARENB;
      tio.c_cflag &= ~PARODD;
      tio.c_iflag |= INPCK;
      break;
    default:
      puts("Unsupported parity");
      good = false;  // the stop bits are still examined, so both lines may appear
      break;
  }
  switch (byteStopbits) {
    case ONESTOPBIT:
      tio.c_cflag &= ~CSTOPB;
      break;
    case TWOSTOPBITS:
      tio.c_cflag |= CSTOPB;
      break;
    default:
      puts("Unsupported stopbits");
      good = false;
      break;
  }
  if (!good) return false;

  tio.c_oflag &= ~(OPOST | ONLCR | OCRNL);
  tio.c_lflag &= ~(ISIG | ICANON | ECHO | ECHOE);
  tio.c_iflag &= ~(INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF);
  tio.c_cc[VTIME] = 0;
  tio.c_cc[VMIN] = 0;
  cfsetispeed(&tio, static_cast<speed_t>(iBaudIndex));
  cfsetospeed(&tio, static_cast<speed_t>(iBaudIndex));
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

int os_serial_open(const char* strSerialName, UINT uBaudRate, BYTE byteParity, BYTE byteStopbits,
                   int iBaudIndex) {
  if (strSerialName == nullptr) return -1;
  int fd = open(strSerialName, O_RDWR | O_NOCTTY | O_APPEND | O_NONBLOCK);
  if (fd == -1) return -1;
  if (!configureLine(fd, byteParity, byteStopbits, iBaudIndex)) {
    int saved = errno;
    close(fd);
    errno = saved;
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
  return OS::Private::waitOnce(hHandle, OS::Private::Readiness::Readable,
                               OS::Private::spanOf<int>(dwMillionTimeout, 1000)) == 1;
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

int os_serial_read(int hHandle, unsigned char* buf, int len, void* m_pHead, UINT m_uHeadLen,
                   int dwMaxByteInterval, int dwTimeoutMillisecond) {
  if (!timeoutInRange(dwTimeoutMillisecond) || hHandle == -1) return -1;
  LONG dwTotalReadLen = 0;
  LONG dwValidReadLen = 0;
  LONG dwRequireReadNum = 0;
  LONG dwReadNum = 0;
  bool bReadValidHead = m_pHead == nullptr || m_uHeadLen == 0;
  const LONG headLen = m_uHeadLen;
  if (len < headLen || len < 0) return -1;

  // Accumulated input: the hunt stops short of len bytes and the body adds
  // at most len more, so twice the frame is enough.
  std::unique_ptr<unsigned char[]> pReadBuffer(new unsigned char[2 * static_cast<size_t>(len)]);
  std::unique_ptr<unsigned char[]> pAioBuffer(new unsigned char[len]);
  const timespec patience = suspendPatience(dwTimeoutMillisecond);
  bool inputAnnounced = false;  // the last gap wait reported input
  for (;;) {
    if (dwValidReadLen >= len) {
      if (len > 0) memcpy(buf, pReadBuffer.get() + dwTotalReadLen - len, len);
      return len;
    }
    if (bReadValidHead || headLen == 0) {
      dwRequireReadNum = len - dwValidReadLen;
    } else if (dwTotalReadLen < headLen) {
      dwRequireReadNum = headLen - dwTotalReadLen;
    } else {
      dwRequireReadNum = 1;  // the hunt slides one byte at a time
    }

    Transfer transfer(hHandle, pAioBuffer.get(), static_cast<size_t>(dwRequireReadNum), LIO_READ);
    if (!transfer.finish(patience, dwReadNum)) {
      transfer.abandon(kReadCancelMessage);
      return -1;
    }

    if (dwReadNum > 0) {
      inputAnnounced = false;
      memcpy(pReadBuffer.get() + dwTotalReadLen, pAioBuffer.get(), dwReadNum);
      if (!bReadValidHead && headLen != 0) {
        const LONG end = dwTotalReadLen + dwReadNum;
        if (end >= headLen) {
          if (end >= len) {
            // No header within a frame's length. The one-frame buffer is
            // left allocated on this return: intended, callers know of it.
            pAioBuffer.release();
            return -1;
          }
          // The header counts only at the very end of the input so far; it
          // leads the delivered frame.
          if (memcmp(pReadBuffer.get() + end - headLen, m_pHead, headLen) == 0) {
            dwValidReadLen = headLen;
            bReadValidHead = true;
          }
        }
      } else {
        dwValidReadLen += dwReadNum;
      }
      dwTotalReadLen += dwReadNum;
      continue;
    }

    // Nothing at hand (a raw line answers 0, or -1 with EAGAIN): the frame
    // goes on if a byte comes within the gap. A line that was reported
    // readable and still gives nothing has hung up or failed; it would stay
    // "readable" for ever, so the frame ends here instead of spinning.
    if (!inputAnnounced && os_serial_select(hHandle, dwMaxByteInterval)) {
      inputAnnounced = true;
      continue;
    }
    if (dwValidReadLen > 0) memcpy(buf, pReadBuffer.get() + dwTotalReadLen - dwValidReadLen, dwValidReadLen);
    if (!bReadValidHead && dwValidReadLen == 0 && dwTotalReadLen > 0) puts("The frame header may be truncated.");
    return static_cast<int>(dwValidReadLen);
  }
}
