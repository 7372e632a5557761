"""The long form, run by hand: a fast stream through many refreshes of its any-source group, on every processor.

   TARNWICK_PROGRAMS=build/dev /usr/bin/python3 -m pytest -p no:cacheprovider tests/netns/long_refreshes.py

Takes about four minutes of processor time. Its figures depend on the machine: a datagram is lost where one processor
forwards it while another writes the entry's outputs.
"""

import re
import time

import pytest

import frames
import kernel_view
from forwarding_count import counted, start_counting
from kernel_view import ANY
from laboratory import PORT, S1, log_of, start, stop, wait_for
from proxy import start_companion, start_daemon
from test_assist_entries import GROUP, REFRESHES, refresh_once, wait_for_outputs
from traffic import program, send_frame

PER_SECOND = 26_000
ROUNDS = 10
LONGEST_ROUND_S = 600


def start_fast_stream(lab):
    return start(lab, "source", program("mcast_send"), "-i", "src0", "-g", GROUP, "-p", str(PORT), "-s", S1,
                 "-n", str(LONGEST_ROUND_S * PER_SECOND), "-r", str(PER_SECOND), "-k")


def count_round(lab, refresh):
    """Datagrams sent, those of them that arrived, those that were lost in forwarding, and seconds."""
    before = counted(lab)
    stream = start_fast_stream(lab)
    wait_for(lambda: counted(lab).forwarded > before.forwarded, what="stream")
    begin = time.monotonic()
    for _ in range(REFRESHES):
        refresh_once(lab, refresh)
    seconds = time.monotonic() - begin
    stop(stream)
    sent = int(re.search(r"sent (\d+)", log_of(stream)).group(1))
    wait_for(lambda: counted(lab).arrived == before.arrived + sent, what="all datagrams")
    return sent, counted(lab).lost - before.lost, seconds


@pytest.mark.parametrize("without", [(), ("bridge-refresh",)], ids=["with", "without"])
def test_fast_stream_through_refreshes(lab, record_property, without):
    start_daemon(lab)
    start_companion(lab, without=without)
    refresh = frames.report("host1", [("IS_EX", GROUP, ())])
    send_frame(lab, "host1", "eth0", refresh)
    wait_for_outputs(lab, {ANY: {"br0"}})
    if not without:
        wait_for(lambda: GROUP in kernel_view.shields(lab), what="first shield")
    start_counting(lab, GROUP)
    rounds = [count_round(lab, refresh) for _ in range(ROUNDS)]
    record_property("per_second", [round(sent / seconds) for sent, _lost, seconds in rounds])
    record_property(f"lost_in_{REFRESHES}_refreshes", [lost for _sent, lost, _seconds in rounds])
    record_property("sent", sum(sent for sent, _lost, _seconds in rounds))
