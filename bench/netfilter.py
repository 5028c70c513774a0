"""Asks the kernel for the generation of this network namespace's rule set: it counts the transactions."""

import socket
import struct

_NETLINK_NETFILTER = 12
_NFT_MSG_GETGEN = (10 << 8) | 16
_NLM_F_REQUEST = 1
_NFTA_GEN_ID = 1


class Generation:
    """One netlink socket; current() costs two system calls."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, _NETLINK_NETFILTER)
        self._socket.bind((0, 0))
        nfgenmsg = struct.pack("=BBH", 0, 0, 0)
        self._request = struct.pack("=LHHLL", 16 + len(nfgenmsg), _NFT_MSG_GETGEN, _NLM_F_REQUEST, 1, 0) + nfgenmsg

    def current(self):
        self._socket.send(self._request)
        answer = self._socket.recv(4096)
        attributes = answer[20:]
        while len(attributes) >= 4:
            length, kind = struct.unpack_from("=HH", attributes)
            if kind & 0x3FFF == _NFTA_GEN_ID:
                return struct.unpack_from(">I", attributes, 4)[0]
            attributes = attributes[(length + 3) & ~3:]
        raise OSError("the kernel's answer has no generation")
