"""What the Debian packages hold."""

import re
import shutil
import subprocess

import pytest

from debian_packages import CMAKE_VERSION, PROJECT, field, held, listed, package_of, unpacked

PROGRAMS = {f"./usr/sbin/{name}" for name in ("tarnwick", "tarnwick-assist", "tarnwick-run", "tarnwick-status")}
HELD = PROGRAMS | {
    "./etc/default/tarnwick",
    "./etc/tarnwick/nvram",
    "./lib/systemd/system/tarnwick.service",
    "./usr/lib/tarnwick/libtarnwick-smooth.so",
    "./usr/lib/tmpfiles.d/tarnwick.conf",
    "./usr/share/doc/tarnwick/changelog.Debian.gz",
    "./usr/share/doc/tarnwick/changelog.gz",
    "./usr/share/doc/tarnwick/copyright",
    "./usr/share/bash-completion/completions/tarnwick",
    "./usr/share/bash-completion/completions/tarnwick-assist",
    "./usr/share/bash-completion/completions/tarnwick-run",
    "./usr/share/bash-completion/completions/tarnwick-status",
    "./usr/share/doc/tarnwick/examples/private-state.conf",
    "./usr/share/doc/tarnwick/examples/tarnwick-metrics.service",
    "./usr/share/doc/tarnwick/examples/tarnwick-metrics.timer",
    "./usr/share/doc/tarnwick/examples/tarnwick.nft",
    "./usr/share/man/man5/tarnwick-nvram.5.gz",
    "./usr/share/man/man8/tarnwick-assist.8.gz",
    "./usr/share/man/man8/tarnwick-run.8.gz",
    "./usr/share/man/man8/tarnwick-status.8.gz",
    "./usr/share/man/man8/tarnwick.8.gz",
    "./usr/share/zsh/vendor-completions/_tarnwick"}
LIBRARY_FOLDERS = ("core", "igmp", "mld", "platform")


@pytest.fixture(scope="module", name="package")
def main_package(packages):
    return package_of(packages, "tarnwick")


@pytest.fixture(scope="module", name="library")
def library_package(packages):
    return package_of(packages, "tarnwick-dev")


def test_package_holds_what_it_promises(package):
    assert set(held(package)) == HELD
    assert field(package, "Recommends") == "psmisc"


def test_everything_belongs_to_root_and_everybody_may_read_it(package, library):
    modes = {path: tuple(facts) for each in (package, library) for path, facts in listed(each).items()}
    assert {path for path, (mode, _owner) in modes.items() if mode == "-rwxr-xr-x"} == PROGRAMS
    assert {path: facts for path, facts in modes.items() if facts not in (
        ("drwxr-xr-x", "root/root"), ("-rw-r--r--", "root/root"), ("-rwxr-xr-x", "root/root"))} == {}


def test_package_is_named_after_version_and_architecture(package):
    machine = subprocess.run(["dpkg", "--print-architecture"], check=True, capture_output=True, text=True).stdout
    assert re.fullmatch(f"tarnwick_{re.escape(CMAKE_VERSION)}-[0-9a-z]+_{machine.strip()}.deb", package.name)


def test_programs_need_libc_alone(package, tmp_path):
    assert re.fullmatch(r"libc6 \(>= [0-9.]+\)", field(package, "Depends"))
    root = unpacked(package, tmp_path)
    for path in (*PROGRAMS, "./usr/lib/tarnwick/libtarnwick-smooth.so"):
        shown = subprocess.run(["readelf", "--dynamic", root / path], check=True, capture_output=True, text=True).stdout
        assert re.findall(r"\(NEEDED\).*\[(.*)\]", shown) == ["libc.so.6"], path


def test_calls_with_a_known_size_are_checked(package, tmp_path):
    root = unpacked(package, tmp_path)
    for path in PROGRAMS:
        shown = subprocess.run(["readelf", "--wide", "--dyn-syms", root / path], check=True, capture_output=True,
                               text=True).stdout
        assert re.search(r" UND __\w+_chk@", shown), path


def test_debug_symbols_are_in_a_package_of_their_own(packages):
    symbols = package_of(packages, "tarnwick-dbgsym")
    assert field(symbols, "Depends") == f"tarnwick (= {field(package_of(packages, 'tarnwick'), 'Version')})"
    of_files = [path for path in held(symbols) if path.startswith("./usr/lib/debug/.build-id/")]
    assert len(of_files) == len(PROGRAMS) + 1


def test_library_package_holds_archive_cmake_package_and_all_headers(library):
    files = set(held(library))
    headers = {f"./usr/include/tarnwick/{path.relative_to(PROJECT)}"
               for folder in LIBRARY_FOLDERS for path in (PROJECT / folder).rglob("*.h")}
    assert len(headers) > 50
    assert {path for path in files if path.endswith(".h")} == headers
    assert len([path for path in files if re.fullmatch(r"./usr/lib/[^/]+/libtarnwick_proxy.a", path)]) == 1
    assert len([path for path in files if re.fullmatch(r"./usr/lib/[^/]+/cmake/tarnwick/[^/]+.cmake", path)]) == 3
    assert not {path for path in files if "/sbin/" in path}


def test_example_of_the_library_package_builds_against_it(library, tmp_path):
    root = unpacked(library, tmp_path / "root")
    example = tmp_path / "example"
    shutil.copytree(root / "usr" / "share" / "doc" / "tarnwick-dev" / "examples", example)
    for command in (["cmake", "-S", example, "-B", example / "build", f"-DCMAKE_PREFIX_PATH={root}/usr"],
                    ["cmake", "--build", example / "build"]):
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        assert done.returncode == 0, done.stdout + done.stderr
    done = subprocess.run([example / "build" / "igmp_router"], capture_output=True, text=True, check=False)
    assert done.stderr.startswith("usage: igmp_router -u ")
