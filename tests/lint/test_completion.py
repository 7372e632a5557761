"""The completions for bash and zsh offer what the usage texts name, and nothing else."""

import re
import subprocess

import pytest

from programs import PROJECT
from test_man_pages import options_of_usage

FOLDER = PROJECT / "packaging" / "completion"
ALL = ["tarnwick", "tarnwick-assist", "tarnwick-run", "tarnwick-status"]


def completed(*words):
    """What bash offers for the last word of a command line, as readline would ask."""
    script = (f'. {FOLDER}/tarnwick.bash; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
              '_tarnwick "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"; printf "%s\\n" "${COMPREPLY[@]}"')
    done = subprocess.run(["bash", "-c", script, "bash", *words], capture_output=True, text=True, timeout=20, check=True)
    return done.stdout.split()


@pytest.mark.parametrize("program", ALL)
def test_bash_offers_the_options_of_the_usage_text(program):
    assert {option.rstrip("=") for option in completed(program, "-")} == options_of_usage(program)


@pytest.mark.parametrize("program", ALL)
def test_zsh_offers_the_options_of_the_usage_text(program):
    text = (FOLDER / "_tarnwick").read_text(encoding="ascii")
    own = re.search(rf"^  {program}\)$(.*?)^    ;;$", text, re.M | re.S).group(1)
    offered = set()
    for line in own.splitlines():
        braces = re.search(r"\{([^}]*)\}", line)
        found = braces.group(1).split(",") if braces else re.findall(r"^\s*'\*?(-[\w-]+)", line)
        offered |= {option.rstrip("=") for option in found}
    assert offered == options_of_usage(program)


def test_zsh_reads_its_file():
    done = subprocess.run(["zsh", "-n", FOLDER / "_tarnwick"], capture_output=True, text=True, timeout=20, check=False)
    assert (done.returncode, done.stderr) == (0, "")


def test_bash_offers_values():
    assert "lo" in completed("tarnwick", "-u", "")
    assert completed("/usr/sbin/tarnwick", "-m", "6") == ["6to6"]
    assert completed("tarnwick-run", "--log", "=", "in") == ["info"]
    assert completed("tarnwick-run", "--network", "=") == ["host", "private"]
    assert completed("tarnwick-status", "--js") == ["--json"]
