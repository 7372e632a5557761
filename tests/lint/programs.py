"""Where the built programs and the sources are, and what a program prints."""

import os
import pathlib
import subprocess

PROJECT = pathlib.Path(__file__).parents[2]
PROGRAMS = pathlib.Path(os.environ.get("TARNWICK_PROGRAMS", PROJECT / "build" / "dev"))


def printed_by(program, *options):
    done = subprocess.run([PROGRAMS / program, *options], capture_output=True, text=True, timeout=20, check=False)
    return done.stdout
