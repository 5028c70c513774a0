#!/usr/bin/python3
"""Refills of thousands of rules, and changes of one, under a steady stream of frames: none is lost that must pass, and
none passes that must not.

usage: queue_refill_test.py COMMIT_DRIVER [--refills N] [--changes N] [--rules N] [--frames N]

In a network namespace of its own: a bridge with the ports `in` and `out`, whose far ends send and receive. Two senders
take turns. The rules let the first through and drop the rest of what goes from `in` to `out`; they stand behind all
the others, so that a table half filled would decide differently: with DROP as the policy of FORWARD it would lose the
first sender's frames, with ACCEPT it would let the second's through. The refills are done under both.
"""

import argparse
import os
import socket
import struct
import subprocess
import sys
import threading

from lab import sandbox
from lab.stream import ALLOWED, ETHERTYPE, FORBIDDEN, frame, makeBridge, rawSocket

WINDOW = 256  # frames under way: fewer than the kernel's queues hold, so that what is missing was filtered


class Stream:
    """Sends allowed and forbidden frames in turn until told to stop, and counts what comes through."""

    def __init__(self):
        self.sent = 0
        self.received = 0
        self.forbidden_received = 0
        self.out_of_order = 0
        self.failure = None
        self._sender = rawSocket("far-in")
        self._receiver = rawSocket("far-out")
        self._receiver.settimeout(5)
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run)

    def _receive(self):
        data, address = self._receiver.recvfrom(2048)
        if address[2] == socket.PACKET_OUTGOING or struct.unpack_from("!H", data, 12)[0] != ETHERTYPE:
            return
        if data[6:12] == FORBIDDEN:
            self.forbidden_received += 1
            return
        if struct.unpack_from("!Q", data, 14)[0] != self.received:
            self.out_of_order += 1
        self.received += 1

    def _run(self):
        try:
            while not self._stop.is_set():
                if self.sent - self.received < WINDOW:
                    self._sender.send(frame(FORBIDDEN, self.sent))
                    self._sender.send(frame(ALLOWED, self.sent))
                    self.sent += 1
                else:
                    self._receive()
            while self.received < self.sent:
                self._receive()
        except Exception as failure:  # a frame that does not come ends the stream; the test reports it
            self.failure = failure

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *unused):
        self._stop.set()
        self._thread.join()


class Driver:
    def __init__(self, program, record):
        self._process = subprocess.Popen([program, record], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                         preexec_fn=sandbox.dieWithParent)

    def ask(self, command):
        self._process.stdin.write(command + "\n")
        self._process.stdin.flush()
        answer = self._process.stdout.readline().strip()
        if not answer:
            sys.exit("the driver ended")
        return answer

    def close(self):
        self._process.stdin.close()
        if self._process.wait(timeout=60) != 0:
            sys.exit("the driver failed")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("driver")
    parser.add_argument("--refills", type=int, default=20)
    parser.add_argument("--changes", type=int, default=5, help="of one rule, after each refill")
    parser.add_argument("--rules", type=int, default=4000)
    parser.add_argument("--frames", type=int, default=50_000)
    options = parser.parse_args()
    program = os.path.realpath(options.driver)
    try:
        sandbox.enter(os.path.dirname(program))
        makeBridge()
    except (sandbox.Unavailable, subprocess.CalledProcessError) as reason:
        print(f"skipped: {reason}")
        sys.exit(sandbox.SKIPPED)
    driver = Driver(program, "/run/record")

    total = refills = 0
    for policy in ("DROP", "ACCEPT"):
        driver.ask(f"policy {policy}")
        driver.ask(f"rules {options.rules} 0")
        driver.ask("deliver")
        with Stream() as stream:
            done = 0
            while done < options.refills // 2 or stream.sent * 2 < options.frames // 2:
                done += 1
                driver.ask(f"rules {options.rules} {done}")
                driver.ask("deliver")
                for _ in range(options.changes):
                    driver.ask("change")
                    driver.ask("deliver")
                if stream.failure:
                    break
        assert stream.failure is None, f"policy {policy}: frame {stream.received} was lost ({stream.failure!r})"
        assert stream.received == stream.sent, (stream.received, stream.sent)
        assert stream.out_of_order == 0, stream.out_of_order
        assert stream.forbidden_received == 0, f"policy {policy}: {stream.forbidden_received} passed that must not"
        total += stream.sent * 2
        refills += done
    driver.close()
    saved = subprocess.run(["ebtables-save"], capture_output=True, text=True, check=True).stdout
    assert "User" not in saved, f"left behind: {saved}"
    print(f"{refills} refills of {options.rules} rules and {refills * options.changes} changes of one, {total} frames: "
          "none lost, none let through")


if __name__ == "__main__":
    main()
