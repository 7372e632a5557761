"""What the companion's own queries heal: a silenced querier, a querier of version 1, a bridge that knows of no querier.

Labs with a remedy and without it stand side by side, so that a test takes as long as one of them.
"""

import time

import pytest
from scapy.layers.inet6 import ICMPv6MLQuery2, ICMPv6Unknown, IPv6, IPv6ExtHdrHopByHop, RouterAlert
from scapy.layers.l2 import Ether

import kernel_view
from frames import group_query, report, version_1_general_query
from laboratory import BR0_LINK_LOCAL, BR0_MAC, S1, DeadlineMissed, has_ended, log_of, stop, wait_for
from proxy import start_companion, start_daemon
from traffic import (MLD_V1_REPORT, STATE_CHANGE_REPORTS, capture, checksum_is_good, datagrams, listen, mld_messages,
                     queries, received, records, send_frame, send_stream, start_stream, wait_until_all_is_said)

GENERAL = "::"
GROUP = "ff0e::1:2:3"
SOURCE_GROUP = "ff3e::1:2:3"
LOWER = "fe80::1"
FAST = 10  # ticks per second, and how much faster the companion's clock runs
PER_SECOND = 50
BRIDGE_WAITS_S = 2.5
VIEWING_S = 60  # 600 ticks: nothing that is not refreshed lives longer than 360
# Four bytes to the router alone are enough for the daemon to fall silent for 300 s.
SILENCER = Ether(dst=BR0_MAC) / IPv6(src="::", dst=BR0_LINK_LOCAL, hlim=255) / ICMPv6Unknown(type=130)
LOST_IN_REFRESHES = 4  # a refresh of a group for all sources takes its entry away for a moment


def own_queries(captured, group):
    """Of daemon and companion: both send from the bridge's link-local address."""
    return queries(captured, group=group, sender=BR0_LINK_LOCAL)


def watch(lab, without):
    """A proxy in a hurry and a viewer whose join is settled; the stream's program and the viewer."""
    start_daemon(lab, ticks_per_second=FAST)
    start_companion(lab, without=without, times_as_fast=FAST)
    viewer = listen(lab, "host1", GROUP)
    wait_until_all_is_said(viewer)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {kernel_view.ANY: {"br0"}}, what="forwarding")
    stream = start_stream(lab, GROUP, count=PER_SECOND * VIEWING_S, per_second=PER_SECOND)
    return stream, viewer


def keep_sending(labs_and_streams, frame, every_s):
    """Sends a frame from each lab's second host now and then, until the streams have ended."""
    while not all(has_ended(stream) for _, stream in labs_and_streams):
        for lab, _ in labs_and_streams:
            send_frame(lab, "host2", "eth0", frame)
        next_s = time.monotonic() + every_s
        wait_for(lambda end=next_s: time.monotonic() >= end or all(has_ended(s) for _, s in labs_and_streams),
                 deadline_s=every_s + 5, what="next frame")


def lost(viewer):
    sent = PER_SECOND * VIEWING_S
    try:
        wait_for(lambda: received(viewer) == sent, deadline_s=1)
    except DeadlineMissed:
        pass
    return sent - received(viewer)


def lost_with_and_without(make_lab, without, frame, every_s):
    """Datagrams that the viewer loses while a LAN host sends a frame now and then."""
    with_lab, without_lab = make_lab(), make_lab()
    with_stream, with_viewer = watch(with_lab, ())
    without_stream, without_viewer = watch(without_lab, without)
    keep_sending([(with_lab, with_stream), (without_lab, without_stream)], frame, every_s)
    return lost(with_viewer), lost(without_viewer)


def test_silenced_querier_interrupts_no_stream(make_lab, record_property):
    healed, dark = lost_with_and_without(make_lab, ["general-queries", "ask-after-end"], SILENCER, every_s=20)
    record_property("lost", f"{healed}, without the remedy {dark} of {PER_SECOND * VIEWING_S}")
    assert healed <= LOST_IN_REFRESHES
    assert dark >= 10 * PER_SECOND


def test_querier_of_version_1_interrupts_no_stream_for_more_than_two_seconds(make_lab, record_property):
    """The reports of version 2 hosts run out after 360 s, although they go on answering in version 1."""
    asks = version_1_general_query(LOWER)
    healed, dark = lost_with_and_without(make_lab, ["general-queries", "ask-after-end"], asks, every_s=11)
    record_property("lost", f"{healed}, without the remedy {dark} of {PER_SECOND * VIEWING_S}")
    assert healed <= 2 * PER_SECOND + LOST_IN_REFRESHES
    assert dark >= 4 * PER_SECOND


def start_bridged(lab, without=()):
    start_daemon(lab)
    at_host = capture(lab, "host1", "eth0")
    start_companion(lab, without=without)
    if "general-queries" not in without:
        # A bridge floods until the hosts have had time to answer the first query that it saw.
        wait_for(lambda: own_queries(at_host, GENERAL)
                 and time.time() > own_queries(at_host, GENERAL)[-1].time + BRIDGE_WAITS_S, what="bridge that filters")


def wait_until_join_is_said(listener):
    """Until the host has said its join for the last time; the first general query was before it."""
    heard, sender, group, _sources = listener.said
    wait_for(lambda: [said for kind, said, _ in records(heard, sender) if kind in ("TO_EX", "ALLOW")].count(group)
             >= STATE_CHANGE_REPORTS, what=f"join of {group}")


@pytest.mark.parametrize("without,least,most", [((), 0, 5), (("general-queries",), 300, 300)],
                         ids=["healed", "left out"])
