"""Listeners that fall silent: after minutes of hurried time their groups run out."""

import kernel_view
from kernel_view import ANY
from laboratory import S1, S2, configure, log_of, run, stop, wait_for
from proxy import start_proxy, start_snooping
from traffic import capture, listen, queries

GROUP = "ff0e::1:2:3"
LONG_GROUP = "ff0e::1234:5678:9abc:def0"
PER_SECOND = 100
EXPIRY_DEADLINE_S = 20  # 350 ticks, on a machine that may be busy


def unplug(lab, host):
    configure(lab, host, "link set eth0 down")


def test_silent_any_source_listener_is_dropped(lab):
    start_proxy(lab, ticks_per_second=PER_SECOND)
    listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}})
    unplug(lab, "host1")
    wait_for(lambda: GROUP not in kernel_view.memberships(lab, "wan0"), EXPIRY_DEADLINE_S, "expiry")
    assert kernel_view.forwarding_of(lab, GROUP) == {}


def test_listener_that_answers_stays_for_longer_than_the_group_timer(lab):
    """Real hosts may take two seconds to answer, so time is hurried less here."""
    per_second = 40
    start_proxy(lab, ticks_per_second=per_second)
    listen(lab, "host1", GROUP)
    at_host = capture(lab, "host1", "eth0")
    # The first at tick 30, then one every 125 ticks: five of them come to more than 500 ticks.
    wait_for(lambda: len(queries(at_host, group=ANY)) >= 5, deadline_s=30, what="five general queries")
    assert "Group timer expired." not in log_of(lab.daemon)
    assert GROUP in kernel_view.memberships(lab, "wan0")


def test_expiry_writes_the_leave_record_and_signals_the_snooping_program(lab):
    notes = start_snooping(lab)
    start_proxy(lab, ticks_per_second=PER_SECOND)
    listen(lab, "host1", GROUP)
    wait_for(lambda: GROUP in kernel_view.memberships(lab, "wan0"))
    assert not (lab.router_tmp / "tarnwick_leave_record").exists()
    unplug(lab, "host1")
    wait_for(lambda: "USR2" in notes.read_text(), EXPIRY_DEADLINE_S, "signal")
    wait_for(lambda: notes.read_text() == f"ready\nUSR2\ngrp={GROUP}\n", what="complete leave record")


def test_leave_record_of_a_long_address_has_none(lab):
    """Only texts of at most 15 characters are written; kept for compatibility."""
    notes = start_snooping(lab)
    start_proxy(lab, ticks_per_second=PER_SECOND)
    listen(lab, "host1", LONG_GROUP)
    wait_for(lambda: LONG_GROUP in kernel_view.memberships(lab, "wan0"))
    unplug(lab, "host1")
    wait_for(lambda: notes.read_text() == "ready\nUSR2\ngrp=\n", EXPIRY_DEADLINE_S, "signal and record")


def test_ordinary_leave_signals_nobody(lab):
    notes = start_snooping(lab)
    start_proxy(lab, ticks_per_second=10)
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: GROUP in kernel_view.memberships(lab, "wan0"))
    stop(listener)
    wait_for(lambda: GROUP not in kernel_view.memberships(lab, "wan0"))
    assert notes.read_text() == "ready\n"
    assert not (lab.router_tmp / "tarnwick_leave_record").exists()


def test_version_1_group_keeps_its_entry_when_it_expires(lab):
    """The membership ends; the entry without sources is only taken away at the daemon's end."""
    run(lab, "host1", "sysctl", "-q", "net.ipv6.conf.eth0.force_mld_version=1")
    start_proxy(lab, ticks_per_second=PER_SECOND)
    listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}})
    unplug(lab, "host1")
    wait_for(lambda: GROUP not in kernel_view.memberships(lab, "wan0"), EXPIRY_DEADLINE_S, "expiry")
    assert kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}


def test_source_that_nobody_confirms_is_asked_for_and_blocked(lab):
    """Host 2 goes away, host 1 keeps its own source of the same group."""
    per_second = 40
    start_proxy(lab, ticks_per_second=per_second)
    listen(lab, "host1", GROUP, sources=[S1])
    listen(lab, "host2", GROUP, sources=[S2])
    wait_for(lambda: kernel_view.wanted_sources(lab, GROUP) == {S1, S2})
    at_host = capture(lab, "host1", "eth0")
    unplug(lab, "host2")
    asked = wait_for(lambda: queries(at_host, group=GROUP), 30, "query for the source")
    assert asked[0].sources == (S2,)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {S1: {"br0"}}, 10, "end of the source's entry")
    assert S1 in kernel_view.wanted_sources(lab, GROUP)
