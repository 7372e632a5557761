"""The texts by which tarnwick-run finds the lines that matter are those that the daemon prints."""

import re

import log_texts
from programs import PROJECT

FILTER = (PROJECT / "run" / "log_filter.cpp").read_text(encoding="utf-8")
READER = (PROJECT / "run" / "log_reader.cpp").read_text(encoding="utf-8")


def known_texts():
    return re.findall(r"known_text\{text_kind::(\w+),\s*\"((?:[^\"\\]|\\.)*)\"\}", FILTER)


def texts_of_the_daemon():
    found = set()
    for folder in ("core", "mld"):
        for source in (PROJECT / folder).glob("*.cpp"):
            found |= {log_texts.unescaped(text) for text in re.findall(log_texts.LITERAL, source.read_text())}
    return found


def test_every_text_of_the_filter_is_one_of_the_daemons():
    known = known_texts()
    assert len(known) > 20
    assert [text for _kind, text in known if text not in texts_of_the_daemon()] == []


def test_no_text_stands_twice():
    texts = [text for _kind, text in known_texts()]
    assert len(set(texts)) == len(texts)


def test_conversions_are_two_characters_as_the_filter_takes_them():
    for _kind, text in known_texts():
        assert set(re.findall(r"%.", text)) <= {"%s", "%d"}, text


def test_document_shows_every_text_that_is_passed_on():
    section = (PROJECT / "docs" / "log.md").read_text(encoding="utf-8").split("\n## What tarnwick-run passes on")[1]
    shown = re.findall(r"`([^`\n]+)`", section.split("\n## ")[0])
    passed = [text for kind, text in known_texts() if kind not in ("nothing", "refresh")]
    missing = [text for text in passed
               if not any(re.fullmatch(log_texts.pattern_of(text), quoted) for quoted in shown)]
    assert missing == []


def test_harmless_complaint_is_about_the_file_that_the_daemon_writes():
    ending = re.search(r'harmless_complaint = "(/\w+):', READER).group(1)
    assert any(text.startswith("echo 1 > /proc") and text.endswith(ending) for text in texts_of_the_daemon())
