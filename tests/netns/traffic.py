"""Listeners, streams and captured frames."""

import collections
import dataclasses
import re
import socket
import struct

from scapy.layers.inet6 import (ICMPv6MLDMultAddrRec, ICMPv6MLDone, ICMPv6MLQuery, ICMPv6MLQuery2, ICMPv6MLReport,
                                ICMPv6MLReport2, IPv6, in6_chksum)
from scapy.layers.l2 import Ether
from scapy.packet import raw

import laboratory
import namespaces

MLD_QUERY, MLD_V1_REPORT, MLD_V1_DONE, MLD_V2_REPORT = 130, 131, 132, 143
RECORD_NAMES = {1: "IS_IN", 2: "IS_EX", 3: "TO_IN", 4: "TO_EX", 5: "ALLOW", 6: "BLOCK"}
ETH_P_ALL = 0x0003
SO_RCVBUFFORCE = 33
SO_TIMESTAMPNS = 35
CAPTURE_BYTES = 1 << 22
STATE_CHANGE_REPORTS = 2  # a host reports every change twice (robustness variable, RFC 3810 section 9.1)
ICMPV6 = 58
IPV6_ETHERTYPE = b"\x86\xdd"
NEXT_HEADER_OFFSET = 14 + 6
DESTINATION = slice(14 + 24, 14 + 40)
MUTE = f"""
table ip6 mute {{
  chain out {{
    type filter hook output priority filter; policy accept;
    icmpv6 type {{ {MLD_V1_REPORT}, {MLD_V1_DONE}, {MLD_V2_REPORT} }} drop
  }}
}}
"""


def program(name):
    return str(laboratory.PROGRAMS / name)


def listen(lab, host, group, *, sources=()):
    """A program on a host joins a group with an ordinary socket; returns once it has joined."""
    choice = [word for source in sources for word in ("-s", source)]
    port = str(laboratory.PORT)
    heard = capture(lab, host, "eth0")
    listener = laboratory.start(lab, host, program("mcast_join"), "-i", "eth0", "-g", group, "-p", port, *choice)
    listener.said = (heard, laboratory.HOST_LINK_LOCAL[host], group, frozenset(sources))
    laboratory.wait_for(lambda: "joined" in laboratory.log_of(listener), what=f"{host} joins {group}")
    return listener


def wait_until_all_is_said(*listeners):
    """Until hosts of MLD version 2 have repeated their joins and answered the first general query.

    A report that comes late would end the router's questions to other hosts before they are asked. And every report
    for all sources makes the daemon take the forwarding entry away and add it again, so a datagram may be lost.
    """
    for listener in listeners:
        heard, sender, group, sources = listener.said
        join, answer = ("ALLOW", "IS_IN") if sources else ("TO_EX", "IS_EX")

        def all_is_said():
            said = records(heard, sender)
            return said.count((join, group, sources)) >= STATE_CHANGE_REPORTS and (answer, group, sources) in said

        laboratory.wait_for(all_is_said, what=f"{sender} has joined {group} and answered")


def received(listener, source=None):
    """How many datagrams have reached the listener, from one source or from all."""
    return len(re.findall(rf"^datagram from {re.escape(source) if source else ''}", laboratory.log_of(listener), re.M))


def start_stream(lab, group, *, source=laboratory.S1, count=2000, per_second=100):
    """Datagrams from the WAN source to a group."""
    return laboratory.start(lab, "source", program("mcast_send"), "-i", "src0", "-g", group, "-p",
                            str(laboratory.PORT), "-s", source, "-n", str(count), "-r", str(per_second))


def send_stream(lab, group, *, source=laboratory.S1, count=50, per_second=200):
    """Sends a whole stream; returns the number of datagrams sent."""
    sender = start_stream(lab, group, source=source, count=count, per_second=per_second)
    laboratory.wait_for_end(sender, deadline_s=5 + count / per_second * 2)
    return int(re.search(r"sent (\d+)", laboratory.log_of(sender)).group(1))


@dataclasses.dataclass
class Capture:
    """Frames seen on an interface so far."""
    socket: socket.socket
    mld: list = dataclasses.field(default_factory=list)
    datagrams: collections.Counter = dataclasses.field(default_factory=collections.Counter)  # group -> number
    first_datagram: dict = dataclasses.field(default_factory=dict)  # group -> time


