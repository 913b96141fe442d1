#!/usr/bin/env python3
"""A card in vpcd's virtual reader: connects to the reader's port on this
machine and answers as a card whose ATR is given, without any application:
SELECT finds nothing (6A82), every other command is unknown (6D00).

usage: virtual_card.py PORT ATR_HEX"""
import socket
import sys
import time


def frames(sock):
    buffer = b""
    while True:
        while len(buffer) < 2 or len(buffer) < 2 + int.from_bytes(buffer[:2], "big"):
            chunk = sock.recv(4096)
            if not chunk:
                return
            buffer += chunk
        size = int.from_bytes(buffer[:2], "big")
        yield buffer[2:2 + size]
        buffer = buffer[2 + size:]


def main():
    port, atr = int(sys.argv[1]), bytes.fromhex(sys.argv[2])
    deadline = time.monotonic() + 10
    while True:
        try:
            sock = socket.create_connection(("127.0.0.1", port))
            break
        except OSError:
            if time.monotonic() > deadline:
                sys.exit("no virtual reader listens on port %d" % port)
            time.sleep(0.05)
    for message in frames(sock):
        if len(message) == 1:
            reply = atr if message[0] == 4 else None  # 0 off, 1 on, 2 reset: no answer
        else:
            reply = bytes.fromhex("6A82" if message[1:2] == b"\xa4" else "6D00")
        if reply is not None:
            sock.sendall(len(reply).to_bytes(2, "big") + reply)


if __name__ == "__main__":
    main()
