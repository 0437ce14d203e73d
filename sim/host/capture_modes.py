"""How the simulated capture tools behave, and what they have been asked: files below the host's state, which the node's
commands write and read."""

import os
import signal
import sys
import time

import capture_points

RUNS = os.path.join(capture_points.FOLDER, "runs")


def mode_of(tool):
    """The words of a tool's mode; none when it does its work."""
    try:
        with open(os.path.join(capture_points.FOLDER, "mode." + tool), encoding="utf-8") as file:
            return file.read().split()
    except FileNotFoundError:
        return []


def note_run(tool, words):
    os.makedirs(capture_points.FOLDER, exist_ok=True)
    with open(RUNS, "a", encoding="utf-8") as file:
        file.write("\t".join([tool, str(os.getpid())] + words) + "\n")


def hang():
    while True:
        time.sleep(3600)


def main(words):
    """The capturing tool in a mode: PIPE MODE [FILE]."""
    pipe, mode, rest = words[0], words[1], words[2:]
    if mode in ("deaf", "deaf-early"):
        for name in (signal.SIGINT, signal.SIGTERM):
            signal.signal(name, signal.SIG_IGN)
    if mode in ("hang", "deaf-early"):
        hang()
    with open(pipe, "wb", buffering=0) as out:
        if mode == "replay":
            with open(rest[0], "rb") as file:
                out.write(file.read())
            return
        hang()


if __name__ == "__main__":
    main(sys.argv[1:])
