"""The guided tour: a site with three ports, its configuration, and frames that show what each change does.

usage: tour.py BUILD [--on-paper|--or-skip]
BUILD: the build folder; --on-paper: print the lines, apply nothing; --or-skip: no tour where there is no bridge
"""

import os
import shutil
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, f"{ROOT}/tests")
from lab import frames, sandbox
from lab.bridge import Bridge
from lab.frames import Frame
from world import Bridged, Failure, Printed

PORTS = ("office", "guest", "uplink")
PRINTER, LAPTOP, BOSS = "02:00:00:00:00:aa", "02:00:00:00:00:01", "02:00:00:00:00:0b"
COLOURS = sys.stdout.isatty() and "NO_COLOR" not in os.environ
GREEN, RED, BOLD, DIM = "32", "31", "1", "2"


def paint(text, colour):
    return f"\033[{colour}m{text}\033[0m" if COLOURS else text


def say(text=""):
    print(text, flush=True)


class Tour:
    """The steps, one after the other, in a world; every effect is checked."""

    def __init__(self, world):
        self._world = world
        self._number = 0
        self.framesSeen = 0
        self.changes = 0

    def run(self):
        self.title("A site with three ports: office, guest and uplink. The configuration, all six tables:")
        self._world.moatctl("--no-wait", "import", "--replace", "sample.json")
        self.show(self._world.moatctl("show").splitlines())
        self.title("The bridge tables before the daemon starts, and after:")
        self.show(self._world.before())
        say()
        self.show(self._world.start())
        say("\n   Guests reach the uplink only, but the printer among them serves the office; VLAN 100 is kept off the\n"
            "   guest port; the device itself answers the office, and guests who ask for an address.")
        self.frames(("a guest's frame", "guest", Frame(src=LAPTOP), {"uplink"}),
                    ("the printer's frame", "guest", Frame(src=PRINTER), {"uplink", "office"}),
                    ("VLAN 100 from the uplink", "uplink", Frame(vlan=100), {"office"}),
                    ("VLAN 101 from the uplink", "uplink", Frame(vlan=101), {"office", "guest"}),
                    ("the office to the device", "office", Frame(dst=Bridge.mac), {"device"}),
                    ("a guest to the device", "guest", Frame(dst=Bridge.mac), set()),
                    ("a guest asks for an address", "guest",
                     Frame(dst=Bridge.mac, ethertype=frames.IPV4, port=67), {"device"}))

        self.title("The global policies: nothing is forwarded unless a rule or policy accepts it")
        self.change("global", "set", "--forward", "DROP")
        self.frames(("a guest's frame", "guest", Frame(src=LAPTOP), set()),
                    ("the printer's frame", "guest", Frame(src=PRINTER), {"office"}))
        self.change("global", "set", "--forward", "ACCEPT", "--input", "ACCEPT")
        self.frames(("a guest's frame", "guest", Frame(src=LAPTOP), {"uplink"}),
                    ("a guest to the device", "guest", Frame(dst=Bridge.mac), {"device"}))
        self.change("global", "set", "--input", "DROP")

        self.title("A rule is added, changed and removed: no mail from guests")
        mail = {port: Frame(src=LAPTOP, ethertype=frames.IPV4, proto=frames.TCP, port=port) for port in (25, 587)}
        self.change("rule", "add", "--id", "3", "--priority", "5", "--in", "guest", "--out", "uplink", "--ethertype",
                    "IPv4", "--proto", "TCP", "--port", "25", "--log", "--drop")
        self.frames(("a guest's mail, port 25", "guest", mail[25], set()),
                    ("a guest's mail, port 587", "guest", mail[587], {"uplink"}))
        self.change("rule", "set", "3", "--port", "587", "--no-log")
        self.frames(("a guest's mail, port 25", "guest", mail[25], {"uplink"}),
                    ("a guest's mail, port 587", "guest", mail[587], set()))
        self.change("rule", "remove", "3")
        self.frames(("a guest's mail, port 587", "guest", mail[587], {"uplink"}))

        self.title("A policy for one interface: the device is managed from the uplink, too")
        fromUplink = "the uplink to the device", "uplink", Frame(dst=Bridge.mac)
        self.frames((*fromUplink, set()))
        self.change("policy", "add", "--id", "2", "--in", "uplink", "--accept")
        self.frames((*fromUplink, {"device"}))
        self.change("policy", "disable", "2")
        self.frames((*fromUplink, set()))

        self.title("A whitelist: between office and uplink only one computer")
        self.change("filter", "add", "--id", "3", "--priority", "30", "--between", "office", "uplink", "--match", "mac",
                    "--mode", "whitelist")
        boss = "that computer's frame", "office", Frame(src=BOSS)
        other = "another computer's frame", "office", Frame(src=LAPTOP)
        self.frames((*boss, {"guest"}), (*other, {"guest"}))
        self.change("filter-rule", "add", "--id", "3", "--filter", "3", "--match", BOSS)
        self.frames((*boss, {"guest", "uplink"}), (*other, {"guest"}))
        say("\n   The same list as a blacklist:")
        self.change("filter", "set", "3", "--mode", "blacklist")
        self.frames((*boss, {"guest"}), (*other, {"guest", "uplink"}))
        self.change("filter-rule", "remove", "3")
        self.change("filter", "remove", "3")
        self.frames((*boss, {"guest", "uplink"}))

        self.title("Which row decides? The chains are walked without a frame")
        self.explain("DROP: MoatKeeperForwardingPolicy Id 1", "--in", "guest", "--out", "office", "--src-mac", LAPTOP,
                     "--dst-mac", BOSS, "--ethertype", "0x88b6")
        self.explain("ACCEPT: MoatKeeperRuleset Id 1", "--in", "guest", "--out", "office", "--src-mac", PRINTER,
                     "--dst-mac", BOSS, "--ethertype", "0x88b6")

        self.title("Who may talk to whom? The same for all frames at once, and exactly")
        self.matrix("guest   partly global +1  -                 partly forward-policy 1 +1")

        self.title("And what becomes of real frames? The kernel tells it of each, as it passes")
        self.trace(("--in", "guest"),
                   ("DROP: MoatKeeperForwardingPolicy Id 1", "leaving by office", "guest", Frame(src=LAPTOP)),
                   ("ACCEPT: MoatKeeperRuleset Id 1", "leaving by office", "guest", Frame(src=PRINTER)),
                   ("DROP: MoatKeeper (policy of INPUT)", "for the device itself", "guest",
                    Frame(src=LAPTOP, dst=Bridge.mac)))

        self.title("The daemon is stopped with SIGTERM: its chains are gone, the policies are ACCEPT again")
        self.show(self._world.stop())
        self.frames(("a guest's frame", "guest", Frame(src=LAPTOP), {"office", "uplink"}),
                    ("VLAN 100 from the uplink", "uplink", Frame(vlan=100), {"office", "guest"}))
        log = self._world.readLog().splitlines()
        if log:
            say(f"\n   The end of the daemon's log ({len(log)} lines):")
            self.show(log[-6:])

    def title(self, text):
        self._number += 1
        say(f"\n{paint(f'{self._number}. {text}', BOLD)}")

    def show(self, lines):
        for line in lines:
            say(f"   {paint(line, DIM)}")

    def change(self, *arguments):
        """A change of the configuration, and what it does to the kernel's tables."""
        say(f"\n   $ moatctl {' '.join(arguments)}")
        lines = self._world.change(*arguments)
        if not lines:
            raise Failure(f"moatctl {' '.join(arguments)}: changed nothing")
        for line in lines:
            say(f"   {paint(line, {'+': GREEN, '-': RED}.get(line[0], DIM))}")
        self.changes += 1

    def explain(self, wanted, *frame):
        """What moatctl says of a frame; the last line must begin as wanted."""
        frame = (*self._world.explainOptions, *frame)
        say(f"\n   $ moatctl explain {' '.join(frame)}")
        lines = self._world.moatctl("explain", *frame).splitlines()
        self.show(lines)
        if not lines[-1].startswith(wanted):
            raise Failure(f"moatctl explain: expected {wanted}")

    def matrix(self, wanted):
        """Ports by ports; one line must begin as wanted."""
        options = self._world.explainOptions
        say(f"\n   $ moatctl {' '.join(('matrix', *options))}")
        lines = self._world.moatctl("matrix", *options).splitlines()
        self.show(lines)
        if not any(line.startswith(wanted) for line in lines):
            raise Failure(f"moatctl matrix: expected {wanted}")

    def trace(self, options, *probes):
        """Frames, each as (what a line of the trace must say of it, and where it goes, port, frame)."""
        lines = self._world.trace(options, [(port, frame) for _, _, port, frame in probes])
        if lines is None:
            return
        say(f"\n   $ moatctl trace {' '.join(options)}")
        for line in lines:
            say(f"   {paint(line, GREEN if ' ACCEPT: ' in line else RED)}")
        for decision, way, _, frame in probes:
            source = ":".join(f"{byte:02x}" for byte in frame.data[6:12])
            if not any(decision in line and way in line and source in line for line in lines):
                raise Failure(f"moatctl trace: expected a line with {decision}, {way}, from {source}")
            self.framesSeen += 1

    def frames(self, *probes):
        """Frames, each as (what it is, port it comes in by, frame, where it must arrive)."""
        results = self._world.send([(port, frame) for _, port, frame, _ in probes])
        if results is None:
            return
        say()
        for (what, port, _, wanted), result in zip(probes, results):
            arrived = {"device" if name == "br0" else name for name in result}
            fate = paint("reaches " + " and ".join(sorted(arrived)), GREEN) if arrived else paint("is stopped", RED)
            say(f"   {what + ' (' + port + ')':45} {fate}")
            if arrived != wanted:
                raise Failure(f"{what} from {port} arrived at {sorted(arrived)}, expected {sorted(wanted)}")
            self.framesSeen += 1