@dataclasses.dataclass(frozen=True)
class Mld:
    """One MLD message on the wire. `records` of a v2 report: (kind, group, frozenset of sources)."""
    time: float
    type: int
    sender: str
    group: str
    sources: tuple
    records: tuple
    frame: bytes


def capture(lab, node, interface):
    """Notes every frame that the node's interface sends or gets from now on."""
    with namespaces.entered(lab.nodes[node]):
        receiver = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, CAPTURE_BYTES)
    receiver.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
    receiver.bind((interface, ETH_P_ALL))
    receiver.setblocking(False)
    return Capture(receiver)


def drain(captured):
    while True:
        try:
            frame, control, _flags, _address = captured.socket.recvmsg(2048, 64)
        except BlockingIOError:
            return captured
        seconds, nanoseconds = struct.unpack("qq", control[0][2][:16])
        next_header = frame[NEXT_HEADER_OFFSET] if frame[12:14] == IPV6_ETHERTYPE else None
        if next_header == socket.IPPROTO_UDP:
            group = socket.inet_ntop(socket.AF_INET6, frame[DESTINATION])
            captured.datagrams[group] += 1
            captured.first_datagram.setdefault(group, seconds + nanoseconds / 1e9)
        elif next_header == socket.IPPROTO_HOPOPTS:  # every MLD message carries the router alert option
            mld = to_mld(seconds + nanoseconds / 1e9, frame)
            captured.mld += [mld] if mld else []


def mld_messages(captured, message_type=None):
    """The MLD messages among the captured frames, decoded by scapy."""
    return [mld for mld in drain(captured).mld if message_type in (None, mld.type)]


def queries(captured, group=None, sender=None):
    return [mld for mld in mld_messages(captured, MLD_QUERY)
            if group in (None, mld.group) and sender in (None, mld.sender)]


def records(captured, sender=None):
    """Every record of every v2 report, in the order of the wire."""
    return [record for mld in mld_messages(captured, MLD_V2_REPORT) if sender in (None, mld.sender)
            for record in mld.records]


def datagrams(captured, group):
    """How many UDP datagrams to a group were captured."""
    return drain(captured).datagrams[group]


def to_mld(time, frame):
    packet = Ether(frame)
    ip = packet[IPv6]
    for layer in (ICMPv6MLQuery2, ICMPv6MLQuery, ICMPv6MLReport, ICMPv6MLDone):
        if layer in packet:
            mld = packet[layer]
            return Mld(time, mld.type, ip.src, mld.mladdr, tuple(getattr(mld, "sources", None) or ()), (), frame)
    if ICMPv6MLReport2 in packet:
        found = tuple((RECORD_NAMES.get(record.rtype, str(record.rtype)), record.dst, frozenset(record.sources or ()))
                      for record in every_record(packet[ICMPv6MLReport2]))
        return Mld(time, MLD_V2_REPORT, ip.src, "", (), found, frame)
    return None


def every_record(report):
    """scapy nests each record in the one before it."""
    for record in report.records:
        while isinstance(record, ICMPv6MLDMultAddrRec):
            yield record
            record = record.payload


def checksum_is_good(frame):
    """Computed by scapy over the ICMPv6 message as it was on the wire, its checksum included."""
    ip = Ether(frame)[IPv6]
    icmp = raw(ip.payload.payload)
    return in6_chksum(ICMPV6, ip, icmp) in (0, 0xffff)


def send_frame(lab, node, interface, packet):
    """Puts one frame on the wire, as a host with a stack of its own would."""
    with namespaces.entered(lab.nodes[node]):
        sender = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    with sender:
        sender.bind((interface, 0))
        sender.send(raw(packet))


def mute(lab, host):
    """From now on nobody hears what the host's own stack has to say about its groups."""
    rules = lab.directory / "mute"
    rules.write_text(MUTE)
    laboratory.run(lab, host, "nft", "-f", str(rules))


def unmute(lab, host):
    laboratory.run(lab, host, "nft", "delete", "table", "ip6", "mute")
