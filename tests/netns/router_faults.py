"""Faults of the router's programs, interfaces and LAN side, each with the verdict that names it."""

import contextlib
import subprocess
import sys

import kernel_faults
import laboratory
import proxy
import traffic
from check_lab import (NOT_HEARD, START_DEADLINE_S, TICKS_PER_SECOND, Fault, companion_of, kill, restart, router,
                       start_companion, stopped)
from kernel_faults import MCAST_JOIN_GROUP, MCAST_LEAVE_GROUP, MRT6_INIT

NFT_BASE = "add table ip6 fault; add chain ip6 fault c {{ type filter hook {hook} priority 0; policy {policy}; }}; "
NFT = "/usr/sbin/nft"
HOLDER = f"""
import socket, time
held = socket.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6)
held.setsockopt(socket.IPPROTO_IPV6, {MRT6_INIT}, 1)
print('held', flush=True)
time.sleep(600)
"""


# --- programs and kernel


@contextlib.contextmanager
def daemon_ended(lab):
    laboratory.stop(lab.daemon, START_DEADLINE_S)
    yield
    proxy.start_daemon(lab, ticks_per_second=TICKS_PER_SECOND)


@contextlib.contextmanager
def other_router(lab):
    laboratory.stop(lab.daemon, START_DEADLINE_S)
    holder = laboratory.start(lab, "router", sys.executable, "-c", HOLDER)
    laboratory.wait_for(lambda: "held" in laboratory.log_of(holder), START_DEADLINE_S, "the other router")
    yield
    kill(holder)
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
    remount = "mount -o remount,bind,ro /tmp && echo done"
    # Refused while the daemon writes an earlier answer.
    laboratory.wait_for(lambda: "done" in laboratory.run(lab, "router", "sh", "-c", remount, check=False),
                        START_DEADLINE_S, "a /tmp that nobody writes to")
    yield
    router(lab, "mount", "-o", "remount,bind,rw", "/tmp")


@contextlib.contextmanager
def companion_ended(lab):
    laboratory.stop(companion_of(lab), START_DEADLINE_S)
    yield
    start_companion(lab)


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
    laboratory.wait_for_end(flood, START_DEADLINE_S)
    yield
    restart(lab)


# --- interfaces


@contextlib.contextmanager
def upstream_down(lab):
    router(lab, "ip", "link", "set", "wan0", "down")
    yield
    router(lab, "ip", "link", "set", "wan0", "up")
    router(lab, "ip", "address", "replace", "2001:db8:2::1/64", "dev", "wan0")
    wait_for_address(lab, "wan0")
    restart(lab)


@contextlib.contextmanager
def no_carrier(lab):
    for host in ("host1", "host2"):
        laboratory.run(lab, host, "ip", "link", "set", "eth0", "down")
    yield
    for host in ("host1", "host2"):
        laboratory.run(lab, host, "ip", "link", "set", "eth0", "up")
        laboratory.run(lab, host, "ip", "address", "replace", f"{laboratory.HOST_ADDRESS[host]}/64", "dev", "eth0")
    laboratory.wait_for(lambda: "LOWER_UP" in router(lab, "ip", "link", "show", "dev", "br0"), START_DEADLINE_S,
                        "carrier of br0")


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
    wait_for_address(lab, "br0")


def wait_for_address(lab, interface):
    laboratory.wait_for(lambda: laboratory.link_local_is_ready(lab, "router", interface), START_DEADLINE_S,
                        f"address of {interface}")


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


@contextlib.contextmanager
def querier_silent(lab):
    """The bridge counts down from a longer interval: as if the query had been heard that much earlier."""
    with stopped(companion_of(lab)):
        router(lab, "ip", "link", "set", "br0", "type", "bridge", "mcast_querier_interval", "45500")
        yield
    router(lab, "ip", "link", "set", "br0", "type", "bridge", "mcast_querier_interval", "25500")


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


@contextlib.contextmanager
def saved_rules(lab, *rule):
    """Rules of ip6tables on a router without nft."""
    router(lab, "ip6tables", "-A", *rule)
    router(lab, "mount", "--bind", "/dev/null", NFT)
    yield
    router(lab, "umount", NFT)
    router(lab, "ip6tables", "-D", *rule)


def saved_input_drop(lab):
    return saved_rules(lab, "INPUT", "-i", "br0", "-p", "ipv6-icmp", "--icmpv6-type", "143", "-j", "DROP")


def saved_forward_drop(lab):
    return saved_rules(lab, "FORWARD", "-i", "wan+", "-d", "ff00::/8", "-p", "udp", "-j", "DROP")


@contextlib.contextmanager
def report_lost(lab):
    """Between the bridge, which has seen it, and the daemon."""
    router(lab, "nft", "add table netdev fault; add chain netdev fault c { type filter hook ingress device br0 "
                       "priority 0; }; add rule netdev fault c icmpv6 type mld2-listener-report drop")
    listener = traffic.listen(lab, "host2", NOT_HEARD)
    yield
    router(lab, "nft", "delete table netdev fault")
    laboratory.stop(listener)


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
    "link-local address changed": Fault(address_changed, "br0 got its link-local address fe80::77 after"),
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
    "MLD dropped by ip6tables": Fault(saved_input_drop, "drops ICMPv6 type 143 .* from br0: .*filter INPUT"),
    "querier silent": Fault(querier_silent, f"the querier {laboratory.BR0_LINK_LOCAL} on br0 is silent"),
    "report lost": Fault(report_lost, f"a host behind port lan-b wants {NOT_HEARD}", NOT_HEARD),
}
