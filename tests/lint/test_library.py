"""The library, its headers and the CMake package, as another program finds them once they are installed."""

import subprocess

import pytest

from programs import PROJECT


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, timeout=280, **options)


@pytest.fixture(scope="module", name="installed")
def installed_library(tmp_path_factory):
    build, prefix = tmp_path_factory.mktemp("build"), tmp_path_factory.mktemp("prefix")
    run("cmake", "-S", PROJECT, "-B", build, "-DCMAKE_BUILD_TYPE=Release", check=True)
    run("cmake", "--build", build, "-j2", "--target", "tarnwick_proxy", check=True)
    run("cmake", "--install", build, "--component", "library", "--prefix", prefix, check=True)
    return prefix


def test_only_library_headers_and_package_are_installed(installed):
    files = {path.relative_to(installed) for path in installed.rglob("*") if path.is_file()}
    assert {file.suffix for file in files} == {".a", ".h", ".cmake"}
    assert sum(file.suffix == ".a" for file in files) == 1


def test_example_builds_against_the_installed_library(installed, tmp_path):
    # A copy, so that no header of the sources is within its path.
    run("cp", "-r", PROJECT / "examples", tmp_path / "examples", check=True)
    done = run("cmake", "-S", tmp_path / "examples", "-B", tmp_path / "build", f"-DCMAKE_PREFIX_PATH={installed}")
    assert done.returncode == 0, done.stderr
    done = run("cmake", "--build", tmp_path / "build")
    assert done.returncode == 0, done.stdout + done.stderr
    done = run(tmp_path / "build" / "igmp_router")
    assert done.returncode == 1 and done.stderr.startswith("usage: igmp_router -u ")


def test_build_whose_library_holds_no_machine_code_refuses_to_install_it(tmp_path):
    optimised = "-DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON"
    run("cmake", "-S", PROJECT, "-B", tmp_path / "build", optimised, check=True)
    done = run("cmake", "--install", tmp_path / "build", "--component", "library", "--prefix", tmp_path / "prefix")
    assert done.returncode != 0 and "CMAKE_INTERPROCEDURAL_OPTIMIZATION" in done.stderr
    assert not (tmp_path / "prefix").exists()
