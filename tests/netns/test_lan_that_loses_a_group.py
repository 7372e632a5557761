"""One of two LANs loses a group while the other one keeps it: the kernel tells nobody. What a viewer there sees.

All labs stand side by side, so that the whole takes as long as one of them.
"""

import re
import time

import frames
import kernel_view
from kernel_view import ANY
from laboratory import DeadlineMissed, log_of, run, stop, wait_for, wait_for_end
from test_assist_entries import END_DEADLINE_S, GROUP, start_lan, start_on_both_lans, wait_for_outputs
from traffic import (MLD_V1_REPORT, capture, listen, mld_messages, mute, queries, received, send_frame, start_stream,
                     unmute, wait_until_all_is_said)

BOTH = {ANY: {"br0", "lan1"}}
OTHER_LAN = {ANY: {"lan1"}}
PER_SECOND = 50
SENT = 30 * PER_SECOND
MOST_LOST = 2 * PER_SECOND + 3  # two seconds, and a datagram in each refresh
ENDED_ON_BR0 = re.compile(r"on interface lan1 still there\. Not dropping\.")


def view_on_both(lab, *more_listeners):
    """A viewer of all sources on each LAN, and a stream for them."""
    lab.at_viewer = capture(lab, "host1", "eth0")
    viewers = [listen(lab, "host3", GROUP), listen(lab, "host1", GROUP)]
    others = [listen(lab, host, GROUP) for host in more_listeners]
    lab.viewer = viewers[1]
    return viewers, others


def start_watching(lab):
    wait_for_outputs(lab, BOTH)
    lab.stream = start_stream(lab, GROUP, count=SENT, per_second=PER_SECOND)
    wait_for(lambda: received(lab.viewer) > 0, 20, "stream")
    lab.ends = ends_on_br0(lab)


def ends_on_br0(lab):
    return len(ENDED_ON_BR0.findall(log_of(lab.daemon)))


def lost(lab):
    assert wait_for_end(lab.stream, 2 * SENT / PER_SECOND) == 0
    try:
        wait_for(lambda: received(lab.viewer) == SENT, 1)
    except DeadlineMissed:
        pass
    return SENT - received(lab.viewer)


def start_version_1_viewing(make_lab, *without):
    """The viewer speaks version 1; another host of its LAN speaks version 2."""
    lab = make_lab(second_lan=True)
    # Set later, it would not change the answer to a query that has come already.
    run(lab, "host1", "sysctl", "-q", "net.ipv6.conf.eth0.force_mld_version=1")
    start_on_both_lans(lab, *without)
    viewers, (lab.leaver,) = view_on_both(lab, "host2")
    wait_for(lambda: any(mld.group == GROUP for mld in mld_messages(lab.at_viewer, MLD_V1_REPORT)), what="version 1")
    wait_until_all_is_said(viewers[0], lab.leaver)
    start_watching(lab)
    return lab


def test_version_1_viewer_stays_on_a_lan_that_loses_the_group(make_lab, record_property):
    """The daemon does not take its answers, and at the other LAN's next report it writes an entry without its LAN."""
    healed = start_version_1_viewing(make_lab)
    untouched = start_version_1_viewing(make_lab, "ask-after-leave", "ask-after-end", "add-outputs")
    for lab in (healed, untouched):
        stop(lab.leaver)
    for lab in (untouched, healed):
        wait_for(lambda lab=lab: ends_on_br0(lab) > lab.ends, END_DEADLINE_S, "end on br0")
        if lab is untouched:
            mute(lab, "host1")  # the daemon's next general query would bring its group back
    for lab in (healed, untouched):
        send_frame(lab, "host3", "eth0", frames.report("host3", [("IS_EX", GROUP, ())]))
    wait_for_outputs(untouched, OTHER_LAN)
    lost_when_healed, lost_when_untouched = lost(healed), lost(untouched)
    record_property("lost", f"{lost_when_healed}, without the remedies {lost_when_untouched} of {SENT}")
    assert lost_when_healed <= MOST_LOST
    assert lost_when_untouched >= SENT // 2
    assert kernel_view.forwarding_of(healed, GROUP) == BOTH


def start_unheard_viewing(make_lab, *without):
    """A stranger says that the viewer's LAN wants nothing, and the viewer's answers do not get through.

    A bridge with snooping would close the viewer's port by itself.
    """
    lab = start_lan(make_lab, *without)
    run(lab, "router", "ip", "link", "set", "br0", "type", "bridge", "mcast_snooping", "0")
    viewers, _ = view_on_both(lab)
    wait_until_all_is_said(*viewers)
    start_watching(lab)
    mute(lab, "host1")
    send_frame(lab, "host2", "eth0", frames.report("host2", [("TO_IN", GROUP, ())]))
    return lab


def asked_since(lab, begin):
    return [mld for mld in queries(lab.at_viewer, group=GROUP) if mld.time > begin]


def test_lan_that_was_taken_out_is_asked_who_still_listens(make_lab, record_property):
    healed, untouched = start_unheard_viewing(make_lab), start_unheard_viewing(make_lab, "ask-after-end")
    for lab in (healed, untouched):
        wait_for(lambda lab=lab: ends_on_br0(lab) > lab.ends, END_DEADLINE_S, "end on br0")
        unmute(lab, "host1")
        lab.ended = time.time()
    wait_for_outputs(untouched, OTHER_LAN, END_DEADLINE_S)
    wait_for(lambda: asked_since(healed, healed.ended), what="question")
    wait_for_outputs(healed, BOTH)
    assert asked_since(untouched, untouched.ended) == []
    lost_when_healed, lost_when_untouched = lost(healed), lost(untouched)
    record_property("lost", f"{lost_when_healed}, without the remedy {lost_when_untouched} of {SENT}")
    # On a busy machine the output is taken out before the viewer is heard again, and the second question counts.
    assert lost_when_healed <= MOST_LOST + PER_SECOND
