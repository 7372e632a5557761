"""Fixtures: a lab per test, always removed; every failure shows the daemon's log and the kernel's tables."""

import pytest

import kernel_view
import laboratory

TABLES = ("ip6_mr_vif", "ip6_mr_cache", "igmp6")


@pytest.fixture
def make_lab(request):
    """Builds labs on demand: `make_lab(second_lan=True)`."""
    labs = []

    def make(**options):
        labs.append(laboratory.build(**options))
        return labs[-1]

    request.node.labs = labs
    yield make
    for lab in labs:
        if laboratory.KEEP:
            print(laboratory.keep_standing(lab))
        else:
            laboratory.remove(lab)


@pytest.fixture
def lab(make_lab):
    return make_lab()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if not report.failed or call.when == "teardown":
        return
    for lab in getattr(item, "labs", []):
        for program in lab.programs:
            report.sections.append((program.log.name, laboratory.log_of(program)))
        for table in TABLES:
            report.sections.append((f"router: {table}", kernel_view.read_table(lab, table)))


def pytest_terminal_summary(terminalreporter):
    """The figures that tests have recorded: how much was sent, how much memory was used."""
    for report in terminalreporter.getreports("passed"):
        if report.when == "call" and report.user_properties:
            figures = ", ".join(f"{name} {value}" for name, value in report.user_properties)
            terminalreporter.line(f"{report.nodeid.split('::')[-1]}: {figures}")
