"""A configuration server that misbehaves as a test tells it to."""

import json
import os
import pathlib
import socket
import threading

from lab.programs import SCHEMA


class FakeServer:
    """A server whose every connection is handled by the next of the given functions (the last one for all others);
    each gets the connection's Peer. What a handler function raises besides a closed connection is kept in errors."""

    def __init__(self, path, *handlers):
        self.path = str(path)
        self.handlers = list(handlers)
        self.connections = 0
        self.errors = []
        self._open = []
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(self.path)
        self._listener.listen(8)
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            self._open.append(connection)
            handler = self.handlers[min(self.connections, len(self.handlers) - 1)]
            self.connections += 1
            threading.Thread(target=self._handle, args=(handler, connection), daemon=True).start()

    def _handle(self, handler, connection):
        try:
            handler(Peer(connection))
            while connection.recv(4096):  # until the peer closes
                pass
        except (OSError, EOFError):
            pass
        except Exception as error:
            self.errors.append(repr(error))
        finally:
            connection.close()

    def disconnect(self):
        """Ends the connections that there are; the peer may come again."""
        for connection in self._open:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self.disconnect()
        os.unlink(self.path)


class Peer:
    """The server's end of one connection, speaking JSON-RPC."""

    def __init__(self, connection):
        self.connection = connection
        self.text = ""

    def send(self, message):
        data = message if isinstance(message, (bytes, bytearray)) else json.dumps(message).encode()
        self.connection.sendall(data)

    def receive(self):
        decoder = json.JSONDecoder()
        while True:
            try:
                message, end = decoder.raw_decode(self.text)
                self.text = self.text[end:].lstrip()
                return message
            except json.JSONDecodeError:
                data = self.connection.recv(65536)
                if not data:
                    raise EOFError from None
                self.text += data.decode()

    def reply(self, request, result):
        self.send({"id": request["id"], "result": result, "error": None})

    def refuse(self, request, error="unknown method"):
        self.send({"id": request["id"], "result": None, "error": {"error": error, "details": "in a test"}})

    def expect(self, method):
        request = self.receive()
        assert request["method"] == method, request
        return request

    def answerSchema(self):
        self.reply(self.expect("list_dbs"), ["_Server", "moatkeeper"])
        self.reply(self.expect("get_schema"), json.loads(pathlib.Path(SCHEMA).read_text(encoding="utf-8")))

    def serve(self, tables):
        """Plays an old server up to the first state; tables as in the answer to "monitor"."""
        self.answerSchema()
        self.refuse(self.expect("monitor_cond_since"))
        self.refuse(self.expect("monitor_cond"))
        self.reply(self.expect("monitor"), tables)

    def serveSince(self, tables, found=False):
        """Plays a current server up to the first state; tables as in "update2"."""
        self.answerSchema()
        request = self.expect("monitor_cond_since")
        self.reply(request, [found, "11111111-1111-1111-1111-111111111111", tables])
        return request

    def update(self, tables):
        self.send({"id": None, "method": "update", "params": ["moatkeeper", tables]})

    def update3(self, tables):
        self.send({"id": None, "method": "update3",
                   "params": ["moatkeeper", "22222222-2222-2222-2222-222222222222", tables]})
