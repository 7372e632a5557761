"""Both programs as another user who holds two capabilities, CAP_NET_ADMIN and CAP_NET_RAW, and nothing else.

The file system is read-only but for /tmp, and so is /proc/sys; no program that they start can gain powers.

What is lost against a daemon of root: it may not signal a snooping program of another user (that takes CAP_KILL), and
it may not write over state files that another user left in /tmp. The write to mc_forwarding is refused to everybody by
kernels that set it themselves as soon as multicast routing is claimed.
"""

import pathlib
import re
import signal

import pytest

import kernel_view
from kernel_view import ANY
from frames import report
from laboratory import S1, S2, log_of, run, send_signal, start, stop, wait_for
from proxy import COMPANION, DAEMON, TWO_CAPABILITIES, environment_of, flushing, start_snooping, wait_until_listening
from traffic import listen, received, send_frame, send_stream

GROUP = "ff0e::1:2:3"
STALE_GROUP = "ff0e::5"
FAST = 10  # ticks per second
DEADLINE_S = 30
CAP_NET_ADMIN, CAP_NET_RAW = 12, 13
ONLY_TWO = (1 << CAP_NET_ADMIN) | (1 << CAP_NET_RAW)
NOBODY = 65534
# Mounts of its own: only /tmp can be written.
SANDBOX = ("unshare", "--mount", "sh", "-c",
           "mount --make-rprivate / && mount -o remount,bind,ro /proc/sys 2>/dev/null || mount --bind -o ro /proc/sys "
           '/proc/sys; mount -o remount,bind,ro / && exec "$@"', "sh")


def start_in_sandbox(lab, program, ticks_per_second=1):
    wanted = environment_of(ticks_per_second)
    return start(lab, "router", *SANDBOX, *TWO_CAPABILITIES, *flushing(wanted), program, "-u", "wan0", "-d", "br0",
                 environment=wanted)


@pytest.fixture(name="router")
def both_programs(lab):
    lab.daemon = start_in_sandbox(lab, DAEMON, FAST)
    wait_until_listening(lab.daemon)
    lab.companion = start_in_sandbox(lab, COMPANION)
    wait_for(lambda: kernel_view.forwarding_of(lab, ANY) == {ANY: {"wan0"}}, DEADLINE_S, "companion's entry")
    return lab


def status_of(program):
    return pathlib.Path(f"/proc/{program.pid}/status").read_text(encoding="ascii")


def let_a_group_run_out(lab):
    send_frame(lab, "host2", "eth0", report("host2", [("ALLOW", STALE_GROUP, [S1, S2])]))
    wait_for(lambda: STALE_GROUP in kernel_view.memberships(lab, "wan0"), DEADLINE_S, "stale group")
    send_frame(lab, "host2", "eth0", report("host2", [("BLOCK", STALE_GROUP, [S1])]))
    wait_for(lambda: STALE_GROUP not in kernel_view.memberships(lab, "wan0"), DEADLINE_S, "end of the stale group")


def test_both_run_with_two_capabilities_and_nothing_else(router):
    for program in (router.daemon, router.companion):
        status = status_of(program)
        for kind in ("Eff", "Prm", "Bnd"):
            assert int(re.search(rf"^Cap{kind}:\s+(\w+)", status, re.M).group(1), 16) == ONLY_TWO
        assert re.search(r"^Uid:\s+(\d+)\s+(\d+)", status, re.M).groups() == (str(NOBODY), str(NOBODY))
        assert re.search(r"^NoNewPrivs:\s+1$", status, re.M)


def test_stream_flows_and_everything_is_taken_down_again(router):
    listener = listen(router, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(router, GROUP) == {ANY: {"br0"}}, DEADLINE_S, "entry")
    assert kernel_view.interface_flags(router, "br0") == {"PROMISC", "ALLMULTI"}
    sent = send_stream(router, GROUP)
    wait_for(lambda: received(listener) >= sent - 2, DEADLINE_S, "stream")
    assert stop(router.daemon) == 0
    assert stop(router.companion) == 0
    assert kernel_view.multicast_interfaces(router) == {}
    assert kernel_view.forwarding_of(router, ANY) == {}
    assert kernel_view.interface_flags(router, "br0") == kernel_view.interface_flags(router, "wan0") == set()


def test_multicast_forwarding_is_on_although_it_could_not_be_written(router):
    assert run(router, "router", "cat", "/proc/sys/net/ipv6/conf/all/mc_forwarding") == "1\n"
    assert "mc_forwarding" in log_of(router.daemon)


def test_state_files_are_written(router):
    send_signal(router.daemon, signal.SIGUSR1)
    counters = router.router_tmp / "tarnwick_type_messages"
    wait_for(lambda: counters.exists() and "[MLD]ifname: wan0" in counters.read_text(), DEADLINE_S, "dump")
    assert counters.stat().st_uid == NOBODY


def test_state_file_of_another_user_is_left_alone(router):
    """Lost: the files that a daemon of root has left."""
    counters = router.router_tmp / "tarnwick_type_messages"
    counters.write_text("of root\n")
    send_signal(router.daemon, signal.SIGUSR1)
    wait_for(lambda: "Create /tmp/tarnwick_type_messages failed!" in log_of(router.daemon), DEADLINE_S, "failed dump")
    assert counters.read_text() == "of root\n"


def test_snooping_program_of_another_user_gets_no_signal(router):
    """Lost: its signal. The leave record is there all the same."""
    notes = start_snooping(router)
    let_a_group_run_out(router)
    wait_for(lambda: "igmp_snooping" in log_of(router.daemon) and "not permitted" in log_of(router.daemon), DEADLINE_S,
             "refused signal")
    assert (router.router_tmp / "tarnwick_leave_record").read_text() == f"grp={STALE_GROUP}\n"
    assert notes.read_text() == "ready\n"


def test_snooping_program_of_the_same_user_gets_its_signal(router):
    notes = start_snooping(router, *TWO_CAPABILITIES)
    let_a_group_run_out(router)
    wait_for(lambda: notes.read_text() == f"ready\nUSR2\ngrp={STALE_GROUP}\n", DEADLINE_S, "signal and record")
