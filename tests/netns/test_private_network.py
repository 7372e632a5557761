"""tarnwick-run --network=private: daemon and companion in a network of their own."""

import os
import pathlib
import random
import signal
import statistics
import threading
import time

import pytest

import kernel_view
import private_network
import supervisor
from laboratory import BR0_MAC, configure, has_ended, log_of, run, send_signal, start, stop, wait_for, wait_for_end
from private_network import LONG_LAN, LONG_UPSTREAM, everything, explain, links, outer_links
from traffic import MLD_V2_REPORT, capture, datagrams, listen, mld_messages, received, send_stream, start_stream

GROUP = "ff0e::1:2:3"
OTHER_GROUP = "ff0e::1:2:4"
DATAGRAMS = 300
WAN0_MAC, WAN0_LINK_LOCAL = "02:00:00:00:02:fe", "fe80::ff:fe00:2fe"
DEADLINE_S = 80  # a host that misses the first query is asked again after 30 s
ROUNDS = int(os.environ.get("TARNWICK_PRIVATE_STARTS", "100"))
PERMANENT = 2  # MDB_RTR_TYPE_PERM of linux/if_bridge.h
EVENT_ROUNDS = int(os.environ.get("TARNWICK_PRIVATE_ROUNDS", "1"))  # 50 by hand
NET_ADMIN_AND_NET_RAW = 1 << 12 | 1 << 13  # linux/capability.h


def wait_for_stream(lab, listener, group=GROUP):
    before = received(listener)
    sender = start_stream(lab, group, count=9000, per_second=100)
    wait_for(lambda: received(listener) > before + 10, DEADLINE_S, "stream")
    stop(sender)


def expect_all_and_none(lab, joined, other_capture):
    """Every datagram reaches the port that has joined and none the port that has not."""
    before = (received(joined), datagrams(other_capture, GROUP))
    assert send_stream(lab, GROUP, count=DATAGRAMS, per_second=100) == DATAGRAMS
    wait_for(lambda: received(joined) >= before[0] + DATAGRAMS, what="datagrams at the port that has joined")
    assert (received(joined) - before[0], datagrams(other_capture, GROUP) - before[1]) == (DATAGRAMS, 0)


def expect_nothing_but_multicast(inside):
    """No address but the link-local ones; no routers heard, nothing forwarded but multicast."""
    found = private_network.addresses(inside)
    assert sorted(found) == ["down0", "up0"]
    assert [[address[:6] for address in of] for of in found.values()] == [["fe80::"], ["fe80::"]]
    for interface in ("all", "up0", "down0"):
        assert private_network.setting(inside, interface, "forwarding") == "0"
        assert private_network.setting(inside, interface, "accept_ra") == "0"


def expect_two_capabilities(supervised):
    for name, pid in supervisor.wait_for_children(supervised).items():
        status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
        for kind in ("CapPrm", "CapEff", "CapBnd"):
            assert int(status.split(f"{kind}:\t")[1].split()[0], 16) == NET_ADMIN_AND_NET_RAW, name


def test_long_names_and_high_indexes_get_every_datagram_to_the_right_port(lab, record_property):
    private_network.give_long_names(lab)
    before = everything(lab)
    supervised = private_network.start(lab, LONG_UPSTREAM, LONG_LAN)
    outer = outer_links(lab)
    assert [link["master"] for link in outer.values()] == [LONG_LAN]
    assert [link["linkinfo"]["info_slave_data"]["multicast_router"] for link in outer.values()] == [PERMANENT]
    assert [link["inet6_addr_gen_mode"] for link in outer.values()] == ["none"], "the host is not on this link"
    assert links(lab)[LONG_LAN]["address"] == before["links"][LONG_LAN][2], "the bridge keeps its MAC address"

    inside = private_network.enter(supervised)
    assert kernel_view.multicast_interfaces(inside) == {2: "up0", 3: "down0"}
    assert kernel_view.multicast_interfaces(lab) == {}, "the host's own multicast routing is free"
    expect_nothing_but_multicast(inside)
    expect_two_capabilities(supervised)
    private_network.leave(inside)

    listener = listen(lab, "host1", GROUP)
    bystander = capture(lab, "host2", "eth0")
    private_network.send_until_bridge_snoops(lab, GROUP, listener, bystander)
    expect_all_and_none(lab, listener, bystander)
    record_property("datagrams_at_joined_port", DATAGRAMS)
    shown = run(lab, "router", "/mnt/tarnwick-status")
    assert f"up0 ({LONG_UPSTREAM})" in shown and f"down0 ({LONG_LAN})" in shown and GROUP in shown
    assert stop(supervised) == 0
    assert everything(lab) == before


