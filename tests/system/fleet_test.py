"""A fleet that has troubles, in an order by chance: the leader is killed, a minority cut off, the majority lost and restored, a
relay killed, a device away for 1,000 changes, a certificate ends; and two administrators change rules all the time.

No device ever lets a frame pass that its rules stop, or stops one that they let pass. Within LIMIT seconds after the centre can
be reached again each has in its kernel what was confirmed before. In the end all agree on what was confirmed.

usage: fleet_test.py BUILD_FOLDER

MOATKEEPER_FLEETS in the environment says how many fleets; by default one with fewer troubles. MOATKEEPER_SEED says with
which seed the first one begins; the others have the next ones. MOATKEEPER_FLEET_LIMIT is for a machine that is busy.
"""

import collections
import ctypes
import errno
import os
import pathlib
import random
import re
import socket
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import unittest

from lab import config, kernel, sandbox, waiting
from lab.bridge import Bridge
from lab.fleet import PORTS, Fleet
from lab.frames import Frame
from lab.units import Unit

FLEETS = int(os.environ.get("MOATKEEPER_FLEETS", "1"))
SEED = int(os.environ.get("MOATKEEPER_SEED", str(time.time_ns() // 1_000_000 % 1_000_000)))
# Ten is what is promised; one fleet among a hundred other tests has less of the processor.
LIMIT = float(os.environ.get("MOATKEEPER_FLEET_LIMIT", "10" if FLEETS > 1 else "25"))
# A relay that has lost its connection tries again after a second, after twice as long if the connection had been shorter than
# the last pause, and so on, up to these seconds.
PAUSE = 8
DEVICES, ADMINISTRATORS, CHANGES = 3, ("alice", "bob"), 1000
MOST_UNSEEN = 2  # ten seconds each
KEPT = 4  # rows of each administrator, about
FIRST = 100_000  # Id; administrators get the next ones, below are those of the test's own rules
IN, OUT = "w0", "w1"
PASSED, STOPPED, POLICY = "02:00:00:00:ff:01", "02:00:00:00:ff:02", "02:00:00:00:ff:03"
COUNT_UP = {"op": "mutate", "table": config.CHANGE, "where": [], "mutations": [["Number", "+=", 1]]}
_CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)
# What is in away can reach nobody, what is in alone no central server; no end of a connection is told.
CUTS = """table bridge cuts {
    set away { type ifname; }
    set alone { type ifname; }
    chain forward { type filter hook forward priority 0; iifname @away drop; oifname @away drop
        iifname @alone oifname "c*" drop; iifname "c*" oifname @alone drop; }
    chain input { type filter hook input priority 0; iifname @away drop; }
    chain output { type filter hook output priority 0; oifname @away drop; }
}"""


def nft(text):
    subprocess.run(["nft", "-f", "-"], input=text, text=True, check=True)


def rule(number, mac, target="DROP", **columns):
    return {"Id": number, "Enabled": 1, "RulePrio": 10, "InInterface": IN, "OutInterface": OUT, "SrcMAC": mac, "Target": target,
            **columns}


class Record:
    """What is known of rows, each by its address, which is used once."""

    def __init__(self):
        self.lock = threading.Lock()
        self.present, self.gone, self.unknown, self.told = {}, set(), set(), {}
        self._number = 0

    def new(self):
        """An Id below FIRST, and an address."""
        with self.lock:
            self._number += 1
            return self._number, f"02:00:00:00:{self._number >> 8:02x}:{self._number & 255:02x}"

    def add(self, mac, number):
        with self.lock:
            self.present[mac] = number

    def take(self, mac):
        """Its Id; it is to be removed, and so neither must be there nor must be gone."""
        with self.lock:
            return self.present.pop(mac)

    def remove(self, mac):
        with self.lock:
            self.gone.add(mac)

    def doubt(self, mac):
        with self.lock:
            self.unknown.add(mac)

    def known(self):
        with self.lock:
            return set(self.present), set(self.gone)


class Administrator(threading.Thread):
    """Adds and removes rules with moatctl, one after the other."""

    def __init__(self, fleet, name, record, seed):
        super().__init__(daemon=True)
        self.done = collections.Counter()
        self.error = None
        self._record, self._dice, self._own = record, random.Random(seed), []
        self._words = [fleet.build / "moatctl/moatctl", "--no-wait", "--server", fleet.endpoints("administrator"),
                       *fleet.administrators.issue(name, names=()).options()[:2], "--ca-cert", fleet.servers.certificate]
        self._resting, self._wanted, self._end = threading.Event(), threading.Event(), False

    def goOn(self):
        self._resting.clear()
        self._wanted.set()

    def pause(self):
        """Returns when no change is under way."""
        self._wanted.clear()
        waiting.until(lambda: self._resting.is_set() or self.error, "the last change", 30)
        if self.error:
            raise self.error

    def close(self):
        self._end = True
        self._wanted.set()
        self.join()

    def run(self):
        try:
            while not self._end:
                if not self._wanted.is_set():
                    self._resting.set()
                    self._wanted.wait()
                elif len(self._own) < KEPT or self._dice.random() < 0.5:
                    self._add()
                else:
                    self._remove(self._own.pop(self._dice.randrange(len(self._own))))
        except Exception as error:  # raised where the test looks next
            self.error = error
            self._resting.set()

    def _add(self):
        _, mac = self._record.new()
        done = self._moatctl("add", "--in", IN, "--out", OUT, "--src-mac", mac, "--drop", "--force")
        if done.returncode == 0:
            self.done["confirmed"] += 1
            self._record.add(mac, int(done.stdout))
            self._own.append(mac)
        elif self._isKnown(done, mac):
            self._record.remove(mac)
        else:
            self._record.doubt(mac)

    def _remove(self, mac):
        number = self._record.take(mac)
        done = self._moatctl("remove", number)
        if done.returncode == 0:
            self.done["confirmed"] += 1
            self._record.remove(mac)
        elif self._isKnown(done, mac):
            self._record.add(mac, number)
            self._own.append(mac)
        else:
            self._record.doubt(mac)

    def _moatctl(self, *words):
        return subprocess.run([*map(str, self._words), "rule", *map(str, words)], capture_output=True, text=True, check=False,
                              env={**os.environ, "HOME": "/nonexistent"}, preexec_fn=sandbox.dieWithParent)

    def _isKnown(self, done, mac):
        """Whether it says that nothing was stored."""
        self._record.told[mac] = done.stderr
        unknown = "not known whether the change was stored" in done.stderr
        if done.returncode not in (3, 4) and not unknown:
            raise AssertionError(f"status {done.returncode}: {done.stderr}")
        self.done["not known" if unknown else "not stored"] += 1
        return not unknown


def framesLost():
    """By processors whose queues were full, in whatever namespace."""
    with open("/proc/net/softnet_stat", encoding="ascii") as counters:
        return [line.split()[1] for line in counters]


class Watch(threading.Thread):
    """Sends frames through a device's filter all the time: what is to pass passes, what is to be stopped never does."""

    def __init__(self, device):
        super().__init__(daemon=True)
        self.sent, self.unseen, self.wrong, self.error = 0, 0, [], None
        self._device, self._end, self._begun = device, threading.Event(), threading.Event()
        self.start()

    def close(self):
        self._end.set()
        self.join()

    def run(self):
        try:
            with open(self._device.network, "rb") as network:
                if _libc.setns(network.fileno(), _CLONE_NEWNET) != 0:
                    raise OSError(ctypes.get_errno(), "setns")
            bridge = Bridge([IN, OUT], "br1")
            while not self._end.wait(0.005):
                lost = framesLost()
                try:
                    arrived = bridge.send(*((IN, Frame(src=mac)) for mac in (PASSED, STOPPED, POLICY)))
                except OSError as error:
                    # The marker behind the frames, on a wire without a filter: nothing is known of these then.
                    self.unseen += isinstance(error, TimeoutError)
                    if error.errno == errno.ENOBUFS or (isinstance(error, TimeoutError) and self.unseen <= MOST_UNSEEN):
                        continue  # the machine has lost it on the way
                    raise
                frames = [OUT in ports for ports in arrived]
                if frames == [True, False, False]:
                    self._begun.set()
                elif self._begun.is_set() and (frames != [False] * 3 or lost == framesLost()):
                    self.wrong.append(f"{self._device.name}, frame {self.sent}: passed, stopped and by policy: {frames}")
                self.sent += self._begun.is_set()
            bridge.close()
        except Exception as error:
            self.error = error

    def waitForBegin(self):
        waiting.until(lambda: self._begun.is_set() or self.error, "the first rules", 30)


class Run:
    """One fleet, and what happens to it."""

    def __init__(self, build, folder, seed):
        self.dice, self.record = random.Random(seed), Record()
        self.fleet = Fleet(build, folder, DEVICES)
        self.longest, self.counts = {}, collections.Counter()
        nft(CUTS)
        with self.fleet.member() as member:
            member.transact(
                {"op": "update", "table": config.MAIN, "where": [], "row": {"GlobalForwardingPolicy": "DROP"}},
                config.insert(config.RULES, **rule(FIRST, PASSED, "ACCEPT", RulePrio=5)),
                config.insert(config.RULES, **rule(FIRST + 1, STOPPED, RulePrio=5)), config.insert(config.CHANGE, Number=1))
        count = len(self.fleet.hosts)
        self.members = [Unit(lambda n=n: self._startMember(n), 1, self.fleet.centre.servers[n]) for n in range(count)]
        self.doors = {key: Unit(lambda key=key: self.fleet.startDoor(*key), 0.1, self.fleet.doors.get(key) or
                                self.fleet.startDoor(*key)) for key in ((n, role) for n in range(count) for role in PORTS)}
        self.relays = [Unit(lambda device=device: self._startRelay(device), 1, device.relay) for device in self.fleet.all]
        self.watches = [Watch(device) for device in self.fleet.all]
        for watch in self.watches:
            watch.waitForBegin()
        self.administrators = [Administrator(self.fleet, name, self.record, f"{seed} {name}") for name in ADMINISTRATORS]
        for administrator in self.administrators:
            administrator.start()
            administrator.goOn()

    def close(self):
        for each in (*self.administrators, *self.watches, *self.members, *self.doors.values(), *self.relays):
            each.close()
        self.fleet.stop()
        nft("delete table bridge cuts")

    def _startMember(self, number):
        self.fleet.centre.start(number)
        return self.fleet.centre.servers[number]

    @staticmethod
    def _startRelay(device):
        device.startRelay()
        return device.relay

    def play(self, troubles):
        for trouble in troubles:
            self.fleet.centre.waitForMembers(30)
            getattr(self, trouble)()
            self.counts[trouble] += 1
            self.check()
        self.settle()

    def told(self):
        done = sum((administrator.done for administrator in self.administrators), collections.Counter())
        return ", ".join((*(f"{what} {seconds:.1f}" for what, seconds in self.longest.items()),
                          *(f"{count} {what}" for what, count in done.items()),
                          f"{sum(watch.sent for watch in self.watches)} times all frames, "
                          f"{sum(watch.unseen for watch in self.watches)} times not seen"))

    def check(self):
        for each in (*self.watches, *self.administrators):
            if each.error:
                raise each.error
        wrong = [line for watch in self.watches for line in watch.wrong]
        if wrong:
            raise AssertionError("frames: " + "; ".join(wrong[:5]))

    def mark(self, member=None):
        """A change, confirmed by that central server; by the leader if none is named."""
        number, mac = self.record.new()
        with self.fleet.member(member) as member:
            try:
                member.transact(config.insert(config.RULES, **rule(number, mac)), COUNT_UP)
            except config.Refused as error:  # a cluster may try again what it has done
                if f"identical values ({number})" not in str(error):
                    raise
        self.record.add(mac, number)
        return mac

    def right(self, what, since, member=None, limit=LIMIT):
        """Until each device has what was confirmed, or the limit is over since then."""
        self.mark(member)
        present, gone = self.record.known()
        for device, watch in zip(self.fleet.all, self.watches):
            def isRight():
                self.check()
                found = addresses(device)
                still, _ = self.record.known()
                return not (present & still) - found and not gone & found
            left = since + limit - time.monotonic()
            waiting.until(isRight, lambda: f"{device.name} after {what}: {len(present - addresses(device))} rules missing, "
                          f"{len(gone & addresses(device))} too many\n{self.logs(device)}", left)
            seconds = time.monotonic() - since
            self.longest[what] = max(self.longest.get(what, 0), seconds)

    def logs(self, device):
        now = time.strftime("%H:%M:%S", time.gmtime())
        return f"{now}\n" + "\n".join(f"{program.logPath}:\n{program.readLog()[-2000:]}" for program in (
            device.relay, device.daemon, *(door.program for (_, role), door in self.doors.items() if role == "device")))

    def wait(self, least, most):
        time.sleep(self.dice.uniform(least, most))

    def power(self, hosts, on):
        for number in hosts:
            for unit in (*(self.doors[number, role] for role in PORTS), self.members[number]):
                if on:
                    unit.on()
                else:
                    unit.off()

    def cut(self, kind, links):
        nft(f"add element bridge cuts {kind} {{ {', '.join(links)} }}")

    def mend(self, kind):
        nft(f"flush set bridge cuts {kind}")

    def doorsOpen(self):
        """Since when the devices can connect to all of them."""
        def isOpen(host):
            with socket.socket() as probe:
                probe.settimeout(1)
                return probe.connect_ex((host.address, PORTS["device"])) == 0
        self.fleet.centre.waitForMembers(60)
        waiting.until(lambda: all(map(isOpen, self.fleet.hosts)), "the devices' doors", 60)
        return time.monotonic()

    # What happens

    def leaderKilled(self):
        leader = self.fleet.centre.leader()
        if self.dice.random() < 0.5:
            self.members[leader].kill()
        else:
            self.power([leader], False)
        self.fleet.centre.leader(seconds=30)
        self.right("leader killed", time.monotonic())
        self.power([leader], True)

    def minorityCut(self):
        """With or without the devices and administrators that are connected to it, of which there is one at least."""
        kind = self.dice.choice(("alone", "away"))
        limit = LIMIT + PAUSE
        if self.dice.random() < 0.5:
            self.calm()
            limit = LIMIT
        number = self.serverOf(self.dice.choice(self.fleet.all))
        self.cut(kind, [f"c{number}"])
        begin = time.monotonic()
        if self.dice.random() < 0.5:
            leader, = waiting.until(lambda: self.leadersBut(number), "a leader of the others", 30)
            self.right(f"minority {kind}{', calm' if limit == LIMIT else ''}", begin, leader, limit)
        else:
            self.wait(0.5, 4)
        self.mend(kind)
        self.right(f"minority {kind}, back", time.monotonic())

    @staticmethod
    def connection(device):
        """Of its relay, with a door: both ends' addresses. Empty while there is none."""
        return device.run("ss", "-Htn", "state", "established", f"dport = :{PORTS['device']}").split()[2:4]

    def serverOf(self, device):
        """The number of the central server that its relay is connected to."""
        _, peer = waiting.until(lambda: self.connection(device), f"{device.name} to be connected", 30)
        return [host.address for host in self.fleet.hosts].index(peer.split(":")[0])

    def calm(self):
        """Until all relays have been connected for so long that their pauses begin with the shortest one again."""
        seen, since = None, 0

        def areCalm():
            nonlocal seen, since
            now = [self.connection(device) for device in self.fleet.all]
            if now != seen:
                seen, since = now, time.monotonic()
            return all(now) and time.monotonic() > since + PAUSE
        waiting.until(areCalm, "lasting connections", 40)

    def leadersBut(self, without):
        return [number for number in range(len(self.fleet.hosts)) if number != without
                and any(each["leader"] for each in (self.fleet.centre.state(number) or {}).values())]

    def majorityLost(self):
        hosts = self.dice.sample(range(len(self.fleet.hosts)), 2)
        links = [f"c{number}" for number in hosts]
        seconds = self.dice.choice((1, 3, 8, 16)) if FLEETS > 1 else 1
        if self.dice.random() < 0.5:
            self.power(hosts, False)
            self.wait(seconds / 2, seconds)
            self.power(hosts, True)
        else:
            self.cut("away", links)
            self.wait(seconds / 2, seconds)
            self.mend("away")
        self.right("majority lost", self.doorsOpen())

    def relayKilled(self):
        number = self.dice.randrange(DEVICES)
        begin = time.monotonic()
        self.relays[number].kill()
        waiting.until(lambda: self.relays[number].started > begin, "the relay's start")
        self.right("relay killed", self.relays[number].started)

    def deviceAway(self):
        number = self.dice.randrange(DEVICES)
        link, silent = f"d{number}", self.dice.random() < 0.5
        if silent:
            self.cut("away", [link])
        else:
            subprocess.run(["ip", "link", "set", link, "down"], check=True)
        mark = self.mark()
        self.makeChanges()
        if mark in addresses(self.fleet.all[number]):
            raise AssertionError("the device was not away")
        if silent:
            self.mend("away")
        else:
            subprocess.run(["ip", "link", "set", link, "up"], check=True)
        self.right("device away", time.monotonic())

    def makeChanges(self):
        """A transaction each, half of them add a rule and half of them take one out again."""
        rows = [self.record.new() for _ in range(CHANGES // 2)]
        operations = []
        for place, row in enumerate(rows):
            operations.append(config.insert(config.RULES, **rule(*row)))
            operations.append(config.delete(config.RULES, rows[place - 5][0]) if place >= 5 else COUNT_UP)
        with self.fleet.member() as member:
            if not all(member.attempt(operations)):
                raise AssertionError("not all changes were done")
            member.transact(*(config.delete(config.RULES, number) for number, _ in rows[-5:]), COUNT_UP)
        for _, mac in rows:
            self.record.remove(mac)

    def certificateEnded(self):
        """Of a device whose relay begins anew afterwards; it is refused until it has a new one, which it reads itself."""
        device = self.dice.choice(self.fleet.all)
        self.fleet.devices.issue(device.name, names=(), expires=2)
        end = time.time() + 2
        waiting.until(lambda: time.time() > end, "the certificate's end")
        begin = time.monotonic()
        unit = self.relays[self.fleet.all.index(device)]
        unit.kill()
        waiting.until(lambda: unit.started > begin, "the relay's start")
        waiting.until(lambda: self.isRefused(device), lambda: device.relay.readLog()[-2000:], 30)
        mark = self.mark()
        self.wait(0, 3)
        if mark in addresses(device):
            raise AssertionError("the device was not refused")
        self.fleet.devices.issue(device.name, names=())
        self.right("certificate ended", time.monotonic())

    def isRefused(self, device):
        """It may see only that the connection is closed."""
        doors = [door.program for (_, role), door in self.doors.items() if role == "device"]
        return any(re.search("certificate (expired|verify failed)", program.readLog()) for program in (device.relay, *doors))

    def settle(self):
        """In the end all agree."""
        for administrator in self.administrators:
            administrator.pause()
        with self.fleet.member() as member:
            number = member.select(config.CHANGE)[0]["Number"]
            rows = [row["SrcMAC"] for row in member.select(config.RULES)]
            present, gone = self.record.known()
            found = set(rows)
            wrong = {"twice": {mac for mac in found if rows.count(mac) > 1}, "lost": present - found, "left": gone & found,
                     "nobody's": found - present - gone - self.record.unknown - {PASSED, STOPPED}}
            if any(wrong.values()):
                raise AssertionError(f"{wrong}; moatctl said {self.record.told}")
            def agree():
                states = {row["Name"]: (row["Number"], row["InStep"], row["NotInForceCount"], row["Rules"])
                          for row in member.select(config.DEVICE)}
                return (len(states) == DEVICES and len(set(states.values())) == 1
                        and all(state[:3] == (number, 1, 0) for state in states.values()))
            waiting.until(agree, lambda: f"change {number}: {member.select(config.DEVICE)}", LIMIT)
        tables = [kernel.readTables(device.inside()) for device in self.fleet.all]
        if any(table != tables[0] for table in tables) or addresses(self.fleet.all[0]) != found:
            raise AssertionError(f"{found} in the database, in the kernels {tables}")
        self.check()


def addresses(device):
    """Those of the rules in its kernel."""
    text = subprocess.run(device.inside("ebtables-save"), check=True, capture_output=True, text=True).stdout
    return set(re.findall(r"-s (02:00:00:00:\S+)", text))


TROUBLES = ("leaderKilled", "minorityCut", "majorityLost", "relayKilled", "deviceAway", "certificateEnded")


class Troubles(unittest.TestCase):
    def play(self, run):
        try:
            run.play(run.dice.sample(TROUBLES, len(TROUBLES) if FLEETS > 1 else 2))
        except Exception:
            if FLEETS > 1:
                traceback.print_exc()  # it is a long time until the end
            raise

    def testNothingIsLost(self):
        counts, longest = collections.Counter(), {}
        for seed in range(SEED, SEED + FLEETS):
            with tempfile.TemporaryDirectory(dir="/run") as folder:
                begin, run = time.monotonic(), Run(BUILD, folder, seed)
                try:
                    with self.subTest(seed=seed):
                        self.play(run)
                finally:
                    run.close()
                print(f"  seed {seed}, {time.monotonic() - begin:.0f} s: {run.told()}", flush=True)
            counts += run.counts
            for what, seconds in run.longest.items():
                longest[what] = max(longest.get(what, 0), seconds)
        print(f"  {', '.join(f'{count} x {what}' for what, count in sorted(counts.items()))}; longest, in seconds, until all "
              f"are right: {', '.join(f'{what} {seconds:.1f}' for what, seconds in sorted(longest.items()))}", flush=True)


if __name__ == "__main__":
    BUILD = pathlib.Path(os.path.realpath(sys.argv[1]))
    sys.argv[:2] = [os.path.realpath(sys.argv[0]), str(BUILD)]
    try:
        sandbox.enter(BUILD)
    except sandbox.Unavailable as error:
        print(f"skipped: {error}", file=sys.stderr)
        sys.exit(sandbox.SKIPPED)
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
