"""The man pages: well-formed, complete, and in step with the programs that they describe."""

import re
import subprocess

import pytest

import log_texts
from programs import PROJECT, printed_by

PAGES = sorted((PROJECT / "docs" / "man").iterdir())
SECTIONS = {"NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "FILES", "EXAMPLES", "DIAGNOSTICS", "SECURITY", "SEE ALSO"}
SECTIONS_OF_A_PROGRAM = SECTIONS | {"SIGNALS", "EXIT STATUS", "STANDARDS"}
NOT_IN_USAGE = {"tarnwick": {"-i"}}  # the daemon's usage text is fixed, and scripts in the field use -i


def sections(page):
    parts = re.split(r"^\.Sh ", page.read_text(encoding="utf-8"), flags=re.M)[1:]
    return {part.partition("\n")[0]: part.partition("\n")[2] for part in parts}


def options_of_page(page):
    options = set()
    for line in re.findall(r"^\.It Fl (.*)", sections(page)["OPTIONS"], re.M):
        for word in re.match(r"-?[\w-]+(?: , -?[\w-]+)*", line).group(0).split(" , "):
            options.add("-" + word)
    return options


def options_of_usage(program):
    usage = printed_by(program, "-?" if program == "tarnwick" else "--help")
    found = re.findall(r"^\s*(-\w)?(?:, )?(--[a-z-]+)?", usage, re.M)
    return {option for pair in found for option in pair if option}


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_page_is_well_formed(page):
    done = subprocess.run(["mandoc", "-T", "lint", page], capture_output=True, text=True, check=False)
    complaints = [line for line in done.stdout.splitlines() if "referenced manual not found" not in line]
    assert complaints == []


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_page_has_every_section_that_its_reader_looks_for(page):
    wanted = SECTIONS_OF_A_PROGRAM if page.suffix == ".8" else SECTIONS
    assert wanted - set(sections(page)) == set()


@pytest.mark.parametrize("program", ["tarnwick", "tarnwick-assist", "tarnwick-run", "tarnwick-status"])
def test_options_of_page_and_usage_text_are_the_same(program):
    page = PROJECT / "docs" / "man" / f"{program}.8"
    usage = options_of_usage(program)
    assert len(usage) >= 4
    assert options_of_page(page) == usage | NOT_IN_USAGE.get(program, set())


def test_referenced_pages_of_the_project_exist():
    names = {page.name for page in PAGES}
    for page in PAGES:
        for name, section in re.findall(r"^\.Xr (tarnwick\S*) (\d)", page.read_text(), re.M):
            assert f"{name}.{section}" in names


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_every_diagnostic_of_the_page_is_one_that_a_program_can_print(page):
    quoted = re.findall(r'^\.It "(.*)"$', sections(page)["DIAGNOSTICS"], re.M)
    assert quoted
    assert [line for line in quoted if not log_texts.can_be_printed(line)] == []