def test_lan_that_is_not_a_bridge_gets_every_datagram(make_lab):
    lab = make_lab(second_lan=True)
    supervised = private_network.start(lab, downstream="br0,lan1")
    listener = listen(lab, "host3", GROUP)
    wait_for_stream(lab, listener)
    before = received(listener)
    assert send_stream(lab, GROUP, count=DATAGRAMS, per_second=100) == DATAGRAMS
    # Each report of the host makes the daemon remake its entry, which may cost a datagram.
    wait_for(lambda: received(listener) >= before + DATAGRAMS - 2, what="datagrams")
    assert stop(supervised) == 0
    assert outer_links(lab) == {}


def senders_of_reports(captured):
    """MAC and link-local addresses of who reports to the provider."""
    return {(bytes(mld.frame[6:12]).hex(":"), mld.sender) for mld in mld_messages(captured, MLD_V2_REPORT)
            if mld.sender != "::"}


def test_provider_sees_one_more_station_which_stays_the_same(lab):
    seen = []
    for _ in range(2):
        supervised = private_network.start(lab)
        towards_provider = capture(lab, "source", "src0")
        listener = listen(lab, "host1", GROUP)
        wait_for(lambda: any(sender[1] != WAN0_LINK_LOCAL for sender in senders_of_reports(towards_provider)),
                 DEADLINE_S, "report upstream")
        seen.append(senders_of_reports(towards_provider) - {(WAN0_MAC, WAN0_LINK_LOCAL)})
        assert stop(supervised) == 0
        stop(listener)
    assert len(seen[0]) == 1 and seen[0] == seen[1]


def test_hosts_forward_chain_is_not_in_the_path(lab):
    # Where br_netfilter is there, bridged frames may be handed to that chain, too: another setting of the host.
    run(lab, "router", "sysctl", "-q", "-e", "net.bridge.bridge-nf-call-ip6tables=0")
    run(lab, "router", "nft", "add table ip6 wall; add chain ip6 wall forward "
                              "{ type filter hook forward priority 0 ; policy drop ; }")
    supervised = private_network.start(lab)
    viewer = listen(lab, "host1", GROUP)
    wait_for_stream(lab, viewer)
    assert stop(supervised) == 0
    host_mode = supervisor.start(lab)
    before = received(viewer)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP), DEADLINE_S, "forwarding entry")
    send_stream(lab, GROUP, count=50)
    assert received(viewer) == before, "the wall stands in the way of the host's own network"
    assert stop(host_mode) == 0


def test_large_frames_of_a_bridge_stay_allowed(lab):
    configure(lab, "router", "link set lan-a mtu 9000\nlink set lan-b mtu 9000\n")
    wait_for(lambda: links(lab)["br0"]["mtu"] == 9000)
    supervised = private_network.start(lab)
    assert {name: links(lab)[name]["mtu"] for name in ("br0", "tarnwick0")} == {"br0": 9000, "tarnwick0": 9000}
    assert stop(supervised) == 0


def test_port_that_the_spanning_tree_keeps_closed_is_waited_for(lab):
    configure(lab, "router", "link set br0 type bridge stp_state 1 forward_delay 300\n")
    supervised = private_network.start(lab)
    assert outer_links(lab)["tarnwick0"]["linkinfo"]["info_slave_data"]["state"] == "forwarding"
    assert stop(supervised) == 0


def add_second_bridge(lab):
    configure(lab, "router", "link set lan-b nomaster\nlink add br1 address 02:00:00:00:04:fe type bridge\n"
                             "link set lan-b master br1\nlink set br1 up\n")


def test_two_networks_stand_side_by_side_and_one_survives_the_others_death(lab):
    add_second_bridge(lab)
    before = everything(lab)
    first = private_network.start(lab, downstream="br0")
    second = private_network.start(lab, downstream="br1")
    viewer, other_viewer = listen(lab, "host1", GROUP), listen(lab, "host2", OTHER_GROUP)
    wait_for_stream(lab, viewer, GROUP)
    wait_for_stream(lab, other_viewer, OTHER_GROUP)
    assert {link["master"] for link in outer_links(lab).values()} == {"br0", "br1"}
    shown = start(lab, "router", "/mnt/tarnwick-status")
    assert wait_for_end(shown) == 1
    assert "(wan0, br0)" in log_of(shown) and "(wan0, br1)" in log_of(shown)

    send_signal(first, signal.SIGKILL)
    wait_for(lambda: len(outer_links(lab)) == 1, DEADLINE_S, "end of the killed supervisor's link")
    wait_for_stream(lab, other_viewer, OTHER_GROUP)
    first = private_network.start(lab, downstream="br0")
    wait_for_stream(lab, viewer, GROUP)
    assert stop(first) == 0
    assert stop(second) == 0
    assert everything(lab) == before


