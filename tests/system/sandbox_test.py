"""The sandbox says why none can be made, and keeps what it is told to."""

import os
import shutil
import subprocess
import sys
import unittest

from lab import sandbox

TESTS = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
ENTER = "from lab import sandbox\ntry:\n    sandbox.enter()\nexcept sandbox.Unavailable as error:\n    print(error)\n"


class Unavailable(unittest.TestCase):
    def testInAChrootItSaysSo(self):
        root = "/tmp/root"
        for name in ("usr", "etc", "dev", "proc", "tests"):
            os.makedirs(f"{root}/{name}")
            subprocess.run(["mount", "--rbind", TESTS if name == "tests" else f"/{name}", f"{root}/{name}"], check=True)
        for name in os.listdir("/"):
            if os.path.islink(f"/{name}"): # bin, lib and their like
                os.symlink(os.readlink(f"/{name}"), f"{root}/{name}")
        done = subprocess.run(["chroot", root, "/usr/bin/env", "PYTHONPATH=/tests", "/usr/bin/python3", "-c", ENTER],
                              capture_output=True, text=True, check=False)
        self.assertEqual((done.stdout, done.stderr), (
            "no mount namespace of our own: this is a chroot whose root folder is not a mount\n", ""))


class Kept(unittest.TestCase):
    def testAProgramAtWorkInAProjectBelowTmp(self):
        shutil.copytree(f"{TESTS}/lab", "/tmp/project/tests/lab")
        program, script = "/tmp/project/program", "/tmp/project/tests/script.py"
        shutil.copy(shutil.which("sleep"), program)
        with open(script, "w", encoding="ascii") as file:
            file.write(f"import os\nfrom lab import sandbox\nsandbox.enter('{program}')\n"
                       f"print(os.access('{program}', os.X_OK), os.listdir('/tmp'))\n")
        with subprocess.Popen([program, "1000"]) as atWork:
            done = subprocess.run([sys.executable, script], env={**os.environ, "PYTHONPATH": "/tmp/project/tests"},
                                  capture_output=True, text=True, check=False)
            atWork.kill()
        self.assertEqual((done.stdout, done.stderr), ("True ['project']\n", ""))


if __name__ == "__main__":
    try:
        sys.argv[0] = os.path.realpath(sys.argv[0])
        sandbox.enter()
    except sandbox.Unavailable as unavailable:
        print(f"skipped: {os.path.basename(sys.argv[0])}: {unavailable}", file=sys.stderr)
        sys.exit(sandbox.SKIPPED)
    unittest.main(argv=sys.argv[:1], verbosity=2)
