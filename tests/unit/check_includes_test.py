"""tools/check-includes.sh finds what must not be included, and only that.  usage: check_includes_test.py SOURCES"""

import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCES = pathlib.Path(sys.argv.pop(1))


class CheckIncludes(unittest.TestCase):
    def check(self, file=None, include=None):
        with tempfile.TemporaryDirectory() as copy:
            for folder in ("platform", "records", "handler", "daemon"):
                shutil.copytree(SOURCES / folder, pathlib.Path(copy, folder))
            if file:
                with open(pathlib.Path(copy, file), "a", encoding="utf-8") as source:
                    source.write(f"#include {include}\n")
            return subprocess.run([SOURCES / "tools/check-includes.sh", copy], capture_output=True, text=True,
                                  check=False)

    def testTheSourcesAsTheyAre(self):
        done = self.check()
        self.assertEqual((done.returncode, done.stdout), (0, ""))

    def testAllowed(self):
        for file, include in (("handler/moatkeeper.cpp", "<vector>"),
                              ("handler/moatkeeper.cpp", '"records/filters.hpp"'),
                              ("daemon/run.cpp", '"platform/sysloglevel.h"')):
            done = self.check(file, include)
            self.assertEqual(done.returncode, 0, done.stdout)

    def testForbidden(self):
        for file, include in (("handler/moatkeeper.cpp", '"platform_linux/log_writer.hpp"'),
                              ("records/filters.cpp", '"handler/moatkeeper.hpp"'),
                              ("records/filters.cpp", "<sys/epoll.h>"),
                              ("platform/sysloglevel.h", '"daemon/run.hpp"'),
                              ("daemon/run.cpp", "<rapidjson/document.h>"),
                              ("daemon/run.cpp", '"platform_fake/device.hpp"')):
            done = self.check(file, include)
            self.assertEqual(done.returncode, 1, f"{include} in {file} was accepted")
            self.assertIn(f"#include {include}", done.stdout)
            self.assertIn(file, done.stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
