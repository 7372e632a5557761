"""tarnwick-status --check names what stops a stream: every fault alone, then pairs, where the earlier one counts.

One lab takes many faults, one after another; each takes back what it did, and the lab has to be healthy at the end.
"""

import contextlib
import dataclasses
import json
import re
import signal
import socket
import subprocess
import sys
import threading

import pytest
from scapy.layers.inet6 import ICMPv6MLQuery, IPv6, IPv6ExtHdrHopByHop, RouterAlert
from scapy.layers.l2 import Ether

import kernel_faults
import laboratory
import proxy
import traffic
from kernel_faults import MCAST_JOIN_GROUP, MCAST_LEAVE_GROUP, MRT6_ADD_MFC, MRT6_DEL_MFC, MRT6_INIT

STATUS = f"{laboratory.PROGRAMS_IN_ROUTER}/tarnwick-status"
STREAM = "ff0e::101"
QUIET = "ff0e::102"  # joined, and nobody sends
FROM_LAN = "ff0e::103"
LAST_HOP = "ff0e::104"
LONG = "ff0e::105"  # longer packets than br0 takes once its MTU is changed
WITHOUT_SOURCE = "ff3e::8000:2"
TICKS_PER_SECOND = 5
VERDICT_DEADLINE_S = 40
NFT_BASE = "add table ip6 fault; add chain ip6 fault c {{ type filter hook {hook} priority 0; policy {policy}; }}; "
# Another querier, of a higher address than br0's: the daemon stays querier, and the bridge knows one.
OTHER_QUERIER = "fe80::ffff:ffff:ffff:ffff"
SENDER = """
import socket, sys, time
sender = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
sender.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, socket.if_nametoindex(sys.argv[1]))
sender.setsockopt(socket.IPPROTO_IPV6, 23, 3)  # IPV6_MTU_DISCOVER, IPV6_PMTUDISC_PROBE: never in fragments
sender.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, int(sys.argv[3]))
end = time.monotonic() + 600
while time.monotonic() < end:
    sender.sendto(bytes(int(sys.argv[4])), (sys.argv[2], 5004))
    time.sleep(0.02)
"""


@dataclasses.dataclass(frozen=True)
class Fault:
    produce: object  # a context manager of the lab
    verdict: str     # a pattern
    wanted: str = STREAM


def check(lab, *wanted, enter=None):
    """Exit status and the whole answer of one look."""
    done = subprocess.run((enter or laboratory.enter(lab, "router")) + [STATUS, "--check", *wanted, "--json"],
                          capture_output=True, text=True, timeout=60, check=False)
    assert done.stdout, done.stderr
    return done.returncode, json.loads(done.stdout)


def wait_for_verdict(lab, pattern, wanted):
    seen = []

    def is_named():
        status, answer = check(lab, wanted)
        finding = (answer["verdict"] or {}).get("finding", "none")
        seen.append(finding)
        return status == 1 and re.search(pattern, finding) and answer["verdict"]["cure"]

    try:
        laboratory.wait_for(is_named, VERDICT_DEADLINE_S, f"verdict '{pattern}'")
    except laboratory.DeadlineMissed as missed:
        raise AssertionError(f"{missed}; seen: {sorted(set(seen))}") from missed


def wait_for_health(lab, *wanted):
    def is_healthy():
        status, answer = check(lab, *wanted)
        return status == 0 or not print([step for step in answer["steps"] if step["result"] != "ok"])

    laboratory.wait_for(is_healthy, VERDICT_DEADLINE_S, "everything ok")


def start_programs(lab):
    proxy.start_proxy(lab, ticks_per_second=TICKS_PER_SECOND)


def restart(lab):
    running = [program for program in lab.programs if program.in_router and not laboratory.has_ended(program)]
    for program in running:
        laboratory.stop(program)
    start_programs(lab)


def companion_of(lab):
    return [program for program in lab.programs
            if program.log.name.endswith("tarnwick-assist.log") and not laboratory.has_ended(program)][-1]


@contextlib.contextmanager
def stopped(program):
    laboratory.send_signal(program, signal.SIGSTOP)
    try:
        yield
    finally:
        # nsenter, its parent, stops with it.
        program.process.send_signal(signal.SIGCONT)
        laboratory.send_signal(program, signal.SIGCONT)


