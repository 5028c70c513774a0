"""A second network namespace for a script that has one of its own, and what the tools show of it."""

import concurrent.futures
import ctypes
import os
import re
import shlex
import subprocess

from lab import sandbox

_CLONE_NEWNET = 0x40000000
_DEBUG_NETLINK = 0x8
_libc = ctypes.CDLL(None, use_errno=True)


class _Nft:
    """`nft --debug=netlink` without a process for each command. Belongs to the namespace of the thread that made it."""

    def __init__(self):
        try:
            self._library = ctypes.CDLL("libnftables.so.1")
        except OSError as error:
            raise sandbox.Unavailable(f"nftables: {error}") from error
        self._library.nft_ctx_new.restype = ctypes.c_void_p
        self._library.nft_ctx_get_output_buffer.restype = ctypes.c_char_p
        self._context = ctypes.c_void_p(self._library.nft_ctx_new(0))
        self._library.nft_ctx_buffer_output(self._context)
        self._library.nft_ctx_buffer_error(self._context)
        self._library.nft_ctx_output_set_debug(self._context, _DEBUG_NETLINK)

    def run(self, command):
        if self._library.nft_run_cmd_from_buffer(self._context, command.encode()) != 0:
            raise RuntimeError(f"nft {command} failed")
        return self._library.nft_ctx_get_output_buffer(self._context).decode()


class Namespace:
    """Its programs are started by a thread that lives in it, two namespaces' ones side by side."""

    def __init__(self):
        self._thread = concurrent.futures.ThreadPoolExecutor(max_workers=1)
        self._nft = self._thread.submit(self._enter).result()

    @staticmethod
    def _enter():
        if _libc.unshare(_CLONE_NEWNET) != 0:
            raise sandbox.Unavailable(f"no second network namespace: {os.strerror(ctypes.get_errno())}")
        return _Nft()

    def start(self, function, *arguments):
        """The future of the function's result in this namespace."""
        return self._thread.submit(function, *arguments)

    def run(self, *words, **options):
        return self.start(lambda: subprocess.run(words, capture_output=True, text=True, check=False,
                                                 **options)).result()

    def popen(self, *words):
        return self.start(lambda: subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                                   preexec_fn=sandbox.dieWithParent)).result()

    def nft(self, command):
        """What `nft --debug=netlink` prints for it."""
        return self.start(self._nft.run, command).result()


def runEach(commands):
    """A process of the tool for each command (without its first word), refused ones among them."""
    for command in commands:
        subprocess.run(["ebtables", *shlex.split(command)], capture_output=True, check=False)


def runInOne(commands):
    """As runEach, with a transaction for each command, but as few processes as may be: one ends where it refuses."""
    left = list(commands)
    while left:
        text = "".join(f"*filter\n{command}\nCOMMIT\n" for command in left)
        done = subprocess.run(["ebtables-restore", "--noflush"], input=text, capture_output=True, text=True, check=False)
        if done.returncode == 0:
            return
        place = re.search(r"line:? (\d+)", done.stderr)
        if place is None:
            raise RuntimeError(f"ebtables-restore does not say where: {done.stderr}")
        left = left[(int(place[1]) - 1) // 3 + 1:]
