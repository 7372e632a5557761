"""The long form, run by hand: a bridge as the LAN, and another querier on it for longer than the bridge remembers ours.

   TARNWICK_PROGRAMS=build/dev /usr/bin/python3 -m pytest -p no:cacheprovider tests/netns/long_other_querier.py

A bridge takes itself for a router port for 255 s after a query that the router has sent through it, and the companion
sends none while another querier does. Takes about nine minutes and hardly any processor time.
"""

import time

import kernel_view
from frames import general_query
from laboratory import BR0_LINK_LOCAL, DeadlineMissed, S1, run, stop, wait_for, wait_for_end
from proxy import start_companion, start_daemon
from traffic import capture, datagrams, listen, queries, received, send_frame, start_stream, wait_until_all_is_said

GROUP = "ff3e::1:2:3"
LATE_GROUP = "ff3e::4:5:6"
LOWER = "fe80::1"
OTHER_ASKS_EVERY_S = 125
PAST_ROUTER_PORT_S = 300
VIEWING_S = 450
PER_SECOND = 50
END_DEADLINE_S = 30


def ask_until(lab, end_s):
    """The other querier, on the second port."""
    while time.monotonic() < end_s:
        send_frame(lab, "host2", "eth0", general_query(LOWER))
        next_s = min(end_s, time.monotonic() + OTHER_ASKS_EVERY_S)
        wait_for(lambda until=next_s: time.monotonic() >= until, OTHER_ASKS_EVERY_S + 10, "pause between two queries")


def start_bridged(lab):
    """A viewer on the first port, the other querier on the second, on the third a host that has not joined."""
    run(lab, "router", "ip", "link", "set", "lan1", "master", "br0")
    start_daemon(lab)
    start_companion(lab)
    viewer = listen(lab, "host1", GROUP, sources=[S1])
    wait_until_all_is_said(viewer)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {S1: {"br0"}}, what="forwarding")
    return viewer


def lost_of(viewer, stream, sent):
    assert wait_for_end(stream, VIEWING_S) == 0
    try:
        wait_for(lambda: received(viewer) == sent, 1)
    except DeadlineMissed:
        pass
    return sent - received(viewer)


def seconds_until_joined(lab):
    """How long a host of the third port waits for a stream that it joins only now, and until it ends after its leave."""
    stream = start_stream(lab, LATE_GROUP, count=60 * PER_SECOND, per_second=PER_SECOND)
    heard = capture(lab, "host3", "eth0")
    joined = time.monotonic()
    comes = listen(lab, "host3", LATE_GROUP, sources=[S1])
    wait_for(lambda: received(comes) > 0, 5, "stream after the late join")
    waited = time.monotonic() - joined
    stop(comes)
    left = time.monotonic()
    wait_for(lambda: LATE_GROUP not in kernel_view.memberships(lab, "wan0"), END_DEADLINE_S, "end after the leave")
    seen = datagrams(heard, LATE_GROUP)
    ended = time.monotonic() - left
    assert wait_for_end(stream, 90) == 0
    return waited, ended, datagrams(heard, LATE_GROUP) - seen


def test_streams_go_on_beside_another_querier_past_the_bridges_memory(make_lab, record_property):
    lab = make_lab(second_lan=True)
    viewer = start_bridged(lab)
    sent = PER_SECOND * VIEWING_S
    stream = start_stream(lab, GROUP, count=sent, per_second=PER_SECOND)
    elsewhere, at_viewer = capture(lab, "host3", "eth0"), capture(lab, "host1", "eth0")
    begin = time.monotonic()
    ask_until(lab, begin + PAST_ROUTER_PORT_S)
    at_elsewhere = datagrams(elsewhere, GROUP)
    waited, ended, late = seconds_until_joined(lab)
    ask_until(lab, begin + VIEWING_S)
    record_property("lost", f"{lost_of(viewer, stream, sent)} of {sent}")
    record_property("where_nobody_has_joined", f"{at_elsewhere} of {received(viewer)}")
    record_property("late_join_s", round(waited, 2))
    record_property("late_leave_s", round(ended, 1))
    record_property("after_the_end", late)
    record_property("own_queries", len(queries(at_viewer, group="::", sender=BR0_LINK_LOCAL)))
    assert received(viewer) == sent
    assert at_elsewhere <= PER_SECOND
