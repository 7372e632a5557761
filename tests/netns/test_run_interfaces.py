"""tarnwick-run while interfaces go and come: streams flow again without a person."""

import os
import random
import statistics
import time

import pytest

import kernel_view
import laboratory
import namespaces
import supervisor
from laboratory import BR0_MAC, S1, S2, configure, log_of, run, start, stop, wait_for
from supervisor import NOTHING, leftovers
from traffic import listen, program, received

GROUP = "ff0e::1:2:3"
DEADLINE_S = 40
ROUNDS = int(os.environ.get("TARNWICK_RUN_ROUNDS", "8"))  # 50 by hand
SEED = int(os.environ.get("TARNWICK_RUN_SEED", "0")) or random.randrange(1 << 30)
HIGHEST_INDEX = 31  # of a multicast interface of the kernel
LINK_LOCAL = {"br0": "fe80::ff:fe00:1fe", "wan0": "fe80::ff:fe00:2fe"}


def index_of(lab, interface):
    return int(run(lab, "router", "ip", "-o", "link", "show", "dev", interface).split(":")[0])


def link_flags(lab, interface):
    return run(lab, "router", "ip", "-o", "link", "show", "dev", interface).split("<")[1].split(">")[0].split(",")


def other_index(lab, chance):
    taken = {int(line.split(":")[0]) for line in run(lab, "router", "ip", "-o", "link").splitlines()}
    return chance.choice([index for index in range(2, HIGHEST_INDEX + 1) if index not in taken])


def remake_br0(lab, index):
    configure(lab, "router", f"link add br0 index {index} address {BR0_MAC} type bridge\n"
                             "link set lan-a up master br0\nlink set lan-b up master br0\nlink set br0 up\n"
                             "address add 2001:db8:1::1/64 dev br0\n")


def remake_wan0(lab, index):
    source = namespaces.path_of(lab.nodes["source"])
    configure(lab, "router", f"link add wan0 index {index} address 02:00:00:00:02:fe type veth "
                             f"peer name src0 address 02:00:00:00:02:01 netns {source}\n"
                             "link set wan0 up\naddress add 2001:db8:2::1/64 dev wan0\n")
    configure(lab, "source", f"link set src0 up\naddress add {S1}/64 dev src0\naddress add {S2}/64 dev src0\n")


REMAKE = {"br0": remake_br0, "wan0": remake_wan0}


def start_sender(lab):
    """A stream for as long as the test; it ends with the source's interface."""
    return start(lab, "source", program("mcast_send"), "-i", "src0", "-g", GROUP, "-p", str(laboratory.PORT), "-s", S1,
                 "-n", "30000", "-r", "50")


def wait_for_stream(lab, listeners, deadline_s=DEADLINE_S):
    """Until each listener gets datagrams that were sent from now on. Returns the seconds that it took."""
    began = time.monotonic()
    sender = start_sender(lab)
    before = [received(listener) for listener in listeners]
    wait_for(lambda: all(received(one) > old + 5 for one, old in zip(listeners, before)), deadline_s, "stream")
    took = time.monotonic() - began
    stop(sender)
    return took


def test_stream_comes_back_whatever_is_made_anew_and_when(lab, record_property):
    """Each interface is deleted and made again at random moments, under its old index and under others."""
    chance = random.Random(SEED)
    record_property("seed", SEED)
    supervised = supervisor.start(lab)
    viewers = [listen(lab, "host1", GROUP), listen(lab, "host2", GROUP)]
    wait_for_stream(lab, viewers)
    gaps = []
    for i in range(ROUNDS):
        for interface in ("br0", "wan0"):
            time.sleep(chance.uniform(0, 1.5))  # at any moment of the daemon's tick
            index = index_of(lab, interface) if i % 2 == 0 else other_index(lab, chance)
            configure(lab, "router", f"link delete {interface}")
            time.sleep(chance.choice([0, 0, chance.uniform(0, 1)]))
            REMAKE[interface](lab, index)
            gaps.append(wait_for_stream(lab, viewers))
            assert supervisor.children(supervised), log_of(supervised)
    record_property("rounds", 2 * ROUNDS)
    record_property("median_gap_s", round(statistics.median(gaps), 1))
    record_property("longest_gap_s", round(max(gaps), 1))
    assert stop(supervised, deadline_s=20) == 0
    assert leftovers(lab) == NOTHING


@pytest.mark.parametrize("interface", ["br0", "wan0"])
def test_interface_that_was_renamed_is_waited_for(lab, interface):
    supervised = supervisor.start(lab)
    viewer = listen(lab, "host1", GROUP)
    wait_for_stream(lab, [viewer])
    configure(lab, "router", f"link set {interface} down\nlink set {interface} name away\nlink set away up\n")
    supervisor.wait_for_line(supervised, rf"waiting for {interface} \(not there\)")
    configure(lab, "router", f"link set away down\nlink set away name {interface}\nlink set {interface} up\n")
    wait_for_stream(lab, [viewer])
    assert stop(supervised) == 0
    assert leftovers(lab) == NOTHING


