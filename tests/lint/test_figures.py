"""Durations and counts that the documents quote are those of mld/mld_timing.h, the only place that defines them."""

import ast
import operator
import re

import pytest

from programs import PROJECT

HEADER = PROJECT / "mld" / "mld_timing.h"

# Where a figure is quoted: document, the words around it (N stands for the figure), what the header says.
# Line breaks count as blanks. Words that were changed in a document are changed here, too.
QUOTED = [
    ("README.md", "Maximum Response Code is always N ms", "MLD_MAX_RESPONSE_MS"),
    ("README.md", "after a leave, then N seconds for answers", "MLD_LAST_ANSWER_S"),
    ("README.md", "waits N s for answers", "MLD_LAST_ANSWER_S"),
    ("docs/status.md", "stops some N seconds after another host left", "MLD_LAST_ANSWER_S"),
    ("README.md", "Timers: group N s,", "MLD_GROUP_MEMBERSHIP_INTERVAL_S"),
    ("README.md", "leaves by its silence, after N s", "MLD_GROUP_MEMBERSHIP_INTERVAL_S"),
    ("README.md", ", source N s,", "MLD_SOURCE_INTERVAL_S"),
    ("README.md", "other querier N s;", "MLD_OTHER_QUERIER_INTERVAL_S"),
    ("README.md", "repeats its start-up query after N s", "MLD_STARTUP_QUERY_INTERVAL_S"),
    ("README.md", "N groups are in use", "MLD_GROUP_POOL_SIZE"),
    ("README.md", "| groups, over all interfaces | N |", "MLD_GROUP_POOL_SIZE"),
    ("README.md", "| hosts noted, in all between two starts | N |", "MLD_HOST_POOL_SIZE"),
    ("README.md", "| sources in a group | N |", "MLD_MAX_SOURCES"),
    ("README.md", "| queries waiting | N |", "MLD_QUERY_POOL_SIZE"),
    ("docs/man/tarnwick.8", "N groups over all interfaces", "MLD_GROUP_POOL_SIZE"),
    ("docs/man/tarnwick.8", "N sources in each group", "MLD_MAX_SOURCES"),
    ("docs/man/tarnwick.8", "N additions to the table of reporting hosts", "MLD_HOST_POOL_SIZE"),
    ("docs/man/tarnwick.8", "N seconds later on the interface", "MLD_STARTUP_QUERY_INTERVAL_S"),
    ("docs/man/tarnwick.8", "from then on every N seconds", "MLD_QUERY_INTERVAL_S"),
    ("docs/man/tarnwick.8", "asks for answers within N seconds", "MLD_MAX_RESPONSE_MS // 1000"),
    ("docs/man/tarnwick.8", "silent ends after N seconds", "MLD_GROUP_MEMBERSHIP_INTERVAL_S"),
    ("docs/man/tarnwick.8", ", a source after N.", "MLD_SOURCE_INTERVAL_S"),
    ("docs/man/tarnwick.8", "waits N seconds for an answer", "MLD_LAST_ANSWER_S"),
    ("docs/man/tarnwick.8", "the role is taken back N seconds", "MLD_OTHER_QUERIER_INTERVAL_S"),
    ("docs/man/tarnwick.8", "N groups are in use", "MLD_GROUP_POOL_SIZE"),
    ("docs/man/tarnwick.8", "Code is always N,", "MLD_MAX_RESPONSE_MS"),
    ("docs/man/tarnwick.8", "A host that reports N groups", "MLD_GROUP_POOL_SIZE"),
    ("docs/architecture.md", "| `mld_group` (N) |", "MLD_GROUP_POOL_SIZE"),
    ("docs/architecture.md", "| `mld_source` (N in each group) |", "MLD_MAX_SOURCES"),
    ("docs/architecture.md", "| `mld_query` (N) |", "MLD_QUERY_POOL_SIZE"),
    ("docs/architecture.md", "| `mld_host` (N) |", "MLD_HOST_POOL_SIZE"),
    ("docs/architecture.md", "| `query_timer` of an interface | N |", "MLD_STARTUP_QUERY_INTERVAL_S - 1"),
    ("docs/architecture.md", "| | N | after every other general query |", "MLD_QUERY_INTERVAL_S - 1"),
    ("docs/architecture.md", "| `other_querier_timer` | N |", "MLD_OTHER_QUERIER_INTERVAL_S"),
    ("docs/architecture.md", "| `group_timer` | N |", "MLD_GROUP_MEMBERSHIP_INTERVAL_S"),
    ("docs/architecture.md", "| | N | a leave or a block |",
     "MLD_LAST_MEMBER_QUERY_COUNT * MLD_LAST_MEMBER_QUERY_INTERVAL_S"),
    ("docs/architecture.md", "| `source_timer` of a slot | N |", "MLD_SOURCE_INTERVAL_S"),
    ("docs/architecture.md", "| | N | a block; a query went out", "MLD_LAST_MEMBER_QUERY_INTERVAL_S"),
    ("docs/architecture.md", "| | N | the last query went out |", "MLD_LAST_ANSWER_S"),
    ("docs/architecture.md", "Response Code of N milliseconds", "MLD_MAX_RESPONSE_MS"),
    ("docs/architecture.md", "such a slot has at least N seconds left", "MLD_LASTING_ANY_SOURCE_S"),
    ("docs/log.md", "at the first tick and every N seconds", "MLD_QUERY_INTERVAL_S"),
    ("docs/log.md", "dropping membership request.` instead: N groups are in use", "MLD_GROUP_POOL_SIZE"),
    ("docs/log.md", "| `Set group timer to N` |", "MLD_LAST_MEMBER_QUERY_COUNT * MLD_LAST_MEMBER_QUERY_INTERVAL_S"),
    ("docs/log.md", "others have N seconds to answer", "MLD_LAST_ANSWER_S"),
    ("docs/log.md", "nobody reported for N seconds", "MLD_GROUP_MEMBERSHIP_INTERVAL_S"),
    ("docs/log.md", "no report named the source for N seconds", "MLD_SOURCE_INTERVAL_S"),
    ("docs/reliability.md", "**The Nth group.**", "MLD_GROUP_POOL_SIZE + 1"),
    ("docs/reliability.md", "N groups are shared by all LAN interfaces", "MLD_GROUP_POOL_SIZE"),
    ("docs/reliability.md", "back after N seconds, and a refused host", "MLD_GROUP_MEMBERSHIP_INTERVAL_S"),
    ("docs/reliability.md", "at the next general query, at most N seconds", "MLD_QUERY_INTERVAL_S"),
    ("docs/reliability.md", "**The Nth host record.**", "MLD_HOST_POOL_SIZE + 1"),
    ("docs/reliability.md", "**The Nst waiting query.**", "MLD_QUERY_POOL_SIZE + 1"),
    ("docs/reliability.md", "groups time out, N seconds after the last report", "MLD_GROUP_MEMBERSHIP_INTERVAL_S"),
    ("docs/mainline-kernels.md", "N groups with 10 sources each", "MLD_GROUP_POOL_SIZE"),
    ("docs/mainline-kernels.md", "128 groups with N sources each", "MLD_MAX_SOURCES"),
    ("docs/group-states.dot", r"\ngroup timer N s", "MLD_GROUP_MEMBERSHIP_INTERVAL_S"),
    ("docs/group-states.dot", "source timers N s", "MLD_SOURCE_INTERVAL_S"),
    ("docs/group-states.dot", "one query, N s for answers", "MLD_LAST_ANSWER_S"),
    ("docs/querier-states.dot", "general query every N s", "MLD_QUERY_INTERVAL_S"),
    ("docs/querier-states.dot", "other_querier_timer = N", "MLD_OTHER_QUERIER_INTERVAL_S"),
    ("docs/querier-states.dot", "N again", "MLD_OTHER_QUERIER_INTERVAL_S"),
    ("docs/querier-states.dot", "N ticks without one", "MLD_OTHER_QUERIER_INTERVAL_S"),
]