def router(lab, *command):
    return laboratory.run(lab, "router", *command)


def send(lab, node, interface, group, hop_limit=8, length=100):
    return laboratory.start(lab, node, sys.executable, "-c", SENDER, interface, group, str(hop_limit), str(length))


def build(make_lab):
    """A router whose LAN has listeners of every group here, and whose provider sends STREAM."""
    lab = make_lab()
    start_programs(lab)
    for group in (STREAM, QUIET, FROM_LAN, LAST_HOP, LONG, WITHOUT_SOURCE):
        traffic.listen(lab, "host1", group)
    traffic.start_stream(lab, STREAM, count=60000, per_second=100)
    wait_for_health(lab, STREAM)
    return lab


# --- programs and kernel


@contextlib.contextmanager
def daemon_ended(lab):
    laboratory.stop(lab.daemon)
    yield
    proxy.start_daemon(lab, ticks_per_second=TICKS_PER_SECOND)


@contextlib.contextmanager
def other_router(lab):
    laboratory.stop(lab.daemon)
    holder = laboratory.start(lab, "router", sys.executable, "-c", (
        "import socket, time\n"
        "held = socket.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6)\n"
        f"held.setsockopt(socket.IPPROTO_IPV6, {MRT6_INIT}, 1)\n"
        "print('held', flush=True)\ntime.sleep(600)\n"))
    laboratory.wait_for(lambda: "held" in laboratory.log_of(holder), what="the other router")
    yield
    laboratory.send_signal(holder, signal.SIGKILL)
    laboratory.wait_for_end(holder)
    proxy.start_daemon(lab, ticks_per_second=TICKS_PER_SECOND)


@contextlib.contextmanager
def routing_given_up(lab):
    kernel_faults.give_up_routing(lab.daemon)
    yield
    restart(lab)


@contextlib.contextmanager
def daemon_stopped(lab):
    with stopped(lab.daemon):
        yield


@contextlib.contextmanager
def daemon_without_answer(lab):
    path = lab.router_tmp / "tarnwick_type_messages"
    path.unlink(missing_ok=True)
    path.mkdir()
    yield
    path.rmdir()


@contextlib.contextmanager
def companion_ended(lab):
    laboratory.stop(companion_of(lab))
    yield
    proxy.start_companion(lab)


@contextlib.contextmanager
def no_descriptors(lab):
    pid = str(lab.daemon.pid)
    limit = subprocess.run(["prlimit", "--pid", pid, "--nofile", "--output", "SOFT", "--noheadings"],
                           capture_output=True, text=True, check=True).stdout.strip()
    used = proxy.open_descriptors(lab.daemon)
    subprocess.run(["prlimit", "--pid", pid, f"--nofile={used + 1}:"], check=True)
    yield
    subprocess.run(["prlimit", "--pid", pid, f"--nofile={limit}:"], check=True)


@contextlib.contextmanager
def pool_full(lab):
    flood = laboratory.start(lab, "host2", traffic.program("mld_flood"), "-i", "eth0", "-k", "groups", "-n", "400",
                             "-r", "1000")
    laboratory.wait_for_end(flood, 30)
    yield
    restart(lab)


# --- interfaces


@contextlib.contextmanager
def upstream_down(lab):
    router(lab, "ip", "link", "set", "wan0", "down")
    yield
    router(lab, "ip", "link", "set", "wan0", "up")
    router(lab, "ip", "address", "replace", "2001:db8:2::1/64", "dev", "wan0")
    laboratory.wait_for(lambda: laboratory.link_local_is_ready(lab, "router", "wan0"), what="address of wan0")
    restart(lab)


@contextlib.contextmanager
def no_carrier(lab):
    for host in ("host1", "host2"):
        laboratory.run(lab, host, "ip", "link", "set", "eth0", "down")
    yield
    for host in ("host1", "host2"):
        laboratory.run(lab, host, "ip", "link", "set", "eth0", "up")
        laboratory.run(lab, host, "ip", "address", "replace", f"{laboratory.HOST_ADDRESS[host]}/64", "dev", "eth0")
    laboratory.wait_for(lambda: "LOWER_UP" in router(lab, "ip", "link", "show", "dev", "br0"), what="carrier of br0")


