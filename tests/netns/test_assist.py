"""The companion on a real kernel: what it adds, repairs and takes away."""

import os
import pathlib
import re
import signal
import socket
import struct

import pytest

import kernel_view
import namespaces
from kernel_view import ANY
from laboratory import has_ended, log_of, run, send_signal, start, stop, wait_for, wait_for_end
from proxy import COMPANION, MLDV2_ROUTERS, start_companion, start_daemon, start_proxy
from traffic import listen, received, send_stream, start_stream

GROUP = "ff0e::1:2:3"
TRAP_GROUP = "ff0e:1:2:3::"  # dropping it on one of two LANs makes the daemon delete and replace (::, ::)
FAST = 10  # ticks per second
PER_SECOND = 200  # datagrams of a watched stream

MRT6_ADD_MFC, MRT6_DEL_MFC = 204, 205


def start_alone(lab, upstream="wan0", downstream="br0"):
    """The companion without a daemon; returns once it has looked at its interfaces."""
    companion = start(lab, "router", COMPANION, "-u", upstream, "-d", downstream)
    interfaces = 2 + downstream.count(",")
    wait_for(lambda: len(log_of(companion).splitlines()) >= interfaces, what="first look of the companion")
    return companion


def said(companion, line):
    return log_of(companion).count(f"tarnwick-assist: {line}\n")


def wait_until_said(companion, line, times=1):
    wait_for(lambda: said(companion, line) >= times, what=line)


def is_joined(lab, interface="br0"):
    return MLDV2_ROUTERS in kernel_view.memberships(lab, interface)


def static_entry(lab):
    """Parent and outputs as the kernel has them, None without an entry."""
    found = [entry for entry in kernel_view.forwarding_entries(lab) if entry.origin == entry.group == ANY]
    return (found[0].parent, set(found[0].outputs)) if found else None


RIGHT_ENTRY = ("wan0", {"wan0"})


def wait_for_right_entry(lab):
    wait_for(lambda: static_entry(lab) == RIGHT_ENTRY, what="static entry through wan0")


def change_static_entry(lab, request, parent=0, outputs=()):
    """What another program with the privilege could do."""
    address = struct.pack("=HHI16sI", socket.AF_INET6, 0, 0, bytes(16), 0)
    mask = sum(1 << output for output in outputs)
    record = address + address + struct.pack("=HxxI28x", parent, mask)
    with namespaces.entered(lab.nodes["router"]):
        changer = socket.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6)
    with changer:
        changer.setsockopt(socket.IPPROTO_IPV6, request, record)


def index_of(lab, interface):
    with namespaces.entered(lab.nodes["router"]):
        return socket.if_nametoindex(interface)


def wakes(program):
    status = pathlib.Path(f"/proc/{program.pid}/status").read_text(encoding="ascii")
    return int(re.search(r"^voluntary_ctxt_switches:\t(\d+)", status, re.M).group(1))


def pause(program):
    """Stops the program and with it the nsenter that it runs under."""
    send_signal(program, signal.SIGSTOP)
    for pid in (program.pid, program.process.pid):
        file = pathlib.Path(f"/proc/{pid}/status")
        wait_for(lambda status=file: "State:\tT" in status.read_text(encoding="ascii"), what="stop of the program")


def resume(program):
    os.kill(program.process.pid, signal.SIGCONT)  # hands it on


def last_line(lab, *command, status=None):
    """Runs a command that ends by itself with an error; the error it gave."""
    program = start(lab, "router", *command)
    ended_with = wait_for_end(program)
    assert ended_with == status if status is not None else ended_with != 0
    assert len(log_of(program).splitlines()) == 1
    return log_of(program).strip().removeprefix("tarnwick-assist: ")


# What it adds and takes away


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_signal_ends_it_and_removes_everything(lab, number):
    start_daemon(lab)
    companion = start_companion(lab)
    assert static_entry(lab) == RIGHT_ENTRY
    send_signal(companion, number)
    assert wait_for_end(companion) == 0
    assert static_entry(lab) is None
    assert not is_joined(lab)
    assert log_of(companion).splitlines()[-3:] == [
        f"tarnwick-assist: ending on signal {number}", "tarnwick-assist: removed the static entry (::, ::)",
        f"tarnwick-assist: left ff02::16 on br0, index {index_of(lab, 'br0')}"]


