"""The lab of the namespace tests, with an unpacked Debian and the packages to install."""

import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "netns"))

import debian_box  # noqa: E402
import debian_packages  # noqa: E402
import laboratory  # noqa: E402

# The lab takes its senders and listeners from the folder of the build.
BUILD = pathlib.Path(os.environ.get("TARNWICK_PROGRAMS", pathlib.Path(__file__).parents[2] / "build" / "dev"))


@pytest.fixture(scope="session")
def packages():
    """The folder of the packages: those under test, or built ones."""
    ready = os.environ.get("TARNWICK_PACKAGES")
    return pathlib.Path(ready) if ready else debian_packages.built(
        debian_packages.Surroundings(BUILD / "package" / "native"))


@pytest.fixture
def box():
    """The lab, and a Debian system that runs in its router."""
    lab = laboratory.build()
    debian = None
    try:
        debian = debian_box.boot(lab, debian_box.unpacked_root(BUILD / "package"))
        yield lab, debian
    finally:
        if debian:
            print(debian_box.run(debian, "journalctl", "--no-pager", "-n", "60", check=False).stdout)
            debian_box.shut_down(debian)
        laboratory.remove(lab)


@pytest.fixture
def box_with_package(box, packages):
    lab, debian = box
    debian_box.put(debian, debian_packages.package_of(packages, "tarnwick"), "/tarnwick.deb")
    return lab, debian