OPERATORS = {ast.Add: operator.add, ast.Sub: operator.sub, ast.Mult: operator.mul, ast.FloorDiv: operator.floordiv}


def value(expression, figures):
    """Numbers, names of the header, and + - * // between them."""
    if isinstance(expression, str):
        expression = ast.parse(expression, mode="eval").body
    if isinstance(expression, ast.BinOp):
        return OPERATORS[type(expression.op)](value(expression.left, figures), value(expression.right, figures))
    return figures[expression.id] if isinstance(expression, ast.Name) else int(expression.value)


def figures_of_header():
    figures = {}
    for name, expression in re.findall(r"constexpr [\w:]+ (MLD_\w+) = ([^;]+);", HEADER.read_text(encoding="utf-8")):
        figures[name] = value(expression, figures)
    return figures


def quoted_figures(text, words):
    before, after = (re.escape(" ".join(part.split(" "))) for part in words.split("N", 1))
    flat = re.sub(r"\s+", " ", text)
    return [int(figure) for figure in re.findall(before + r"(\d+)" + after, flat, re.I)]


@pytest.mark.parametrize(("document", "words", "expression"), QUOTED, ids=lambda text: text)
def test_quoted_figure_is_that_of_the_header(document, words, expression):
    found = quoted_figures((PROJECT / document).read_text(encoding="utf-8"), words)
    assert found, f"{document} has no figure in the words \"{words}\" any more"
    assert set(found) == {value(expression, figures_of_header())}


def test_every_figure_of_the_header_is_read():
    constants = re.findall(r"^inline constexpr .*", HEADER.read_text(encoding="utf-8"), re.M)
    assert len(figures_of_header()) == len(constants) >= 19


def test_no_other_file_of_the_proxy_defines_a_duration():
    named = r"constexpr [\w:<>]+ \w*(?:_s|_ms|seconds?|interval|timeout|timer) ?[={]"
    set_to_number = r"(?:MldRouter\.\w+|_timer|_seconds) = [1-9]\d*;"
    for file in sorted((PROJECT / "mld").iterdir()):
        if file != HEADER:
            text = file.read_text(encoding="utf-8")
            assert re.findall(f"{named}|{set_to_number}", text, re.I) == [], file.name