def test_without_a_registered_upstream_only_the_membership_is_made(lab):
    companion = start_alone(lab)
    assert is_joined(lab)
    assert static_entry(lab) is None
    wait_until_said(companion, f"wan0, index {index_of(lab, 'wan0')}, is not registered for multicast routing; "
                               "waiting for tarnwick")
    assert stop(companion) == 0
    assert not is_joined(lab)


def test_entry_is_added_when_the_daemon_registers_the_upstream(lab):
    companion = start_alone(lab)
    start_daemon(lab)
    wait_for_right_entry(lab)
    assert said(companion, f"added the static entry (::, ::) for MIF {index_of(lab, 'wan0')}, wan0") == 1


def test_every_downstream_interface_is_joined(make_lab):
    lab = make_lab(second_lan=True)
    start_alone(lab, downstream="br0,lan1")
    assert is_joined(lab, "br0") and is_joined(lab, "lan1") and not is_joined(lab, "wan0")


def test_killed_companion_is_succeeded_by_the_next_one(lab):
    start_daemon(lab)
    first = start_companion(lab)
    send_signal(first, signal.SIGKILL)
    wait_for_end(first)
    assert not is_joined(lab)
    second = start_companion(lab)
    assert stop(second) == 0
    assert static_entry(lab) is None


# What it keeps right


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_stream_flows_again_after_the_daemon_was_started_again(lab, number):
    daemon = start_proxy(lab)
    send_signal(daemon, number)
    wait_for_end(daemon)
    wait_for(lambda: kernel_view.multicast_interfaces(lab) == {})
    start_daemon(lab)
    wait_for_right_entry(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}})
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener) == sent, what=f"all {sent} datagrams")


def test_interfaces_that_are_not_there_are_waited_for(lab):
    companion = start_alone(lab, "up0", "down0,br0")
    assert said(companion, "interface up0 is not there; waiting for it") == 1
    assert said(companion, "interface down0 is not there; waiting for it") == 1
    run(lab, "router", "ip", "link", "add", "down0", "type", "veth", "peer", "name", "up0")
    wait_for(lambda: is_joined(lab, "down0"))
    wait_until_said(companion, f"up0, index {index_of(lab, 'up0')}, is not registered for multicast routing; "
                               "waiting for tarnwick")
    assert log_of(companion).count("not there") == 2


def test_membership_survives_link_down_and_up(lab):
    companion = start_alone(lab)
    run(lab, "router", "ip", "link", "set", "br0", "down")
    run(lab, "router", "ip", "link", "set", "br0", "up")
    assert is_joined(lab)
    assert said(companion, f"joined ff02::16 on br0, index {index_of(lab, 'br0')}") == 1


def test_downstream_that_was_made_again_is_joined_again(lab):
    start_alone(lab)
    before = index_of(lab, "br0")
    run(lab, "router", "ip", "link", "delete", "br0")
    run(lab, "router", "ip", "link", "add", "br0", "type", "bridge")
    assert index_of(lab, "br0") != before
    wait_for(lambda: is_joined(lab))


def test_downstream_that_was_made_again_under_its_old_index_is_joined_again(lab):
    companion = start_alone(lab)
    index = index_of(lab, "br0")
    run(lab, "router", "ip", "link", "delete", "br0")
    run(lab, "router", "ip", "link", "add", "br0", "index", str(index), "type", "bridge")
    wait_until_said(companion, f"joined ff02::16 on br0, index {index}", times=2)
    assert is_joined(lab)


def test_renamed_downstream_is_left_and_its_successor_joined(lab):
    start_alone(lab)
    run(lab, "router", "ip", "link", "set", "br0", "name", "old0")
    wait_for(lambda: not is_joined(lab, "old0"))
    run(lab, "router", "ip", "link", "add", "br0", "type", "bridge")
    wait_for(lambda: is_joined(lab))


def test_membership_comes_back_with_the_ipv6_side_of_the_interface(lab):
    companion = start_alone(lab)
    run(lab, "router", "ip", "link", "set", "br0", "mtu", "1000")
    wait_until_said(companion, f"left ff02::16 on br0, index {index_of(lab, 'br0')}")
    run(lab, "router", "ip", "link", "set", "br0", "mtu", "1500")
    wait_for(lambda: is_joined(lab))


