"""The systemd units, as they are installed."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

from programs import PROGRAMS, PROJECT

UNITS = ["tarnwick.service"]
FOLDER = PROJECT / "packaging" / "systemd"
HIGHEST_EXPOSURE = {"tarnwick.service": 3.6}  # 10 is a service without any bounds
HARDENING = re.compile(r"^(Protect|Private|Restrict|Capability|Ambient|SystemCall|NoNew|Memory|Lock|ReadWrite|UMask|"
                       r"Keyring|DynamicUser|ProcSubset)")


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    root = tmp_path_factory.mktemp("root")
    subprocess.run(["cmake", "--install", PROGRAMS, "--prefix", "/usr"], env={**os.environ, "DESTDIR": str(root)},
                   check=True, capture_output=True)
    for target in pathlib.Path("/usr/lib/systemd/system").glob("*.target"):
        shutil.copy(target, root / "usr" / "lib" / "systemd" / "system")
    return root


def test_units_are_accepted_by_systemd(installed):
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", f"--root={installed}",
                           *(f"/usr/lib/systemd/system/{unit}" for unit in UNITS)],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout + done.stderr) == (0, "")


@pytest.mark.parametrize("unit", UNITS)
def test_exposure_stays_low(unit):
    done = subprocess.run(["systemd-analyze", "security", "--offline=yes", "--no-pager", FOLDER / unit],
                          capture_output=True, text=True, check=False)
    exposure = float(re.search(r"Overall exposure level for \S+: ([0-9.]+)", done.stdout).group(1))
    print(f"{unit}: {exposure}")
    assert exposure <= HIGHEST_EXPOSURE[unit]


@pytest.mark.parametrize("unit", UNITS)
def test_every_group_of_hardening_lines_is_explained(unit):
    explained = False
    for line in (FOLDER / unit).read_text().splitlines():
        if line.startswith("#"):
            explained = True
        elif HARDENING.match(line):
            assert explained, f"no comment above {line}"
        else:
            explained = False


@pytest.mark.parametrize("unit", UNITS)
def test_unit_keeps_the_capabilities_that_it_explains_and_no_more(unit):
    [kept] = re.findall(r"^CapabilityBoundingSet=(.*)$", (FOLDER / unit).read_text(), re.M)
    assert kept.split() == ["CAP_NET_ADMIN", "CAP_NET_RAW", "CAP_SETPCAP", "CAP_SYS_ADMIN", "CAP_SYS_PTRACE"]


def test_settings_named_by_the_units_are_in_the_defaults_file():
    set_there = set(re.findall(r"^(\w+)=", (FOLDER / "tarnwick.default").read_text(), re.M))
    used = {name for unit in UNITS for name in re.findall(r"\$\{?(TARNWICK_\w+)", (FOLDER / unit).read_text())}
    assert used == set_there
