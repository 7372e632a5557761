"""The scenarios that the emulated boards run as well, here in the kernel of this machine."""

import os
import pathlib
import subprocess

import pytest

import laboratory

SCENARIOS = pathlib.Path(__file__).parents[1] / "scenarios"


@pytest.mark.parametrize("name", ["mld_end_to_end", "supervisor_end_to_end"])
def test_scenario(name):
    """In a process table and a list of namespaces of its own: whatever happens, nothing is left behind."""
    done = subprocess.run(
        ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "--propagation", "private", "sh", "-c",
         'mkdir -p /run/netns && mount -t tmpfs tmpfs /run/netns && exec dash "$0" "$1"',
         SCENARIOS / f"{name}.sh", laboratory.PROGRAMS],
        # For builds with sanitizers; leaks are looked for by the other tests.
        env={**os.environ, "ASAN_OPTIONS": "verify_asan_link_order=0:detect_leaks=0"},
        capture_output=True, text=True, timeout=240)
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.splitlines()[-1].endswith("checks, 0 failed")