@contextlib.contextmanager
def address_changed(lab):
    router(lab, "ip", "address", "delete", f"{laboratory.BR0_LINK_LOCAL}/64", "dev", "br0")
    router(lab, "ip", "address", "add", "fe80::77/64", "dev", "br0")
    yield
    router(lab, "ip", "address", "delete", "fe80::77/64", "dev", "br0")
    router(lab, "ip", "address", "add", f"{laboratory.BR0_LINK_LOCAL}/64", "dev", "br0")
    restart(lab)


@contextlib.contextmanager
def no_address(lab):
    router(lab, "ip", "address", "delete", f"{laboratory.BR0_LINK_LOCAL}/64", "dev", "br0")
    yield
    router(lab, "ip", "address", "add", f"{laboratory.BR0_LINK_LOCAL}/64", "dev", "br0")
    restart(lab)


@contextlib.contextmanager
def lan_gone(lab):
    router(lab, "ip", "link", "delete", "br0")
    yield
    make_lan(lab)
    restart(lab)


@contextlib.contextmanager
def lan_made_anew(lab):
    router(lab, "ip", "link", "delete", "br0")
    make_lan(lab)
    yield
    restart(lab)


def make_lan(lab):
    router(lab, "ip", "link", "add", "br0", "address", laboratory.BR0_MAC, "type", "bridge")
    for port in ("lan-a", "lan-b"):
        router(lab, "ip", "link", "set", port, "master", "br0")
    router(lab, "ip", "link", "set", "br0", "up")
    router(lab, "ip", "address", "add", "2001:db8:1::1/64", "dev", "br0")
    laboratory.wait_for(lambda: laboratory.link_local_is_ready(lab, "router", "br0"), what="address of br0")


# --- LAN


@contextlib.contextmanager
def setting(lab, content):
    path = lab.router_tmp / "nvram"
    before = path.read_text()
    path.write_text(content)
    yield
    path.write_text(before)


def wrong_mac(lab):
    return setting(lab, "et0macaddr=02:00:00:00:99:99\n")


def no_mac(lab):
    return setting(lab, "# nothing\n")


@contextlib.contextmanager
def reports_not_taken(lab):
    kernel_faults.change_membership(lab, companion_of(lab), MCAST_LEAVE_GROUP, "br0", proxy.MLDV2_ROUTERS)
    yield
    kernel_faults.change_membership(lab, companion_of(lab), MCAST_JOIN_GROUP, "br0", proxy.MLDV2_ROUTERS)


def hear_querier(lab):
    query = (Ether(src="02:00:00:00:01:02", dst="33:33:00:00:00:01") / IPv6(src=OTHER_QUERIER, dst="ff02::1", hlim=1) /
             IPv6ExtHdrHopByHop(options=[RouterAlert()]) / ICMPv6MLQuery(mrd=100))
    traffic.send_frame(lab, "host2", "eth0", query)

    def is_known():
        return OTHER_QUERIER in router(lab, "ip", "-d", "link", "show", "br0") or any(
            OTHER_QUERIER in step["finding"] for step in check(lab)[1]["steps"])

    laboratory.wait_for(is_known, 10, "querier of the bridge")


@contextlib.contextmanager
def querier_known(lab):
    hear_querier(lab)
    yield
    router(lab, "ip", "link", "set", "br0", "type", "bridge", "mcast_snooping", "0")
    router(lab, "ip", "link", "set", "br0", "type", "bridge", "mcast_snooping", "1")


@contextlib.contextmanager
def querier_silent(lab):
    hear_querier(lab)
    # As if the query had been heard that much earlier.
    router(lab, "ip", "link", "set", "br0", "type", "bridge", "mcast_querier_interval", "45500")
    yield
    router(lab, "ip", "link", "set", "br0", "type", "bridge", "mcast_querier_interval", "25500")
    hear_querier(lab)


@contextlib.contextmanager
def rules(lab, hook, rule, policy="accept"):
    router(lab, "nft", NFT_BASE.format(hook=hook, policy=policy) + rule)
    yield
    router(lab, "nft", "delete table ip6 fault")


def drop_v2_reports(lab):
    return rules(lab, "input", "add rule ip6 fault c icmpv6 type mld2-listener-report counter drop")


