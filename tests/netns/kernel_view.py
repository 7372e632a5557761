"""The kernel's view: multicast interfaces, forwarding cache, memberships, interface flags."""

import dataclasses
import ipaddress
import json

import laboratory
import namespaces

ANY = "::"
SHIELD_PARENT = "0"  # of the companion's shields; no multicast interface has this number


@dataclasses.dataclass(frozen=True)
class ForwardingEntry:
    origin: str
    group: str
    parent: str  # interface name, "" while the entry is unresolved
    outputs: frozenset  # interface names


def read_table(lab, table, node="router"):
    with namespaces.entered(lab.nodes[node]):
        with open(f"/proc/thread-self/net/{table}", encoding="ascii") as file:
            return file.read()


def multicast_interfaces(lab):
    """Number -> name of every interface that is registered for multicast routing."""
    rows = [line.split() for line in read_table(lab, "ip6_mr_vif").splitlines()[1:]]
    return {int(row[0]): row[1] for row in rows}


def cache_rows(lab):
    return [line.split() for line in read_table(lab, "ip6_mr_cache").splitlines()[1:]]


def shields(lab):
    """The groups with a shield of the companion's before their entry."""
    return {str(ipaddress.IPv6Address(row[0])) for row in cache_rows(lab) if row[2] == SHIELD_PARENT}


def forwarding_entries(lab):
    """Every entry except the shields, which forward nothing."""
    names = multicast_interfaces(lab)
    entries = set()
    for group, origin, parent, _packets, _bytes, _wrong, *outputs in cache_rows(lab):
        if parent == SHIELD_PARENT:
            continue
        entries.add(ForwardingEntry(
            origin=str(ipaddress.IPv6Address(origin)),
            group=str(ipaddress.IPv6Address(group)),
            parent=names.get(int(parent), ""),
            outputs=frozenset(names[int(output.split(":")[0])] for output in outputs)))
    return entries


def forwarding_of(lab, group):
    """Origin -> output interfaces, for the entries of one group."""
    return {entry.origin: set(entry.outputs) for entry in forwarding_entries(lab) if entry.group == group}


def memberships(lab, interface, node="router"):
    """The groups that the node has joined on an interface."""
    rows = [line.split() for line in read_table(lab, "igmp6", node).splitlines()]
    return {str(ipaddress.IPv6Address(bytes.fromhex(row[2]))) for row in rows if row[1] == interface}


def members(lab, interface, group, node="router"):
    """How many sockets of the node have joined the group on an interface."""
    rows = [line.split() for line in read_table(lab, "igmp6", node).splitlines()]
    return sum(int(row[3]) for row in rows if row[1] == interface and as_text(row[2]) == group)


def wanted_sources(lab, group, interface="wan0", node="router"):
    """The sources that the node's membership of a group asks for, if any are seen.

    The kernel lists an interface only while its newest membership has sources, so an empty set says nothing: that a
    membership is for all sources, or is over, shows in the reports on the wire.
    """
    sources = set()
    for line in read_table(lab, "mcfilter6", node).splitlines()[1:]:
        _index, device, mcast, source, include, _exclude = line.split()
        if device == interface and as_text(mcast) == group and int(include) > 0:
            sources.add(as_text(source))
    return sources


def as_text(address):
    digits = address.removeprefix("0x").replace(":", "")
    return str(ipaddress.IPv6Address(bytes.fromhex(digits)))


def interface_flags(lab, interface, node="router"):
    links = json.loads(laboratory.run(lab, node, "ip", "-j", "link", "show", "dev", interface))
    return set(links[0]["flags"]) & {"PROMISC", "ALLMULTI"}
