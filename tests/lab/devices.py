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
        """path: of the server, or of several, of which the next is taken when one is lost."""
        self.behave = behave
        self._names = list(names)
        self._started = utc()
        self._paths = list(path) if isinstance(path, (list, tuple)) else [path]
        self._database = database
        self._config = config.Config(self._paths[0], database=database)
        self._end = threading.Event()
        self._said = {}
        self._last = 0
        self._say(self._number())
        self._thread = threading.Thread(target=self._follow)
        self._thread.start()

    def stop(self):
        self._end.set()
        self._thread.join()
        self._config.close()

    def _number(self):
        rows = self._config.select(config.CHANGE)
        self._last = max(self._last, rows[0]["Number"] if rows else 0)  # a server may be behind the one before
        return self._last

    def _say(self, number):
        operations, said = [], {}
        for name in self._names:
            columns = self.behave(name, number)
            if columns is None or self._said.get(name) == (number, columns):
                continue
            new = {**row(name, number), "Started": self._started, **columns}
            operations += ([{"op": "update", "table": config.DEVICE, "where": [["Name", "==", name]], "row": new}]
                           if name in self._said else
                           [{"op": "delete", "table": config.DEVICE, "where": [["Name", "==", name]]},
                            config.insert(config.DEVICE, **new)])
            said[name] = (number, columns)
        if operations:
            self._config.transact(*operations)
            self._said.update(said)

    def _follow(self):
        while not self._end.wait(0.01):
            try:
                self._say(self._number())
            except OSError:  # the server has gone
                if len(self._paths) == 1:
                    return
                self._connect()
            except config.Refused:  # it has lost its cluster
                if len(self._paths) == 1:
                    raise
                self._connect()

    def _connect(self):
        self._config.close()
        self._paths.append(self._paths.pop(0))
        with contextlib.suppress(OSError):
            self._config = config.Config(self._paths[0], seconds=2, database=self._database)
