#!/usr/bin/python3
"""Makes the guide's pictures of moatctl matrix and moatctl report, in docs/pictures, from demo/sample.json on a bridge in a
namespace of its own.

usage: pictures.py BUILD    needs tools/install-deps.sh browser
"""

import html
import os
import pty
import re
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, f"{ROOT}/tests")
from lab import programs, sandbox
from lab.bridge import Bridge
from lab.frames import Frame

COLOURS = {"31": "#ff8a80", "32": "#7ee787", "33": "#f2cc60", "35": "#d2a8ff", "1": "#ffffff", "0": "#d7dde4"}


def onATerminal(*command):
    """What the command writes on a terminal."""
    written = []

    def read(descriptor):
        data = os.read(descriptor, 65536)
        written.append(data)
        return b""

    columns = dict(os.environ, TERM="xterm")
    columns.pop("NO_COLOR", None)
    os.environ.clear()
    os.environ.update(columns)
    pty.spawn(list(command), read)
    return b"".join(written).decode("ascii").replace("\r\n", "\n")


def svgOf(text, command):
    lines = [f"$ {command}", *text.rstrip("\n").split("\n")]
    width = max(len(re.sub(r"\x1b\[\d+m", "", line)) for line in lines)
    size = f"{width * 8.5 + 32:.0f}", f"{len(lines) * 20 + 28}"
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {size[0]} {size[1]}" width="{size[0]}" height="{size[1]}" '
             f'role="img" aria-label="{html.escape(command)}">',
             '<rect width="100%" height="100%" rx="6" fill="#14171b"/>',
             '<g font-family="monospace" font-size="14" fill="#d7dde4" xml:space="preserve">']
    for number, line in enumerate(lines):
        spans, colour = "", "0"
        for piece in re.split(r"(\x1b\[\d+m)", line):
            if piece.startswith("\x1b"):
                colour = piece[2:-1]
            elif piece:
                spans += f'<tspan fill="{COLOURS[colour]}">{html.escape(piece)}</tspan>'
        parts.append(f'<text x="16" y="{number * 20 + 30}">{spans}</text>')
    return "\n".join([*parts, "</g>", "</svg>", ""])


def main():
    build = os.path.realpath(sys.argv[1])
    tool, folder, pictures = f"{build}/moatctl/moatctl", "/tmp/pictures", f"{ROOT}/docs/pictures"
    sys.argv[0] = os.path.realpath(__file__)
    sandbox.enter(ROOT, build)
    os.makedirs(folder, exist_ok=True)
    bridge = Bridge(("guest", "office", "uplink"))
    server = programs.startServer(f"{ROOT}/schema/moatkeeper.ovsschema", folder)
    daemon = programs.startDaemon(f"{build}/daemon/moatkeeper", folder)
    subprocess.run([tool, "import", "--replace", f"{ROOT}/demo/sample.json"], check=True)
    for number in range(12):
        bridge.send(("guest", Frame(src="02:00:00:00:00:aa")), ("guest", Frame(src=f"02:00:00:00:01:{number:02x}")))
    os.makedirs(f"{folder}/out", exist_ok=True)
    with open(f"{folder}/out/matrix.svg", "w", encoding="ascii") as file:
        file.write(svgOf(onATerminal(tool, "matrix"), "moatctl matrix"))
    subprocess.run([tool, "report", f"{folder}/bridge.html"], check=True)
    subprocess.run(["/usr/bin/chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                    f"--user-data-dir={folder}/browser", "--window-size=1000,1000", f"--screenshot={folder}/out/report.png",
                    f"file://{folder}/bridge.html"], check=True, stderr=subprocess.DEVNULL)
    daemon.stop()
    server.stop()
    bridge.close()
    os.makedirs(pictures, exist_ok=True)
    for name in ("matrix.svg", "report.png"):
        shutil.copyfile(f"{folder}/out/{name}", f"{pictures}/{name}")


if __name__ == "__main__":
    main()