def drop_v1_reports(lab):
    return rules(lab, "input", "add rule ip6 fault c iifname br0 icmpv6 type { mld-listener-report } drop")


def drop_queries(lab):
    return rules(lab, "input", "add rule ip6 fault c iifname != wan0 icmpv6 type mld-listener-query reject")


def drop_by_policy(lab):
    """The rule that people write: it does not hold for MLD, whose first header is another one."""
    return rules(lab, "input", "add rule ip6 fault c ip6 nexthdr icmpv6 accept", policy="drop")


# --- hosts and upstream


@contextlib.contextmanager
def nothing(_lab):
    yield


@contextlib.contextmanager
def report_lost(lab):
    """Between the bridge, which has seen it, and the daemon."""
    router(lab, "nft", "add table netdev fault; add chain netdev fault c { type filter hook ingress device br0 "
                       "priority 0; }; add rule netdev fault c icmpv6 type mld2-listener-report drop")
    listener = traffic.listen(lab, "host2", "ff0e::107")
    yield
    router(lab, "nft", "delete table netdev fault")
    laboratory.stop(listener)


@contextlib.contextmanager
def not_joined(lab):
    """Over and over: the hosts' next report makes the daemon join again."""
    is_over = threading.Event()

    def leave():
        while not is_over.wait(0.2):
            with contextlib.suppress(AssertionError):  # it is not joined now
                kernel_faults.change_membership(lab, lab.daemon, MCAST_LEAVE_GROUP, "wan0", STREAM)

    leaver = threading.Thread(target=leave)
    leaver.start()
    try:
        yield
    finally:
        is_over.set()
        leaver.join()
    with contextlib.suppress(AssertionError):  # it has been joined already
        kernel_faults.change_membership(lab, lab.daemon, MCAST_JOIN_GROUP, "wan0", STREAM)


@contextlib.contextmanager
def sender(lab, node, interface, group, **options):
    program = send(lab, node, interface, group, **options)
    yield
    laboratory.send_signal(program, signal.SIGKILL)
    laboratory.wait_for_end(program)


def from_lan(lab):
    return sender(lab, "host2", "eth0", FROM_LAN)


def last_hop(lab):
    return sender(lab, "source", "src0", LAST_HOP, hop_limit=1)


# --- entry and output


@contextlib.contextmanager
def tree_missing(lab):
    with stopped(companion_of(lab)):
        kernel_faults.change_entry(lab, MRT6_DEL_MFC, "::", kernel_faults.index_of(lab, "wan0"))
        yield


@contextlib.contextmanager
def entry_changed(lab, request, parent, outputs):
    upstream, lan = kernel_faults.index_of(lab, "wan0"), kernel_faults.index_of(lab, "br0")
    numbers = {"wan0": upstream, "br0": lan}
    kernel_faults.change_entry(lab, request, STREAM, numbers[parent], [numbers[name] for name in outputs])
    yield
    kernel_faults.change_entry(lab, MRT6_DEL_MFC, STREAM, upstream)
    kernel_faults.change_entry(lab, MRT6_ADD_MFC, STREAM, upstream, [lan])


@contextlib.contextmanager
def entry_missing(lab):
    upstream, lan = kernel_faults.index_of(lab, "wan0"), kernel_faults.index_of(lab, "br0")
    kernel_faults.change_entry(lab, MRT6_DEL_MFC, STREAM, upstream)
    yield
    kernel_faults.change_entry(lab, MRT6_ADD_MFC, STREAM, upstream, [lan])


def output_missing(lab):
    return entry_changed(lab, MRT6_ADD_MFC, "wan0", [])


def wrong_parent(lab):
    return entry_changed(lab, MRT6_ADD_MFC, "br0", ["br0"])


def forward_drop(lab):
    return rules(lab, "forward", "add rule ip6 fault c ip6 daddr ff00::/8 counter drop")


def forward_policy(lab):
    return rules(lab, "forward", "add rule ip6 fault c ct state established,related accept", policy="drop")


@contextlib.contextmanager
def too_long(lab):
    with sender(lab, "source", "src0", LONG, length=1400):
        router(lab, "ip", "link", "set", "br0", "mtu", "1280")
        yield
        router(lab, "ip", "link", "set", "br0", "mtu", "1500")


