"""tarnwick-run: starts, ends and starts again what a router needs for its streams."""

import contextlib
import os
import signal

import pytest

import kernel_view
import supervisor
from laboratory import run, send_signal, stop, wait_for, wait_for_end
from supervisor import NOTHING, leftovers
from traffic import listen, received, start_stream, wait_until_all_is_said

GROUP = "ff0e::1:2:3"
DEADLINE_S = 30


def wait_for_stream(lab, listener, deadline_s=DEADLINE_S):
    before = received(listener)
    sender = start_stream(lab, GROUP, count=5000, per_second=100)
    wait_for(lambda: received(listener) > before + 10, deadline_s, "stream")
    stop(sender)


def test_stream_flows_and_nothing_is_left_after_the_end(lab):
    supervised = supervisor.start(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for_stream(lab, listener)
    assert stop(supervised) == 0
    assert leftovers(lab) == NOTHING


def test_end_while_a_viewer_watches_leaves_no_entry(lab):
    program = supervisor.start(lab)
    viewer = listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP), what="forwarding")
    wait_until_all_is_said(viewer)  # refreshes have gone through the companion's hands
    assert stop(program) == 0
    assert kernel_view.cache_rows(lab) == []


def test_hundred_starts_and_stops_leave_nothing(lab):
    for i in range(int(os.environ.get("TARNWICK_RUN_STARTS", "100"))):
        supervised = supervisor.start(lab, wait=i % 2 == 0)
        wait_for((lab.router_tmp / "run" / "br0" / "lock").exists, DEADLINE_S, "its folder")
        assert stop(supervised, deadline_s=20) == 0
        assert leftovers(lab) == NOTHING, i


@pytest.mark.parametrize("killed", ["tarnwick", "tarnwick-assist", "tarnwick tarnwick-assist",
                                    "tarnwick-assist tarnwick"])
def test_killed_programs_are_started_again(lab, killed):
    supervised = supervisor.start(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for_stream(lab, listener)
    running = supervisor.wait_for_children(supervised)
    for name in killed.split():
        with contextlib.suppress(ProcessLookupError):  # the end of the first one may have ended the second one
            os.kill(running[name], signal.SIGKILL)
    wait_for_stream(lab, listener)
    assert stop(supervised) == 0
    assert leftovers(lab) == NOTHING


def test_nothing_outlives_a_killed_supervisor_and_the_next_one_puts_flags_back(lab):
    first = supervisor.start(lab)
    os.kill(first.pid, signal.SIGKILL)
    wait_for_end(first)
    wait_for(lambda: leftovers(lab)["processes"] == [], DEADLINE_S, "end of all")
    assert kernel_view.interface_flags(lab, "br0") == {"PROMISC", "ALLMULTI"}
    second = supervisor.start(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for_stream(lab, listener)
    assert stop(second) == 0
    assert leftovers(lab) == NOTHING


def test_sighup_starts_the_daemon_again(lab):
    supervised = supervisor.start(lab)
    before = supervisor.children(supervised)["tarnwick"]
    send_signal(supervised, signal.SIGHUP)
    supervisor.wait_until_ready(supervised, times=2)
    assert supervisor.children(supervised)["tarnwick"] != before
    assert stop(supervised) == 0
