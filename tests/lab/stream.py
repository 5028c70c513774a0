"""A bridge with the ports `in` and `out`, whose far ends send and receive, and streams of frames through it."""

import socket
import struct
import subprocess
import threading
import time

ETH_P_ALL = 3
SO_RCVBUFFORCE = 33
ETHERTYPE = 0x88B5  # for local experiments
ALLOWED = bytes.fromhex("02aa00000001")
FORBIDDEN = bytes.fromhex("02aa00000002")


def ip(arguments):
    subprocess.run(["ip"] + arguments.split(), check=True)


def makeBridge():
    ip("link add bridge type bridge mcast_snooping 0")
    for port in ("in", "out"):
        ip(f"link add {port} type veth peer name far-{port}")
        ip(f"link set {port} master bridge")
        for name in (port, f"far-{port}"):
            with open(f"/proc/sys/net/ipv6/conf/{name}/disable_ipv6", "w") as setting:
                setting.write("1")
            ip(f"link set {name} up")
    ip("link set bridge up")


def rawSocket(interface):
    raw = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    raw.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
    raw.bind((interface, ETH_P_ALL))
    return raw


def frame(source, number):
    return b"\x02\xbb\x00\x00\x00\x01" + source + struct.pack("!HQ", ETHERTYPE, number) + bytes(40)


class TimedStream:
    """Sends a frame of each source in turn, and keeps when each was sent and whether it came through."""

    def __init__(self, *sources, pause=0.0002):
        self.sources = sources
        self.sent = []  # when
        self.received = set()  # numbers of those
        self._pause = pause
        self._sender = rawSocket("far-in")
        self._receiver = rawSocket("far-out")
        self._receiver.settimeout(0.3)
        self._stop = threading.Event()
        self._threads = [threading.Thread(target=self._send), threading.Thread(target=self._receive)]

    def source(self, number):
        return self.sources[number % len(self.sources)]

    def _send(self):
        while not self._stop.is_set():
            number = len(self.sent)
            self.sent.append(time.monotonic())
            self._sender.send(frame(self.source(number), number))
            time.sleep(self._pause)

    def _receive(self):
        while True:
            try:
                data, address = self._receiver.recvfrom(2048)
            except TimeoutError:
                if self._stop.is_set():
                    return
                continue
            if address[2] != socket.PACKET_OUTGOING and struct.unpack_from("!H", data, 12)[0] == ETHERTYPE:
                self.received.add(struct.unpack_from("!Q", data, 14)[0])

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *unused):
        self._stop.set()
        for thread in self._threads:
            thread.join()
        self._sender.close()
        self._receiver.close()