@contextlib.contextmanager
def port_blocked(lab):
    router(lab, "bridge", "link", "set", "dev", "lan-a", "state", "0")
    yield
    router(lab, "bridge", "link", "set", "dev", "lan-a", "state", "3")


@contextlib.contextmanager
def port_down(lab):
    router(lab, "ip", "link", "set", "lan-a", "down")
    yield
    router(lab, "ip", "link", "set", "lan-a", "up")


@contextlib.contextmanager
def group_unknown_to_bridge(lab):
    with querier_known(lab):
        laboratory.wait_for(lambda: f"lan-a grp {STREAM}" in router(lab, "bridge", "mdb"), what="group on lan-a")
        router(lab, "bridge", "mdb", "delete", "dev", "br0", "port", "lan-a", "grp", STREAM)
        yield


@contextlib.contextmanager
def port_filtered(lab):
    """By rules of the bridge's own, which a router's rules say nothing of."""
    router(lab, "nft", "add table bridge fault; add chain bridge fault c { type filter hook output priority 0; }; "
                       "add rule bridge fault c oifname lan-a ip6 daddr ff0e::/16 drop")
    yield
    router(lab, "nft", "delete table bridge fault")


PROGRAM_FAULTS = {
    "daemon stopped": Fault(daemon_stopped, r"tarnwick \(process \d+\) is stopped by a signal"),
    "daemon cannot answer": Fault(daemon_without_answer, "does not answer"),
    "companion ended": Fault(companion_ended, "tarnwick-assist does not run"),
    "descriptors used up": Fault(no_descriptors, r"tarnwick has \d+ of \d+ descriptors open, and cannot"),
    "daemon ended": Fault(daemon_ended, "tarnwick does not run here"),
    "another router": Fault(other_router, "another program holds the routing socket: .*python"),
    "routing socket given up": Fault(routing_given_up, r"tarnwick \(process \d+\) runs, but nobody holds"),
    "pool of groups full": Fault(pool_full, "128 of 128 groups are in use"),
}
INTERFACE_FAULTS = {
    "upstream down": Fault(upstream_down, "wan0 is down"),
    "LAN without carrier": Fault(no_carrier, "br0 has no carrier"),
    "link-local address changed": Fault(address_changed, "br0 has got its link-local address fe80::77 since"),
    "no link-local address": Fault(no_address, "br0 has no link-local address"),
    "interface gone": Fault(lan_gone, "br0 is gone"),
    "interface made anew": Fault(lan_made_anew, r"br0 was made anew: it has index \d+ now"),
}
LAN_FAULTS = {
    "wrong MAC address": Fault(wrong_mac,
                               "queries have the MAC address '02:00:00:00:99:99', br0 has 02:00:00:00:01:fe"),
    "no MAC address": Fault(no_mac, "queries have the MAC address '', br0 has"),
    "MLDv2 reports not taken": Fault(reports_not_taken, "br0 does not take MLDv2 reports"),
    "MLDv2 reports dropped": Fault(drop_v2_reports, r"drops ICMPv6 type 143 .* from br0: ip6 fault c"),
    "MLDv1 reports dropped": Fault(drop_v1_reports, "drops ICMPv6 type 131"),
    "queries dropped": Fault(drop_queries, "drops ICMPv6 type 130"),
    "MLD dropped by policy": Fault(drop_by_policy, "drops ICMPv6 type 143"),
    "querier silent": Fault(querier_silent, f"the querier {OTHER_QUERIER} on br0 is silent"),
}
STREAM_FAULTS = {
    "nobody wants it": Fault(nothing, "no host wants ff0e::999", "ff0e::999"),
    "report lost": Fault(report_lost, "a host behind port lan-b wants ff0e::107", "ff0e::107"),
    "no source named": Fault(nothing, f"{WITHOUT_SOURCE} needs a source", WITHOUT_SOURCE),
    "not joined": Fault(not_joined, f"{STREAM} is not joined on wan0"),
    "provider silent": Fault(nothing, f"the provider sends nothing to {QUIET}", QUIET),
    "wrong interface": Fault(from_lan, f"{FROM_LAN} arrives through br0, the wrong interface", FROM_LAN),
    "hop limit 1": Fault(last_hop, "arrive with hop limit 1, and a router does not forward", LAST_HOP),
    "static tree missing": Fault(tree_missing, "static tree .* is missing"),
    "entry missing": Fault(entry_missing, f"the kernel has no entry for {STREAM}"),
    "output missing": Fault(output_missing, f"{STREAM}\\) does not lead to br0"),
    "wrong parent": Fault(wrong_parent, f"{STREAM}\\) takes packets from br0, not from wan0"),
}
OUTPUT_FAULTS = {
    "forwarding dropped": Fault(forward_drop, r"drops streams from wan0 to br0 .*ip6 fault c, \d+ packets counted"),
    "forwarding dropped by policy": Fault(forward_policy, "drops streams from wan0 to br0"),
    "packets too long": Fault(too_long, "dropped behind routing: br0 sent 0 of", LONG),
    "port blocked": Fault(port_blocked, "port lan-a has the group and does not forward"),
    "port down": Fault(port_down, "port lan-a is down"),
    "group unknown to the bridge": Fault(group_unknown_to_bridge, f"br0 knows querier {OTHER_QUERIER} and no port"),
    "port filtered": Fault(port_filtered, "port lan-a has the group and sends 0 packets of it"),
}
FAULTS = PROGRAM_FAULTS | INTERFACE_FAULTS | LAN_FAULTS | STREAM_FAULTS | OUTPUT_FAULTS
# The first of each pair lies earlier on the path.
PAIRS = [("daemon stopped", "wrong MAC address"), ("companion ended", "forwarding dropped"),
         ("descriptors used up", "queries dropped"), ("LAN without carrier", "no MAC address"),
         ("wrong MAC address", "port down"), ("MLDv2 reports dropped", "static tree missing"),
         ("not joined", "entry missing"), ("static tree missing", "forwarding dropped"),
         ("output missing", "port blocked"), ("forwarding dropped by policy", "port filtered")]


