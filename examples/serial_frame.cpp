// Reads one header-led frame from a serial line and answers it, with a
// pseudo-terminal pair standing in for the device: the program holds the
// master side (the "device") and opens the slave side as its serial port.
//
// Shows: os_serial_open with parity, stop bits and speed; os_serial_read
// hunting for a two-byte header among noise and delivering a fixed-length
// frame that starts with it; os_serial_write with a time-out.

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <ostrelled/OS_Serial.h>

int main() {
  int device = posix_openpt(O_RDWR | O_NOCTTY);
  if (device < 0 || grantpt(device) != 0 || unlockpt(device) != 0) return 1;
  // The termios speed constant goes to the driver as it is; the number in
  // bits per second only serves drivers that take a custom divisor.
  int line = os_serial_open(ptsname(device), 115200, NOPARITY, ONESTOPBIT, B115200);
  if (line < 0) return 1;

  // Two bytes of noise, then the header 0xAA 0x55 and six bytes of payload.
  const unsigned char sent[] = {0x13, 0x37, 0xAA, 0x55, 'T', '=', '2', '1', '.', '5'};
  if (write(device, sent, sizeof sent) != ssize_t(sizeof sent)) return 1;

  // A frame is 8 bytes, header included. The read gives up on a silence of
  // 100 ms between bytes and on a read left unfinished for 500 ms.
  unsigned char frame[8] = {};
  unsigned char header[] = {0xAA, 0x55};
  int got = os_serial_read(line, frame, sizeof frame, header, sizeof header, 100, 500);
  bool good = got == int(sizeof frame) && memcmp(frame, sent + 2, sizeof frame) == 0;
  printf("serial_frame: read %d bytes, header %02X %02X, payload \"%.6s\"\n", got, frame[0], frame[1],
         reinterpret_cast<const char*>(frame + 2));

  // Answer, waiting at most 200 ms for the write to make progress.
  const unsigned char ack[] = {'A', 'C', 'K'};
  good = good && os_serial_write(line, ack, sizeof ack, 200) == int(sizeof ack);
  char answer[4] = {};
  pollfd ready = {device, POLLIN, 0};
  good = good && poll(&ready, 1, 1000) == 1 && read(device, answer, 3) == 3 && strcmp(answer, "ACK") == 0;

  os_serial_close(line);  // also sets line to -1
  close(device);
  printf("serial_frame: frame and answer %s\n", good ? "as expected" : "WRONG");
  return good ? 0 : 1;
}
