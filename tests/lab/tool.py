"""A stand-in for a legacy ebtables: it touches no kernel and records the commands that it is run with.

For scripts in a sandbox: in their mount namespace it takes the program's place in /usr/sbin.
"""

import os
import pathlib
import shutil
import subprocess

from lab import waiting

_FOLDER = pathlib.Path("/tmp/tool")
_SBIN, _MACHINES_SBIN = pathlib.Path("/tmp/tool.sbin"), pathlib.Path("/tmp/tool.machines-sbin")
_STAND_IN = pathlib.Path(__file__).with_name("legacy_ebtables.sh")


def install():
    """Once, before all else here. Every other program of /usr/sbin stays what it is."""
    for folder in (_SBIN, _MACHINES_SBIN, _FOLDER):
        folder.mkdir()
    subprocess.run(["mount", "--bind", "/usr/sbin", _MACHINES_SBIN], check=True)
    for program in os.listdir("/usr/sbin"):
        os.symlink(_MACHINES_SBIN / program, _SBIN / program)
    subprocess.run(["mount", "--bind", _SBIN, "/usr/sbin"], check=True)
    reset()


def reset():
    """It is there; no call is on record."""
    path = pathlib.Path("/usr/sbin/ebtables")
    path.unlink(missing_ok=True)
    shutil.copy(_STAND_IN, path)
    path.chmod(0o755)
    (_FOLDER / "calls").write_text("", encoding="utf-8")
    for name in ("hangs", "waits", "goes-on"):
        (_FOLDER / name).unlink(missing_ok=True)


def hang():
    """The next command is recorded and does not end."""
    (_FOLDER / "hangs").touch()


def pause():
    """The next command is recorded and does not end before goOn."""
    (_FOLDER / "waits").touch()


def goOn():
    (_FOLDER / "goes-on").touch()


def commands():
    """The commands so far, each as its words with one blank between them."""
    lines = (_FOLDER / "calls").read_text(encoding="utf-8").splitlines(keepends=True)
    return [line[:-1] for line in lines if line.endswith("\n")]


def waitForCommands(count, seconds=waiting.PATIENCE):
    """Returns when there are that many."""
    waiting.until(lambda: len(commands()) >= count,
                  lambda: "\n".join([f"{count} commands; there are:", *commands()]), seconds)


def waitForCommand(part):
    """Returns when there is one with that in it."""
    waiting.until(lambda: any(part in command for command in commands()),
                  lambda: "\n".join([f"a command with {part}; there are:", *commands()]))
