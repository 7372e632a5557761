"""The lab of the namespace tests, with an unpacked Debian and the package to install."""

import os
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "netns"))

# The lab takes its senders and listeners from the folder of the build.
BUILD = pathlib.Path(os.environ.get("TARNWICK_PROGRAMS", pathlib.Path(__file__).parents[2] / "build" / "dev"))
