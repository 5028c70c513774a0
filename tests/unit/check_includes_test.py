"""tools/check-includes.sh finds what must not be included, and only that.  usage: check_includes_test.py SOURCES"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SOURCES = pathlib.Path(sys.argv.pop(1))
SCRIPT = SOURCES / "tools/check-includes.sh"

ALLOWED = (
    ("records/a.hpp", "<vector>"),
    ("records/a.hpp", '"records/b.hpp"'),
    ("handler/a.cpp", '"records/filters.hpp"'),
    ("daemon/a.cpp", '"platform/sysloglevel.h"'),
    ("daemon/a.cpp", "<unistd.h>"),
    ("ovsdb/a.cpp", "<rapidjson/reader.h>"),
    ("platform_linux/a.cpp", '"ebtables/model.hpp"'),
    ("platform_linux/a.cpp", "<sys/epoll.h>"),
    ("tests/unit/a.cpp", '"platform_fake/device.hpp"'),
)
FORBIDDEN = (
    ("platform/a.h", '"daemon/run.hpp"'),
    ("records/a.cpp", '"handler/moatkeeper.hpp"'),
    ("records/a.cpp", "<sys/epoll.h>"),
    ("records/a.cpp", "<unistd.h>"),
    ("handler/a.cpp", '"platform_linux/log_writer.hpp"'),
    ("handler/a.cpp", '"daemon/run.hpp"'),
    ("daemon/a.cpp", "<rapidjson/document.h>"),
    ("daemon/a.cpp", '"platform_fake/device.hpp"'),
    ("daemon/a.cpp", '"records/filters.hpp"'),
    ("ebtables/a.cpp", '"platform/sysloglevel.h"'),
    ("ebtables/a.cpp", "<sys/wait.h>"),
    ("ovsdb/a.cpp", '"ebtables/model.hpp"'),
    ("nftables/a.cpp", '"ovsdb/json.hpp"'),
    ("schema/a.cpp", '"ovsdb/json.hpp"'),
    ("platform_fake/a.cpp", '"platform_linux/log_writer.hpp"'),
    ("platform_linux/a.cpp", '"platform_fake/device.hpp"'),
    ("platform_linux/a.cpp", '"handler/moatkeeper.hpp"'),
    ("platform_linux/queue/a.cpp", '"tests/unit/scratch_folder.hpp"'),
    ("moatctl/a.cpp", '"platform_linux/log_writer.hpp"'),
    ("moatctl/describe/a.cpp", '"subprocess/run.hpp"'),
    ("moatctl/bridge/a.cpp", '"platform_fake/device.hpp"'),
    ("moatctl/tables/a.cpp", '"moatctl/verbs/all.hpp"'), # runs back up
    ("moatctl/verbs/a.cpp", "<CLI/CLI.hpp>"),
    ("demo/a.cpp", '"platform_linux/log_writer.hpp"'),
    ("tests/golden/a.cpp", '"platform_linux/log_writer.hpp"'),
    # Ways to write an include that hide where the file is.
    ("handler/a.cpp", '"filters.hpp"'),
    ("handler/a.cpp", '"../platform_linux/log_writer.hpp"'),
    ("handler/a.cpp", "HEADER"),
)


class CheckIncludes(unittest.TestCase):
    def check(self, folder):
        return subprocess.run([SCRIPT, folder], capture_output=True, text=True, check=False)

    def checkLine(self, name, line):
        with tempfile.TemporaryDirectory() as folder:
            source = pathlib.Path(folder, name)
            source.parent.mkdir(parents=True, exist_ok=True)
            source.write_text(f"// A source.\n{line}\n", encoding="utf-8")
            return self.check(folder)

    def testTheSourcesAsTheyAre(self):
        done = self.check(SOURCES)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def testAllowed(self):
        for name, header in ALLOWED:
            with self.subTest(f"{header} in {name}"):
                done = self.checkLine(name, f"#include {header}")
                self.assertEqual((done.returncode, done.stdout), (0, ""))

    def testForbidden(self):
        for name, header in FORBIDDEN:
            with self.subTest(f"{header} in {name}"):
                done = self.checkLine(name, f" #  include {header} // why")
                self.assertEqual(done.returncode, 1)
                self.assertIn(f"{name}:2: #  include {header}", done.stdout)
                self.assertIn(f"{pathlib.PurePath(name).parent}/ may include the standard library", done.stdout)

    def testAFolderWithoutARule(self):
        for name in ("a.cpp", "another/a.hpp", "handler/room/a.cpp", "tests/another/a.h"):
            with self.subTest(name):
                done = self.checkLine(name, "#include <vector>")
                self.assertEqual(done.returncode, 1)
                self.assertRegex(done.stdout, f"^{name}: .* has no rule")

    def testBuildFoldersAreLeftOut(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in ("build/dev", ".hidden", "out"):
                build = pathlib.Path(folder, name)
                build.mkdir(parents=True)
                (build / "a.cpp").write_text("#include <sys/epoll.h>\n", encoding="utf-8")
            self.assertIn("out/a.cpp", self.check(folder).stdout)
            pathlib.Path(folder, "out/CMakeCache.txt").touch()
            done = self.check(folder)
            self.assertEqual((done.returncode, done.stdout), (0, ""))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