def test_port_that_leaves_the_bridge_changes_nothing(make_lab):
    """The kernel announces it with a message that looks like that of a deleted link."""
    lab = make_lab(second_lan=True)
    companion = start_alone(lab, downstream="br0,lan1")
    run(lab, "router", "ip", "link", "set", "lan1", "master", "br0")
    run(lab, "router", "ip", "link", "set", "lan1", "nomaster")
    run(lab, "router", "ip", "link", "delete", "br0")
    wait_until_said(companion, "interface br0 is not there; waiting for it")
    assert said(companion, "interface lan1 is not there; waiting for it") == 0
    assert is_joined(lab, "lan1")


def test_upstream_that_was_made_again_gets_the_entry_with_its_new_number(lab):
    daemon = start_daemon(lab)
    companion = start_companion(lab)
    before = index_of(lab, "wan0")
    run(lab, "router", "ip", "link", "delete", "wan0")
    wait_for(lambda: static_entry(lab) is None)
    stop(daemon)
    run(lab, "router", "ip", "link", "add", "wan0", "type", "veth", "peer", "name", "wan1")
    run(lab, "router", "ip", "link", "set", "wan1", "up")
    run(lab, "router", "ip", "link", "set", "wan0", "up")
    run(lab, "router", "ip", "address", "add", "fe80::fe/64", "dev", "wan0", "nodad")
    assert index_of(lab, "wan0") != before
    start_daemon(lab)
    wait_for_right_entry(lab)
    assert not has_ended(companion)


@pytest.mark.parametrize("parent,outputs", [("wan0", ["br0"]), ("wan0", ["br0", "wan0"]), ("wan0", []),
                                            ("br0", ["wan0"])])
def test_changed_entry_is_repaired_once(lab, parent, outputs):
    """Without its shield, which would take the change."""
    start_daemon(lab)
    companion = start_companion(lab, without=["shield-static"])
    change_static_entry(lab, MRT6_ADD_MFC, index_of(lab, parent), [index_of(lab, name) for name in outputs])
    repaired = f"repaired the static entry (::, ::) for MIF {index_of(lab, 'wan0')}, wan0"
    wait_until_said(companion, repaired)
    wait_for_right_entry(lab)
    run(lab, "router", "ip", "link", "delete", "br0")  # news that is read after everything else
    wait_until_said(companion, "interface br0 is not there; waiting for it")
    assert said(companion, repaired) == 1


def test_deleted_entry_is_repaired(lab):
    start_daemon(lab)
    companion = start_companion(lab)
    change_static_entry(lab, MRT6_DEL_MFC)
    wait_until_said(companion, f"repaired the static entry (::, ::) for MIF {index_of(lab, 'wan0')}, wan0")
    wait_for_right_entry(lab)


def test_entry_is_left_alone_while_no_daemon_runs(lab):
    daemon = start_daemon(lab)
    companion = start_companion(lab)
    stop(daemon)
    wait_until_said(companion, "wan0 is no longer registered for multicast routing; waiting for tarnwick")
    change_static_entry(lab, MRT6_DEL_MFC)
    run(lab, "router", "ip", "link", "delete", "br0")
    wait_until_said(companion, "interface br0 is not there; waiting for it")
    assert "repaired" not in log_of(companion)
    start_daemon(lab, "-u", "wan0", wait=False)
    wait_for_right_entry(lab)


