"""One viewer switches off, another one stays: in real time, on real hosts, for two and a half minutes afterwards.

Every scenario plays twice, with the companion as it is and without the remedy that it is about. All labs stand side by
side, so that the whole takes as long as its longest scenario.
"""

import dataclasses
import time
import typing

import kernel_view
from frames import general_query, report
from laboratory import BR0_LINK_LOCAL, DeadlineMissed, S1, run, stop, wait_for, wait_for_end
from proxy import start_companion, start_daemon
from traffic import (MLD_V1_REPORT, capture, listen, mld_messages, queries, received, records, send_frame,
                     start_stream, wait_until_all_is_said)

ANY_GROUP = "ff0e::1:2:3"
SOURCE_GROUP = "ff3e::1:2:3"
LOWER = "fe80::1"
WITHOUT = ("ask-after-leave", "ask-after-end", "general-queries")

VIEWING_S = 150
PER_SECOND = 50
START_S = 10
LATEST_ANSWER_S = 3  # hosts answer within 2 s


@dataclasses.dataclass
class Viewing:
    """What one lab shows."""
    lab: typing.Any
    group: str
    viewer: typing.Any
    leave: typing.Callable
    at_host: typing.Any
    stream: typing.Any = None
    lost: int = 0


def two_viewers(lab, group, sources=()):
    """Host 1 is the one that stays."""
    stays, leaves = (listen(lab, host, group, sources=sources) for host in ("host1", "host2"))
    wait_until_all_is_said(stays, leaves)
    return stays, leaves


# The events: each prepares its lab, and returns the group, the viewer that stays, and a call that ends the other one.


def one_of_two_leaves_a_source(lab):
    stays, leaves = two_viewers(lab, SOURCE_GROUP, [S1])
    return SOURCE_GROUP, stays, lambda: stop(leaves)


def one_of_two_leaves_all_sources(lab):
    stays, leaves = two_viewers(lab, ANY_GROUP)
    return ANY_GROUP, stays, lambda: stop(leaves)


def stranger_blocks_all_sources(lab):
    stays = listen(lab, "host1", ANY_GROUP)
    wait_until_all_is_said(stays)
    return ANY_GROUP, stays, lambda: send_frame(lab, "host2", "eth0", report("host2", [("BLOCK", ANY_GROUP, ["::"])]))


def version_2_leaves_version_1(lab):
    run(lab, "host1", "sysctl", "-q", "net.ipv6.conf.eth0.force_mld_version=1")
    at_host = capture(lab, "host1", "eth0")
    stays = listen(lab, "host1", ANY_GROUP)
    wait_for(lambda: any(mld.group == ANY_GROUP for mld in mld_messages(at_host, MLD_V1_REPORT)), what="version 1")
    leaves = listen(lab, "host2", ANY_GROUP)
    wait_until_all_is_said(leaves)
    return ANY_GROUP, stays, lambda: stop(leaves)


def one_of_two_leaves_beside_a_silent_querier(lab):
    """A router that tracks hosts has a lower address, and asks nobody after a leave."""
    stays, leaves = two_viewers(lab, ANY_GROUP)

    def leave():
        answers = capture(lab, "router", "br0")
        send_frame(lab, "host2", "eth0", general_query(LOWER))
        wait_for(lambda: "moving to NonQuerier." in lab.daemon.log.read_text(), what="election")
        wait_for(lambda: ("IS_EX", ANY_GROUP, frozenset()) in records(answers), what="answer of host 1")
        stop(leaves)

    return ANY_GROUP, stays, leave


@dataclasses.dataclass(frozen=True)
class Expected:
    most_lost: int  # with the companion as it is
    least_lost: int  # without its remedies


SENT = PER_SECOND * (VIEWING_S + START_S)
# A refresh of a group for all sources takes its entry away for a moment: a datagram may be lost in it.
IN_REFRESHES = 3
DARK = 5 * PER_SECOND  # a general query ends most silences
SCENARIOS = {
    one_of_two_leaves_a_source: Expected(0, DARK),
    one_of_two_leaves_all_sources: Expected(IN_REFRESHES, 0),  # here the daemon itself asks
    stranger_blocks_all_sources: Expected(IN_REFRESHES, DARK),
    version_2_leaves_version_1: Expected(2 * PER_SECOND + IN_REFRESHES, DARK),
    one_of_two_leaves_beside_a_silent_querier: Expected(IN_REFRESHES, DARK)}


def start_viewing(lab, scenario, without):
    at_host = capture(lab, "host1", "eth0")
    start_daemon(lab)
    start_companion(lab, without=without)
    group, viewer, leave = scenario(lab)
    wait_for(lambda: kernel_view.forwarding_of(lab, group), what="forwarding")
    return Viewing(lab, group, viewer, leave, at_host)


def has_asked_twice(viewing):
    """The daemon asks again 30 s after its start; no answer to that may come after the leave and end a silence."""
    asked = queries(viewing.at_host, group="::", sender=BR0_LINK_LOCAL)
    return asked and asked[-1].time - asked[0].time > 25 and time.time() - asked[-1].time > LATEST_ANSWER_S


def let_one_leave(viewing):
    wait_for(lambda: has_asked_twice(viewing), deadline_s=60, what="second general query")
    viewing.stream = start_stream(viewing.lab, viewing.group, count=SENT, per_second=PER_SECOND)
    wait_for(lambda: received(viewing.viewer) > PER_SECOND, deadline_s=20, what="stream")
    viewing.leave()


def finish_viewing(viewing):
    assert wait_for_end(viewing.stream, deadline_s=VIEWING_S + 60) == 0
    try:
        wait_for(lambda: received(viewing.viewer) == SENT, deadline_s=1)
    except DeadlineMissed:
        pass
    viewing.lost = SENT - received(viewing.viewer)


def test_viewer_that_stays_loses_nothing(make_lab, record_property):
    viewings = {(scenario, is_healed): start_viewing(make_lab(), scenario, () if is_healed else WITHOUT)
                for scenario in SCENARIOS for is_healed in (True, False)}
    for viewing in viewings.values():
        let_one_leave(viewing)
    for viewing in viewings.values():
        finish_viewing(viewing)
    for (scenario, is_healed), viewing in viewings.items():
        record_property(f"{scenario.__name__}{'' if is_healed else ' without'}", f"{viewing.lost} of {SENT}")
    for scenario, expected in SCENARIOS.items():
        assert viewings[scenario, True].lost <= expected.most_lost, scenario.__name__
        assert viewings[scenario, False].lost >= expected.least_lost, scenario.__name__
