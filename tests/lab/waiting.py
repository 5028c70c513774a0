"""Waiting for something to become true, with a deadline."""

import time

PATIENCE = 30.0  # seconds: a machine may be busy. What is to be quick is given its own limit where it is tested


def until(condition, what, seconds=PATIENCE):
    """Calls condition until it gives a true value and returns that; what (text, or a function that gives it) tells
    what was waited for, in the TimeoutError after `seconds`."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise TimeoutError(f"waited {seconds:g} s in vain for {what() if callable(what) else what}")
        time.sleep(0.005)
