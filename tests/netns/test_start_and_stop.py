"""Start-up and its failures, state files, and an end that leaves nothing behind."""

import os
import signal

import pytest

import kernel_view
from kernel_view import ANY
from laboratory import (BR0_LINK_LOCAL, S1, child_of, configure, has_ended, link_local_is_ready, log_of, run, send_signal,
                 start, stop, wait_for, wait_for_end)
from proxy import DAEMON, ENVIRONMENT, flushing, start_companion, start_daemon, start_proxy
from traffic import capture, listen, queries, received, records, send_stream, start_stream, wait_until_all_is_said

GROUP = "ff0e::1:2:3"
START_FAILED = 255
PROMISCUOUS = {"PROMISC", "ALLMULTI"}


def failed_start(lab, *options):
    """The log of a daemon that must not start; nothing of it may be left in the kernel."""
    daemon = start_daemon(lab, *options, wait=False)
    assert wait_for_end(daemon) == START_FAILED
    assert kernel_view.multicast_interfaces(lab) == {}
    return log_of(daemon)


def add_interface(lab, name, more=""):
    """One more interface of the router, with a link-local address; its cable ends in the router as well."""
    configure(lab, "router", f"link add {name} {more} type veth peer name far-end\nlink set far-end up\n"
                             f"link set {name} up")
    wait_for(lambda: link_local_is_ready(lab, "router", name), what=f"link-local address of {name}")


def test_interfaces_are_registered_by_their_index(make_lab):
    lab = make_lab(second_lan=True)
    start_daemon(lab, "-u", "wan0", "-d", "br0,lan1")
    registered = kernel_view.multicast_interfaces(lab)
    assert set(registered.values()) == {"wan0", "br0", "lan1"}
    for number, name in registered.items():
        assert run(lab, "router", "ip", "-o", "link", "show", name).startswith(f"{number}: ")
        assert kernel_view.interface_flags(lab, name) == PROMISCUOUS


def test_upstream_alone_is_enough(lab):
    start_daemon(lab, "-u", "wan0")
    assert set(kernel_view.multicast_interfaces(lab).values()) == {"wan0"}


@pytest.mark.parametrize("name", ["nas1", "ppp0", "absent0", "lo"])
def test_name_that_is_not_a_lan_is_skipped(lab, name):
    if name in ("nas1", "ppp0"):
        add_interface(lab, name)
    start_daemon(lab, "-u", "wan0", "-d", f"{name},br0")
    assert set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0"}


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_stop_leaves_nothing_behind(lab, number):
    daemon = start_proxy(lab)
    listen(lab, "host1", GROUP)
    listen(lab, "host2", "ff0e::5", sources=[S1])
    wait_for(lambda: kernel_view.forwarding_of(lab, "ff0e::5") == {S1: {"br0"}})
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}})
    assert kernel_view.interface_flags(lab, "br0") == PROMISCUOUS
    send_signal(daemon, number)
    assert wait_for_end(daemon) == 0
    assert kernel_view.multicast_interfaces(lab) == {}
    assert kernel_view.forwarding_of(lab, GROUP) == kernel_view.forwarding_of(lab, "ff0e::5") == {}
    assert not {GROUP, "ff0e::5"} & kernel_view.memberships(lab, "wan0")
    assert kernel_view.interface_flags(lab, "br0") == kernel_view.interface_flags(lab, "wan0") == set()
    # The kernel would remove most of this with the socket; the daemon asks for each removal, and none is refused.
    assert "fail!!!" not in log_of(daemon).partition("Stop MLD Proxy.")[2]


def test_stop_without_listeners_balances_the_memory(lab):
    daemon = start_daemon(lab)
    assert stop(daemon) == 0
    assert "No memory leaks detected." in log_of(daemon)
    assert kernel_view.forwarding_entries(lab) == set()


def test_stop_keeps_flags_that_were_set_before(lab):
    configure(lab, "router", "link set br0 promisc on")
    daemon = start_daemon(lab)
    assert stop(daemon) == 0
    assert kernel_view.interface_flags(lab, "br0") == {"PROMISC"}
    assert kernel_view.interface_flags(lab, "wan0") == set()


def test_stop_while_a_stream_flows(lab):
    daemon = start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    start_stream(lab, GROUP, count=20000, per_second=1000)
    wait_for(lambda: received(listener) > 200)
    assert stop(daemon) == 0
    assert kernel_view.multicast_interfaces(lab) == {}
    assert kernel_view.forwarding_of(lab, GROUP) == {}


def test_second_start_right_after_the_first(lab):
    daemon = start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    wait_until_all_is_said(listener)
    assert kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}
    assert stop(daemon) == 0
    assert kernel_view.forwarding_of(lab, GROUP) == {}
    at_host = capture(lab, "host1", "eth0")
    start_daemon(lab)
    # The first query brings the listener back; companion and host are the same as before.
    wait_for(lambda: ("IS_EX", GROUP, frozenset()) in records(at_host), what="answer of the host")
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}, what="group after the second start")
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener) == sent)


