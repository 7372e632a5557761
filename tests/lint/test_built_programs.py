"""The built files need libc alone and are hardened, on this machine, on the router's processor and for musl."""

import re
import subprocess

import pytest

from programs import PROGRAMS, PROJECT

NAMES = ["tarnwick", "tarnwick-assist", "tarnwick-run", "tarnwick-status"]
PRELOADED = "libtarnwick-smooth.so"
PAGE_BYTES = 4096
# On MIPS libc's own loader holds the value that the stack protector compares.
LIBC = {"native": ["libc.so.6"], "mipsel": ["libc.so.6", "ld.so.1"], "musl": ["libc.so"], "static": []}


@pytest.fixture(scope="module", name="kind", params=LIBC)
def kind_of_build(request):
    return request.param


# Those that other tests run: in the namespace tests, and on the board.
@pytest.fixture(scope="module", name="folder")
def release_build(kind):
    if kind in ("musl", "static"):
        subprocess.run([PROJECT / "scripts" / "musl", "build"], check=True, capture_output=True)
        return PROJECT / "build" / kind
    if kind == "mipsel":
        subprocess.run([PROJECT / "scripts" / "test-boards", "--build", kind], check=True, capture_output=True)
        return PROJECT / "build" / "boards" / kind / "programs"
    return PROGRAMS


def read(program, *what):
    return subprocess.run(["readelf", "--wide", *what, program], capture_output=True, text=True, check=True).stdout


def is_built_for(program, machine):
    return machine in re.search(r"Machine:(.*)", read(program, "--file-header")).group(1)


def imported(program):
    return set(re.findall(r" UND ([\w]+)", read(program, "--dyn-syms")))


def code_of(program):
    return subprocess.run(["objdump", "--disassemble", program], capture_output=True, text=True, check=True).stdout


def needed(program):
    return re.findall(r"\(NEEDED\).*\[(.*)\]", read(program, "--dynamic"))


def sizes_of_cleared_variables(program):
    """By address: those in .bss."""
    section = re.search(r"\[ *(\d+)\] \.bss ", read(program, "--sections")).group(1)
    found = re.findall(rf": ([0-9a-f]+) +(\d+) OBJECT .* {section} ", read(program, "--symbols"))
    return [size for _, size in sorted((int(address, 16), int(size)) for address, size in found)]


@pytest.mark.parametrize("name", NAMES)
def test_program_needs_libc_alone(kind, folder, name):
    assert needed(folder / name) == LIBC[kind]
    assert bool(re.search(r"^ +INTERP", read(folder / name, "--segments"), re.M)) == (kind != "static")


def test_preloaded_library_needs_the_programs_libc_alone(kind, folder):
    if kind == "static":
        assert not (folder / PRELOADED).exists()
    else:
        assert needed(folder / PRELOADED) == LIBC[kind][:1]


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
def test_overrun_of_the_stack_ends_the_program(kind, folder, name):
    if kind == "static":
        own_functions = re.findall(r"<_Z[^>]*>:\n((?:.+\n)*)", code_of(folder / name))  # libc has protected ones, too
        assert any("<__stack_chk_fail>" in code for code in own_functions)
    else:
        assert "__stack_chk_fail" in imported(folder / name)


@pytest.mark.parametrize("name", NAMES)
def test_calls_with_a_known_size_are_checked_where_the_library_can(kind, folder, name):
    checked = {symbol for symbol in imported(folder / name) if re.fullmatch(r"__\w+_chk", symbol)}
    assert bool(checked) == (kind == "mipsel")  # musl has no such functions, and native is a build for tests


@pytest.mark.parametrize("name", NAMES)
def test_functions_begin_with_a_landing_pad_where_the_processor_checks_it(folder, name):
    if is_built_for(folder / name, "X86-64"):
        assert "endbr64" in re.search(r"^[0-9a-f]+ <main>:\n.*\n", code_of(folder / name), re.MULTILINE).group()


@pytest.mark.parametrize("name", NAMES)
def test_large_arrays_stand_behind_all_other_variables(folder, name):
    are_large = [size >= PAGE_BYTES for size in sizes_of_cleared_variables(folder / name)]
    assert True in are_large and False in are_large
    assert are_large == sorted(are_large)
