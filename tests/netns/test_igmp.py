"""What docs/igmp.md says of the IGMP proxy's limits, as far as a little-endian machine shows it: the example's start-up.

Its whole life on a big-endian machine is tests/scenarios/igmp_end_to_end.sh.
"""

import sys

import pytest

from laboratory import PROGRAMS_IN_ROUTER, configure, log_of, run, start, wait_for_end

pytestmark = pytest.mark.skipif(sys.byteorder == "big", reason="the proxy starts on a big-endian machine")

START_FAILED = 1
NO_BUFFER_SPACE = 105  # ENOBUFS

# Joins groups on one socket until the kernel refuses: how many it took, and its error.
JOIN_MANY = """
import socket
many = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_IGMP)
for number in range(1, 255):
    request = socket.inet_aton(f"239.1.1.{number}") + socket.inet_aton("198.51.100.1")
    try:
        many.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, request)
    except OSError as refusal:
        print(number - 1, refusal.errno)
        break
"""


LEAKS_ARE_KNOWN = {"ASAN_OPTIONS": "detect_leaks=0"}  # of interfaces that were refused


def log_of_refused_start(lab):
    proxy = start(lab, "router", f"{PROGRAMS_IN_ROUTER}/igmp_router", "-u", "wan0", "-t", "20",
                  environment=LEAKS_ARE_KNOWN)
    assert wait_for_end(proxy, deadline_s=30) == START_FAILED
    return log_of(proxy)


def test_little_endian_kernel_refuses_the_routers_group(lab):
    configure(lab, "router", "address add 198.51.100.1/24 dev wan0\naddress add 192.0.2.1/24 dev br0")
    assert "Unable to add router membership for interface:br0." in log_of_refused_start(lab)


def test_second_address_of_the_upstream_interface_is_taken_for_an_interface(lab):
    configure(lab, "router", "address add 198.51.100.1/24 dev wan0\naddress add 198.51.100.2/24 dev wan0")
    log = log_of_refused_start(lab)
    assert log.count("Detected wan0 as UPSTREAM interface.") == 2
    assert "Adding VIF failed for network:wan0 Error:98." in log
    assert "Memory leaks." in log


def test_one_socket_holds_as_many_memberships_as_the_kernel_allows(lab):
    configure(lab, "router", "address add 198.51.100.1/24 dev wan0")
    allowed = int(run(lab, "router", "cat", "/proc/sys/net/ipv4/igmp_max_memberships"))
    assert run(lab, "router", "/usr/bin/python3", "-c", JOIN_MANY).split() == [str(allowed), str(NO_BUFFER_SPACE)]
