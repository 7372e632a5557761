"""MLD messages that a host's stack does not send on request: other queriers' queries, unusual records."""

import ipaddress

from scapy.layers.inet6 import (ICMPv6MLDMultAddrRec, ICMPv6MLQuery, ICMPv6MLQuery2, ICMPv6MLReport, ICMPv6MLReport2,
                                IPv6, IPv6ExtHdrHopByHop, RouterAlert)
from scapy.layers.l2 import Ether

from laboratory import HOST_LINK_LOCAL

RECORD_TYPES = {"IS_IN": 1, "IS_EX": 2, "TO_IN": 3, "TO_EX": 4, "ALLOW": 5, "BLOCK": 6}
ALL_NODES = "ff02::1"
ALL_MLDV2_ROUTERS = "ff02::16"


def to_group_mac(group):
    return "33:33:" + ipaddress.IPv6Address(group).packed[-4:].hex(":")


def mld_packet(sender, destination, message):
    return (Ether(dst=to_group_mac(destination)) / IPv6(src=sender, dst=destination, hlim=1)
            / IPv6ExtHdrHopByHop(options=[RouterAlert()]) / message)


def report(host, records):
    """An MLDv2 report of a host; records are (kind, group, sources)."""
    listed = [ICMPv6MLDMultAddrRec(rtype=RECORD_TYPES[kind], dst=group, sources=list(sources))
              for kind, group, sources in records]
    return mld_packet(HOST_LINK_LOCAL[host], ALL_MLDV2_ROUTERS, ICMPv6MLReport2(records=listed))


def version_1_report(sender, group):
    return mld_packet(sender, group, ICMPv6MLReport(mladdr=group))


def general_query(sender):
    return mld_packet(sender, ALL_NODES, ICMPv6MLQuery2(mrd=1, QRV=2, QQIC=125))


def group_query(sender, group, sources=()):
    """Another querier's question about a group, or about some of its sources."""
    return mld_packet(sender, group, ICMPv6MLQuery2(mrd=1000, mladdr=group, QRV=2, QQIC=125, sources=list(sources),
                                                    sources_number=len(sources)))


def version_1_general_query(sender, response_ms=1000):
    return mld_packet(sender, ALL_NODES, ICMPv6MLQuery(mrd=response_ms))
