"""Queries as hosts and other routers see them, and the election of the querier."""

from scapy.layers.inet6 import ICMPv6MLQuery2, IPv6, IPv6ExtHdrHopByHop, RouterAlert
from scapy.layers.l2 import Ether

import kernel_view
from frames import general_query, report
from laboratory import BR0_LINK_LOCAL, BR0_MAC, S1, S2, log_of, stop, wait_for
from proxy import COMPANIONS_QUESTIONS, start_daemon, start_proxy
from traffic import (capture, checksum_is_good, listen, queries, received, records, send_frame, send_stream,
                     wait_until_all_is_said)

GROUP = "ff0e::1:2:3"
OTHER_GROUP = "ff05::2"
ANY_GROUP = "::"
QUERY_INTERVAL_TICKS = 125
STARTUP_QUERY_INTERVAL_TICKS = 30
OTHER_QUERIER_TICKS = 300
LOWER, HIGHER = "fe80::1", "fe80::ffff:0:0:1"


def general_queries(captured):
    return queries(captured, group=ANY_GROUP, sender=BR0_LINK_LOCAL)


def assert_is_query_frame(mld, group, mac, sources=()):
    """Field by field, as an independent decoder reads it."""
    assert len(mld.frame) == 90 + 16 * len(sources)
    ethernet = Ether(mld.frame)
    assert (ethernet.dst, ethernet.src, ethernet.type) == (mac, BR0_MAC, 0x86dd)
    ip = ethernet[IPv6]
    assert (ip.src, ip.dst, ip.hlim, ip.plen) == (BR0_LINK_LOCAL, "ff02::1", 1, 36 + 16 * len(sources))
    options = ip[IPv6ExtHdrHopByHop].options
    assert isinstance(options[0], RouterAlert) and options[0].value == 0
    query = ip[ICMPv6MLQuery2]
    assert (query.type, query.code, query.mrd, query.mladdr) == (130, 0, 2000, group)
    assert (query.S, query.QRV, query.QQIC, query.sources_number) == (0, 2, 125, len(sources))
    assert sorted(query.sources or []) == sorted(sources)
    assert checksum_is_good(mld.frame)


def test_general_query_at_start(lab):
    at_host = capture(lab, "host1", "eth0")
    start_daemon(lab)
    wait_for(lambda: general_queries(at_host), what="general query")
    assert_is_query_frame(general_queries(at_host)[0], ANY_GROUP, "33:33:00:00:00:01")


def test_checksum_check_can_fail(lab):
    """The judge of the frames is itself put to the test."""
    at_host = capture(lab, "host1", "eth0")
    start_daemon(lab)
    frame = bytearray(wait_for(lambda: general_queries(at_host))[0].frame)
    frame[66] ^= 1
    assert not checksum_is_good(bytes(frame))


def test_every_lan_gets_its_query_at_start(make_lab):
    lab = make_lab(second_lan=True)
    at_host1, at_host3 = capture(lab, "host1", "eth0"), capture(lab, "host3", "eth0")
    start_daemon(lab, "-u", "wan0", "-d", "br0,lan1")
    wait_for(lambda: general_queries(at_host1))
    wait_for(lambda: queries(at_host3, group=ANY_GROUP, sender="fe80::ff:fe00:3fe"))


def test_hosts_answer_the_general_query(lab):
    """A host that joined before the router came up is found by the first query."""
    listener = listen(lab, "host1", GROUP)
    at_host = capture(lab, "host1", "eth0")
    start_proxy(lab, without=COMPANIONS_QUESTIONS)
    wait_for(lambda: ("IS_EX", GROUP, frozenset()) in records(at_host), what="answer")
    assert [mld.group for mld in general_queries(at_host)] == [ANY_GROUP]
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {kernel_view.ANY: {"br0"}}, what="forwarding")
    wait_until_all_is_said(listener)
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener) == sent)


def test_second_query_follows_sooner_than_the_third(lab):
    per_second = 50
    at_host = capture(lab, "host1", "eth0")
    start_daemon(lab, ticks_per_second=per_second)
    wait_for(lambda: len(general_queries(at_host)) >= 3, deadline_s=10, what="three general queries")
    first, second, third = (mld.time for mld in general_queries(at_host)[:3])
    # A busy machine can only be late, and ticks that queue up are taken as one.
    assert second - first >= STARTUP_QUERY_INTERVAL_TICKS / per_second * 0.9
    assert third - second >= QUERY_INTERVAL_TICKS / per_second * 0.9
    assert second - first < (third - second) * 0.6


