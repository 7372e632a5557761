"""Faults of a stream's path: hosts, upstream, the kernel's entry, the LAN output; each with the verdict that names it."""

import contextlib
import threading

import kernel_faults
import kernel_view
from check_lab import (FROM_LAN, LAST_HOP, LONG, QUIET, STREAM, WITH_SOURCE, WITHOUT_SOURCE, Fault, check,
                       companion_of, findings, kill, restart, router, send, stopped)
from kernel_faults import MCAST_JOIN_GROUP, MCAST_LEAVE_GROUP, MRT6_ADD_MFC, MRT6_DEL_MFC
from laboratory import BR0_LINK_LOCAL, S1, S2, wait_for
from router_faults import rules, saved_forward_drop

MOST_COPIES = 8
AGAIN_AFTER_S = 0.2


@contextlib.contextmanager
def nothing(_lab):
    yield


@contextlib.contextmanager
def over_and_over(action):
    """Since the hosts' next reports would mend it."""
    is_over = threading.Event()

    def repeat():
        while not is_over.wait(AGAIN_AFTER_S):
            with contextlib.suppress(AssertionError, OSError):  # nothing to undo now, or the daemon has ended
                action()

    repeater = threading.Thread(target=repeat)
    action()
    repeater.start()
    try:
        yield
    finally:
        is_over.set()
        repeater.join()


@contextlib.contextmanager
def not_joined(lab):
    def leave():
        with contextlib.suppress(AssertionError):  # it is not joined now
            kernel_faults.change_membership(lab, lab.daemon, MCAST_LEAVE_GROUP, "wan0", STREAM)

    with over_and_over(leave):
        yield
    with contextlib.suppress(AssertionError):  # it has been joined already
        kernel_faults.change_membership(lab, lab.daemon, MCAST_JOIN_GROUP, "wan0", STREAM)


@contextlib.contextmanager
def sender(lab, node, interface, group, **options):
    program = send(lab, node, interface, group, **options)
    yield
    kill(program)


def from_lan(lab):
    return sender(lab, "host2", "eth0", FROM_LAN)


def last_hop(lab):
    return sender(lab, "source", "src0", LAST_HOP, hop_limit=1)


# --- entry: the companion, which mends it, is stopped meanwhile


def delete_entries(lab, group, upstream):
    """With the copies that shield it."""
    with contextlib.suppress(FileNotFoundError):
        for _ in range(MOST_COPIES):
            kernel_faults.change_entry(lab, MRT6_DEL_MFC, group, upstream)


def is_served(lab):
    """Daemon and companion have done their work since their start."""
    return (any(finding.startswith("hosts on br0 want") for finding in findings(check(lab, STREAM)[1], "hosts")) and
            all(kernel_view.forwarding_of(lab, group) for group in (kernel_view.ANY, STREAM)))


@contextlib.contextmanager
def entry_changed(lab, group, parent=None, outputs=()):
    """Without a parent there is no entry."""
    wait_for(lambda: is_served(lab), 60, "work of programs that have just been started")
    numbers = {name: kernel_faults.index_of(lab, name) for name in ("wan0", "br0")}

    def change():
        delete_entries(lab, group, numbers["wan0"])
        if parent:
            kernel_faults.change_entry(lab, MRT6_ADD_MFC, group, numbers[parent], [numbers[name] for name in outputs])

    with stopped(companion_of(lab)), over_and_over(change):
        yield
    restart(lab)


def tree_missing(lab):
    return entry_changed(lab, "::")


def entry_missing(lab):
    return entry_changed(lab, STREAM)


def output_missing(lab):
    return entry_changed(lab, STREAM, "wan0")


def wrong_parent(lab):
    return entry_changed(lab, STREAM, "br0", ["br0"])


# --- output


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
    wait_for(lambda: f"lan-a grp {STREAM}" in router(lab, "bridge", "mdb"), 60, "group on lan-a")
    router(lab, "bridge", "mdb", "delete", "dev", "br0", "port", "lan-a", "grp", STREAM)
    yield
    restart(lab)  # its query makes the hosts report


@contextlib.contextmanager
def port_filtered(lab):
    """By rules of the bridge's own, which a router's rules say nothing of."""
    router(lab, "nft", "add table bridge fault; add chain bridge fault c { type filter hook output priority 0; }; "
                       "add rule bridge fault c oifname lan-a ip6 daddr ff0e::/16 drop")
    yield
    router(lab, "nft", "delete table bridge fault")


STREAM_FAULTS = {
    "nobody wants it": Fault(nothing, "no host wants ff0e::999", "ff0e::999"),
    "no source named": Fault(nothing, f"{WITHOUT_SOURCE} needs a source", WITHOUT_SOURCE),
    "joined for another source": Fault(nothing, f"{WITH_SOURCE} is joined on wan0 for {S1}, not for {S2}",
                                       f"{WITH_SOURCE},{S2}"),
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
    "forwarding dropped by ip6tables": Fault(saved_forward_drop,
                                             r"drops streams from wan0 to br0 .*filter FORWARD, \d+ packets counted"),
    "packets too long": Fault(too_long, "dropped after routing: br0 sent 0 of", LONG),
    "port blocked": Fault(port_blocked, "port lan-a has the group and does not forward"),
    "port down": Fault(port_down, "port lan-a is down"),
    "group unknown to the bridge": Fault(group_unknown_to_bridge, f"br0 knows querier {BR0_LINK_LOCAL} and no port"),
    "port filtered": Fault(port_filtered, "port lan-a has the group and sends 0 packets of it"),
}
