"""A LAN host's report makes the stream flow, its leave makes it stop, and no other host is affected."""

import kernel_view
from kernel_view import ANY
from laboratory import HOST_LINK_LOCAL, S1, S2, log_of, run, stop, wait_for
from proxy import start_companion, start_daemon, start_proxy
from traffic import (MLD_V1_DONE, capture, datagrams, listen, mld_messages, queries, received, records,
                     send_stream, start_stream, wait_until_all_is_said)

GROUP = "ff0e::1:2:3"
OTHER_GROUP = "ff05::2"
# An unanswered leave costs one query, ten seconds for answers and two seconds around them.
REMOVAL_DEADLINE_S = 16
FAST = 10  # ticks per second, for tests in which nobody has to answer


def use_mld_version_1(lab, host):
    run(lab, host, "sysctl", "-q", "net.ipv6.conf.eth0.force_mld_version=1")


def is_joined_upstream(lab, group):
    return group in kernel_view.memberships(lab, "wan0")


def wait_for_forwarding(lab, group, expected):
    wait_for(lambda: kernel_view.forwarding_of(lab, group) == expected, what=f"forwarding of {group} as {expected}")


def test_any_source_join_makes_the_stream_flow(lab):
    start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for_forwarding(lab, GROUP, {ANY: {"br0"}})
    assert is_joined_upstream(lab, GROUP)
    wait_until_all_is_said(listener)
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener, S1) == sent, what=f"all {sent} datagrams")


def test_nobody_joined_so_nothing_is_forwarded(lab):
    start_proxy(lab)
    at_host = capture(lab, "host1", "eth0")
    assert send_stream(lab, GROUP) == 50
    assert datagrams(at_host, GROUP) == 0
    assert not is_joined_upstream(lab, GROUP)


def test_last_leave_stops_the_stream_and_leaves_upstream(lab):
    start_proxy(lab, ticks_per_second=FAST)
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: is_joined_upstream(lab, GROUP))
    assert stop(listener) == 0
    wait_for(lambda: not is_joined_upstream(lab, GROUP), what="leave upstream")
    assert kernel_view.forwarding_of(lab, GROUP) == {}
    at_host = capture(lab, "host1", "eth0")
    send_stream(lab, GROUP)
    assert datagrams(at_host, GROUP) == 0


def test_leave_in_real_time_stops_a_running_stream(lab):
    start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    start_stream(lab, GROUP, count=3000)
    wait_for(lambda: received(listener) > 20)
    stop(listener)
    wait_for(lambda: not is_joined_upstream(lab, GROUP), REMOVAL_DEADLINE_S, "leave upstream")
    at_host = capture(lab, "host1", "eth0")
    at_router = capture(lab, "router", "wan0")
    wait_for(lambda: datagrams(at_router, GROUP) > 20, what="stream on the upstream wire")
    assert datagrams(at_host, GROUP) == 0


def test_join_while_the_stream_runs_is_served_at_once(lab):
    start_proxy(lab)
    start_stream(lab, GROUP, count=1000)
    at_router = capture(lab, "router", "wan0")
    wait_for(lambda: datagrams(at_router, GROUP) > 20)
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: received(listener) > 20, deadline_s=2)


def test_mld_version_1_host_gets_the_stream(lab):
    use_mld_version_1(lab, "host1")
    start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for_forwarding(lab, GROUP, {ANY: {"br0"}})
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener) == sent)


def test_mld_version_1_done_is_ignored(lab):
    """Only the group's timer notices that a version 1 host has left."""
    use_mld_version_1(lab, "host1")
    daemon = start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: is_joined_upstream(lab, GROUP))
    at_host = capture(lab, "host1", "eth0")
    stop(listener)
    wait_for(lambda: mld_messages(at_host, MLD_V1_DONE), what="done message on the wire")
    # The next report shows that the daemon is past the point where it would have read the done message.
    other = listen(lab, "host1", OTHER_GROUP)
    wait_for(lambda: is_joined_upstream(lab, OTHER_GROUP))
    assert is_joined_upstream(lab, GROUP)
    assert kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}
    assert stop(other) == 0 and stop(daemon) == 0


def test_source_specific_join_brings_only_that_source(lab):
    start_proxy(lab)
    listener = listen(lab, "host1", GROUP, sources=[S1])
    wait_for_forwarding(lab, GROUP, {S1: {"br0"}})
    assert kernel_view.wanted_sources(lab, GROUP) == {S1}
    at_host = capture(lab, "host1", "eth0")
    sent = send_stream(lab, GROUP, source=S1)
    send_stream(lab, GROUP, source=S2)
    wait_for(lambda: received(listener, S1) == sent)
    assert datagrams(at_host, GROUP) == sent  # nothing of the other source has reached the LAN