@pytest.mark.parametrize("faults", [PROGRAM_FAULTS, INTERFACE_FAULTS, LAN_FAULTS, STREAM_FAULTS, OUTPUT_FAULTS],
                         ids=["programs", "interfaces", "lan", "stream", "output"])
def test_every_fault_alone_is_the_verdict(make_lab, faults):
    lab = build(make_lab)
    for name, fault in faults.items():
        print(name)
        with fault.produce(lab):
            wait_for_verdict(lab, fault.verdict, fault.wanted)
    wait_for_health(lab, STREAM)


def test_of_two_faults_the_earlier_is_the_verdict(make_lab):
    lab = build(make_lab)
    for earlier, later in PAIRS:
        print(earlier, "and", later)
        with FAULTS[earlier].produce(lab), FAULTS[later].produce(lab):
            wait_for_verdict(lab, FAULTS[earlier].verdict, STREAM)
    wait_for_health(lab, STREAM)


def test_enough_faults_are_produced():
    assert len(FAULTS) >= 25 and len(PAIRS) >= 10


def test_healthy_router_is_ok_with_and_without_a_group_and_from_another_network(make_lab):
    lab = build(make_lab)
    wait_for_health(lab)
    status, answer = check(lab, STREAM)
    assert (status, answer["result"], answer["verdict"]) == (0, "ok", None)
    places = [step["place"] for step in answer["steps"]]
    assert list(dict.fromkeys(places)) == ["kernel", "programs", "interface", "LAN", "hosts", "upstream", "entry",
                                           "output"]
    elsewhere = ["nsenter", f"--target={laboratory.keeper_of(lab)}", "--mount", "--pid", "--root"]
    assert check(lab, STREAM, enter=elsewhere)[1]["verdict"] is None


def test_wait_ends_when_the_verdict_changes(make_lab):
    lab = build(make_lab)
    waiting = laboratory.start(lab, "router", STATUS, "--check", STREAM, "--wait")
    laboratory.wait_for(lambda: "ok: nothing was found" in laboratory.log_of(waiting), 20, "first answer")
    assert not laboratory.has_ended(waiting)
    with companion_ended(lab):
        assert laboratory.wait_for_end(waiting, 30) == 1
    assert laboratory.log_of(waiting).splitlines()[-1].startswith("NO: tarnwick-assist does not run")
