"""The Debian packages of a build, as ctest has had them made in its folder packages."""

import pathlib
import re
import subprocess

NAMES = ("moatkeeper", "moatkeeper-compiled", "moatkeeper-tools", "moatkeeper-dev")


def of(build):
    """{name: its file}"""
    folder = pathlib.Path(build, "packages")
    found = {}
    for name in NAMES:
        found[name], = folder.glob(f"{name}_*.deb")
    return found


def repack(package, folder, change):
    """Makes a package of another one whose parts lie in a folder while change(parts) changes them; its file."""
    parts = pathlib.Path(folder, "parts")
    subprocess.run(["dpkg-deb", "--raw-extract", package, parts], check=True)
    change(parts)
    changed = pathlib.Path(folder, f"changed_{pathlib.Path(package).name}")
    subprocess.run(["dpkg-deb", "--build", "--root-owner-group", parts, changed], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["rm", "-r", parts], check=True)
    return changed


def withVersion(package, folder, suffix):
    """The same package with a version that ends so: "+next" is newer, "~last" older."""
    def change(parts):
        control = parts / "DEBIAN/control"
        text = control.read_text(encoding="utf-8")
        control.write_text(re.sub(r"(?m)^Version: .*$", rf"\g<0>{suffix}", text), encoding="utf-8")
    return repack(package, folder, change)
