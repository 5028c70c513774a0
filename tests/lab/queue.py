"""The command queue by itself, as queue_driver drives it."""

import os
import subprocess
import tempfile


class Queue:
    """A running driver."""

    driver = ""  # the program's path
    running = []

    def __init__(self, folder, *options, anyForm=True, environment=None):
        words = [self.driver, *(["--any-form"] if anyForm else []), *options, "--record", os.path.join(folder, "record")]
        self.errors = tempfile.TemporaryFile("w+", dir=folder)
        self.process = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors,
                                        text=True, env={**os.environ, **(environment or {})})
        Queue.running.append(self)

    def send(self, *lines):
        self.process.stdin.write("".join(line + "\n" for line in lines))
        self.process.stdin.flush()

    def answer(self, word):
        for line in self.process.stdout:
            if line.startswith(word):
                return line.split()[-1]
        raise AssertionError(f"no answer {word}: {self.log()}")

    def commit(self, lines, each_processed=False):
        self.send("begin")
        for line in lines:
            self.send("add " + line, *(["process"] if each_processed else []))
        self.send("process", "end")
        return int(self.answer("end")) / 1e6

    def kill(self):
        self.send("kill")
        self.process.wait(20)

    @classmethod
    def killAll(cls):
        """One that still runs would put back what the next test takes out."""
        for queue in cls.running:
            queue.process.kill()
            queue.process.wait(20)
        cls.running.clear()

    def finish(self, timeout=30):
        self.process.stdin.close()
        code = self.process.wait(timeout)
        self.process.stdout.close()
        return code

    def log(self):
        self.errors.seek(0)
        return self.errors.read()