def test_source_specific_stream_needs_no_static_entry(lab):
    start_daemon(lab)
    companion = start_companion(lab)
    listener = listen(lab, "host1", GROUP, sources=[S1])
    wait_for_forwarding(lab, GROUP, {S1: {"br0"}})
    stop(companion)
    sent = send_stream(lab, GROUP, source=S1)
    wait_for(lambda: received(listener, S1) == sent)


def test_two_sources_of_a_group_are_both_joined(lab):
    start_proxy(lab)
    listener = listen(lab, "host1", GROUP, sources=[S1, S2])
    wait_for_forwarding(lab, GROUP, {S1: {"br0"}, S2: {"br0"}})
    assert kernel_view.wanted_sources(lab, GROUP) == {S1, S2}
    sent = send_stream(lab, GROUP, source=S1) + send_stream(lab, GROUP, source=S2)
    wait_for(lambda: received(listener) == sent)


def test_stream_reaches_only_the_interface_that_wants_it(make_lab):
    lab = make_lab(second_lan=True)
    start_proxy(lab, "br0,lan1")
    listener = listen(lab, "host3", GROUP)
    wait_for_forwarding(lab, GROUP, {ANY: {"lan1"}})
    wait_until_all_is_said(listener)
    at_host1 = capture(lab, "host1", "eth0")
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener) == sent)
    assert datagrams(at_host1, GROUP) == 0


def test_stream_reaches_both_interfaces_that_want_it(make_lab):
    lab = make_lab(second_lan=True)
    start_proxy(lab, "br0,lan1")
    listeners = [listen(lab, "host1", GROUP), listen(lab, "host3", GROUP)]
    wait_for_forwarding(lab, GROUP, {ANY: {"br0", "lan1"}})
    wait_until_all_is_said(*listeners)
    sent = send_stream(lab, GROUP)
    for listener in listeners:
        wait_for(lambda one=listener: received(one) == sent)


def test_different_groups_go_to_different_interfaces(make_lab):
    lab = make_lab(second_lan=True)
    start_proxy(lab, "br0,lan1")
    on_br0, on_lan1 = listen(lab, "host1", GROUP), listen(lab, "host3", OTHER_GROUP)
    wait_for_forwarding(lab, GROUP, {ANY: {"br0"}})
    wait_for_forwarding(lab, OTHER_GROUP, {ANY: {"lan1"}})
    wait_until_all_is_said(on_br0, on_lan1)
    at_host1, at_host3 = capture(lab, "host1", "eth0"), capture(lab, "host3", "eth0")
    sent = send_stream(lab, GROUP)
    assert send_stream(lab, OTHER_GROUP) == sent
    wait_for(lambda: received(on_br0) == sent and received(on_lan1) == sent)
    assert datagrams(at_host1, OTHER_GROUP) == 0
    assert datagrams(at_host3, GROUP) == 0


def test_interface_that_left_keeps_its_output_on_this_kernel(make_lab):
    """The daemon's rewrite of the entry is refused by a mainline kernel, so the old outputs stay until the end."""
    lab = make_lab(second_lan=True)
    start_proxy(lab, "br0,lan1", ticks_per_second=FAST)
    listen(lab, "host1", GROUP)
    leaver = listen(lab, "host3", GROUP)
    wait_for_forwarding(lab, GROUP, {ANY: {"br0", "lan1"}})
    stop(leaver)
    wait_for(lambda: "still there. Not dropping." in log_of(lab.daemon), what="removal on lan1")
    assert is_joined_upstream(lab, GROUP)
    assert kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0", "lan1"}}


def test_second_listener_keeps_the_stream_when_the_first_leaves(lab):
    """The leave's query is answered by the host that stays."""
    start_proxy(lab)
    first, second = listen(lab, "host1", GROUP), listen(lab, "host2", GROUP)
    wait_until_all_is_said(first, second)
    at_host2 = capture(lab, "host2", "eth0")
    stop(first)
    wait_for(lambda: queries(at_host2, group=GROUP), what="query after the leave")
    answer = ("IS_EX", GROUP, frozenset())
    wait_for(lambda: answer in records(at_host2, HOST_LINK_LOCAL["host2"]), what="answer of the second host")
    before = received(second)
    sent = send_stream(lab, GROUP)
    # The leave is sent twice; each answer that arrives during the stream may cost it a datagram.
    wait_for(lambda: received(second) >= before + sent - 2)
    assert is_joined_upstream(lab, GROUP)


def test_link_local_groups_are_never_proxied(lab):
    start_proxy(lab)
    listen(lab, "host1", "ff02::1:3")
    listen(lab, "host1", GROUP)
    wait_for(lambda: is_joined_upstream(lab, GROUP))
    assert not is_joined_upstream(lab, "ff02::1:3")
    assert kernel_view.forwarding_of(lab, "ff02::1:3") == {}
