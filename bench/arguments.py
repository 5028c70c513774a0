"""The command line of a benchmark, and its end where nothing can be measured."""

import argparse
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(__file__))), "tests"))
from lab import sandbox


def parser(text):
    """For a script that begins with the text."""
    return argparse.ArgumentParser(description=text, formatter_class=argparse.RawDescriptionHelpFormatter)


def existing(path):
    """The type of an argument that is a file or folder."""
    if not os.path.exists(path):
        raise argparse.ArgumentTypeError(f"{path}: no such file or folder; build it first")
    return os.path.realpath(path)


def run(main):
    """Calls it; one line and status 1 where no namespaces can be made."""
    try:
        main()
    except sandbox.Unavailable as reason:
        sys.exit(f"{os.path.basename(sys.argv[0])}: {reason}")
