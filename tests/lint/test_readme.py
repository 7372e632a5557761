"""What README.md shows is what happens: the demo's output, the log line, the names of options, keys and files."""

import os
import re
import subprocess

import log_texts
from programs import PROGRAMS, PROJECT, printed_by

README = (PROJECT / "README.md").read_text(encoding="utf-8")
SYMPTOMS = (PROJECT / "docs/status.md").read_text(encoding="utf-8")
DEMO_SECONDS = 240


def shape(output):
    """Steps, results and the last line, without figures."""
    lines = [line.rstrip() for line in output.splitlines()]
    telling = [line for line in lines if re.match(r"[ \d]\d  |    [+-] |PASS|FAILED", line)]
    return [re.sub(r"\d+", "N", line) for line in telling]


def shown_output(command):
    return re.search(rf"```console\n# {command}\n(.*?)```", README, re.S).group(1)


def test_demo_prints_what_the_readme_shows():
    done = subprocess.run([PROJECT / "scripts" / "demo"], capture_output=True, text=True, timeout=DEMO_SECONDS,
                          env=os.environ | {"TARNWICK_PROGRAMS": str(PROGRAMS)}, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    shown = shape(shown_output("scripts/demo"))
    assert len(shown) > 20
    assert shape(done.stdout) == shown


def test_options_are_those_that_the_daemon_knows():
    explained = set(re.findall(r"^\| `(-\w)", README, re.M))
    in_usage = set(re.findall(r"^(-\w)", printed_by("tarnwick", "-?"), re.M))
    assert len(in_usage) >= 5
    assert explained == in_usage | {"-i"}  # the usage text is fixed and does not have it


def test_nvram_keys_are_those_that_are_read():
    section = README.split("### NVRAM keys")[1].split("\n###")[0]
    explained = {key for row in re.findall(r"^\| (`.*?) \|", section, re.M) for key in re.findall(r"`(\w+)`", row)}
    sources = "".join(source.read_text(encoding="utf-8")
                      for folder in ("core", "igmp", "mld") for source in (PROJECT / folder).glob("*.cpp"))
    assert {key for key in explained if f'"{key}"' not in sources} == set()
    assert set(re.findall(r'nvram_(?:get|text)\("(\w+)"\)', sources)) <= explained


def test_log_lines_are_ones_that_the_daemon_can_print():
    quoted = re.findall(r"^[EDI]:.*", README, re.M)
    quoted += re.findall(r"`((?:setsockopt: |Couldn't |No more |MLD Error:)[^`]+)`", README + SYMPTOMS)
    assert len(quoted) > 4
    assert [line for line in quoted if not log_texts.can_be_printed(line)] == []


def test_files_that_it_names_are_written():
    for name in set(re.findall(r"/tmp/tarnwick_\w+", README)):
        assert subprocess.run(["grep", "-rq", name, "core", "mld"], cwd=PROJECT, check=False).returncode == 0, name
