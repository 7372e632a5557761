"""The long form, run by hand: a bridge as the LAN, and another querier on it for longer than the bridge remembers ours.

   TARNWICK_PROGRAMS=build/dev /usr/bin/python3 -m pytest -p no:cacheprovider tests/netns/long_other_querier.py

A bridge takes itself for a router port for 255 s after a query that the router has sent through it, and the companion
sends none while another querier does. From then on it hands version 1 reports to the router only because its interface,
as a multicast interface, is set to get all multicast. Takes nine minutes for each version and hardly any processor time.
"""

import time

import pytest

import kernel_view
from frames import general_query
from laboratory import BR0_LINK_LOCAL, DeadlineMissed, S1, run, stop, wait_for, wait_for_end
from proxy import start_companion, start_daemon
from traffic import capture, datagrams, listen, queries, received, send_frame, start_stream

GROUP = "ff3e::1:2:3"
LATE_GROUP = "ff3e::4:5:6"
LOWER = "fe80::1"
OTHER_ASKS_EVERY_S = 125
PAST_ROUTER_PORT_S = 300
BRIDGE_SETTLED_S = 15  # it floods until hosts have had time to answer the first query
VIEWING_S = 450
PER_SECOND = 50
END_DEADLINE_S = 30


def ask_until(lab, end_s):
    """The other querier, on the second port."""
    while time.monotonic() < end_s:
        send_frame(lab, "host2", "eth0", general_query(LOWER))
        next_s = min(end_s, time.monotonic() + OTHER_ASKS_EVERY_S)
        wait_for(lambda until=next_s: time.monotonic() >= until, OTHER_ASKS_EVERY_S + 10, "pause between two queries")


def watch(lab, host, group, version):
    """Version 1 knows no sources."""
    run(lab, host, "sysctl", "-q", f"net.ipv6.conf.eth0.force_mld_version={version}")
    return listen(lab, host, group, sources=[S1] if version == 2 else [])


def start_bridged(lab, version):
    """A viewer on the first port, the other querier on the second, on the third a host that has not joined."""
    run(lab, "router", "ip", "link", "set", "lan1", "master", "br0")
    start_daemon(lab)
    start_companion(lab)
    viewer = watch(lab, "host1", GROUP, version)
    wait_for(lambda: GROUP in kernel_view.memberships(lab, "wan0"), what="join upstream")
    return viewer


def lost_of(viewer, stream, sent):
    assert wait_for_end(stream, VIEWING_S) == 0
    try:
        wait_for(lambda: received(viewer) == sent, 1)
    except DeadlineMissed:
        pass
    return sent - received(viewer)


def join_late(lab, version):
    """A host of the third port joins only now; the listener and how long it waited for its stream."""
    start_stream(lab, LATE_GROUP, count=60 * PER_SECOND, per_second=PER_SECOND)
    begin = time.monotonic()
    comes = watch(lab, "host3", LATE_GROUP, version)
    wait_for(lambda: received(comes) > 0, 5, "stream after the late join")
    return comes, time.monotonic() - begin


def seconds_until_left(lab, listener):
    stop(listener)
    begin = time.monotonic()
    wait_for(lambda: LATE_GROUP not in kernel_view.memberships(lab, "wan0"), END_DEADLINE_S, "end after the leave")
    return time.monotonic() - begin


@pytest.mark.parametrize("version", [2, 1])
def test_streams_go_on_beside_another_querier_past_the_bridges_memory(make_lab, record_property, version):
    lab = make_lab(second_lan=True)
    viewer = start_bridged(lab, version)
    begin = time.monotonic()
    ask_until(lab, begin + BRIDGE_SETTLED_S)
    sent = PER_SECOND * VIEWING_S
    stream = start_stream(lab, GROUP, count=sent, per_second=PER_SECOND)
    elsewhere, at_viewer = capture(lab, "host3", "eth0"), capture(lab, "host1", "eth0")
    ask_until(lab, begin + PAST_ROUTER_PORT_S)
    record_property("where_nobody_has_joined", f"{datagrams(elsewhere, GROUP)} of {received(viewer)}")
    late, waited = join_late(lab, version)
    record_property("late_join_s", round(waited, 2))
    if version == 2:  # the daemon does not act on leaves of version 1
        record_property("late_leave_s", round(seconds_until_left(lab, late), 1))
    ask_until(lab, begin + VIEWING_S)
    record_property("lost", f"{lost_of(viewer, stream, sent)} of {sent}")
    record_property("own_queries", len(queries(at_viewer, group="::", sender=BR0_LINK_LOCAL)))
    assert received(viewer) == sent
    assert datagrams(elsewhere, GROUP) == 0
