"""The daemon while its configuration server is absent, dies, returns, is replaced or stalls: it comes back to it within
a second, and what is in the bridge tables stays in them.

usage: server_test.py DAEMON [unittest arguments]
"""

import os
import pathlib
import signal

from lab import config, programs, rehearsal, tool, waiting
from lab.config import insert
from lab.fake_server import FakeServer

FLUSH_RULES = ["-F UserInputRules", "-F UserForwardRules"]
ROW = {"Enabled": 1, "RulePrio": 10, "InInterface": "p1", "OutInterface": "", "DstMAC": "", "SrcMAC": "",
       "VLANID": ["set", []], "Ethertype": "", "IPSrcAddr": "", "IPDstAddr": "", "IPProto": "", "IPPort": 0,
       "Target": "DROP", "EnableLogging": 0}


def rule(rowId):
    return {"Id": rowId, "RulePrio": rowId, "InInterface": f"p{rowId}", "Target": "DROP"}


def rules(*rowIds):
    """The lines that make these the only rules."""
    return [*FLUSH_RULES, *(f"-A UserInputRules -i p{rowId} -j DROP" for rowId in rowIds)]


def start(*rowIds):
    """The first batch of a daemon that finds these rules."""
    return [*rehearsal.CHAINS, *rules(*rowIds), "-P INPUT ACCEPT", "-P FORWARD ACCEPT"]


def aSecond():
    """In seconds: as many more as there is more to do than processors to do it."""
    return max(1, os.getloadavg()[0] / os.cpu_count())


def state(pid):
    """One letter: R running, S waiting, T stopped."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        return stat.read().rpartition(")")[2].split()[0]


class Server(rehearsal.Rehearsal):
    """The real one."""

    def pause(self, program):
        os.kill(program.pid, signal.SIGSTOP)
        waiting.until(lambda: state(program.pid) == "T", "the process to be stopped")

    def resume(self, program):
        os.kill(program.pid, signal.SIGCONT)

    def waitForConnection(self, number):
        """Within a second of the server's return."""
        self.daemon.waitForLines("^ovsdb:10: ", count=number, seconds=aSecond())

    def testAbsentAtStart(self):
        self.config.replace({config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}],
                             config.RULES: [rule(1)]})
        self.server.stop()
        self.startDaemon()
        self.daemon.waitForLines(f"^ovsdb:20: .*{programs.SOCKET}.*; trying again every 500 ms$")
        self.assertEqual(tool.commands(), [])
        self.startServer()
        self.waitForConnection(1)
        self.assertCommands(start(1))
        self.assertEqual(len(self.daemon.matching("^ovsdb:")), 2, "one line for any number of attempts")

    def testStoppedBeforeItEverConnected(self):
        self.server.stop()
        self.startDaemon()
        self.daemon.waitForLines("^ovsdb:20: ")
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(tool.commands(), [])

    def testDiesAndReturns(self):
        self.startWith({config.RULES: [rule(1)]})
        for turn in (1, 2):
            self.server.stop(signal.SIGKILL)
            self.daemon.waitForLines("^ovsdb:30: ", count=turn)
            self.startServer()
            self.waitForConnection(turn + 1)
        waiting.until(lambda: self.commits() == 3, "the commit after the return")
        self.config.insert(config.RULES, **rule(2))
        self.assertCommands(start(1), rules(1, 2))

    def testReturnsChanged(self):
        self.startWith({config.RULES: [rule(1)]})
        self.pause(self.daemon)  # a change that it sees only after the server's return
        self.config.insert(config.INPUT_POLICY, Id=1, Interface="p2", Policy="DROP")
        self.server.stop(signal.SIGKILL)
        self.startServer()
        self.resume(self.daemon)
        self.waitForConnection(2)
        self.assertCommands(start(1), ["-F UserInputPolicy", "-A UserInputPolicy -i p2 -j DROP"])

    def testReturnsWithAnotherDatabase(self):
        self.startWith({config.RULES: [rule(1), rule(2)]})
        self.server.stop()
        self.daemon.waitForLines("^ovsdb:30: ")
        other = pathlib.Path(self.folder, "other.db")
        # Filled before the daemon can see it, so that there is no empty configuration in between.
        elsewhere = programs.startServer(programs.SCHEMA, self.folder, other.name, f"{self.folder}/elsewhere")
        connection = config.Config(f"{self.folder}/elsewhere")
        connection.replace({config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "DROP"}],
                            config.RULES: [rule(2), rule(3)]})
        connection.close()
        elsewhere.stop()
        self.startServer(other.name)
        self.waitForConnection(2)
        self.assertCommands(start(1, 2), [*rules(2, 3), "-P INPUT ACCEPT", "-P FORWARD DROP"])

    def testPauses(self):
        self.startWith({config.RULES: [rule(1)]})
        self.pause(self.server)
        self.config.send(insert(config.RULES, **rule(2)))
        self.resume(self.server)
        self.config.receive()
        self.assertCommands(start(1), rules(1, 2))
        self.assertEqual(len(self.daemon.matching("^ovsdb:")), 1)
        self.pause(self.server)
        self.assertEqual(self.daemon.stop(), 0)
        self.resume(self.server)

    def testDiesInTheMiddleOfAMessage(self):
        self.startWith({config.RULES: [rule(1)]})
        # The update is larger than what the socket holds. The server answers us again only when it has written of it
        # what it can.
        self.pause(self.daemon)
        many = [{"Id": number, "RulePrio": number, "InInterface": "p1", "SrcMAC": "02:00:00:00:00:01",
                 "Target": "DROP"} for number in range(10, 2010)]
        self.config.transact(*(insert(config.RULES, **row) for row in many))
        self.config.transact({"op": "comment", "comment": "a turn of the server's loop"})
        self.pause(self.server)
        self.resume(self.daemon)
        waiting.until(lambda: state(self.daemon.pid) == "S", "the daemon to wait for the rest")
        self.assertEqual(self.commits(), 1)
        self.server.stop(signal.SIGKILL)
        self.daemon.waitForLines("^ovsdb:30: ")
        self.startServer()
        self.assertCommands(start(1), rules(1) + ["-A UserInputRules -i p1 -s 02:00:00:00:00:01 -j DROP"] * 2000)


class Stall(rehearsal.Rehearsal):
    """A server that stops in mid-message."""

    def testTheTablesStayAndTheDaemonCanBeStopped(self):
        self.server.stop()
        uuid = "aaaaaaaa-0000-0000-0000-00000000000{}".format
        tables = {config.MAIN: {uuid(9): {"new": {"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}}},
                  config.RULES: {uuid(1): {"new": {"Id": 1, **ROW}}}}

        def stall(peer):
            peer.serve(tables)
            peer.send(b'{"id": null, "method": "update", "params": ["moatkeeper", {"MoatKeeperRuleset": {')

        def serve(peer):
            peer.serve(tables)
            peer.update({config.RULES: {uuid(1): {"old": {"InInterface": "p1"},
                                                  "new": {"Id": 1, **ROW, "InInterface": "p2"}}}})

        fake = FakeServer(programs.SOCKET, stall, serve, stall)
        self.addCleanup(fake.close)
        self.startDaemon()
        tool.waitForCommands(len(start()))
        fake.disconnect()
        self.daemon.waitForLines("^ovsdb:30: ")
        self.daemon.waitForLines("^ovsdb:10: ", count=2, seconds=aSecond())
        self.assertCommands(start(1), rules(2))
        fake.disconnect()
        self.daemon.waitForLines("^ovsdb:10: ", count=3, seconds=aSecond())
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(fake.errors, [])


if __name__ == "__main__":
    rehearsal.main()
