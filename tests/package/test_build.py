"""Building the Debian packages: the same everywhere, for another processor, and as Debian wants them."""

import hashlib
import os
import subprocess

from conftest import BUILD
from debian_packages import Surroundings, built, field, held, package_of, unpacked

LOCALE = "et_EE"  # sorts z before t, and writes numbers and dates in its own way


def digests(folder):
    return {package.name: hashlib.sha256(package.read_bytes()).hexdigest() for package in folder.glob("*.deb")}


def test_lintian_has_no_errors_or_warnings(packages):
    [changes] = packages.glob("*.changes")
    done = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning", "--display-info", "--pedantic",
                           changes], capture_output=True, text=True, check=False)
    print(done.stdout)
    assert done.returncode == 0, done.stdout + done.stderr


def test_packages_are_the_same_from_another_folder_time_zone_umask_and_locale(packages):
    elsewhere = BUILD / "package" / "a_folder_of_another_name" / "and_depth"
    locales = BUILD / "package" / "locales"
    locales.mkdir(exist_ok=True)
    subprocess.run(["localedef", "-i", LOCALE, "-f", "UTF-8", locales / f"{LOCALE}.UTF-8"], check=True)
    words = {"LOCPATH": str(locales), "LC_ALL": f"{LOCALE}.UTF-8", "LANG": f"{LOCALE}.UTF-8"}
    date = subprocess.run(["date", "--date=2026-11-22", "+%A"], env=os.environ | words, capture_output=True, text=True,
                          check=True).stdout
    assert date == "pühapäev\n", "the locale counts"
    other = Surroundings(elsewhere, umask=0o077, processors=1, environment={"TZ": "Pacific/Kiritimati", **words})
    assert digests(built(other, "--build=binary")) == digests(packages)
    assert len(digests(packages)) == 3


def test_cross_build_makes_packages_for_the_routers_architecture(tmp_path):
    packages = built(Surroundings(BUILD / "package" / "mipsel"), "--build=binary", "--host-arch=mipsel",
                     "--build-profiles=cross", "--no-check-builddeps")
    package = package_of(packages, "tarnwick")
    assert field(package, "Architecture") == "mipsel"
    assert field(package, "Depends").startswith("libc6 (")
    header = (unpacked(package, tmp_path) / "usr" / "sbin" / "tarnwick").read_bytes()[:20]
    elf_32_bit, little_endian, machine_mips = 1, 1, 8
    assert header[:6] == b"\x7fELF" + bytes([elf_32_bit, little_endian])
    assert int.from_bytes(header[18:20], "little") == machine_mips
    assert "./usr/sbin/tarnwick-run" in held(package)
