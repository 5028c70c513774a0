"""The kernel's rule set of this network namespace, asked through netlink: its generation, and the end of commits."""

import socket
import struct
import time

_NETLINK_NETFILTER = 12
_NEWGEN, _GETGEN = (10 << 8) | 15, (10 << 8) | 16
_REQUEST = 1
_GENERATION_ID = 1
_GROUP_NFTABLES = 1 << 6
_SO_RCVBUFFORCE = 33


def generation():
    """How many transactions there have been."""
    with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, _NETLINK_NETFILTER) as netlink:
        netlink.send(struct.pack("=LHHLLBBH", 20, _GETGEN, _REQUEST, 1, 0, 0, 0, 0))
        attributes = netlink.recv(4096)[20:]
    while len(attributes) >= 4:
        length, kind = struct.unpack_from("=HH", attributes)
        if kind & 0x3FFF == _GENERATION_ID:
            return struct.unpack_from(">I", attributes, 4)[0]
        attributes = attributes[(length + 3) & ~3:]
    raise OSError("the kernel's answer has no generation")


class Commits:
    """Hears of each transaction when it is complete: the generation counts up while rules are still being swapped.

    While this exists, the kernel writes a message for each rule that a transaction brings or takes."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, _NETLINK_NETFILTER)
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 512 << 20)
        self._socket.bind((0, _GROUP_NFTABLES))

    def wait(self, seconds=120):
        """Returns at the end of the next transaction that was not waited for yet."""
        deadline = time.monotonic() + seconds
        while True:
            self._socket.settimeout(max(0.001, deadline - time.monotonic()))
            data = self._socket.recv(1 << 20)
            while len(data) >= 16:
                length, kind = struct.unpack_from("=LH", data)
                if kind == _NEWGEN:
                    return
                data = data[(length + 3) & ~3:]

    def close(self):
        self._socket.close()
