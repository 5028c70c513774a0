"""A machine's service manager, systemd, as the first process of namespaces of its own, with the product installed or not.

It sees the machine's files below an overlay, so that nothing of what it or a package changes stays. The network
namespace is the calling script's: frames can be sent through its bridge from outside. Call sandbox.enter first.
"""

import ctypes
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

from lab import sandbox, waiting

SERVER_SOCKET = "/run/moatkeeper-db/change/socket"  # to which the usual path is a link

_FOLDERS = "/tmp/service_manager"
_SCRIPT = """
set -e
cd {root}
mount -t proc proc proc
mount --bind proc/sys proc/sys
mount -o remount,ro,bind proc/sys
mount -t sysfs sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount --rbind /dev dev
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs tmp
exec chroot . /lib/systemd/systemd --system --unit=test.target --log-level=info --log-target=console --show-status=no
"""
_MNT_DETACH = 2
_OUTPUT = "/var/log/units"


class ServiceManager:
    """One machine: what stands in its files stays over a boot. Raises Unavailable where there can be none."""

    def __init__(self, cmake=None, build=None, name=None, installed=None, network=()):
        """cmake --install of the folder build is what is installed, or what another machine has, `installed`; nothing
        without either. With a name it is one of several machines; network: how a program is started in its network."""
        if not os.access("/lib/systemd/systemd", os.X_OK):
            raise sandbox.Unavailable("systemd is not installed")
        if os.geteuid() != 0:
            raise sandbox.Unavailable("root is needed")
        self._process = None
        self._folder = pathlib.Path(f"{_FOLDERS}.{name}" if name else _FOLDERS)
        self._installed = installed._installed if installed else self._folder / "installed"
        self._network = list(network)
        self._first = 0  # its process, as we see it
        self._cgroup = None
        try:
            self._prepare(cmake, build)
            if name:
                self.write("/etc/hostname", f"{name}\n")
            if not installed:
                self.boot()  # whether it can be done at all
                self.halt()
        except sandbox.Unavailable:
            self.close()
            raise

    def _prepare(self, cmake, build):
        shutil.rmtree(self._folder, ignore_errors=True)
        for name in ("installed", "changed", "work", "root", "cgroup"):
            (self._folder / name).mkdir(parents=True)
        self._mount("overlay", "overlay", self._folder / "root",
                    f"lowerdir={self._installed}:/,upperdir={self._folder}/changed,workdir={self._folder}/work")
        self._mount("cgroup2", "cgroup2", self._folder / "cgroup")
        self._cgroup = pathlib.Path(tempfile.mkdtemp(prefix="moatkeeper-test.", dir=self._folder / "cgroup"))
        if build:
            subprocess.run([cmake, "--install", build, "--prefix", "/usr"], check=True, stdout=subprocess.DEVNULL,
                           env={**os.environ, "DESTDIR": str(self._folder / "installed")})
        subprocess.run(["systemd-sysusers", f"--root={self._folder}/root", "moatkeeper.conf"], check=bool(build),
                       capture_output=True)
        # A package may start its services here.
        self.remove("/usr/sbin/policy-rc.d")
        # Only what a test asks for is started.
        self.write("/etc/systemd/system/systemd-tmpfiles-setup.service",
                   "[Unit]\nDefaultDependencies=no\n[Service]\nType=oneshot\nExecStart=true\n")

    @staticmethod
    def _mount(kind, source, target, options=""):
        done = subprocess.run(["mount", "-t", kind, *(["-o", options] if options else []), source, str(target)],
                              capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise sandbox.Unavailable(f"no {kind} can be mounted here: {done.stderr.strip()}")

    def write(self, path, text):
        """A file of the machine, while it does not run."""
        place = self._folder / "root" / path.lstrip("/")
        place.parent.mkdir(parents=True, exist_ok=True)
        place.write_text(text, encoding="utf-8")

    def read(self, path):
        """The text of a file on its disk."""
        return (self._folder / "root" / path.lstrip("/")).read_text(encoding="utf-8")

    def listChanges(self):
        """The paths of all files that were changed on its disk, or made, or removed."""
        root = self._folder / "changed"
        return {f"/{place.relative_to(root)}" for place in root.rglob("*") if place.is_symlink() or not place.is_dir()}

    def remove(self, path):
        place = self._folder / "root" / path.lstrip("/")
        if place.is_dir():
            shutil.rmtree(place)
        else:
            place.unlink(missing_ok=True)

    def path(self, path):
        """A file of the machine that runs, as we can name it."""
        return pathlib.Path(f"/proc/{self._first}/root{path}")

    def disk(self, path):
        """A file or folder on its disk, as we can name it while it does not run."""
        return self._folder / "root" / path.lstrip("/")

    def change(self, unit, settings):
        """What a unit's section Service says besides, and where its output goes."""
        self.write(f"/etc/systemd/system/{unit}.d/test.conf",
                   f"[Service]\nStandardOutput=append:{_OUTPUT}\nStandardError=append:{_OUTPUT}\n{settings}")

    def boot(self, *wanted):
        """Starts the units wanted; returns when the first process takes orders."""
        self.write("/etc/systemd/system/test.target",
                   f"[Unit]\nDefaultDependencies=no\nWants={' '.join(wanted)}\n")
        self.remove(_OUTPUT)
        with open(self._folder / "log", "wb") as log:
            self._process = subprocess.Popen(
                [*self._network, "unshare", "--cgroup", "--mount", "--pid", "--ipc", "--uts", "--fork", "--kill-child",
                 "sh", "-c", _SCRIPT.format(root=self._folder / "root")],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, env={**os.environ, "container": "other"},
                preexec_fn=self._inCgroup)
        children = pathlib.Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children")
        waiting.until(lambda: self._isReady(children), lambda: f"the service manager:\n{self.readLog()}", 30)

    def _isReady(self, children):
        if self._process.poll() is not None:
            raise sandbox.Unavailable(f"systemd does not run here: {self.readLog()[-300:]}")
        try:
            self._first = int(children.read_text(encoding="ascii"))
            return self.path("/run/systemd/private").exists()
        except (OSError, ValueError):
            return False

    def _inCgroup(self):
        sandbox.dieWithParent()
        (self._cgroup / "cgroup.procs").write_text(str(os.getpid()), encoding="ascii")

    def halt(self):
        """As when the power is cut: no process gets a signal that it could handle."""
        if self._process is None:
            return
        if self._process.poll() is None:
            os.kill(self._first, signal.SIGKILL)
        self._process.wait(20)
        self._process = None

    def close(self):
        """Takes everything out again."""
        self.halt()

        def emptied():
            for folder, _, _ in os.walk(self._cgroup or "", topdown=False):
                try:
                    os.rmdir(folder)
                except OSError:
                    return False
            return True
        waiting.until(emptied, f"the end of all processes in {self._cgroup}")
        libc = ctypes.CDLL(None)
        for name in ("cgroup", "root"):
            libc.umount2(str(self._folder / name).encode(), _MNT_DETACH)
        shutil.rmtree(self._folder, ignore_errors=True)

    def run(self, *words, check=True):
        """Runs a program inside; its standard output."""
        done = subprocess.run(["nsenter", f"--target={self._first}", "--mount", "--pid", "--ipc", "--uts", "--cgroup",
                               "--net", "--root", "--wd", *words], capture_output=True, text=True, check=False, timeout=120)
        if check and done.returncode != 0:
            raise AssertionError(f"{' '.join(words)} ended with {done.returncode}:\n{done.stdout}{done.stderr}\n"
                                 f"{self.readLog()[-3000:]}")
        return done.stdout

    def show(self, unit, name):
        """A property of a unit."""
        return self.run("systemctl", "show", "--value", f"--property={name}", unit).strip()

    def waitFor(self, unit, state="active", seconds=20):
        waiting.until(lambda: self.show(unit, "ActiveState") == state,
                      lambda: f"{unit} to be {state}, it is {self.show(unit, 'ActiveState')}:\n{self.readLog()[-3000:]}",
                      seconds)

    def readOutput(self):
        """Of the units that were changed, since the boot."""
        return self.path(_OUTPUT).read_text(encoding="utf-8", errors="replace")

    def readLog(self):
        return (self._folder / "log").read_text(encoding="utf-8", errors="replace")


def enter(cmake, build, installed=True):
    """For a script's main: the machine, inside a sandbox that keeps the build folder, with what cmake installs from that
    unless told otherwise. Exit status 77 where there can be none. The caller closes it."""
    try:
        sys.argv[0] = os.path.realpath(sys.argv[0])
        sandbox.enter(build)
        return ServiceManager(cmake, build) if installed else ServiceManager()
    except sandbox.Unavailable as error:
        print(f"skipped: {os.path.basename(sys.argv[0])}: {error}", file=sys.stderr)
        sys.exit(sandbox.SKIPPED)
