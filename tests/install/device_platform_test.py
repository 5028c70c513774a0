"""Which library the daemon gets for its platform is for the build to say; a wrong name ends the configuration.

usage: device_platform_test.py CMAKE SOURCES
"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

CMAKE, SOURCES = sys.argv[1:3]
# A project of its own, as a maker of devices has it.
PROJECT = """cmake_minimum_required(VERSION 3.22)
project(device LANGUAGES CXX)
add_library(my_platform INTERFACE)
target_link_libraries(my_platform INTERFACE moatkeeper_platform)
set(MOATKEEPER_DEVICE_PLATFORM {platform})
set(MOATKEEPER_TESTS OFF)
add_subdirectory({sources} moatkeeper)
"""


class DevicePlatform(unittest.TestCase):
    def configure(self, platform):
        with tempfile.TemporaryDirectory() as folder:
            text = PROJECT.format(platform=platform, sources=SOURCES)
            pathlib.Path(folder, "CMakeLists.txt").write_text(text, encoding="utf-8")
            done = subprocess.run([CMAKE, "-G", "Ninja", "-S", folder, "-B", f"{folder}/build"], capture_output=True,
                                  text=True, timeout=100, check=False)
            return done.returncode, " ".join(done.stderr.split())

    def testOneOfOnesOwn(self):
        self.assertEqual(self.configure("my_platform"), (0, ""))

    def testAnUnknownNameIsRefused(self):
        for name in ("your_platform", ""):
            with self.subTest(name):
                status, message = self.configure(f'"{name}"')
                self.assertEqual(status, 1)
                self.assertIn(f'MOATKEEPER_DEVICE_PLATFORM is "{name}", expected a library that implements the headers '
                              "in platform/: moatkeeper_platform_linux, or one of your own", message)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