def test_links_of_a_killed_supervisor_are_removed_and_those_of_a_living_one_are_not(lab):
    add_second_bridge(lab)
    living = private_network.start(lab, downstream="br1")
    left_by = {"tarnwick7": "99999 since 1",                                  # ended
               "tarnwick8": "1 since 1",                                      # ended; its number is another's now
               "tarnwick9": f"1 since {private_network.start_ticks(lab, 1)}"}  # lives
    for name, maker in left_by.items():
        configure(lab, "router", f"link add {name} type veth\n"
                                 f"link set {name} alias \"tarnwick-run {maker}: br0\"\n")
    supervised = private_network.start(lab, downstream="br0")
    assert log_of(supervised).count("removing the link tarnwick") == 2
    assert set(outer_links(lab)) == {"tarnwick0", "tarnwick1", "tarnwick9"}
    assert stop(supervised) == 0
    assert set(outer_links(lab)) == {"tarnwick0", "tarnwick9"}
    assert stop(living) == 0


def remake_br0(lab, _supervised):
    configure(lab, "router", f"link delete br0\nlink add br0 address {BR0_MAC} type bridge\n"
                             "link set lan-a up master br0\nlink set lan-b up master br0\nlink set br0 up\n")


def remake_wan0(lab, _supervised):
    source = private_network.path_of_node(lab, "source")
    configure(lab, "router", "link delete wan0\n"
                             "link add wan0 address 02:00:00:00:02:fe type veth "
                             f"peer name src0 address 02:00:00:00:02:01 netns {source}\nlink set wan0 up\n")
    configure(lab, "source", "link set src0 up\naddress add 2001:db8:2::10/64 dev src0\n")


def take_port_out(lab, _supervised):
    configure(lab, "router", "link set tarnwick0 nomaster\n")


def delete_port(lab, _supervised):
    configure(lab, "router", "link delete tarnwick0\n")


def kill_daemon(_lab, supervised):
    supervisor.signal_child(supervised, "tarnwick", signal.SIGKILL)


def kill_companion(_lab, supervised):
    supervisor.signal_child(supervised, "tarnwick-assist", signal.SIGKILL)


EVENTS = (remake_wan0, remake_br0, take_port_out, delete_port, kill_daemon, kill_companion)


def test_stream_comes_back_whatever_is_made_anew_or_killed(lab, record_property):
    supervised = private_network.start(lab)
    viewer = listen(lab, "host1", GROUP)
    wait_for_stream(lab, viewer)
    chance = random.Random(ROUNDS)
    gaps = []
    for event in EVENTS * EVENT_ROUNDS:
        wait_for(lambda: "tarnwick0" in outer_links(lab) and supervisor.wait_for_children(supervised), DEADLINE_S)
        time.sleep(chance.uniform(0, 1.5))  # at any moment of the daemon's tick
        event(lab, supervised)
        began = time.monotonic()
        wait_for_stream(lab, viewer)
        gaps.append(time.monotonic() - began)
        assert not has_ended(supervised), event
    record_property("events", len(gaps))
    record_property("median_gap_s", round(statistics.median(gaps), 1))
    record_property("longest_gap_s", round(max(gaps), 1))
    assert stop(supervised) == 0
    assert supervisor.leftovers(lab) == supervisor.NOTHING
    assert outer_links(lab) == {}


def test_upstream_that_goes_away_is_waited_for(lab):
    supervised = private_network.start(lab)
    configure(lab, "router", "link delete wan0")
    supervisor.wait_for_line(supervised, r"waiting for wan0 \(not there\)")
    wait_for(lambda: outer_links(lab) == {} and supervisor.children(supervised) == {}, DEADLINE_S, "end of the network")
    assert stop(supervised) == 0


# Stands for PPPoE: like it a link without MAC addresses.
POINT_TO_POINT = "tuntap add ppp0 mode tun\nlink set ppp0 up\naddress add fe80::1/64 dev ppp0\n"


