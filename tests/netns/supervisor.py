"""Starts tarnwick-run in the lab's router and looks at what it runs."""

import os
import pathlib
import re

import kernel_view
import laboratory

PROGRAM = f"{laboratory.PROGRAMS_IN_ROUTER}/tarnwick-run"
RUNTIME_FOLDER = "/tmp/run"
READY_DEADLINE_S = 30
ENVIRONMENT = {"ASAN_OPTIONS": "verify_asan_link_order=0",
               "LSAN_OPTIONS": f"suppressions={laboratory.PROGRAMS_IN_ROUTER}/lsan.supp:print_suppressions=0"}


def start(lab, *options, downstream="br0", wait=True, before=(), environment=None):
    """With `wait` it returns once streams can flow."""
    program = laboratory.start(lab, "router", *before, PROGRAM, "-u", "wan0", "-d", downstream,
                               f"--runtime-folder={RUNTIME_FOLDER}", *options,
                               environment=ENVIRONMENT | (environment or {}))
    if wait:
        wait_until_ready(program)
    return program


def wait_until_ready(program, times=1, deadline_s=READY_DEADLINE_S):
    """Until it has said that many times that streams can flow."""
    def is_ready():
        if laboratory.has_ended(program):
            raise AssertionError(f"tarnwick-run ended early:\n{laboratory.log_of(program)}")
        return times_ready(program) >= times

    laboratory.wait_for(is_ready, deadline_s, "streams can flow")


def times_ready(program):
    return laboratory.log_of(program).count("can flow to")


def wait_for_line(program, pattern, deadline_s=READY_DEADLINE_S):
    """The first line of its log that matches."""
    return laboratory.wait_for(lambda: re.search(pattern, laboratory.log_of(program), re.M), deadline_s,
                               f"line {pattern}").group(0)


def children(program):
    """Name -> process number of what it runs, as seen from outside the router."""
    found = {}
    for pid in pathlib.Path(f"/proc/{program.pid}/task/{program.pid}/children").read_text().split():
        try:
            found[pathlib.Path(f"/proc/{pid}/comm").read_text().strip()] = int(pid)
        except OSError:
            pass  # has ended meanwhile
    return found


def wait_for_children(program):
    """Both programs, running."""
    names = {"tarnwick", "tarnwick-assist"}
    return laboratory.wait_for(lambda: names <= set(children(program)) and children(program), READY_DEADLINE_S,
                               "both programs")


def signal_child(program, name, signal_number):
    os.kill(children(program)[name], signal_number)


def leftovers(lab):
    """What a supervisor could leave in the router: files, processes, flags, MIFs."""
    rows = laboratory.run(lab, "router", "sh", "-c", "cat /proc/[0-9]*/stat", check=False)
    names = re.findall(r"^\d+ \((.*)\) [^Z]", rows, re.M)  # the lab's first process does not reap children
    flags = {name: kernel_view.interface_flags(lab, name) for name in ("wan0", "br0")
             if laboratory.run(lab, "router", "ip", "link", "show", "dev", name, check=False)}
    return {
        "files": sorted(str(path.relative_to(lab.router_tmp)) for path in (lab.router_tmp / "run").rglob("*")),
        "processes": sorted(name for name in names if "tarnwick" in name),
        "flags": {name: found for name, found in flags.items() if found},
        "mifs": kernel_view.multicast_interfaces(lab)}


NOTHING = {"files": [], "processes": [], "flags": {}, "mifs": {}}
