"""The example of a packet filter: what it lets through, and what it keeps from both programs."""

import pathlib
import re

import pytest
from scapy.layers.inet6 import ICMPv6MLQuery2, ICMPv6Unknown, IPv6, IPv6ExtHdrHopByHop, RouterAlert
from scapy.layers.l2 import Ether

import kernel_view
from frames import ALL_NODES, general_query, report, to_group_mac
from laboratory import S1, log_of, run, start, stop, wait_for, wait_for_end
from proxy import start_daemon_with_short_log, start_companion, start_daemon, start_proxy
from traffic import capture, listen, program, queries, received, send_frame, send_stream, wait_until_all_is_said

FILTER = pathlib.Path(__file__).parents[2] / "packaging" / "nftables" / "tarnwick.nft"
GROUP = "ff0e::1:2:3"
SOURCE_GROUP = "ff3e::1:2:3"
FLOOD = 20_000
LOWER = "fe80::1"
LAN1_MAC = "02:00:00:00:03:fe"
LAN1_LINK_LOCAL = "fe80::ff:fe00:3fe"
NOWHERE = "[PACKET] host      : " + ":".join(["0000"] * 8)
ROUTER_ALERT = IPv6ExtHdrHopByHop(options=[RouterAlert()])


def load_filter(lab, lan="br0"):
    text = FILTER.read_text(encoding="utf-8").replace('"br0"', f'"{lan}"')
    (lab.router_tmp / "tarnwick.nft").write_text(text)
    run(lab, "router", "nft", "-f", "/tmp/tarnwick.nft")


def dropped(lab):
    """Packets dropped so far, rule by rule."""
    rules = run(lab, "router", "nft", "list", "chain", "ip6", "tarnwick", "mld").splitlines()
    found = [re.search(r"^\s*(.*?) counter packets (\d+)", rule) for rule in rules]
    return {match.group(1): int(match.group(2)) for match in found if match}


def heard_queries(lab):
    return log_of(lab.daemon).count("Received Query")


def query_from(sender, destination=ALL_NODES, hop_limit=1, header=ROUTER_ALERT):
    mac = to_group_mac(destination) if destination.startswith("ff") else LAN1_MAC
    return Ether(dst=mac) / IPv6(src=sender, dst=destination, hlim=hop_limit) / header / ICMPv6MLQuery2(mrd=1000)


def test_loading_it_twice_changes_nothing_and_it_can_be_removed(lab):
    load_filter(lab)
    once = run(lab, "router", "nft", "list", "ruleset")
    load_filter(lab)
    assert run(lab, "router", "nft", "list", "ruleset") == once
    run(lab, "router", "nft", "delete", "table", "ip6", "tarnwick")
    assert run(lab, "router", "nft", "list", "ruleset") == ""


@pytest.mark.parametrize("version", [1, 2])
def test_ordinary_hosts_join_and_leave_through_it(lab, version):
    load_filter(lab)
    run(lab, "router", "sysctl", "-q", "net.ipv6.conf.all.forwarding=1")  # MLDv1 leaves go to all routers
    run(lab, "host1", "sysctl", "-q", f"net.ipv6.conf.eth0.force_mld_version={version}")
    start_proxy(lab)
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {kernel_view.ANY: {"br0"}}, what="forwarding")
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener) >= sent - 1, what="stream")
    at_host = capture(lab, "host2", "eth0")
    stop(listener)
    wait_for(lambda: queries(at_host, group=GROUP), what="question after the leave")
    assert sum(dropped(lab).values()) == 0


def test_host_without_an_address_is_heard(lab):
    load_filter(lab)
    start_proxy(lab)
    frame = report("host2", [("ALLOW", SOURCE_GROUP, [S1])])
    frame[IPv6].src = "::"
    send_frame(lab, "host2", "eth0", frame)
    wait_for(lambda: NOWHERE in log_of(lab.daemon), what="report")
    assert sum(dropped(lab).values()) == 0


FORGED = {
    "four bytes to the router": Ether(dst=LAN1_MAC) / IPv6(src="::", dst=LAN1_LINK_LOCAL, hlim=255)
    / ICMPv6Unknown(type=130, code=0),
    "a global address": query_from("2001:db8:3::103"),
    "no router alert": Ether(dst=to_group_mac(ALL_NODES)) / IPv6(src=LOWER, dst=ALL_NODES, hlim=1)
    / ICMPv6MLQuery2(mrd=1000),
    "another option": query_from(LOWER, header=IPv6ExtHdrHopByHop()),
    "unicast": query_from(LOWER, LAN1_LINK_LOCAL),
    "a lower address": general_query(LOWER)}


def start_beside_a_lan_without_a_bridge(make_lab, is_guarded):
    """A bridge with multicast snooping drops some forged queries itself."""
    lab = make_lab(second_lan=True)
    if is_guarded:
        load_filter(lab, "lan1")
    start_daemon(lab, "-u", "wan0", "-d", "br0,lan1")
    start_companion(lab, "br0,lan1")
    return lab


def test_every_forged_query_is_heard_without_it(make_lab):
    """Shows that the check of the next test can fail."""
    lab = start_beside_a_lan_without_a_bridge(make_lab, is_guarded=False)
    for frame in FORGED.values():
        send_frame(lab, "host3", "eth0", frame)
    wait_for(lambda: heard_queries(lab) == len(FORGED), what="forged queries")


def test_no_query_from_the_lan_reaches_the_daemon(make_lab):
    lab = start_beside_a_lan_without_a_bridge(make_lab, is_guarded=True)
    for frame in FORGED.values():
        send_frame(lab, "host3", "eth0", frame)
    wait_for(lambda: sum(dropped(lab).values()) == len(FORGED), what="drops")
    assert heard_queries(lab) == 0


def test_join_works_during_a_flood_of_queries(make_lab, record_property):
    lab = start_beside_a_lan_without_a_bridge(make_lab, is_guarded=True)
    flood = start(lab, "host3", program("mld_flood"), "-i", "eth0", "-k", "queriers", "-n", str(FLOOD), "-r", "0")
    listener = listen(lab, "host1", SOURCE_GROUP, sources=[S1])
    wait_for(lambda: kernel_view.forwarding_of(lab, SOURCE_GROUP), what="forwarding")
    sent = send_stream(lab, SOURCE_GROUP)
    wait_for(lambda: received(listener) == sent, what="stream")
    assert wait_for_end(flood, deadline_s=60) == 0
    record_property("dropped", f"{sum(dropped(lab).values())} of {FLOOD}")
    assert heard_queries(lab) == 0


def test_flood_of_groups_is_cut_down_to_the_rate(make_lab, record_property):
    lab = make_lab(second_lan=True)
    load_filter(lab, "lan1")
    daemon, keeper = start_daemon_with_short_log(lab, "-u", "wan0", "-d", "br0,lan1")
    start_companion(lab, "br0,lan1")
    flood = start(lab, "host3", program("mld_flood"), "-i", "eth0", "-k", "groups", "-n", str(FLOOD), "-r", "5000")
    assert wait_for_end(flood, deadline_s=60) == 0
    wait_for(lambda: sum(dropped(lab).values()) > 0)
    record_property("dropped", f"{sum(dropped(lab).values())} of {FLOOD}")
    assert sum(dropped(lab).values()) >= FLOOD // 2
    stop(daemon)
    wait_for_end(keeper)
