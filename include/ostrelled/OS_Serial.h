#ifndef OSTRELLED_OS_SERIAL_H
#define OSTRELLED_OS_SERIAL_H

#include <ostrelled/Types.h>

/// @file
/// Serial ports. A serial handle is the plain descriptor; -1 means "not open".

/// Parity of os_serial_open.
enum PARITY {
  NOPARITY = 0,     ///< No parity bit.
  ODDPARITY = 1,    ///< Odd parity.
  SPACEPARITY = 2,  ///< No parity bit is sent, yet input checking stays on (kept).
  MARKPARITY = 3,   ///< Not supported: os_serial_open fails with "Unsupported parity".
  EVENPARITY = 4    ///< Even parity.
};
/// Stop bits of os_serial_open.
enum STOPBITS {
  ONESTOPBIT = 0,  ///< One stop bit.
  TWOSTOPBITS = 1  ///< Two stop bits.
};
/// Directions of os_serial_purge, which crosses them on purpose.
enum SERIAL_BIT {
  SERIAL_TX_BIT = 1,  ///< Drops unread input (not unsent output), on purpose.
  SERIAL_RX_BIT = 2   ///< Drops unsent output (not unread input), on purpose.
};

extern "C" {
/// Opens a device raw and non-blocking with 8 data bits, the given parity and
/// stop bits and the termios speed constant iBaudIndex; asks the driver for a
/// custom divisor from uBaudRate when it has one. Descriptor, or -1 (closed
/// again after a printed "Unsupported parity"/"Unsupported stopbits"/tc* error).
OSTRELLED_EXPORT int os_serial_open(const char* strSerialName, UINT uBaudRate, BYTE byteParity, BYTE byteStopbits,
                                    int iBaudIndex);
/// Closes the descriptor and sets the caller's variable to -1, despite the const.
OSTRELLED_EXPORT void os_serial_close(const int& hHandle);
/// Discards queued data. Crossed on purpose: SERIAL_TX_BIT alone drops unread
/// input, SERIAL_RX_BIT alone drops unsent output, both drop both, 0 nothing.
OSTRELLED_EXPORT void os_serial_purge(int hHandle, int iFlag);
/// True when input waits within dwMillionTimeout MILLIseconds (despite the name).
OSTRELLED_EXPORT bool os_serial_select(int hHandle, int dwMillionTimeout);
/// Writes len bytes from a private copy, waiting at most dwTimeoutMillisecond
/// (0..1000) between checks of progress: bytes written, or -1. A time-out
/// always prints "Can not cancel write operator, application maybe crashed!".
OSTRELLED_EXPORT int os_serial_write(int hHandle, const unsigned char* buf, int len, int dwTimeoutMillisecond);
/// Reads a frame of len bytes into buf, first hunting for the m_uHeadLen-byte
/// header m_pHead when one is given (it leads the delivered frame). A silence
/// of dwMaxByteInterval ms ends the frame early and returns the bytes found so
/// far; -1 for a header missing from the first len bytes (the one case that
/// leaks a len-byte buffer, intended) and on a read stuck beyond
/// dwTimeoutMillisecond (0..1000).
OSTRELLED_EXPORT int os_serial_read(int hHandle, unsigned char* buf, int len, void* m_pHead, UINT m_uHeadLen,
                                    int dwMaxByteInterval, int dwTimeoutMillisecond);
}

#endif
