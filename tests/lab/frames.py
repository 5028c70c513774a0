"""Ethernet frames, built by hand. Each ends with a token of its own, by which it is found again."""

import ipaddress
import itertools
import struct

BROADCAST = "ff:ff:ff:ff:ff:ff"
IPV4, ARP, IPV6, VLAN = 0x0800, 0x0806, 0x86DD, 0x8100
EXPERIMENTAL = 0x88B6
TCP, UDP = 6, 17
_numbers = itertools.count(1)


class Frame:
    """One frame: `data` as it is sent, `token` the bytes that it ends with.

    src, dst: MAC addresses. vlan: id of an 802.1Q tag, or None. ethertype: number; for IPV4 and IPV6 the header
    is written with ipSrc, ipDst, proto (number) and port (destination port, for TCP and UDP).
    """

    def __init__(self, src="02:00:00:00:00:01", dst="02:00:00:00:00:02", vlan=None, ethertype=EXPERIMENTAL,
                 ipSrc=None, ipDst=None, proto=UDP, port=9):
        self.token = b"moatkeeper frame %08d" % next(_numbers)
        body = self.token
        if ethertype == IPV4:
            body = _ipv4(ipSrc or "192.0.2.1", ipDst or "192.0.2.2", proto, _transport(proto, port, body))
        elif ethertype == IPV6:
            body = _ipv6(ipSrc or "2001:db8::1", ipDst or "2001:db8::2", proto, _transport(proto, port, body))
        tag = b"" if vlan is None else struct.pack("!HH", VLAN, vlan)
        self.data = _mac(dst) + _mac(src) + tag + struct.pack("!H", ethertype) + body


def _mac(text):
    return bytes.fromhex(text.replace(":", ""))


def _transport(proto, port, body):
    if proto == UDP:
        return struct.pack("!HHHH", 40000, port, 8 + len(body), 0) + body
    if proto == TCP:
        return struct.pack("!HHIIBBHHH", 40000, port, 1, 0, 5 << 4, 2, 1024, 0, 0) + body
    return body


def _ipv4(src, dst, proto, body):
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(body), 0, 0, 64, proto, 0,
                         ipaddress.IPv4Address(src).packed, ipaddress.IPv4Address(dst).packed)
    return header[:10] + struct.pack("!H", _checksum(header)) + header[12:] + body


def _ipv6(src, dst, proto, body):
    return struct.pack("!IHBB16s16s", 6 << 28, len(body), proto, 64,
                       ipaddress.IPv6Address(src).packed, ipaddress.IPv6Address(dst).packed) + body


def _checksum(header):
    total = sum(struct.unpack(f"!{len(header) // 2}H", header))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF
