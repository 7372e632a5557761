"""The long form, run by hand: twenty leaves next to a viewer that stays, and over 400 s of a silenced querier.

   TARNWICK_PROGRAMS=build/dev /usr/bin/python3 -m pytest -p no:cacheprovider tests/netns/long_viewing.py

Takes about ten minutes and hardly any processor time: all labs stand side by side, each in a thread of its own.
"""

import concurrent.futures
import time

import kernel_view
from laboratory import DeadlineMissed, S1, has_ended, run, stop, wait_for, wait_for_end
from proxy import start_companion, start_daemon
from test_general_queries import SILENCER
from test_viewers_that_stay import ANY_GROUP, SOURCE_GROUP
from traffic import listen, received, send_frame, start_stream, wait_until_all_is_said

LEAVES = 20
BETWEEN_LEAVES_S = 20  # the daemon ends a group 16 s after a leave that nobody contradicts
SETTLED_S = 3  # a join is said twice within a second
PER_SECOND = 50
SILENCED_S = 460
SILENCER_EVERY_S = 290


def pause(seconds):
    end = time.monotonic() + seconds
    wait_for(lambda: time.monotonic() >= end, deadline_s=seconds + 10, what="end of the pause")


def lost_of(viewer, stream, sent):
    wait_for_end(stream, deadline_s=1200)
    try:
        wait_for(lambda: received(viewer) == sent, deadline_s=1)
    except DeadlineMissed:
        pass
    return sent - received(viewer)


def lose_in_leaves(lab, group, sources, version, without=()):
    """Leaves after which the viewer lost a datagram, and datagrams lost."""
    run(lab, "host1", "sysctl", "-q", f"net.ipv6.conf.eth0.force_mld_version={version}")
    start_daemon(lab)
    start_companion(lab, without=without)
    stays = listen(lab, "host1", group, sources=sources)
    wait_for(lambda: kernel_view.forwarding_of(lab, group), what="forwarding")
    dark = lost = 0
    for _ in range(LEAVES):
        leaves = listen(lab, "host2", group, sources=sources)
        pause(SETTLED_S)
        seen = received(stays)
        sent = PER_SECOND * BETWEEN_LEAVES_S
        stream = start_stream(lab, group, count=sent, per_second=PER_SECOND)
        wait_for(lambda before=seen: received(stays) > before, what="stream")
        stop(leaves)
        wait_for_end(stream, deadline_s=BETWEEN_LEAVES_S * 3)
        pause(1)
        missing = sent - (received(stays) - seen)
        lost += missing
        dark += missing > 0
    return f"{LEAVES - dark} of {LEAVES} leaves without loss, {lost} datagrams lost"


def lose_in_silence(lab, without=()):
    start_daemon(lab)
    start_companion(lab, without=without)
    viewer = listen(lab, "host1", ANY_GROUP)
    wait_until_all_is_said(viewer)
    sent = PER_SECOND * SILENCED_S
    stream = start_stream(lab, ANY_GROUP, count=sent, per_second=PER_SECOND)
    while not has_ended(stream):
        send_frame(lab, "host2", "eth0", SILENCER)
        end = time.monotonic() + SILENCER_EVERY_S
        wait_for(lambda until=end: has_ended(stream) or time.monotonic() >= until, deadline_s=SILENCER_EVERY_S + 10)
    return f"{lost_of(viewer, stream, sent)} of {sent} datagrams lost"


def test_long_viewing(make_lab, record_property):
    plays = {
        "source, version 2": (lose_in_leaves, SOURCE_GROUP, [S1], 2),
        "source, version 2, without": (lose_in_leaves, SOURCE_GROUP, [S1], 2, ["ask-after-leave", "ask-after-end"]),
        "all sources, version 2": (lose_in_leaves, ANY_GROUP, [], 2),
        "all sources, version 1 stays": (lose_in_leaves, ANY_GROUP, [], 1),
        "silenced": (lose_in_silence,),
        "silenced, without": (lose_in_silence, ["general-queries", "ask-after-end"])}
    labs = {name: make_lab() for name in plays}
    with concurrent.futures.ThreadPoolExecutor(len(plays)) as threads:
        running = {name: threads.submit(play[0], labs[name], *play[1:]) for name, play in plays.items()}
        for name, result in running.items():
            record_property(name, result.result())
