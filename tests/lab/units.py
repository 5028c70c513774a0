"""Programs that are started again when they end, as their units say."""

import contextlib
import signal
import threading
import time

from lab.programs import Program


class Unit(threading.Thread):
    """One program. It lives as long as the thread, which is to end by close()."""

    def __init__(self, start, pause, program=None):
        """start: starts it and returns the Program. pause: seconds from its end to the next start. program: one that runs."""
        super().__init__(daemon=True)
        self.program: Program | None = program
        self.started = time.monotonic()
        self._start, self._pause = start, pause
        self._on, self._end, self._lock = True, threading.Event(), threading.Lock()
        self.start()

    def kill(self):
        """It is there again after the pause."""
        self.program.stop(signal.SIGKILL)

    def off(self):
        """Kills it for as long as it is off."""
        with self._lock:
            self._on = False
            self.program.stop(signal.SIGKILL)

    def on(self):
        self._on = True

    def close(self):
        self._end.set()
        self.join()

    def run(self):
        while not self._end.wait(0.02):
            if self._on and not self.program.isRunning() and not self._end.wait(self._pause):
                with self._lock, contextlib.suppress(RuntimeError, TimeoutError):  # it has ended again
                    if self._on:
                        self.program = self._start()
                        self.started = time.monotonic()