@pytest.mark.parametrize("upstream,downstream,why", [
    ("ppp0", "br0", "ppp0 cannot carry a macvlan: it is not an Ethernet interface"),
    ("lan-a", "br0", "lan-a cannot carry a macvlan: it is a port of br0; name br0 instead"),
    ("wan0", "lan-a", "lan-a cannot carry a macvlan: it is a port of br0; name br0 instead")])
def test_interface_that_cannot_carry_a_link_is_named_with_the_cure(lab, upstream, downstream, why):
    configure(lab, "router", POINT_TO_POINT)
    before = everything(lab)
    status, text = explain(lab, upstream, downstream, "--network=private")
    assert status == 1
    assert why in text and "--network=private would not work" in text and "Use --network=host" in text
    assert everything(lab) == before


def test_refused_link_is_told_and_tried_again(lab):
    supervised = private_network.start(lab, upstream="lan-a", wait=False)
    supervisor.wait_for_line(supervised, "lan-a cannot carry a macvlan: it is a port of br0; name br0 instead, or use "
                                         "--network=host")
    configure(lab, "router", "link set lan-a nomaster")
    supervisor.wait_until_ready(supervised)
    assert stop(supervised) == 0
    assert outer_links(lab) == {}


def test_explanation_proposes_the_private_network_for_long_names_and_high_indexes(lab):
    private_network.give_long_names(lab)
    before = everything(lab)
    status, text = explain(lab, LONG_UPSTREAM, LONG_LAN)
    assert status == 1
    assert f"{LONG_LAN} has index 140" in text and f"{LONG_LAN} has 10 characters" in text
    assert text.endswith("Use --network=private.\n")
    assert explain(lab, LONG_UPSTREAM, LONG_LAN, "--network=private")[0] == 0
    assert everything(lab) == before


def test_explanation_sees_a_multicast_router_of_the_host(lab):
    assert explain(lab, "wan0", "br0")[0] == 0
    other = supervisor.start(lab)
    status, text = explain(lab, "wan0", "br0")
    assert status == 1 and "another program routes IPv6 multicast" in text
    assert stop(other) == 0


def test_explanation_sees_that_the_runtime_folder_cannot_be_made(lab):
    status, text = explain(lab, "wan0", "br0", "--runtime-folder=/nowhere/tarnwick")
    assert status == 1
    assert text.count("the folder /nowhere cannot be written to (No such file or directory): --runtime-folder names "
                      "another") == 2, "for both networks"


# Kernels may be built without it; then the words must say so.
def test_ipvlan_upstream_keeps_the_parents_address_or_is_refused_in_words(lab):
    has_ipvlan = run(lab, "router", "sh", "-c", "ip link add x link wan0 type ipvlan 2>&1 || true").strip() == ""
    run(lab, "router", "ip", "link", "delete", "x", check=False)
    supervised = private_network.start(lab, options=["--upstream-link=ipvlan"], wait=has_ipvlan)
    if not has_ipvlan:
        supervisor.wait_for_line(supervised, "this kernel has no ipvlan links; use --network=host")
        assert stop(supervised) == 0
        return
    listener = listen(lab, "host1", GROUP)
    bystander = capture(lab, "host2", "eth0")
    private_network.send_until_bridge_snoops(lab, GROUP, listener, bystander)
    expect_all_and_none(lab, listener, bystander)
    assert stop(supervised) == 0


def test_many_starts_and_stops_leave_nothing(make_lab, record_property):
    """At any moment of a start, which takes 2 s: five routers side by side share the rounds."""
    labs = [make_lab() for _ in range(5)]
    chance = random.Random(1)
    moments = [chance.uniform(0, 2.4) for _ in range(ROUNDS)]
    failures = []

    def start_and_stop(lab, own_moments):
        before = everything(lab)
        for moment in own_moments:
            supervised = private_network.start(lab, wait=False)
            wait_for((lab.router_tmp / "run" / "br0" / "lock").exists, DEADLINE_S, "its folder")
            time.sleep(moment)  # the test is about stops at any moment
            status = stop(supervised, deadline_s=20)
            after = everything(lab)
            if status != 0 or after != before:
                failures.append((moment, status, after, log_of(supervised)))

    workers = [threading.Thread(target=start_and_stop, args=(lab, moments[i::len(labs)])) for i, lab in enumerate(labs)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    record_property("starts", ROUNDS)
    assert failures == []
