#!/usr/bin/env python3
"""A PIV card in vpcd's virtual reader: connects to the reader's port on this
machine and answers with the ATR given, as a card that holds the certificate
(DER) and its RSA key (PEM) as its PIV Authentication pair (key 9A), the key
used only after the PIN 123456 is verified. Every exchange is logged on stdout.

usage: virtual_card.py PORT ATR_HEX CERT_DER KEY_PEM"""
import socket
import subprocess
import sys
import time

PIV_AID = bytes.fromhex("A000000308")  # the RID; the PIX follows
PIV_PIX = bytes.fromhex("000010000100")
OK = b"\x90\x00"
PIN = b"123456".ljust(8, b"\xff")
TRIES = 3


def frames(sock):
    buffer = b""
    while True:
        while len(buffer) < 2 or len(buffer) < 2 + int.from_bytes(buffer[:2], "big"):
            # Acknowledge at once: with delayed ACKs every command took 40 ms more.
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)
            chunk = sock.recv(4096)
            if not chunk:
                return
            buffer += chunk
        size = int.from_bytes(buffer[:2], "big")
        yield buffer[2:2 + size]
        buffer = buffer[2 + size:]


def tlv(tag, value):
    size = len(value)
    head = bytes([size]) if size < 128 else bytes([0x81, size]) if size < 256 else b"\x82" + size.to_bytes(2, "big")
    return tag.to_bytes((tag.bit_length() + 7) // 8, "big") + head + value


def elements(data):
    """The (tag, value) pairs of BER-TLV data whose tags are one byte long."""
    i = 0
    while i + 1 < len(data):
        tag, size, i = data[i], data[i + 1], i + 2
        if size & 0x80:
            size, i = int.from_bytes(data[i:i + (size & 0x7F)], "big"), i + (size & 0x7F)
        yield tag, data[i:i + size]
        i += size


class Piv:
    def __init__(self, cert_path, key_path):
        with open(cert_path, "rb") as cert:
            certificate = cert.read()
        self.key_path = key_path
        self.tries = TRIES
        self.objects = {
            b"\x5f\xc1\x02": tlv(0x53, tlv(0x30, bytes.fromhex("D4E739DA739CED39CE739D836858210842108421C84210C3EB"))
                                  + tlv(0x34, bytes(range(16))) + tlv(0x35, b"20991231") + tlv(0x3E, b"")
                                  + tlv(0xFE, b"")),
            b"\x5f\xc1\x07": tlv(0x53, tlv(0xF0, bytes(21)) + tlv(0xF1, b"\x21") + tlv(0xF2, b"\x21")
                                  + tlv(0xFE, b"")),
            b"\x5f\xc1\x05": tlv(0x53, tlv(0x70, certificate) + tlv(0x71, b"\x00") + tlv(0xFE, b"")),
        }
        self.reset()

    def reset(self):
        self.verified, self.chained, self.pending = False, b"", b""

    def answer(self, apdu):
        """The response to a command APDU: all of it for an extended one, else
        256 bytes at most, the rest left for GET RESPONSE (61xx)."""
        cla, ins, p1, p2 = apdu[:4]
        extended = len(apdu) > 6 and apdu[4] == 0
        start = 7 if extended else 5
        data = apdu[start:start + int.from_bytes(apdu[start - 2 if extended else 4:start], "big")]
        if ins != 0xC0:
            if cla & 0x10:  # command chaining: more of the data follows
                self.chained += data
                return OK
            data, self.chained = self.chained + data, b""
            answer = self.command(ins, p1, p2, data)
            if answer[-2:] != OK:
                return answer
            self.pending = answer[:-2]
        reply, self.pending = (self.pending, b"") if extended else (self.pending[:256], self.pending[256:])
        return reply + (b"\x61" + bytes([min(len(self.pending), 256) & 0xFF]) if self.pending else OK)

    def command(self, ins, p1, p2, data):
        """The command's answer: its data and its status word together."""
        if ins == 0xA4 and p1 == 0x04:
            if not data.startswith(PIV_AID):
                return b"\x6a\x82"
            return tlv(0x61, tlv(0x4F, PIV_PIX) + tlv(0x79, tlv(0x4F, PIV_AID))) + OK
        if ins == 0xCB:
            found = self.objects.get(dict(elements(data)).get(0x5C))
            return found + OK if found else b"\x6a\x82"
        if ins == 0x20 and p2 == 0x80:
            return self.verify(p1, data)
        if ins == 0x87 and p2 == 0x9A:
            if not self.verified:
                return b"\x69\x82"
            template = dict(elements(next(elements(data))[1]))
            if p1 != 0x07 or len(template.get(0x81, b"")) != 256:
                return b"\x6a\x80"
            # The raw private-key operation: the host sent the padded block.
            signed = subprocess.run(["openssl", "pkeyutl", "-decrypt", "-inkey", self.key_path, "-pkeyopt",
                                     "rsa_padding_mode:none"], input=template[0x81], capture_output=True).stdout
            return tlv(0x7C, tlv(0x82, signed)) + OK
        return b"\x6d\x00"

    def verify(self, p1, pin):
        if p1 == 0xFF:  # the PIN's security status reset
            self.verified = False
            return OK
        if self.tries == 0:
            return b"\x69\x83"
        if pin:
            self.verified = pin == PIN
            self.tries = TRIES if self.verified else self.tries - 1
        return OK if self.verified else bytes([0x63, 0xC0 | self.tries])


def main():
    port, atr = int(sys.argv[1]), bytes.fromhex(sys.argv[2])
    card = Piv(sys.argv[3], sys.argv[4])
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
            if message[0] != 4:
                card.reset()
        else:
            reply = card.answer(message)
        if reply is not None:
            print(message.hex(), "->", reply.hex(), flush=True)
            sock.sendall(len(reply).to_bytes(2, "big") + reply)


if __name__ == "__main__":
    main()
