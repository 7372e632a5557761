"""The Debian package's own files agree with the sources."""

import hashlib
import os
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
    name, holder, grant = text("LICENSE").split("\n\n", 2)
    written = text("debian/copyright")
    assert name == "MIT License"
    assert re.search(r"^Copyright: (.*)$", written, re.M).group(1) == holder.partition(" (c) ")[2]
    stated = written.rpartition("License: MIT\n")[2]
    assert re.sub(r"(?m)^ \.?", "", stated) == grant


def test_scripts_are_sound_and_removal_covers_what_the_daemon_writes():
    done = subprocess.run(["shellcheck", "-x", "debian/tarnwick.prerm", "debian/tests/library", "debian/tests/package",
                           "scripts/install-debian", "scripts/sbom"],
                          capture_output=True, text=True, check=False, cwd=PROJECT)
    assert done.returncode == 0, done.stdout
    removed = set(re.findall(r"^r (/tmp/tarnwick_\w+)$", text("debian/tarnwick.tmpfiles"), re.M))
    written = {f"/tmp/{name}" for folder in ("core", "mld") for source in (PROJECT / folder).glob("*")
               for name in re.findall(r'"/tmp/(tarnwick_\w+)"', source.read_text(encoding="utf-8"))}
    assert removed == written and len(written) == 4


def test_bill_of_materials_lists_every_file_and_is_the_same_again(tmp_path):
    written = []
    for zone in ("UTC", "Pacific/Kiritimati"):
        to = tmp_path / zone.replace("/", "-")
        done = subprocess.run([PROJECT / "scripts" / "sbom", to], capture_output=True, text=True, check=False,
                              env=os.environ | {"TZ": zone})
        assert done.returncode == 0, done.stdout + done.stderr
        written.append(to.read_text(encoding="utf-8"))
    assert written[0] == written[1]
    files = dict(re.findall(r"^FileName: \./(.*)\nSPDXID: .*\nFileChecksum: SHA1: (\w+)$", written[0], re.M))
    # reuse leaves out what is empty or a license itself.
    sources = {path: (PROJECT / path).read_bytes() for folder in ("core", "igmp", "mld", "run", "assist", "status")
               for path in (str(found.relative_to(PROJECT)) for found in (PROJECT / folder).rglob("*.cpp"))}
    assert len(sources) > 100
    assert {path: hashlib.sha1(content).hexdigest() for path, content in sources.items()}.items() <= files.items()
    assert set(re.findall(r"^LicenseInfoInFile: (.*)$", written[0], re.M)) == {"MIT"}
    holders = set(re.findall(r"^FileCopyrightText: <text>(.*?)</text>$", written[0], re.M))
    assert holders == {"2026 the tarnwick authors"}
