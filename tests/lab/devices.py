"""Devices of which there is nothing but their rows on the configuration server."""

import contextlib
import datetime
import threading

from lab import config


def utc(seconds=0):
    """That many seconds from now, as rows have times."""
    time = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=seconds)
    return time.strftime("%Y-%m-%dT%H:%M:%S.") + f"{time.microsecond // 1000:03d}Z"


def row(name, number, **columns):
    """The row of a device in which all is as it should be, but for the columns given."""
    return {"Name": name, "Number": number, "Since": utc(), "InStep": 1, "InStepSince": utc(), "Reason": "", "Rules": 5,
            "NotInForce": "", "NotInForceCount": 0, "Engine": "plain", "Version": "1.2.3", "Started": utc(),
            "Seen": utc(), **columns}


class Followers:
    """Devices that say of each change that it is in force, as soon as they see it. behave: of a device's name and a
    change the columns in which its row differs from that, or None when it says nothing."""

    def __init__(self, path, names, behave=lambda name, number: {}, database=config.DATABASE):
        self.behave = behave
        self._names = list(names)
        self._config = config.Config(path, database=database)
        self._end = threading.Event()
        self._said = {}
        self._say(self._number())
        self._thread = threading.Thread(target=self._follow)
        self._thread.start()

    def stop(self):
        self._end.set()
        self._thread.join()
        self._config.close()

    def _number(self):
        rows = self._config.select(config.CHANGE)
        return rows[0]["Number"] if rows else 0

    def _say(self, number):
        operations = []
        for name in self._names:
            columns = self.behave(name, number)
            if columns is None or self._said.get(name) == (number, columns):
                continue
            new = {**row(name, number), **columns}
            operations.append({"op": "update", "table": config.DEVICE, "where": [["Name", "==", name]], "row": new}
                              if name in self._said else config.insert(config.DEVICE, **new))
            self._said[name] = (number, columns)
        if operations:
            self._config.transact(*operations)

    def _follow(self):
        with contextlib.suppress(ConnectionError):  # the server has gone
            while not self._end.wait(0.01):
                self._say(self._number())
