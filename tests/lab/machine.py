"""All of it together: bridge, configuration server and daemon, as a unittest class and as a test script's main."""

import argparse
import json
import os
import sys
import unittest

from lab import config, kernel, programs, sandbox
from lab.bridge import Bridge
from lab.programs import SCHEMA

FOLDER = "/tmp/machine"
PORTS = ("p1", "p2", "p3")
_options = argparse.Namespace()


def makeFolder():
    os.makedirs(FOLDER, exist_ok=True)


def writeOldSchema(path):
    """Our schema as it was before anybody could say what is in force."""
    with open(SCHEMA, encoding="utf-8") as file:
        schema = json.load(file)
    for table in (config.CHANGE, config.DEVICE):
        del schema["tables"][table]
    schema["version"] = "1.0.0"
    makeFolder()
    with open(path, "w", encoding="utf-8") as file:
        json.dump(schema, file)


class Machine(unittest.TestCase):
    """A bridge with the ports p1, p2 and p3, a server with empty tables and a running daemon, for a whole class."""

    maxDiff = None
    schema = SCHEMA
    database = "configuration.db"

    @classmethod
    def setUpClass(cls):
        makeFolder()
        cls.server = programs.startServer(cls.schema, FOLDER, cls.database)
        cls.addClassCleanup(lambda: cls.server.stop())
        cls.config = config.Config()
        cls.addClassCleanup(lambda: cls.config.close())
        cls.startDaemon()
        cls.addClassCleanup(lambda: cls.daemon and cls.daemon.stop())

    @classmethod
    def startDaemon(cls, **environment):
        cls.daemon = programs.startDaemon(_options.daemon, FOLDER, **environment)

    def restart(self):
        """Starts what a test has ended, the server or the daemon, and connects anew."""
        if not self.server.isRunning():
            type(self).server = programs.startServer(self.schema, FOLDER, self.database)
        self.config.close()
        type(self).config = config.Config()
        if not self.daemon or not self.daemon.isRunning():
            self.startDaemon()

    @property
    def bridge(self):
        return _options.bridge

    def configure(self, tables, wanted):
        """Makes `tables` the whole configuration; returns when the kernel's tables are as wanted."""
        main = {"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}
        self.config.replace({config.MAIN: [main], **tables})
        self.waitForTables(wanted)

    def waitForTables(self, wanted):
        try:
            kernel.waitFor(wanted)
        except TimeoutError as error:
            self.fail(f"{error}\nthe daemon's last lines:\n{self.daemon.readLog()[-1500:]}")


def main():
    """Runs the calling script's tests inside a sandbox; exit status 77 where none can be made."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--daemon", required=True, help="the daemon's binary")
    _options.daemon = os.path.realpath(parser.parse_known_args()[0].daemon)
    rest = parser.parse_known_args()[1]
    try:
        # The sandbox runs the script again, so it must be known by a path that does not depend on the folder.
        sys.argv[0] = os.path.realpath(sys.argv[0])
        sandbox.enter(os.path.dirname(_options.daemon))
        _options.bridge = Bridge(PORTS)
    except sandbox.Unavailable as error:
        print(f"skipped: {os.path.basename(sys.argv[0])}: {error}", file=sys.stderr)
        sys.exit(sandbox.SKIPPED)
    unittest.main(module="__main__", argv=[sys.argv[0], *rest])
