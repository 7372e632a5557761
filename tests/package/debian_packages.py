"""Builds the Debian packages from a copy of the sources, and looks into them."""

import dataclasses
import os
import pathlib
import re
import shutil
import subprocess

PROJECT = pathlib.Path(__file__).parents[2]
CMAKE_VERSION = re.search(r"project\(tarnwick VERSION ([0-9.]+)", (PROJECT / "CMakeLists.txt").read_text()).group(1)
NOT_SOURCES = shutil.ignore_patterns("build", ".git", "__pycache__", ".pytest_cache")
BUILD_SECONDS = 1200


@dataclasses.dataclass
class Surroundings:
    """What a build must not leave traces of."""

    folder: pathlib.Path  # made anew
    umask: int = 0o022
    processors: int = os.cpu_count()
    environment: dict = dataclasses.field(default_factory=lambda: {"TZ": "UTC", "LC_ALL": "C"})


def built(surroundings, *options):
    """The folder with what dpkg-buildpackage makes, without network."""
    shutil.rmtree(surroundings.folder, ignore_errors=True)
    sources = surroundings.folder / f"tarnwick-{CMAKE_VERSION}"
    shutil.copytree(PROJECT, sources, ignore=NOT_SOURCES, symlinks=True)
    if "--build=binary" not in options:
        archive = surroundings.folder / f"tarnwick_{CMAKE_VERSION}.orig.tar.gz"
        subprocess.run(["tar", "-czf", archive, "--exclude=./debian", "-C", sources, "."], check=True)
    done = subprocess.run(
        ["unshare", "--net", "dpkg-buildpackage", "--no-sign", *options], cwd=sources, capture_output=True, text=True,
        umask=surroundings.umask, timeout=BUILD_SECONDS, check=False,
        env={"PATH": os.environ["PATH"], "HOME": str(surroundings.folder),
             "DEB_BUILD_OPTIONS": f"parallel={surroundings.processors}", **surroundings.environment})
    assert done.returncode == 0, (done.stdout + done.stderr)[-4000:]
    return surroundings.folder


def package_of(folder, name):
    [package] = folder.glob(f"{name}_*.deb")
    return package


def field(package, name):
    return subprocess.run(["dpkg-deb", "--field", package, name], check=True, capture_output=True,
                          text=True).stdout.strip()


def listed(package):
    """Mode and owner of each path in the package; folders end with a slash."""
    listing = subprocess.run(["dpkg-deb", "--contents", package], check=True, capture_output=True, text=True).stdout
    return {line.split()[5]: line.split()[:2] for line in listing.splitlines()}


def held(package):
    return {path: facts for path, facts in listed(package).items() if not path.endswith("/")}


def unpacked(package, folder):
    subprocess.run(["dpkg-deb", "--extract", package, folder], check=True)
    return folder
