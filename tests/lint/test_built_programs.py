"""The built files need libc alone and are hardened, on this machine and on the router's processor."""

import re
import subprocess

import pytest

from programs import PROJECT

NAMES = ["tarnwick", "tarnwick-assist", "tarnwick-run", "tarnwick-status"]
MIPSEL = [f"-DCMAKE_TOOLCHAIN_FILE={PROJECT / 'cmake' / 'mipsel-linux-gnu.cmake'}"]


# As the presets for routers build them, but without optimisation across files, which takes long.
@pytest.fixture(scope="module", name="folder", params=[[], MIPSEL], ids=["native", "mipsel"])
def release_build(request, tmp_path_factory):
    folder = tmp_path_factory.mktemp("built")
    make = ["cmake", "-S", PROJECT, "-B", folder, "-DCMAKE_BUILD_TYPE=MinSizeRel", *request.param]
    subprocess.run(make, check=True, capture_output=True)
    subprocess.run(["cmake", "--build", folder, "-j2", "--target", *NAMES], check=True, capture_output=True)
    return folder


def read(program, *what):
    return subprocess.run(["readelf", "--wide", *what, program], capture_output=True, text=True, check=True).stdout


def is_built_for(program, machine):
    return machine in re.search(r"Machine:(.*)", read(program, "--file-header")).group(1)


def imported(program):
    return set(re.findall(r" UND ([\w]+)", read(program, "--dyn-syms")))


@pytest.mark.parametrize("name", NAMES)
def test_program_needs_libc_alone(folder, name):
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", read(folder / name, "--dynamic"))
    # On MIPS libc's own loader holds the value that the stack protector compares.
    assert needed == ["libc.so.6"] + ["ld.so.1"] * is_built_for(folder / name, "MIPS")


@pytest.mark.parametrize("name", NAMES)
def test_program_is_loaded_anywhere(folder, name):
    assert "DYN (Position-Independent Executable file)" in read(folder / name, "--file-header")


@pytest.mark.parametrize("name", NAMES)
def test_stack_is_not_executable(folder, name):
    stack, = re.findall(r"GNU_STACK .* (R\S*) +0x", read(folder / name, "--segments"))
    assert stack == "RW"


@pytest.mark.parametrize("name", NAMES)
def test_functions_are_bound_at_the_start_and_their_table_is_read_only_then(folder, name):
    assert re.search(r"\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW", read(folder / name, "--dynamic"))
    assert is_built_for(folder / name, "MIPS") or "GNU_RELRO" in read(folder / name, "--segments")


@pytest.mark.parametrize("name", NAMES)
def test_overrun_of_the_stack_ends_the_program(folder, name):
    assert "__stack_chk_fail" in imported(folder / name)


@pytest.mark.parametrize("name", NAMES)
def test_calls_with_a_known_size_are_checked(folder, name):
    assert {symbol for symbol in imported(folder / name) if re.fullmatch(r"__\w+_chk", symbol)}


@pytest.mark.parametrize("name", NAMES)
def test_functions_begin_with_a_landing_pad_where_the_processor_checks_it(folder, name):
    if is_built_for(folder / name, "X86-64"):
        code = subprocess.run(["objdump", "--disassemble", folder / name], capture_output=True, text=True, check=True)
        assert "endbr64" in re.search(r"^[0-9a-f]+ <main>:\n.*\n", code.stdout, re.MULTILINE).group()
