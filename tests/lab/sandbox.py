"""Network and mount namespaces of its own for the calling script.

/tmp and /run are private and empty inside, so the configuration server's fixed socket and the PID file are
never those of the machine. Nothing has to be cleaned up: everything goes with the script's last process.
"""

import ctypes
import os
import signal
import subprocess
import sys

SKIPPED = 77
_INSIDE = "MOATKEEPER_SANDBOX"
_KERNEL_LOG = "MOATKEEPER_SANDBOX_KERNEL_LOG"
_MS_BIND, _MS_REC = 0x1000, 0x4000
_PR_SET_PDEATHSIG = 1
_PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
_libc = ctypes.CDLL(None, use_errno=True)


class Unavailable(Exception):
    """This machine does not let us make what a test needs; the text says what and why."""


def enter(*keep):
    """Runs the script once more inside namespaces of its own; returns only there.

    keep: files and folders that must stay visible besides the project's, should they lie under /tmp or /run.
    Raises Unavailable where namespaces or mounts cannot be made.
    """
    if os.environ.get(_INSIDE) != "1":
        command = _unshareCommand()
        os.environ[_KERNEL_LOG] = _readKernelLogSwitch()
        os.environ[_INSIDE] = "1"
        os.execvp("unshare", [*command, sys.executable, *sys.argv])
    # For the same script inside: the marker is not for the programs that it starts.
    del os.environ[_INSIDE]
    os.chdir("/")
    _hide(("/tmp", os.path.realpath("/run")), keep)


def enterNetwork():
    """As enter, but /run stays the machine's; ends the script with SKIPPED where that cannot be made. What the script's
    arguments name stays visible."""
    if os.environ.pop(_INSIDE, "") == "1":
        _hide(("/tmp",), filter(os.path.exists, sys.argv[1:]))
        return
    if subprocess.run(["unshare", "-n", "-m", "true"], check=False, capture_output=True).returncode != 0:
        print("skipped: no network namespace can be made here (root is needed)")
        sys.exit(SKIPPED)
    os.environ[_INSIDE] = "1"
    os.execvp("unshare", ["unshare", "-n", "-m", sys.executable, *sys.argv])


def kernelLogIsShared():
    """Whether the log rules of our namespace reach the machine's kernel log."""
    return os.environ.get(_KERNEL_LOG) == "1"


def dieWithParent():
    """For a child between fork and exec: it is killed when the script ends, however that happens."""
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


def _unshareCommand():
    reasons = []
    for extra in ([], ["--map-root-user"]):
        command = ["unshare", "--net", "--mount", "--propagation", "private", *extra]
        try:
            done = subprocess.run([*command, "true"], capture_output=True, text=True, check=False)
        except OSError as error:
            raise Unavailable(f"unshare cannot be run: {error.strerror}") from error
        if done.returncode == 0:
            return command
        reasons.append(done.stderr.strip())
    if "propagation" in reasons[0]:
        raise Unavailable("no mount namespace of our own: this is a chroot whose root folder is not a mount")
    raise Unavailable(f"no namespaces of our own: {reasons[0]}; nor as a user: {reasons[1]}")


def _readKernelLogSwitch():
    # The switch exists only in the machine's first network namespace; inside it cannot be read.
    try:
        with open("/proc/sys/net/netfilter/nf_log_all_netns", encoding="ascii") as switch:
            return switch.read().strip()
    except OSError:
        return "0"


def _hide(folders, keep):
    """Mounts an empty folder in memory over each: the databases of a test do not wait for a disk that others keep busy."""
    kept = [(os.path.realpath(path), os.open(path, os.O_PATH)) for path in (_PROJECT, *keep)]
    for folder in folders:
        _mount("tmpfs", folder, "tmpfs", 0)
    for path, handle in kept:
        if path.startswith(tuple(f"{folder}/" for folder in folders)):
            _bind(handle, path)
        os.close(handle)


def _bind(handle, path):
    if os.path.isdir(f"/proc/self/fd/{handle}"):
        os.makedirs(path, exist_ok=True)
    else:
        os.makedirs(os.path.dirname(path), exist_ok=True)
        if not os.path.exists(path):  # else it is in a folder that was kept, and may be a program at work
            with open(path, "ab"):
                pass
    _mount(f"/proc/self/fd/{handle}", path, None, _MS_BIND | _MS_REC)


def _mount(source, target, kind, flags):
    if _libc.mount(source.encode(), target.encode(), kind.encode() if kind else None, flags, None) != 0:
        raise Unavailable(f"cannot mount {source} on {target}: {os.strerror(ctypes.get_errno())}")
