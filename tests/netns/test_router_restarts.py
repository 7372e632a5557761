"""Daemon and companion killed and restarted in every order, and a second daemon next to the first."""

import re
import signal

import pytest

import kernel_view
from kernel_view import ANY
from laboratory import has_ended, log_of, send_signal, stop, wait_for, wait_for_end
from proxy import SIGNAL_AT_CALL, start_companion, start_daemon, start_proxy
from traffic import listen, received, start_stream

GROUP = "ff0e::1:2:3"
START_FAILED = 255
DEADLINE_S = 30


def kill(program):
    send_signal(program, signal.SIGKILL)
    wait_for_end(program)


def wait_for_stream(lab, listener):
    before = received(listener)
    start_stream(lab, GROUP, count=2000, per_second=100)
    wait_for(lambda: received(listener) > before + 10, DEADLINE_S, "stream")


@pytest.mark.parametrize("killed", ["daemon", "companion", "daemon companion", "companion daemon"])
@pytest.mark.parametrize("started_first", ["daemon", "companion"])
def test_stream_of_a_listener_comes_back(lab, killed, started_first):
    """At the host's answer to the first query of the daemon that was started again, or at once."""
    running = {"daemon": start_daemon(lab), "companion": start_companion(lab)}
    listener = listen(lab, "host1", GROUP)
    wait_for_stream(lab, listener)
    for name in killed.split():
        kill(running[name])
    starters = {"daemon": lambda: start_daemon(lab), "companion": lambda: start_companion(lab, wait=False)}
    order = [started_first] + [name for name in starters if name != started_first]
    for name in [name for name in order if name in killed]:
        running[name] = starters[name]()
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}, DEADLINE_S, "entry")
    wait_for_stream(lab, listener)
    assert stop(running["daemon"]) == 0
    assert stop(running["companion"]) == 0


def test_second_daemon_fails_clearly_and_harms_nothing(lab):
    first = start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for_stream(lab, listener)
    before = (kernel_view.multicast_interfaces(lab), kernel_view.interface_flags(lab, "br0"))
    second = start_daemon(lab, wait=False)
    assert wait_for_end(second) == START_FAILED
    assert "setsockopt: MRT6_INIT fail!!!" in log_of(second)
    assert (kernel_view.multicast_interfaces(lab), kernel_view.interface_flags(lab, "br0")) == before
    wait_for_stream(lab, listener)
    assert stop(first) == 0


def start_with_signal_at(lab, call):
    """A daemon that gets SIGTERM right after one of the calls that its start-up makes of the kernel; 0: none."""
    daemon = start_daemon(lab, environment={"LD_PRELOAD": SIGNAL_AT_CALL, "SIGNAL_AT_CALL": str(call)})
    return daemon, int(re.search(r"^calls of start-up: (\d+)$", log_of(daemon), re.M).group(1))


def test_sigterm_at_every_stage_of_start_up_is_lost_and_the_next_one_ends_it(lab, record_property):
    _, calls = start_with_signal_at(lab, 0)
    assert stop(lab.daemon) == 0
    assert calls > 20
    record_property("stages", calls)
    for call in range(1, calls + 1):
        daemon, _ = start_with_signal_at(lab, call)
        assert set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0"}, call
        assert not has_ended(daemon)
        assert stop(daemon) == 0, call
        assert kernel_view.multicast_interfaces(lab) == {}, call
        assert kernel_view.interface_flags(lab, "br0") == kernel_view.interface_flags(lab, "wan0") == set(), call
