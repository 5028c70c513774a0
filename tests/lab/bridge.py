"""A bridge whose ports lead to far ends that we hold, and frames sent from one far end to see where they arrive.

Each port is one end of a veth pair; the other end, NAME_far, is not in the bridge. The bridge does not learn
addresses: a unicast frame goes to every other port, a frame to the bridge's own address to the device itself.
"""

import os
import socket
import subprocess

from lab.sandbox import Unavailable

# Every frame of a protocol number is seen.
_ALL_PROTOCOLS = 0x0003
_PACKET_OUTGOING = 4
_MARKER_WIRE = ("marker0", "marker1")
_MARKER_TYPE = b"\x88\xb5"  # reserved for local experiments


class Bridge:
    """The bridge `name`; ports are the names of its ports. Raises Unavailable where none can be made."""

    mac = "02:00:00:00:00:f0"

    def __init__(self, ports, name="br0"):
        self.name = name
        self.ports = list(ports)
        self._build()
        self._far = {port: _openPacketSocket(f"{port}_far") for port in ports}
        self._taps = {name: _openPacketSocket(name), **self._far}
        self._markerOut, self._markerIn = (_openPacketSocket(end, timeout=10) for end in _MARKER_WIRE)

    def close(self):
        for handle in (*self._taps.values(), self._markerOut, self._markerIn):
            handle.close()

    def send(self, *sent):
        """Sends the frames, each given as (port it comes in by, frame); returns as many sets of names.

        A set holds the ports by which the frame left, and the bridge's name if the device itself received it.
        No time limit is involved: see _waitUntilDelivered.
        """
        received = self.sendRaw([(port, frame.data) for port, frame in sent])
        return [{name for name, frames in received.items() if any(data.endswith(frame.token) for data in frames)}
                for _, frame in sent]

    def sendRaw(self, sent):
        """Sends bytes, each as (port they come in by, bytes); returns what was received by now, {name: [bytes, ...]}."""
        cpus = os.sched_getaffinity(0)
        os.sched_setaffinity(0, {min(cpus)})
        try:
            for port, data in sent:
                self._far[port].send(data)
            self._waitUntilDelivered()
        finally:
            os.sched_setaffinity(0, cpus)
        return {name: _drain(tap) for name, tap in self._taps.items()}

    def sendOne(self, port, frame):
        """As send, for one frame."""
        return self.send((port, frame))[0]

    def _waitUntilDelivered(self):
        # A processor handles what arrives at its veth devices strictly in order, and we send from one processor
        # only. A marker on a wire without a filter, sent after the frames, arrives after they have come in to the
        # bridge and been queued for the way out; a second one, sent after that, arrives after they are out.
        # So what has not arrived by then never will.
        for _ in range(2):
            self._markerOut.send(b"\xff" * 6 + b"\x02" + bytes(5) + _MARKER_TYPE + bytes(46))
            while True:
                data, address = self._markerIn.recvfrom(2048)
                if address[2] != _PACKET_OUTGOING and data[12:14] == _MARKER_TYPE:
                    break

    def _build(self):
        for family in ("all", "default"):
            # No frames of the kernel's own (router solicitations, multicast reports) among ours.
            path = f"/proc/sys/net/ipv6/conf/{family}/disable_ipv6"
            if os.path.exists(path):
                with open(path, "w", encoding="ascii") as switch:
                    switch.write("1")
        lines = [f"link add name {self.name} address {self.mac} type bridge mcast_snooping 0",
                 "link add name {} type veth peer name {}".format(*_MARKER_WIRE)]
        for port in self.ports:
            lines += [f"link add name {port} type veth peer name {port}_far",
                      f"link set dev {port} master {self.name}",
                      f"link set dev {port} type bridge_slave learning off",
                      f"link set dev {port} up", f"link set dev {port}_far up"]
        lines += [f"link set dev {name} up" for name in ("lo", self.name, *_MARKER_WIRE)]
        done = subprocess.run(["ip", "-batch", "-"], input="\n".join(lines) + "\n", capture_output=True, text=True,
                              check=False)
        if done.returncode != 0:
            raise Unavailable(f"no bridge with ports can be made: {done.stderr.strip().splitlines()[0]}")


def _openPacketSocket(device, timeout=0):
    handle = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(_ALL_PROTOCOLS))
    handle.bind((device, _ALL_PROTOCOLS))
    handle.settimeout(timeout)
    return handle


def _drain(tap):
    frames = []
    while True:
        try:
            data, address = tap.recvfrom(65536)
        except BlockingIOError:
            return frames
        if address[2] != _PACKET_OUTGOING:
            frames.append(data)
