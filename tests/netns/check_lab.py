"""A router whose streams flow, and what tarnwick-status --check says about it."""

import contextlib
import dataclasses
import json
import re
import signal
import subprocess
import sys

import laboratory
import proxy
import traffic

STATUS = f"{laboratory.PROGRAMS_IN_ROUTER}/tarnwick-status"
STREAM = "ff0e::101"
QUIET = "ff0e::102"  # joined, and nobody sends
FROM_LAN = "ff0e::103"
LAST_HOP = "ff0e::104"
LONG = "ff0e::105"  # longer packets than br0 takes once its MTU is changed
NOT_HEARD = "ff0e::107"
WITH_SOURCE = "ff3e::8000:1"  # of laboratory.S1
WITHOUT_SOURCE = "ff3e::8000:2"
TICKS_PER_SECOND = 5
VERDICT_DEADLINE_S = 60
START_DEADLINE_S = 60
SENDER = """
import socket, sys, time
sender = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
sender.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, socket.if_nametoindex(sys.argv[1]))
sender.setsockopt(socket.IPPROTO_IPV6, 23, 3)  # IPV6_MTU_DISCOVER, IPV6_PMTUDISC_PROBE: never in fragments
sender.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, int(sys.argv[3]))
end = time.monotonic() + 600
while time.monotonic() < end:
    sender.sendto(bytes(int(sys.argv[4])), (sys.argv[2], 5004))
    time.sleep(0.02)
"""


@dataclasses.dataclass(frozen=True)
class Fault:
    produce: object  # a context manager of the lab
    verdict: str     # a pattern
    wanted: str = STREAM


def check(lab, *wanted, enter=None, before=()):
    """Exit status and the whole answer of one look."""
    place = enter or laboratory.enter(lab, "router")
    done = subprocess.run(place + list(before) + [STATUS, "--check", *wanted, "--json"], capture_output=True, text=True,
                          timeout=60, check=False)
    assert done.stdout, done.stderr
    return done.returncode, json.loads(done.stdout)


def findings(answer, place=None):
    return [step["finding"] for step in answer["steps"] if place in (None, step["place"])]


def wait_for_verdict(lab, fault):
    """Each NO has a cure."""
    seen = []

    def is_named():
        status, answer = check(lab, fault.wanted)
        finding = (answer["verdict"] or {}).get("finding", "none")
        seen.append(finding)
        return status == 1 and re.search(fault.verdict, finding) and answer["verdict"]["cure"]

    try:
        laboratory.wait_for(is_named, VERDICT_DEADLINE_S, f"verdict '{fault.verdict}'")
    except laboratory.DeadlineMissed as missed:
        raise laboratory.DeadlineMissed(f"{missed}; seen: {sorted(set(seen))}") from missed


def wait_for_health(lab, *wanted):
    bad = []

    def is_healthy():
        status, answer = check(lab, *wanted)
        bad[:] = [step for step in answer["steps"] if step["result"] != "ok"]
        return status == 0 and not bad

    try:
        laboratory.wait_for(is_healthy, VERDICT_DEADLINE_S, "everything ok")
    except laboratory.DeadlineMissed as missed:
        raise laboratory.DeadlineMissed(f"{missed}; {bad}") from missed


def wait_for_finding(lab, pattern, *wanted):
    """The first finding that matches, and the answer that holds it."""
    def look():
        answer = check(lab, *wanted)[1]
        found = [finding for finding in findings(answer) if re.search(pattern, finding)]
        return (found[0], answer) if found else None

    return laboratory.wait_for(look, VERDICT_DEADLINE_S, f"finding '{pattern}'")


def start_programs(lab):
    proxy.start_daemon(lab, ticks_per_second=TICKS_PER_SECOND)
    start_companion(lab)


def start_companion(lab):
    proxy.start_companion(lab, wait=False)


def restart(lab):
    for program in lab.programs:
        if program.in_router and not laboratory.has_ended(program):
            laboratory.stop(program, START_DEADLINE_S)
    start_programs(lab)


def companion_of(lab):
    return [program for program in lab.programs
            if program.log.name.endswith("tarnwick-assist.log") and not laboratory.has_ended(program)][-1]


@contextlib.contextmanager
def stopped(program):
    laboratory.send_signal(program, signal.SIGSTOP)
    try:
        yield
    finally:
        # nsenter, its parent, stops with it.
        program.process.send_signal(signal.SIGCONT)
        laboratory.send_signal(program, signal.SIGCONT)


def router(lab, *command):
    return laboratory.run(lab, "router", *command)


def kill(program):
    laboratory.send_signal(program, signal.SIGKILL)
    laboratory.wait_for_end(program)


def send(lab, node, interface, group, hop_limit=8, length=100):
    return laboratory.start(lab, node, sys.executable, "-c", SENDER, interface, group, str(hop_limit), str(length))


def join_and_send(lab, groups=(STREAM,)):
    for group in groups:
        traffic.listen(lab, "host1", group)
    traffic.start_stream(lab, STREAM, count=60000, per_second=100)


def build(lab):
    """A router whose LAN has listeners of every group here, and whose provider sends STREAM."""
    start_programs(lab)
    join_and_send(lab, (STREAM, QUIET, FROM_LAN, LAST_HOP, LONG, WITHOUT_SOURCE))
    traffic.listen(lab, "host1", WITH_SOURCE, sources=(laboratory.S1,))
    wait_for_health(lab, STREAM)
