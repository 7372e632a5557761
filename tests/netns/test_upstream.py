"""What the router sends on the WAN: joins and leaves on behalf of the hosts, and nothing else."""

import kernel_view
from frames import general_query, report, version_1_report
from kernel_view import ANY
from laboratory import HOST_LINK_LOCAL, S1, S2, log_of, stop, wait_for
from proxy import start_proxy
from traffic import MLD_QUERY, MLD_V1_DONE, MLD_V1_REPORT, capture, listen, mld_messages, records, send_frame

GROUP = "ff0e::1:2:3"
ROUTER_ON_WAN = "fe80::ff:fe00:2fe"
FAST = 10


def said_upstream(wire, group=GROUP):
    """The records about a group that the router has sent on the WAN."""
    return [(kind, sources) for kind, about, sources in records(wire, sender=ROUTER_ON_WAN) if about == group]


def test_any_source_join_is_reported_as_exclude_nothing(lab):
    start_proxy(lab)
    wire = capture(lab, "source", "src0")
    listen(lab, "host1", GROUP)
    wait_for(lambda: ("TO_EX", frozenset()) in said_upstream(wire), what="join on the WAN")


def test_last_leave_is_reported_as_include_nothing(lab):
    start_proxy(lab, ticks_per_second=FAST)
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: GROUP in kernel_view.memberships(lab, "wan0"))
    wire = capture(lab, "source", "src0")
    stop(listener)
    wait_for(lambda: ("TO_IN", frozenset()) in said_upstream(wire), what="leave on the WAN")


def test_source_specific_join_is_reported_with_its_source(lab):
    start_proxy(lab)
    wire = capture(lab, "source", "src0")
    listen(lab, "host1", GROUP, sources=[S1])
    wait_for(lambda: ("ALLOW", frozenset([S1])) in said_upstream(wire), what="join on the WAN")


def test_second_host_of_the_same_source_adds_nothing_upstream(lab):
    start_proxy(lab)
    listen(lab, "host1", GROUP, sources=[S1])
    wait_for(lambda: kernel_view.wanted_sources(lab, GROUP) == {S1})
    listen(lab, "host2", GROUP, sources=[S1])
    wait_for(lambda: "MCAST_JOIN_SOURCE_GROUP fail!!!" in log_of(lab.daemon), what="refused second join")
    assert kernel_view.wanted_sources(lab, GROUP) == {S1}
    assert kernel_view.forwarding_of(lab, GROUP) == {S1: {"br0"}}


def test_any_source_host_replaces_the_source_specific_membership(lab):
    start_proxy(lab)
    listen(lab, "host1", GROUP, sources=[S1])
    wait_for(lambda: kernel_view.wanted_sources(lab, GROUP) == {S1})
    wire = capture(lab, "source", "src0")
    listen(lab, "host2", GROUP)
    wait_for(lambda: ANY in kernel_view.forwarding_of(lab, GROUP))
    wait_for(lambda: ("TO_EX", frozenset()) in said_upstream(wire), what="any-source join on the WAN")
    assert GROUP in kernel_view.memberships(lab, "wan0")


def test_host_that_excludes_a_source_leaves_no_upstream_membership(lab):
    """Join and leave of the excluded source follow each other, so a fresh group ends without membership upstream."""
    start_proxy(lab)
    wire = capture(lab, "source", "src0")
    send_frame(lab, "host1", "eth0", report("host1", [("TO_EX", GROUP, [S1])]))
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {S1: {"br0"}, ANY: {"br0"}})
    wait_for(lambda: ("BLOCK", frozenset([S1])) in said_upstream(wire), what="block on the WAN")
    assert GROUP not in kernel_view.memberships(lab, "wan0")


def test_two_interfaces_share_one_membership(make_lab):
    lab = make_lab(second_lan=True)
    start_proxy(lab, "br0,lan1", ticks_per_second=FAST)
    first, second = listen(lab, "host1", GROUP), listen(lab, "host3", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0", "lan1"}})
    wire = capture(lab, "source", "src0")
    stop(first)
    wait_for(lambda: "interface lan1 still there. Not dropping." in log_of(lab.daemon), what="leave of br0")
    assert GROUP in kernel_view.memberships(lab, "wan0")
    assert ("TO_IN", frozenset()) not in said_upstream(wire)
    stop(second)
    wait_for(lambda: GROUP not in kernel_view.memberships(lab, "wan0"), what="leave of both")


def test_reports_from_the_wan_are_ignored(lab):
    """Of version 1, since this kernel hands those to the daemon from every interface."""
    start_proxy(lab)
    send_frame(lab, "source", "src0", version_1_report("fe80::ff:fe00:201", GROUP))
    other = "ff05::2"
    listen(lab, "host1", other)
    wait_for(lambda: other in kernel_view.memberships(lab, "wan0"))
    assert GROUP not in kernel_view.memberships(lab, "wan0")
    assert kernel_view.forwarding_of(lab, GROUP) == {}


def test_routers_query_on_the_wan_is_answered_with_the_proxied_groups(lab):
    start_proxy(lab)
    listen(lab, "host1", GROUP)
    listen(lab, "host2", "ff0e::5", sources=[S2])
    wait_for(lambda: kernel_view.wanted_sources(lab, "ff0e::5") == {S2})
    wire = capture(lab, "source", "src0")
    send_frame(lab, "source", "src0", general_query("fe80::ff:fe00:201"))
    wait_for(lambda: ("IS_EX", frozenset()) in said_upstream(wire), what="answer for the any-source group")
    wait_for(lambda: ("IS_IN", frozenset([S2])) in said_upstream(wire, "ff0e::5"), what="answer for the source")


def test_no_queries_and_no_version_1_messages_go_upstream(lab):
    wire = capture(lab, "source", "src0")
    start_proxy(lab, ticks_per_second=FAST)
    at_host = capture(lab, "host1", "eth0")
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: GROUP in kernel_view.memberships(lab, "wan0"))
    stop(listener)
    wait_for(lambda: GROUP not in kernel_view.memberships(lab, "wan0"))
    assert mld_messages(at_host, MLD_QUERY)  # so queries have been sent, but to the LAN
    assert said_upstream(wire)
    for unwanted in (MLD_QUERY, MLD_V1_REPORT, MLD_V1_DONE):
        assert mld_messages(wire, unwanted) == []
    assert not [mld for mld in mld_messages(wire) if mld.sender in HOST_LINK_LOCAL.values()]
