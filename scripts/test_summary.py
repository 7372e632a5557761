"""One table with the results of the last test run, by kind of test; status 1 unless everything passed.

    test_summary.py BUILD_FOLDER
    test_summary.py --list BUILD_FOLDER

A test that leaves a report of its own, reports/NAME.xml, counts with the cases in it; every other one counts as one.
"""

import collections
import json
import pathlib
import subprocess
import sys
import xml.etree.ElementTree as xml

NO_LABEL = "other"
Outcome = collections.namedtuple("Outcome", "tests passed failed skipped seconds")


def labels_of_tests(build):
    """Test name -> its label, as CMake knows them."""
    listing = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], capture_output=True, check=True)
    labels = {}
    for test in json.loads(listing.stdout)["tests"]:
        properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
        labels[test["name"]] = properties.get("LABELS", [NO_LABEL])[0]
    return labels


def count_cases(cases, seconds):
    failed = sum(1 for case in cases if case.find("failure") is not None or case.find("error") is not None
                 or case.get("status") == "fail")
    skipped = sum(1 for case in cases if case.find("skipped") is not None)
    return Outcome(len(cases), len(cases) - failed - skipped, failed, skipped, seconds)


def outcome_of(case, reports):
    seconds = float(case.get("time") or 0)
    report = reports / f"{case.get('name')}.xml"
    whole = count_cases([case], seconds)
    if not report.exists():
        return whole
    parts = count_cases(list(xml.parse(report).iter("testcase")), seconds)
    # A run that ended badly although no case of it failed (a crash, a time-out, an empty file) is a failure, too.
    if whole.failed and not parts.failed:
        return parts._replace(tests=parts.tests + 1, failed=1)
    return parts


def summarize(build):
    reports = pathlib.Path(build, "reports")
    labels = labels_of_tests(build)
    table = collections.defaultdict(lambda: Outcome(0, 0, 0, 0, 0.0))
    for case in xml.parse(reports / "ctest.xml").iter("testcase"):
        label = labels.get(case.get("name"), NO_LABEL)
        table[label] = Outcome(*map(sum, zip(table[label], outcome_of(case, reports))))
    return dict(sorted(table.items()))


def print_table(table):
    print(f"\n{'kind':<12}{'tests':>8}{'passed':>8}{'failed':>8}{'skipped':>9}{'seconds':>9}")
    total = Outcome(*map(sum, zip(*table.values())))
    for label, outcome in [*table.items(), ("all", total)]:
        print(f"{label:<12}{outcome.tests:>8}{outcome.passed:>8}{outcome.failed:>8}{outcome.skipped:>9}"
              f"{outcome.seconds:>9.1f}")
    return total


def main(arguments):
    if arguments[0] == "--list":
        for name, label in sorted(labels_of_tests(arguments[1]).items(), key=lambda item: item[::-1]):
            print(f"{label:<12}{name}")
        return 0
    total = print_table(summarize(arguments[0]))
    all_passed = total.tests > 0 and total.passed == total.tests
    print("\nAll tests passed." if all_passed else f"\nNOT all tests passed: {total.tests - total.passed} did not.")
    return 0 if all_passed else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
