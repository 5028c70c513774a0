"""The generation of the kernel's rule set in this network namespace, asked through netlink."""

import socket
import struct

_NETLINK_NETFILTER = 12
_GETGEN = (10 << 8) | 16
_REQUEST = 1
_GENERATION_ID = 1


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