def test_bridge_brings_a_stream_only_where_it_is_wanted(lab, record_property, without, least, most):
    start_bridged(lab, without)
    viewer = listen(lab, "host1", GROUP)
    if not without:
        wait_until_join_is_said(viewer)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {kernel_view.ANY: {"br0"}}, what="forwarding")
    elsewhere = capture(lab, "host2", "eth0")
    sent = send_stream(lab, GROUP, count=300)
    wait_for(lambda: received(viewer) >= sent - LOST_IN_REFRESHES, what="stream")
    record_property("where_nobody_has_joined", f"{datagrams(elsewhere, GROUP)} of {sent}")
    assert least <= datagrams(elsewhere, GROUP) <= most


def test_bridge_follows_joins_and_leaves_at_once(lab):
    start_bridged(lab)
    stays = listen(lab, "host1", SOURCE_GROUP, sources=[S1])
    elsewhere = capture(lab, "host2", "eth0")
    wait_for(lambda: kernel_view.forwarding_of(lab, SOURCE_GROUP), what="forwarding")
    stream = start_stream(lab, SOURCE_GROUP, count=20 * PER_SECOND, per_second=PER_SECOND)
    wait_for(lambda: received(stays) > 10, what="stream")

    def has_stopped():
        seen, seen_at_stays = datagrams(elsewhere, SOURCE_GROUP), received(stays)
        wait_for(lambda: received(stays) >= seen_at_stays + 10, what="stream goes on")
        return datagrams(elsewhere, SOURCE_GROUP) == seen

    wait_for(has_stopped, what="port without the stream")
    comes = listen(lab, "host2", SOURCE_GROUP, sources=[S1])
    wait_for(lambda: received(comes) > 10, deadline_s=2, what="stream after the join")
    stop(comes)
    wait_for(lambda: own_queries(elsewhere, SOURCE_GROUP), what="question after the leave")
    wait_for(has_stopped, deadline_s=8, what="end of the stream at the port that left")
    assert not has_ended(stream)


def test_question_after_a_leave_is_a_query_that_every_host_takes(lab):
    start_bridged(lab)
    viewer = listen(lab, "host1", SOURCE_GROUP, sources=[S1])
    wait_until_join_is_said(viewer)
    at_host = capture(lab, "host1", "eth0")
    send_frame(lab, "host2", "eth0", report("host2", [("BLOCK", SOURCE_GROUP, [S1])]))
    wait_for(lambda: own_queries(at_host, SOURCE_GROUP), what="question")
    frame = own_queries(at_host, SOURCE_GROUP)[0].frame
    ip = Ether(frame)[IPv6]
    assert (ip.src, ip.dst, ip.hlim) == (BR0_LINK_LOCAL, SOURCE_GROUP, 1)
    assert any(isinstance(option, RouterAlert) and option.value == 0 for option in ip[IPv6ExtHdrHopByHop].options)
    query = ip[ICMPv6MLQuery2]
    assert (query.mrd, query.mladdr, query.S, query.QRV, query.QQIC, query.sources_number) == (
        1000, SOURCE_GROUP, 0, 2, 125, 0)
    assert checksum_is_good(frame)


def test_daemon_does_not_hear_the_companions_queries(lab):
    at_host = capture(lab, "host1", "eth0")
    start_bridged(lab)
    listen(lab, "host1", SOURCE_GROUP, sources=[S1])
    wait_for(lambda: kernel_view.forwarding_of(lab, SOURCE_GROUP), what="forwarding")
    send_frame(lab, "host2", "eth0", report("host2", [("BLOCK", SOURCE_GROUP, [S1])]))
    wait_for(lambda: own_queries(at_host, SOURCE_GROUP), what="question")
    assert "Received Query" not in log_of(lab.daemon)


def test_nobody_is_asked_where_another_querier_has_asked(lab):
    start_bridged(lab)
    viewer = listen(lab, "host1", SOURCE_GROUP, sources=[S1])
    wait_until_join_is_said(viewer)
    at_host = capture(lab, "host1", "eth0")
    leave = report("host2", [("BLOCK", SOURCE_GROUP, [S1])])
    send_frame(lab, "host2", "eth0", leave)
    send_frame(lab, "host2", "eth0", group_query(LOWER, SOURCE_GROUP, [S1]))
    sent = send_stream(lab, SOURCE_GROUP, count=100, per_second=PER_SECOND)
    wait_for(lambda: received(viewer) == sent, what="stream")
    assert own_queries(at_host, SOURCE_GROUP) == []
    send_frame(lab, "host2", "eth0", leave)
    wait_for(lambda: own_queries(at_host, SOURCE_GROUP), what="question")


def test_left_out_remedies_ask_nobody(lab):
    at_host = capture(lab, "host1", "eth0")
    start_daemon(lab)
    start_companion(lab, without=["ask-after-leave", "ask-after-end", "general-queries"])
    viewer = listen(lab, "host1", SOURCE_GROUP, sources=[S1])
    wait_for(lambda: kernel_view.forwarding_of(lab, SOURCE_GROUP), what="forwarding")
    send_frame(lab, "host2", "eth0", report("host2", [("BLOCK", SOURCE_GROUP, [S1])]))
    sent = send_stream(lab, SOURCE_GROUP, count=100, per_second=PER_SECOND)
    wait_for(lambda: received(viewer) == sent, what="stream")
    assert own_queries(at_host, SOURCE_GROUP) == []
    assert mld_messages(at_host, MLD_V1_REPORT) == []