def test_leave_is_followed_by_a_query_for_the_group(lab):
    start_proxy(lab, without=COMPANIONS_QUESTIONS)
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: GROUP in kernel_view.memberships(lab, "wan0"))
    at_host = capture(lab, "host2", "eth0")
    stop(listener)
    wait_for(lambda: queries(at_host, group=GROUP), what="query for the group")
    assert_is_query_frame(queries(at_host, group=GROUP)[0], GROUP, "33:33:00:02:00:03")


def test_leave_of_a_source_specific_group_asks_for_its_sources(lab):
    """Host 2 says that it wants no source of the group any more; host 1 still wants one and says so."""
    start_proxy(lab, without=COMPANIONS_QUESTIONS)
    listener = listen(lab, "host1", GROUP, sources=[S1, S2])
    wait_until_all_is_said(listener)
    at_host = capture(lab, "host1", "eth0")
    assert kernel_view.wanted_sources(lab, GROUP) == {S1, S2}
    send_frame(lab, "host2", "eth0", report("host2", [("TO_IN", GROUP, [])]))
    wait_for(lambda: queries(at_host, group=GROUP), what="query for group and sources")
    assert_is_query_frame(queries(at_host, group=GROUP)[0], GROUP, "33:33:00:02:00:03", sources=[S1, S2])
    wait_for(lambda: ("IS_IN", GROUP, frozenset([S1, S2])) in records(at_host), what="answer of host 1")
    sent = send_stream(lab, GROUP, source=S1)
    wait_for(lambda: received(listener, S1) == sent)


def test_block_of_a_source_asks_nobody_while_its_timer_runs(lab):
    """Blocking is left to the source's own timer."""
    start_proxy(lab, without=COMPANIONS_QUESTIONS)
    listener = listen(lab, "host1", GROUP, sources=[S1])
    wait_for(lambda: kernel_view.wanted_sources(lab, GROUP) == {S1})
    at_host = capture(lab, "host2", "eth0")
    stop(listener)
    wait_for(lambda: ("BLOCK", GROUP, frozenset([S1])) in records(at_host), what="block on the wire")
    wait_for(lambda: "No source address need to query" in log_of(lab.daemon), what="query that is not sent")
    assert queries(at_host, group=GROUP) == []
    assert kernel_view.wanted_sources(lab, GROUP) == {S1}


def test_querier_with_a_lower_address_silences_the_router_for_300_ticks(lab):
    per_second = 100
    at_host = capture(lab, "host1", "eth0")
    start_daemon(lab, ticks_per_second=per_second)
    wait_for(lambda: general_queries(at_host))
    send_frame(lab, "host2", "eth0", general_query(LOWER))
    wait_for(lambda: "moving to NonQuerier." in log_of(lab.daemon))
    elected = wait_for(lambda: queries(at_host, sender=LOWER))[0].time
    before = len([mld for mld in general_queries(at_host) if mld.time < elected])
    wait_for(lambda: len(general_queries(at_host)) > before, deadline_s=15, what="query after the other one fell silent")
    next_query = general_queries(at_host)[before].time
    assert next_query - elected >= OTHER_QUERIER_TICKS / per_second * 0.9
    assert "We are now the querier on network br0 ." in log_of(lab.daemon)


def test_querier_with_a_higher_address_changes_nothing(lab):
    per_second = 50
    at_host = capture(lab, "host1", "eth0")
    start_daemon(lab, ticks_per_second=per_second)
    wait_for(lambda: general_queries(at_host))
    send_frame(lab, "host2", "eth0", general_query(HIGHER))
    wait_for(lambda: "but remain Querier." in log_of(lab.daemon))
    seen = len(general_queries(at_host))
    wait_for(lambda: len(general_queries(at_host)) > seen, deadline_s=5, what="next general query")
    assert "moving to NonQuerier." not in log_of(lab.daemon)


def test_silenced_router_still_serves_its_listeners(lab):
    start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    wait_until_all_is_said(listener)
    at_host = capture(lab, "host1", "eth0")
    send_frame(lab, "host2", "eth0", general_query(LOWER))
    wait_for(lambda: "moving to NonQuerier." in log_of(lab.daemon))
    wait_for(lambda: ("IS_EX", GROUP, frozenset()) in records(at_host), what="answer to the other querier")
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener) == sent)
    listen(lab, "host1", OTHER_GROUP)
    wait_for(lambda: OTHER_GROUP in kernel_view.memberships(lab, "wan0"))
