"""A stand-in for the ebtables programs: it touches no kernel, records how it is called and fails as it is told to.

For scripts in a sandbox: in their mount namespace it takes the programs' places in /usr/sbin.
"""

import json
import os
import pathlib
import shutil
import subprocess

from lab import waiting

NAMES = ("ebtables", "ebtables-restore", "ebtables-save")
RESTORE = "/usr/sbin/ebtables-restore"
_FOLDER = pathlib.Path("/tmp/tool")
_SBIN, _MACHINES_SBIN = pathlib.Path("/tmp/tool.sbin"), pathlib.Path("/tmp/tool.machines-sbin")
_STAND_IN = pathlib.Path(__file__).with_name("tool_stand_in.py")


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
    """All three are there and work; no call is on record."""
    for name in NAMES:
        path = pathlib.Path("/usr/sbin", name)
        path.unlink(missing_ok=True)
        shutil.copy(_STAND_IN, path)
        path.chmod(0o755)
    (_FOLDER / "calls").write_text("", encoding="utf-8")
    (_FOLDER / "saved").write_text("", encoding="utf-8")
    plan()


def plan(*ends):
    """How the next runs of ebtables-restore end, one after the other; those after them end well. Each is a dictionary:
    status: exit status; errors: text on standard error; megabytes: as many of other text behind it; signal: by which
    it dies; hangs: it never ends; always: this one is not used up."""
    temporary = _FOLDER / "plan.new"
    temporary.write_text(json.dumps(ends), encoding="utf-8")
    temporary.rename(_FOLDER / "plan")


def save(text):
    """What ebtables-save prints."""
    (_FOLDER / "saved").write_text(text, encoding="utf-8")


def calls(*names):
    """The calls so far of these programs (of all: none named), in order. Each is a dictionary: tool, arguments, time,
    environment, descriptors, input."""
    lines = (_FOLDER / "calls").read_text(encoding="utf-8").splitlines(keepends=True)
    found = [json.loads(line) for line in lines if line.endswith("\n")]
    return [call for call in found if not names or call["tool"] in names]


def batches():
    """The inputs of ebtables-restore so far, each as its lines between "*filter" and "COMMIT"."""
    result = []
    for call in calls("ebtables-restore"):
        first, *lines, last = call["input"].splitlines()
        assert (first, last) == ("*filter", "COMMIT"), call["input"]
        result.append(lines)
    return result


def waitForBatches(count, seconds=10):
    """Returns the batches when there are that many."""
    return waiting.until(lambda: len(found := batches()) >= count and found,
                         lambda: f"{count} batches; there are:\n{json.dumps(batches(), indent=1)}", seconds)
