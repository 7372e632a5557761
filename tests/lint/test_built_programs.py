"""The programs run where nothing but libc is installed, on this machine and on the router's 32-bit processor."""

import re
import subprocess

import pytest

from programs import PROGRAMS, PROJECT

NAMES = ["tarnwick", "tarnwick-assist", "tarnwick-status"]


def needed(program):
    shown = subprocess.run(["readelf", "-d", program], capture_output=True, text=True, check=True).stdout
    return re.findall(r"\(NEEDED\).*\[(.*)\]", shown)


@pytest.fixture(scope="module", name="router_build")
def build_for_the_router(tmp_path_factory):
    folder = tmp_path_factory.mktemp("mipsel")
    toolchain = PROJECT / "cmake" / "mipsel-linux-gnu.cmake"
    make = ["cmake", "-S", PROJECT, "-B", folder, f"-DCMAKE_TOOLCHAIN_FILE={toolchain}", "-DCMAKE_BUILD_TYPE=MinSizeRel"]
    subprocess.run(make, check=True, capture_output=True)
    subprocess.run(["cmake", "--build", folder, "-j2", "--target", *NAMES], check=True, capture_output=True)
    return folder


@pytest.mark.parametrize("name", NAMES)
def test_program_needs_libc_alone(name):
    assert needed(PROGRAMS / name) == ["libc.so.6"]


@pytest.mark.parametrize("name", NAMES)
def test_program_of_the_router_needs_libc_alone(name, router_build):
    assert needed(router_build / name) == ["libc.so.6"]
