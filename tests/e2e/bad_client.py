"""A client of a device that does one thing wrong, for the scenarios that must notice.

usage: bad_client.py PORT good|mute|forgetful|slow [ENTRY]
"""
import select
import socket
import struct
import sys
import time

kHello, kSet, kTrap, kPing = 1, 4, 5, 7
kAddOption, kFaxUpload = bytes((1, 2, 2, 1, 37)), bytes((1, 3, 7, 2, 1))


class Link:
    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port))
        self.number = 0

    def ask(self, kind, payload=b""):
        self.number += 1
        self.socket.sendall(struct.pack("<IBI", 5 + len(payload), kind, self.number) + payload)
        while True:
            body = self.take(struct.unpack("<I", self.take(4))[0])
            if body[0] == kind | 0x80:
                return

    def take(self, count):
        data = b""
        while len(data) < count:
            piece = self.socket.recv(count - len(data))
            if not piece:
                raise ConnectionError
            data += piece
        return data


def connect(port, subscribe, text):
    link = Link(port)
    link.ask(kHello, b"QDLK" + struct.pack("<HBB", 1, 4, 0))
    if subscribe:
        link.ask(kSet, bytes((5,)) + kAddOption + struct.pack("<BI", 4, len(text)) + text)
        link.ask(kTrap, bytes((5,)) + kFaxUpload + struct.pack("<BH", 1, 7))
    return link


def main(port, manner, entry="Paper Archive"):
    listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    listener.bind(("127.0.0.1", 0))
    text = f"{entry};NETADDR=127.0.0.1:{listener.getsockname()[1]};SWINST=1;".encode()
    link = connect(port, True, text)
    while True:
        ready, _, _ = select.select([listener, link.socket], [], [], 4)
        if listener in ready:
            datagram, sender = listener.recvfrom(350)
            if manner == "slow":
                time.sleep(1.2)
            if manner != "mute":
                listener.sendto(datagram, sender)
        if link.socket in ready and not link.socket.recv(4096):
            time.sleep(0.3)
            link = connect(port, manner != "forgetful", text)
        if not ready:
            link.ask(kPing)


if __name__ == "__main__":
    try:
        main(int(sys.argv[1]), *sys.argv[2:])
    except OSError:
        pass  # the device has gone, and so do we
