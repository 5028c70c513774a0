"""The six configuration tables, read and changed through the configuration server."""

import json
import socket

from lab.programs import SOCKET

DATABASE = "moatkeeper"
MAIN, RULES = "MoatKeeper", "MoatKeeperRuleset"
INPUT_POLICY, FORWARD_POLICY = "MoatKeeperInputPolicy", "MoatKeeperForwardingPolicy"
FILTERS, FILTER_RULES = "MoatKeeperBridgeFilters", "MoatKeeperBridgeFilterRules"
# What says whether a change is in force; not among the configuration tables.
CHANGE, DEVICE = "MoatKeeperChange", "MoatKeeperDevice"
USED_IDS = "MoatKeeperUsedIds"
TABLES = (MAIN, INPUT_POLICY, FORWARD_POLICY, RULES, FILTERS, FILTER_RULES)


class Refused(Exception):
    """The server refused a transaction; nothing of it was done."""


class Config:
    """One connection to the server. Every operation here is a transaction of its own."""

    def __init__(self, path=SOCKET, seconds=10, database=DATABASE):
        """seconds: how long each answer may take."""
        self.database = database
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(seconds)
        try:
            self._socket.connect(str(path))
        except OSError:
            self._socket.close()
            raise
        self._buffer = ""
        self._number = 0

    def close(self):
        self._socket.close()

    def replace(self, tables):
        """The whole configuration: {table: [row, ...]}, a row {column: value}. Tables not named become empty."""
        self.transact(*(delete(table) for table in TABLES),
                      *(insert(table, **row) for table, rows in tables.items() for row in rows))

    def insert(self, table, **row):
        self.transact(insert(table, **row))

    def update(self, table, rowId, **row):
        """Changes columns of the row with that Id; of the only row of the table if rowId is None."""
        self.transact({"op": "update", "table": table, "where": _where(rowId), "row": row})

    def delete(self, table, rowId):
        self.transact(delete(table, rowId))

    def select(self, table):
        """The table's rows."""
        return self.transact({"op": "select", "table": table, "where": []})[0]["rows"]

    def transact(self, *operations):
        """Carries out all operations or, raising Refused, none."""
        self.send(*operations)
        return self.receive()

    def attempt(self, operations):
        """Each operation as a transaction of its own; for each whether the server has done it."""
        done, waiting, size = [], [], 0
        for operation in operations:
            self.send(operation)
            waiting.append(self._number)
            size += len(str(operation))
            if size > 20000:  # no more than fits the sockets on the way
                done += [self._wasDone(number) for number in waiting]
                waiting, size = [], 0
        return done + [self._wasDone(number) for number in waiting]

    def _wasDone(self, number):
        reply = self._receive(number)
        return not reply["error"] and not any("error" in result for result in reply["result"] if result)

    def send(self, *operations):
        """The first half of transact: does not wait for the answer."""
        self._number += 1
        request = {"method": "transact", "params": [self.database, *operations], "id": self._number}
        self._socket.sendall(json.dumps(request).encode())

    def receive(self):
        """The second half of transact."""
        reply = self._receive(self._number)
        results = reply["result"]
        problems = [result for result in results or [] if result and "error" in result]
        if reply["error"] or problems:
            raise Refused(reply["error"] or problems)
        return results

    def _receive(self, number):
        decoder = json.JSONDecoder()
        while True:
            message = None
            if self._buffer:
                try:
                    message, end = decoder.raw_decode(self._buffer)
                    self._buffer = self._buffer[end:].lstrip()
                except json.JSONDecodeError:
                    pass  # not all of it here yet
            if message is None:
                data = self._socket.recv(65536)
                if not data:
                    raise ConnectionError("the configuration server closed the connection")
                self._buffer += data.decode()
            elif message.get("method") == "echo":
                self._socket.sendall(json.dumps(
                    {"id": message["id"], "result": message["params"], "error": None}).encode())
            elif message.get("id") == number:
                return message


def numbered(number, *operations):
    """The operations, and the number of the change beside them."""
    return [*operations, delete(CHANGE), insert(CHANGE, Number=number)]


def insert(table, **row):
    return {"op": "insert", "table": table, "row": row}


def delete(table, rowId=None):
    return {"op": "delete", "table": table, "where": _where(rowId)}


def _where(rowId):
    return [] if rowId is None else [["Id", "==", rowId]]
