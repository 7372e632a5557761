"""Links that go down and up, interfaces that vanish: what still works goes on working."""

import pytest

import kernel_view
from kernel_view import ANY
from laboratory import configure, has_ended, log_of, stop, wait_for
from proxy import start_daemon, start_proxy
from traffic import capture, listen, queries, received, send_stream, start_stream

GROUP = "ff0e::1:2:3"
FAST = 20  # ticks per second: the next general query comes within seconds
DEADLINE_S = 30


def wait_for_entry(lab, group, outputs):
    wait_for(lambda: kernel_view.forwarding_of(lab, group) == {ANY: set(outputs)}, DEADLINE_S, f"entry of {group}")


def wait_for_stream(lab, listener):
    """Until datagrams arrive again that were sent from now on."""
    before = received(listener)
    start_stream(lab, GROUP, count=2000, per_second=100)
    wait_for(lambda: received(listener) > before + 10, DEADLINE_S, "stream")


@pytest.mark.parametrize("interface", ["wan0", "br0"])
def test_stream_flows_again_after_its_link_was_down(lab, interface):
    daemon = start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for_entry(lab, GROUP, {"br0"})
    configure(lab, "router", f"link set {interface} down")
    before = received(listener)
    assert send_stream(lab, GROUP, count=20) == 20
    assert received(listener) == before
    configure(lab, "router", f"link set {interface} up")
    wait_for_stream(lab, listener)
    assert GROUP in kernel_view.memberships(lab, "wan0")
    assert stop(daemon) == 0


def test_new_host_is_heard_after_its_link_was_down(lab):
    daemon = start_proxy(lab)
    configure(lab, "router", "link set br0 down\nlink set br0 up")
    listener = listen(lab, "host1", GROUP)
    wait_for_entry(lab, GROUP, {"br0"})
    wait_for_stream(lab, listener)
    assert stop(daemon) == 0


def test_other_lan_works_on_when_one_vanishes(make_lab):
    lab = make_lab(second_lan=True)
    daemon = start_proxy(lab, "br0,lan1", ticks_per_second=FAST)
    stays = listen(lab, "host1", GROUP)
    listen(lab, "host3", GROUP)
    wait_for_entry(lab, GROUP, {"br0", "lan1"})
    at_host = capture(lab, "host1", "eth0")
    configure(lab, "router", "link delete lan1")
    wait_for(lambda: "[QUERY] Unable to send query." in log_of(daemon), DEADLINE_S, "refused query")
    wait_for(lambda: queries(at_host, group=ANY), DEADLINE_S, "query on the LAN that is left")
    wait_for_stream(lab, stays)
    late = listen(lab, "host2", "ff0e::9")
    wait_for_entry(lab, "ff0e::9", {"br0"})
    assert not has_ended(daemon) and not has_ended(late)
    assert stop(daemon) == 0
    assert kernel_view.interface_flags(lab, "br0") == kernel_view.interface_flags(lab, "wan0") == set()


def test_daemon_runs_on_without_upstream_and_ends_cleanly(lab):
    daemon = start_proxy(lab, ticks_per_second=FAST)
    configure(lab, "router", "link delete wan0")
    at_host = capture(lab, "host1", "eth0")
    listen(lab, "host1", GROUP)
    wait_for(lambda: "setsockopt: IPV6_ADD_MEMBERSHIP fail!!!" in log_of(daemon), DEADLINE_S, "refused join")
    wait_for(lambda: queries(at_host, group=ANY), DEADLINE_S, "query")
    assert stop(daemon) == 0
    assert kernel_view.interface_flags(lab, "br0") == set()
    assert kernel_view.multicast_interfaces(lab) == {}


def test_interface_that_was_made_again_is_served_after_a_restart(make_lab):
    """The daemon knows an interface by its number, so it has to be restarted for one that was made anew."""
    lab = make_lab(second_lan=True)
    first = start_daemon(lab, "-u", "wan0", "-d", "lan1")
    configure(lab, "router", "link delete lan1\nlink add lan1 type veth peer name far1\nlink set far1 up\n"
                             "link set lan1 up\naddress add fe80::1/64 dev lan1 nodad")
    assert not has_ended(first)
    assert stop(first) == 0
    start_daemon(lab, "-u", "wan0", "-d", "lan1")
    assert set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "lan1"}