def main():
    build = os.path.realpath(sys.argv[1])
    sys.argv[0] = os.path.realpath(__file__)
    sys.argv[1] = build
    schema = f"{ROOT}/schema/moatkeeper.ovsschema"
    reason = None
    try:
        if "--on-paper" in sys.argv:
            raise sandbox.Unavailable("not wanted")
        sandbox.enter(ROOT, build)
        bridge = Bridge(PORTS)
    except sandbox.Unavailable as error:
        reason = error
    if reason and "--or-skip" in sys.argv:
        print(f"skipped: tour.py: {reason}", file=sys.stderr)
        return sandbox.SKIPPED
    folder = tempfile.mkdtemp(prefix="moatkeeper-demo-")
    world = None
    try:
        if reason:
            say(f"No bridge of our own here ({reason}).\n"
                "The same tour on paper: the lines for the kernel are printed, nothing is applied, no frame is sent.")
            world = Printed(build, schema, folder)
        else:
            world = Bridged(bridge, build, schema, folder)
        tour = Tour(world)
        tour.run()
    except (Failure, RuntimeError, TimeoutError, OSError) as error:
        print(f"\ndemo: {error}", file=sys.stderr)
        return 1
    finally:
        if world:
            world.close()
        shutil.rmtree(folder)
    done = "none was applied and no frame was sent" if reason else f"{tour.framesSeen} frames met the fate they should"
    say(f"\nDone: {tour.changes} changes of the configuration, {done}. Nothing is left behind.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
