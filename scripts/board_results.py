"""The results of the tests on one board: a line for each program, logs of what failed; status 0 if everything passed.

    board_results.py [--console FILE] [--report FILE] BOARD RESULTS_FOLDER EXPECTED_PROGRAMS

The folder holds `status` (a line "NAME STATUS SECONDS" for each program), NAME.log, and NAME.xml of programs that write
JUnit XML; of the others, the scenarios, the log's "ok" and "not ok" lines count. `left_running`, if not empty, names
programs that outlived their test. The report is all of it as one JUnit XML file.
"""

import argparse
import pathlib
import re
import sys
import xml.etree.ElementTree as xml

import test_summary

CHECK = re.compile(r"^(not ok|ok) \d+ - (.*)$")
LAST_KERNEL_LINES = 20


def suite_of_checks(name, log):
    """A scenario's checks as a suite."""
    suite = xml.Element("testsuite", name=name)
    for line in log.splitlines():
        match = CHECK.match(line)
        if match:
            case = xml.SubElement(suite, "testcase", classname=name, name=match.group(2))
            if match.group(1) == "not ok":
                xml.SubElement(case, "failure", message="failed")
    return suite


def read_text(path):
    return path.read_text(errors="replace") if path.exists() else ""


def suites_of(results, board, name):
    """The suites of one program; none if its file was never finished."""
    report = results / f"{name}.xml"
    if not report.exists():
        return [suite_of_checks(f"boards.{board}.{name}", read_text(results / f"{name}.log"))]
    try:
        return list(xml.parse(report).getroot().iter("testsuite"))
    except xml.ParseError:
        return []


def add_failure(suites, name, message):
    suite = xml.Element("testsuite", name=name)
    xml.SubElement(xml.SubElement(suite, "testcase", classname=name, name=message), "failure", message=message)
    suites.append(suite)


def judge(board, results, expected):
    """Prints the results; returns all suites, with a failed case for whatever else went wrong."""
    def say(text):
        print(f"boards: {board}: {text}")

    all_suites = []
    programs = [line.split() for line in read_text(results / "status").splitlines()]
    for name, status, seconds in programs:
        suites = suites_of(results, board, name)
        outcome = count(suites)
        say(f"{name}: {outcome.passed} passed, {outcome.failed} failed, {seconds} s")
        if int(status) != 0 or outcome.tests == 0:
            if outcome.failed == 0:
                add_failure(suites, f"boards.{board}.{name}", f"ended with status {status}, {outcome.tests} tests")
            say(f"{name} ended with status {status}:")
            print(read_text(results / f"{name}.log"))
        all_suites += suites
    if len(programs) != expected:
        add_failure(all_suites, f"boards.{board}", f"not all of {expected} test programs were run")
        say(f"not all of {expected} test programs were run")
    left_running = read_text(results / "left_running").split()
    if left_running:
        add_failure(all_suites, f"boards.{board}", f"left running: {' '.join(left_running)}")
        say(f"left running: {' '.join(left_running)}")
    outcome = count(all_suites)
    say(f"{outcome.passed} passed, {outcome.failed} failed")
    return all_suites


def count(suites):
    return test_summary.count_cases([case for suite in suites for case in suite.iter("testcase")], 0)


def print_console(console, results):
    """What the board printed, without the archive of its results."""
    text = re.sub(r"(?ms)^board: results begin.*?(^board: results end$|\Z)", "", read_text(console))
    kernel_lines = read_text(results / "kernel.log").splitlines()[-LAST_KERNEL_LINES:]
    print("the console:", text, *kernel_lines, sep="\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--console", type=pathlib.Path)
    parser.add_argument("--report", type=pathlib.Path)
    parser.add_argument("board")
    parser.add_argument("results", type=pathlib.Path)
    parser.add_argument("expected", type=int)
    given = parser.parse_args()
    suites = judge(given.board, given.results, given.expected)
    outcome = count(suites)
    if given.report:
        report = xml.Element("testsuites")
        report.extend(suites)
        xml.ElementTree(report).write(given.report, encoding="UTF-8", xml_declaration=True)
    if outcome.failed and given.console:
        print_console(given.console, given.results)
    return 0 if outcome.tests > 0 and outcome.failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
