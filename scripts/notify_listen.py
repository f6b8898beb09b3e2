#!/usr/bin/env python3
"""Listens on a service-notification socket as systemd does for Type=notify.

Usage: notify_listen.py SOCKET SECONDS
Binds a datagram socket at SOCKET, prints "bound", then prints "ready" when a
message holding the line READY=1 arrives, or "timeout" after SECONDS. The
socket is removed on the way out.
"""
import os
import socket
import sys


def main():
    path, seconds = sys.argv[1], float(sys.argv[2])
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    listener.bind(path)
    try:
        print("bound", flush=True)
        listener.settimeout(seconds)
        while True:
            message = listener.recv(4096).decode(errors="replace")
            if "READY=1" in message.split("\n"):
                print("ready", flush=True)
                return
    except socket.timeout:
        print("timeout", flush=True)
    finally:
        os.unlink(path)


if __name__ == "__main__":
    main()