def test_group_whose_removal_hits_the_static_entry_stops_no_other_stream_for_a_second(make_lab, record_property):
    lab = make_lab(second_lan=True)
    daemon = start_daemon(lab, "-u", "wan0", "-d", "br0,lan1", ticks_per_second=FAST)
    companion = start_companion(lab, "br0,lan1")
    listen(lab, "host1", TRAP_GROUP)
    leaver = listen(lab, "host3", TRAP_GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, TRAP_GROUP) == {ANY: {"br0", "lan1"}})
    watcher = listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}})
    stream = start_stream(lab, GROUP, count=6 * PER_SECOND, per_second=PER_SECOND)
    wait_for(lambda: received(watcher) > 0, what="stream")
    stop(leaver)
    wait_for(lambda: "still there. Not dropping." in log_of(daemon), what="removal on lan1")
    wait_for(lambda: "repaired the static entry" in log_of(companion), what="repair")
    assert not has_ended(stream)
    wait_for_right_entry(lab)
    assert wait_for_end(stream, deadline_s=15) == 0
    lost = 6 * PER_SECOND - received(watcher)
    record_property("lost_milliseconds", lost * 1000 // PER_SECOND)
    assert lost < PER_SECOND


def test_lost_notifications_make_it_look_at_everything_again(lab):
    companion = start_alone(lab)
    index = index_of(lab, "br0")
    pause(companion)
    (lab.router_tmp / "flood").write_text("".join(f"link set lo mtu {mtu}\n" for mtu in range(2000, 3000)))
    run(lab, "router", "ip", "-batch", "/tmp/flood")
    run(lab, "router", "ip", "link", "delete", "br0")
    run(lab, "router", "ip", "link", "add", "br0", "index", str(index), "type", "bridge")
    assert not is_joined(lab)
    start_daemon(lab, "-u", "wan0", wait=False)
    wait_for(lambda: "wan0" in kernel_view.multicast_interfaces(lab).values())
    resume(companion)
    wait_for(lambda: is_joined(lab))
    wait_for_right_entry(lab)
    assert said(companion, "kernel notifications were lost; looking at everything again") == 1


# What it must not do


def test_it_sleeps_while_nothing_changes(lab):
    """For as long as a stream takes that nobody has joined; a joined one changes the forwarding cache now and then.

    Hosts' messages wake it: those of their start, and the answers to its first general query, come first.
    """
    start_daemon(lab)
    companion = start_companion(lab)

    def has_slept():
        before = wakes(companion)
        send_stream(lab, GROUP, count=400)
        return wakes(companion) == before

    # It has queried both sides of the bridge at its start, and the answers come one by one.
    wait_for(has_slept, deadline_s=40, what="two seconds of sleep")


def test_two_companions_that_disagree_do_not_keep_the_processor_busy(lab):
    start_daemon(lab)
    right = start_companion(lab, without=["shield-static"])
    wrong = start(lab, "router", COMPANION, "-u", "br0", "-d", "wan0", "--without=shield-static")
    fight = "another program keeps changing the static entry (::, ::); the next repair waits"
    wait_for(lambda: said(right, fight) + said(wrong, fight) > 0, what="end of the fight")
    assert stop(wrong) == 0
    wait_for_right_entry(lab)
    assert stop(right) == 0


def test_it_works_for_a_user_with_two_capabilities(lab):
    kept = "-all,+net_admin,+net_raw"
    start_daemon(lab)
    companion = start(lab, "router", "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                      f"--inh-caps={kept}", f"--ambient-caps={kept}", f"--bounding-set={kept}", "--no-new-privs",
                      COMPANION, "-u", "wan0", "-d", "br0")
    wait_for_right_entry(lab)
    wait_for(lambda: is_joined(lab))
    assert stop(companion) == 0
    assert static_entry(lab) is None


def test_closed_standard_error_harms_nothing(lab):
    start_daemon(lab)
    companion = start(lab, "router", "sh", "-c", f"exec {COMPANION} -u wan0 -d br0 <&- >&- 2>&-")
    wait_for_right_entry(lab)
    wait_for(lambda: is_joined(lab))
    assert stop(companion) == 0


# How it fails


def test_missing_capability_is_named(lab):
    options = (COMPANION, "-u", "wan0", "-d", "br0")
    assert last_line(lab, "setpriv", "--inh-caps=-net_raw", "--bounding-set=-net_raw", *options) == (
        "cannot open a raw ICMPv6 socket, CAP_NET_RAW is needed: Operation not permitted")
    assert last_line(lab, "setpriv", "--inh-caps=-net_admin", "--bounding-set=-net_admin", *options) == (
        "cannot use IPv6 multicast routing, CAP_NET_ADMIN is needed: Permission denied")


def test_wrong_command_line_is_refused(lab):
    assert "option -u" in last_line(lab, COMPANION, "-d", "br0", status=2)
    assert "option -d" in last_line(lab, COMPANION, "-u", "wan0", status=2)
    assert "unknown option" in last_line(lab, COMPANION, "-u", "wan0", "-d", "br0", "--wrong", status=2)
    assert "cannot be the name" in last_line(lab, COMPANION, "-u", "sixteen-letters!", "-d", "br0", status=2)


def test_help_and_version_go_to_standard_output(lab):
    for help_option in ("-h", "--help"):
        text = run(lab, "router", COMPANION, help_option)
        assert text.startswith("Usage: tarnwick-assist -u <upstream> -d <downstream>")
        assert all(option in text for option in ("--upstream", "--downstream", "--help", "--version"))
    assert re.fullmatch(r"tarnwick-assist \d+\.\d+\.\d+\n", run(lab, "router", COMPANION, "--version"))
