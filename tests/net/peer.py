#!/usr/bin/env python3
"""A TCP peer that is not ours, for the socket tests: it runs natively on the
host and is reached from the library under Wine over 127.0.0.1.

  peer.py start FILE   listen on a free port, write "port pid" to FILE, detach
  peer.py stop FILE    end the peer named in FILE

Each connection sends a 4-byte little-endian length N and N bytes; the peer
reads all of them (a sink), sends the same bytes back (a source) and closes.
"""
import os
import signal
import socket
import struct
import sys
import threading


def receive(conn, n):
    data = bytearray()
    while len(data) < n:
        chunk = conn.recv(min(65536, n - len(data)))
        if not chunk:
            break
        data += chunk
    return bytes(data)


def serve_one(conn):
    with conn:
        head = receive(conn, 4)
        if len(head) == 4:
            conn.sendall(receive(conn, struct.unpack("<I", head)[0]))


def main():
    command, path = sys.argv[1], sys.argv[2]
    if command == "stop":
        with open(path) as f:
            os.kill(int(f.read().split()[1]), signal.SIGTERM)
        return
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(5)
    pid = os.fork()
    if pid:
        with open(path, "w") as f:
            f.write("%d %d\n" % (listener.getsockname()[1], pid))
        return
    os.setsid()
    null = os.open(os.devnull, os.O_RDWR)
    for fd in (0, 1, 2):
        os.dup2(null, fd)  # CTest waits for the pipes it gave us
    while True:
        conn, _ = listener.accept()
        threading.Thread(target=serve_one, args=(conn,), daemon=True).start()


if __name__ == "__main__":
    main()
