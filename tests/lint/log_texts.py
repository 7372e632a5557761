"""Every text that the programs can print, taken from the sources, to check what documents quote of them."""

import functools
import re

from programs import PROJECT

FOLDERS = ("core", "mld", "igmp", "platform", "assist", "run", "status")
LITERAL = r'"(?:[^"\\]|\\.)*"'
PREFIX = re.compile(r"^[EDI]:(?:main|mld |igmp):\S+\s*#\s*\d+: ")
CONVERSION = r"%[-0-9.*]*(?:hh|h|ll|l|z)?[a-zA-Z]"
PATTERN_OF = {"d": r"-?\d+", "u": r"\d+", "x": r"[0-9a-f]+", "s": r".*"}


def unescaped(literal):
    return literal[1:-1].replace(r"\"", '"').replace(r"\n", "\n").replace(r"\t", "\t").replace("\\\\", "\\")


def pattern_of(text):
    """A printf format as a pattern."""
    pieces = re.split(f"({CONVERSION}|%%)", text)
    return "".join(PATTERN_OF.get(piece[-1], ".*") if index % 2 else re.escape(piece)
                   for index, piece in enumerate(pieces))


@functools.lru_cache(maxsize=None)
def texts():
    texts = set()
    for folder in FOLDERS:
        for source in (PROJECT / folder).glob("*.cpp"):
            for run in re.findall(rf"{LITERAL}(?:\s+{LITERAL})*", source.read_text(encoding="utf-8")):
                texts.add("".join(unescaped(literal) for literal in re.findall(LITERAL, run)))
    for header in (PROJECT / "mld").glob("*_options.h"):
        for name in re.findall(r'"([A-Z0-9_]+)"', header.read_text()):
            texts |= {f"setsockopt: {name}", f"setsockopt: {name} fail!!!"}
    least_letters = 8  # shorter texts, or those with hardly a letter, would match anything
    return {text.strip() for text in texts if len(re.sub(f"{CONVERSION}|[^A-Za-z]", "", text)) >= least_letters and
            not text.startswith("setsockopt: %s")}  # the options' names are known, see above


@functools.lru_cache(maxsize=None)
def patterns():
    program_or_file, reason = r"(?:.*: )?", r"(?:: .*)?"
    return [re.compile(program_or_file + pattern_of(text) + reason) for text in texts()]


def filled(text):
    """The text with a figure for every number, as quotations have one."""
    return re.sub(CONVERSION, "3", text)


def can_be_printed(quotation):
    """Whether a quoted line contains a text of the programs. "..." leaves out the line's beginning or its end."""
    message = PREFIX.sub("", quotation)
    if any(pattern.fullmatch(message) for pattern in patterns()):
        return True
    parts = [part.strip(" :;,") for part in message.split("...")]
    return len(parts) > 1 and any(
        len(part) > 8 and part in filled(text) for part in parts for text in texts())
