"""The documents: drawings in step with their sources, links and paths that lead somewhere, quotations that are true."""

import hashlib
import re
import subprocess
import xml.etree.ElementTree

import pytest

import log_texts
from programs import PROJECT

DRAWINGS = sorted((PROJECT / "docs").glob("*.dot"))
DOCUMENTS = sorted(PROJECT.glob("*.md")) + sorted((PROJECT / "docs").glob("*.md"))
LOG = PROJECT / "docs" / "log.md"


@pytest.mark.parametrize("source", DRAWINGS, ids=lambda source: source.name)
def test_drawing_was_made_from_its_source(source):
    drawing = source.with_suffix(".svg").read_text(encoding="utf-8")
    made_from = re.search(r"<!-- source sha256 ([0-9a-f]{64}) -->", drawing).group(1)
    assert made_from == hashlib.sha256(source.read_bytes()).hexdigest(), "run scripts/drawings"
    labels = {text.text for text in xml.etree.ElementTree.fromstring(drawing).iter("{http://www.w3.org/2000/svg}text")}
    for label in re.findall(r'label="([^"]*)"', source.read_text(encoding="utf-8")):
        assert {line.strip() for line in label.split(r"\n")} <= {str(text).strip() for text in labels}


def test_there_are_drawings_and_a_drawing_script():
    assert len(DRAWINGS) >= 3
    done = subprocess.run(["shellcheck", PROJECT / "scripts" / "drawings"], capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda document: document.name)
def test_links_lead_to_files_that_exist(document):
    for target in re.findall(r"\]\(([^)#]+)[^)]*\)", document.read_text(encoding="utf-8")):
        if not target.startswith("http"):
            assert (document.parent / target).exists(), target


def test_files_named_by_drawings_and_architecture_exist():
    named = set(re.findall(r"\b((?:core|mld)/\w+)", (PROJECT / "docs" / "path-of-a-report.dot").read_text()))
    assert len(named) > 10
    for name in named:
        assert (PROJECT / f"{name}.h").exists(), name
    text = (PROJECT / "docs" / "architecture.md").read_text()
    for name in set(re.findall(r"`(mld_[a-z0-9_]+)`", text)):
        found = subprocess.run(["grep", "-rqw", name, "mld", "core"], cwd=PROJECT, check=False).returncode == 0
        assert found or (PROJECT / "mld" / f"{name}.cpp").exists(), name


def quotations(text):
    """Log lines in blocks, and messages in the first column of tables."""
    for block in re.findall(r"```log\n(.*?)```", text, re.S):
        yield from block.splitlines()
    messages = re.sub(r"^\| (?:level|module|function|line).*\n", "", text, flags=re.M)
    yield from re.findall(r"^\| `([^`]+)`[^|]* \|", messages, re.M)


def test_every_log_line_that_the_document_quotes_can_be_printed():
    quoted = list(quotations(LOG.read_text(encoding="utf-8")))
    assert len(quoted) > 25
    assert [line for line in quoted if not log_texts.can_be_printed(line)] == []


def test_every_quoted_line_names_a_function_that_exists_and_is_laid_out_as_the_daemon_does():
    for line in re.findall(r"^[EDI]:.*", LOG.read_text(encoding="utf-8"), re.M):
        level, module, function, number = re.match(r"([EDI]):(.{4}):(.{36})#(.{4}): ", line).groups()
        assert module in ("main", "mld ", "igmp")
        assert number.strip().isdigit()
        sources = subprocess.run(["grep", "-rqw", function.strip(), "core", "mld"], cwd=PROJECT, check=False)
        assert sources.returncode == 0, function