def test_start_after_a_crash(lab):
    daemon = start_proxy(lab)
    send_signal(daemon, signal.SIGKILL)
    wait_for_end(daemon)
    assert kernel_view.interface_flags(lab, "br0") == PROMISCUOUS  # nobody was there to restore them
    start_daemon(lab)
    listener = listen(lab, "host1", GROUP)
    wait_until_all_is_said(listener)
    assert kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener) == sent)


def test_second_daemon_is_refused_while_the_first_runs(lab):
    first = start_daemon(lab)
    second = start_daemon(lab, wait=False)
    assert wait_for_end(second) == START_FAILED
    assert "setsockopt: MRT6_INIT fail!!!" in log_of(second)
    assert not has_ended(first)
    assert set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0"}


def test_detached_daemon_works_on_after_its_parent(lab):
    at_host = capture(lab, "host1", "eth0")
    parent = start_daemon(lab, "-b", "-u", "wan0", "-d", "br0", wait=False)
    assert wait_for_end(parent) == 0
    wait_for(lambda: queries(at_host, sender=BR0_LINK_LOCAL), what="query of the detached daemon")
    pid = run(lab, "router", "pidof", "tarnwick").strip()
    session = run(lab, "router", "ps", "-o", "sid=", "-p", pid).strip()
    assert session == pid
    run(lab, "router", "kill", pid)
    wait_for(lambda: kernel_view.multicast_interfaces(lab) == {}, what="end of the detached daemon")


def test_state_files_after_sigusr1(lab):
    daemon = start_proxy(lab)
    listen(lab, "host1", GROUP)
    listen(lab, "host2", "ff0e::5", sources=[S1])
    wait_for(lambda: kernel_view.forwarding_of(lab, "ff0e::5") == {S1: {"br0"}})
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}})
    send_signal(daemon, signal.SIGUSR1)
    join_state = lab.router_tmp / "tarnwick_join_state"
    wait_for(lambda: join_state.exists() and join_state.read_text().count("\n") == 2, what="state files")
    lines = sorted(line.rsplit(" ", 1)[0] for line in join_state.read_text().splitlines())
    assert lines == [f"ifname: br0 group: {GROUP} average:", "ifname: br0 group: ff0e::5 average:"]
    lan, wan = (lab.router_tmp / "tarnwick_type_messages").read_text().splitlines()
    assert lan.startswith("[MLD]ifname: br0 query: ") and wan.startswith("[MLD]ifname: wan0 query: ")
    assert (lab.router_tmp / "tarnwick_host_in_group").read_bytes() == b""
    assert not has_ended(daemon)


def test_missing_upstream_ends_the_start(lab):
    log = failed_start(lab, "-u", "absent0", "-d", "br0")
    assert "Couldn't find out link local address for interfaces: absent0" in log


def test_no_upstream_given_prints_the_usage(lab):
    log = failed_start(lab, "-d", "br0")
    assert log.startswith("Usage: tarnwick [-v] [-b] -u <interface name>")


@pytest.mark.parametrize("interface", ["wan0", "br0"])
def test_missing_link_local_address_ends_the_start(lab, interface):
    configure(lab, "router", f"address flush dev {interface} scope link")
    log = failed_start(lab)
    assert f"Couldn't find out link local address for interfaces: {interface}" in log
    assert kernel_view.interface_flags(lab, "wan0") - PROMISCUOUS == set()


def test_name_of_nine_characters_ends_the_start(lab):
    add_interface(lab, "lanbridge")
    log = failed_start(lab, "-u", "wan0", "-d", "lanbridge")
    assert "Couldn't find out link local address for interfaces: lanbridge" in log


def test_interface_number_beyond_the_kernels_table_ends_the_start(lab):
    add_interface(lab, "far0", "index 40")
    log = failed_start(lab, "-u", "wan0", "-d", "far0")
    assert "setsockopt: MRT6_ADD_MIF fail!!!" in log


def test_start_without_permission_fails(lab):
    daemon = start(lab, "router", "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                   *flushing({}), DAEMON, "-u", "wan0", "-d", "br0", environment=ENVIRONMENT)
    assert wait_for_end(daemon) == START_FAILED
    assert "E:mld :init_mld_socket" in log_of(daemon)


def test_two_permissions_are_enough(lab):
    """The daemon does not drop capabilities itself; an operator can start it with these two alone."""
    daemon = start(lab, "router", "setpriv", "--bounding-set=-all,+net_admin,+net_raw", *flushing({}), DAEMON,
                   "-u", "wan0", "-d", "br0", environment=ENVIRONMENT)
    wait_for(lambda: set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0"})
    assert stop(daemon) == 0


def test_lab_is_alone_with_its_files_and_processes(lab):
    """Because of this, labs can run side by side."""
    start_daemon(lab)
    assert run(lab, "router", "ls", "/tmp").split() == ["nvram"]
    assert str(os.getpid()) not in run(lab, "router", "ps", "-e", "-o", "pid=").split()
    assert child_of(lab.keeper.pid)
    start_companion(lab)
