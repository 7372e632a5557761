"""The Debian package's own files agree with the sources."""

import re
import subprocess

from programs import PROJECT

DEBIAN = PROJECT / "debian"


def text(path):
    return (PROJECT / path).read_text(encoding="utf-8")


def test_versions_of_sources_package_and_changes_agree():
    version = re.search(r"project\(tarnwick VERSION ([0-9.]+)", text("CMakeLists.txt")).group(1)
    newest = subprocess.run(["dpkg-parsechangelog", f"--file={DEBIAN}/changelog", "--show-field=Version"],
                            capture_output=True, text=True, check=True).stdout.strip()
    assert newest.rpartition("-")[0] == version
    assert re.search(r"^## ([0-9.]+)", text("CHANGELOG.md"), re.M).group(1) == version


def test_license_of_the_package_is_that_of_the_sources():
    name, _, grant = text("LICENSE").partition("\n\nCopyright (c) ")
    holder, _, grant = grant.partition("\n\n")
    written = text("debian/copyright")
    assert name == "MIT License"
    assert re.search(r"^Copyright: (.*)$", written, re.M).group(1) == holder
    stated = written.rpartition("License: MIT\n")[2]
    assert re.sub(r"(?m)^ \.?", "", stated) == grant


def test_scripts_are_sound_and_removal_covers_what_the_daemon_writes():
    done = subprocess.run(["shellcheck", "-x", DEBIAN / "tarnwick.prerm", PROJECT / "scripts" / "install-debian"],
                          capture_output=True, text=True, check=False, cwd=PROJECT)
    assert done.returncode == 0, done.stdout
    removed = set(re.findall(r"^r (/tmp/tarnwick_\w+)$", text("debian/tarnwick.tmpfiles"), re.M))
    written = {f"/tmp/{name}" for folder in ("core", "mld") for source in (PROJECT / folder).glob("*")
               for name in re.findall(r'"/tmp/(tarnwick_\w+)"', source.read_text(encoding="utf-8"))}
    assert removed == written and len(written) == 4