@pytest.mark.parametrize("interface", ["br0", "wan0"])
def test_interface_that_comes_late_is_waited_for(lab, interface):
    configure(lab, "router", f"link delete {interface}")
    supervised = supervisor.start(lab, wait=False)
    supervisor.wait_for_line(supervised, rf"waiting for {interface} \(not there\)")
    assert supervisor.children(supervised) == {}
    REMAKE[interface](lab, 20)
    supervisor.wait_until_ready(supervised)
    wait_for_stream(lab, [listen(lab, "host1", GROUP)])
    assert stop(supervised) == 0


def test_interface_that_is_down_is_waited_for_and_left_down(lab):
    configure(lab, "router", "link set br0 down")
    supervised = supervisor.start(lab, wait=False)
    supervisor.wait_for_line(supervised, r"waiting for br0 \(down\)")
    assert stop(supervised) == 0
    assert "UP" not in link_flags(lab, "br0")


def test_second_lan_that_comes_late_is_taken_in(make_lab):
    lab = make_lab(second_lan=True)
    configure(lab, "router", "link set lan1 down")
    supervised = supervisor.start(lab, downstream="br0,lan1")
    configure(lab, "router", "link set lan1 up")
    supervisor.wait_until_ready(supervised, times=2)
    assert set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0", "lan1"}
    assert "lan1 is there now" in log_of(supervised)
    wait_for_stream(lab, [listen(lab, "host1", GROUP), listen(lab, "host3", GROUP)])
    assert stop(supervised) == 0
    assert leftovers(lab) == NOTHING


def test_other_lan_is_not_disturbed_when_one_goes_away(make_lab):
    lab = make_lab(second_lan=True)
    supervised = supervisor.start(lab, downstream="br0,lan1")
    daemon = supervisor.children(supervised)["tarnwick"]
    configure(lab, "router", "link delete lan1")
    supervisor.wait_for_line(supervised, r"waiting for lan1 \(not there\)")
    wait_for_stream(lab, [listen(lab, "host1", GROUP)])
    assert supervisor.children(supervised)["tarnwick"] == daemon
    assert stop(supervised) == 0
    assert leftovers(lab) == NOTHING


@pytest.mark.parametrize("interface", ["br0", "wan0"])
def test_daemon_is_started_again_with_another_link_local_address(lab, interface):
    supervised = supervisor.start(lab)
    viewer = listen(lab, "host1", GROUP)
    configure(lab, "router", f"address delete {LINK_LOCAL[interface]}/64 dev {interface}\n"
                             f"address add fe80::77/64 dev {interface} nodad\n")
    supervisor.wait_until_ready(supervised, times=2)
    wait_for_stream(lab, [viewer])
    assert stop(supervised) == 0


def test_daemon_waits_for_an_address_that_was_taken_away(lab):
    supervised = supervisor.start(lab)
    viewer = listen(lab, "host1", GROUP)
    configure(lab, "router", f"address delete {LINK_LOCAL['br0']}/64 dev br0\n")
    supervisor.wait_for_line(supervised, r"waiting for br0 \(no link-local address\)")
    wait_for(lambda: supervisor.children(supervised) == {}, DEADLINE_S, "end of both programs")
    configure(lab, "router", f"address add {LINK_LOCAL['br0']}/64 dev br0 nodad\n")
    supervisor.wait_until_ready(supervised, times=2)
    wait_for_stream(lab, [viewer])
    assert stop(supervised) == 0


@pytest.mark.parametrize("interface", ["br0", "wan0"])
def test_link_that_was_put_down_stays_down_and_loses_the_daemons_flags(lab, interface):
    supervised = supervisor.start(lab)
    configure(lab, "router", f"link set {interface} down")
    supervisor.wait_for_line(supervised, rf"waiting for {interface} \(down\)")
    watched = start(lab, "router", "ip", "monitor", "link", "dev", interface)
    assert stop(supervised) == 0
    assert leftovers(lab) == NOTHING
    assert "UP" not in link_flags(lab, interface)
    stop(watched)
    assert ",UP" not in log_of(watched), "not even for a moment"


def test_flags_that_were_set_before_stay_set(lab):
    configure(lab, "router", "link set br0 promisc on")
    supervised = supervisor.start(lab)
    for _ in range(2):
        supervisor.signal_child(supervised, "tarnwick", 9)
        supervisor.wait_until_ready(supervised, times=supervisor.times_ready(supervised) + 1)
    assert stop(supervised) == 0
    assert leftovers(lab)["flags"] == {"br0": {"PROMISC"}}
