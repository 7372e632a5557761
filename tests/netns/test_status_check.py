"""tarnwick-status --check names what stops a stream: every fault alone, then pairs, where the earlier one counts.

One lab takes a list of faults, one after another; each takes back what it did, and the lab has to be healthy at the
end. The labs stand side by side, since most of the time is spent waiting.
"""

import concurrent.futures
import contextlib
import multiprocessing
import sys
import time

import pytest
from scapy.layers.inet6 import (ICMPv6MLDMultAddrRec, ICMPv6MLQuery, ICMPv6MLReport2, IPv6, IPv6ExtHdrHopByHop,
                                RouterAlert)
from scapy.layers.l2 import Ether

import check_lab
import laboratory
import private_network
import proxy
import router_faults
import supervisor
import traffic
from router_faults import INTERFACE_FAULTS, LAN_FAULTS, PROGRAM_FAULTS
from stream_faults import OUTPUT_FAULTS, STREAM_FAULTS

FAULTS = PROGRAM_FAULTS | INTERFACE_FAULTS | LAN_FAULTS | STREAM_FAULTS | OUTPUT_FAULTS
# The first of each pair lies earlier on the path.
PAIRS = [("daemon stopped", "wrong MAC address"), ("companion ended", "forwarding dropped"),
         ("descriptors used up", "queries dropped"), ("LAN without carrier", "no MAC address"),
         ("wrong MAC address", "port down"), ("MLDv2 reports dropped", "static tree missing"),
         ("not joined", "entry missing"), ("static tree missing", "forwarding dropped"),
         ("output missing", "port blocked"), ("forwarding dropped by policy", "port filtered")]
MOST_IN_A_LAB = 6
LABS_AT_ONCE = 8
TO_EXCLUDE = 4  # RFC 3810, section 5.2.12


def in_portions(cases):
    return [cases[first:first + MOST_IN_A_LAB] for first in range(0, len(cases), MOST_IN_A_LAB)]


def portions():
    """Lists of cases; a case is the names of the faults that are there together, the verdict's first."""
    alone = [[(name,) for name in faults] for faults in (PROGRAM_FAULTS, INTERFACE_FAULTS, LAN_FAULTS, STREAM_FAULTS,
                                                          OUTPUT_FAULTS)]
    return [portion for cases in alone + [PAIRS] for portion in in_portions(cases)]


def try_case(lab, names):
    """"" or why the verdict was not given. The faults are taken back either way."""
    with contextlib.ExitStack() as produced:
        for name in names:
            produced.enter_context(FAULTS[name].produce(lab))
        try:
            check_lab.wait_for_verdict(lab, FAULTS[names[0]])
        except laboratory.DeadlineMissed as missed:
            return str(missed)
    return ""


def try_portion(cases):
    """Case -> "" or why its verdict was not given, and what became of the lab at the end."""
    results = dict.fromkeys(cases, "not tried: an earlier fault could not be taken back")
    lab = laboratory.build()
    case = "the lab"
    try:
        check_lab.build(lab)
        for case in cases:
            began = time.monotonic()
            results[case] = try_case(lab, case)
            print(f"{' and '.join(case)}: {time.monotonic() - began:.1f} s")
        case = "healthy after " + " and ".join(cases[-1])
        check_lab.wait_for_health(lab, check_lab.STREAM)
    except Exception as error:  # whatever it is, it is this portion's result
        results[case] = repr(error)
    finally:
        laboratory.remove(lab)
    return results


@pytest.fixture(scope="session")
def results():
    found = {}
    fork = multiprocessing.get_context("fork")
    with concurrent.futures.ProcessPoolExecutor(LABS_AT_ONCE, fork) as pool:
        for of_portion in pool.map(try_portion, portions()):
            found |= of_portion
    return found


@pytest.mark.parametrize("name", FAULTS)
def test_fault_alone_is_the_verdict(results, name):
    assert results[(name,)] == ""


@pytest.mark.parametrize("pair", PAIRS, ids=" and ".join)
def test_of_two_faults_the_earlier_is_the_verdict(results, pair):
    assert results[pair] == ""


def test_every_lab_is_healthy_once_its_faults_are_taken_back(results):
    assert {place: why for place, why in results.items() if isinstance(place, str)} == {}


def test_enough_faults_are_produced():
    assert len(FAULTS) >= 25 and len(PAIRS) >= 10


def test_healthy_router_is_ok_with_and_without_a_group_and_from_another_network(lab):
    check_lab.build(lab)
    check_lab.wait_for_health(lab)
    status, answer = check_lab.check(lab, check_lab.STREAM)
    assert (status, answer["result"], answer["verdict"]) == (0, "ok", None)
    places = [step["place"] for step in answer["steps"]]
    assert list(dict.fromkeys(places)) == ["kernel", "programs", "interface", "LAN", "hosts", "upstream", "entry",
                                           "output"]
    elsewhere = ["nsenter", f"--target={laboratory.keeper_of(lab)}", "--mount", "--pid", "--root"]
    assert check_lab.check(lab, check_lab.STREAM, enter=elsewhere)[1]["verdict"] is None


def test_kernel_without_multicast_routing_is_the_verdict(lab):
    without_tables = ["unshare", "--mount", "sh", "-c", 'mount -t tmpfs none /proc/$$/net && exec "$0" "$@"']
    status, answer = check_lab.check(lab, before=without_tables)
    assert status == 1 and answer["verdict"]["finding"].startswith("no IPv6 multicast routing")


def test_who_may_not_look_is_told_so_and_nothing_is_called_ok(lab):
    check_lab.build(lab)
    nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    status, answer = check_lab.check(lab, check_lab.STREAM, before=nobody)
    assert (status, answer["result"], answer["verdict"]) == (3, "unknown", None)


def test_healthy_private_network_is_ok(lab):
    private_network.start(lab)
    check_lab.join_and_send(lab)
    check_lab.wait_for_health(lab, check_lab.STREAM)
    answer = check_lab.check(lab, check_lab.STREAM)[1]
    assert any(finding.startswith("tarnwick-run runs") for finding in check_lab.findings(answer, "programs"))
    assert check_lab.check(lab)[0] == 0


def test_supervisor_says_what_it_waits_for(lab):
    check_lab.router(lab, "ip", "link", "set", "br0", "down")
    supervisor.start(lab, wait=False)
    waits = r"tarnwick does not run; tarnwick-run \(process \d+\) says: waiting for br0"
    check_lab.wait_for_verdict(lab, check_lab.Fault(None, waits))


def test_reason_of_the_last_failed_start_is_told(lab):
    holder = laboratory.start(lab, "router", sys.executable, "-c", router_faults.HOLDER)
    laboratory.wait_for(lambda: "held" in laboratory.log_of(holder), 60, "the other router")
    program = supervisor.start(lab, wait=False)
    supervisor.wait_for_line(program, "tarnwick ended: another multicast router", 60)
    check_lab.wait_for_verdict(lab, check_lab.Fault(None, "another program holds the routing socket: .*python"))
    check_lab.kill(holder)
    supervisor.wait_until_ready(program, deadline_s=60)
    check_lab.join_and_send(lab)
    check_lab.wait_for_health(lab, check_lab.STREAM)
    reason = r"\d+ starts failed, the last one .* ago: tarnwick ended: another multicast router holds the routing socket"
    check_lab.wait_for_finding(lab, reason)


def test_hosts_that_report_are_told_with_their_version(lab):
    laboratory.run(lab, "host2", "sysctl", "-q", "net.ipv6.conf.eth0.force_mld_version=1")
    check_lab.start_programs(lab)
    traffic.listen(lab, "host2", check_lab.STREAM)
    only_v1 = rf"1 host on br0 reported {check_lab.STREAM}, {laboratory.HOST_LINK_LOCAL['host2']} .* \(MLDv1\): only MLDv1"
    check_lab.wait_for_finding(lab, only_v1, check_lab.STREAM)
    traffic.listen(lab, "host1", check_lab.STREAM)
    both = rf"2 hosts on br0 reported {check_lab.STREAM}, {laboratory.HOST_LINK_LOCAL['host1']} .* \(MLDv2\)$"
    check_lab.wait_for_finding(lab, both, check_lab.STREAM)


def test_queries_are_told_with_their_sender(lab):
    check_lab.start_programs(lab)
    check_lab.wait_for_finding(lab, "the last query on br0 was sent by tarnwick-assist")
    other, provider = "fe80::ff:fe00:a", "fe80::ff:fe00:201"
    for node, interface, sender in (("host2", "eth0", other), ("source", "src0", provider)):
        query = (Ether(src="02:00:00:00:09:09", dst="33:33:00:00:00:01") / IPv6(src=sender, dst="ff02::1", hlim=1) /
                 IPv6ExtHdrHopByHop(options=[RouterAlert()]) / ICMPv6MLQuery(mrd=100))
        traffic.send_frame(lab, node, interface, query)
    check_lab.wait_for_finding(lab, f"the last query on br0 was heard from {other}")
    check_lab.wait_for_finding(lab, "1 queries of the provider were heard on wan0")
    check_lab.wait_for_finding(lab, f"querier {other} heard on br0")


def test_full_pool_of_hosts_is_told_and_is_not_a_fault(lab):
    supervisor.start(lab)
    check_lab.join_and_send(lab)
    check_lab.wait_for_health(lab, check_lab.STREAM)
    check_lab.wait_for_finding(lab, "there is room to note further hosts")
    for number in range(1, 140):
        report = (Ether(src="02:00:00:00:09:09", dst="33:33:00:00:00:16") /
                  IPv6(src=f"fe80::9:{number:x}", dst=proxy.MLDV2_ROUTERS, hlim=1) /
                  IPv6ExtHdrHopByHop(options=[RouterAlert()]) /
                  ICMPv6MLReport2(records=[ICMPv6MLDMultAddrRec(rtype=TO_EXCLUDE, dst=check_lab.STREAM)]))
        traffic.send_frame(lab, "host2", "eth0", report)
    check_lab.wait_for_finding(lab, "128 of 128 hosts are noted")
    check_lab.wait_for_health(lab, check_lab.STREAM)


def test_what_is_planted_in_place_of_the_answer_is_not_called_a_fault_of_the_daemon(lab):
    check_lab.start_programs(lab)
    (lab.router_tmp / "tarnwick_type_messages").mkdir()
    status, answer = check_lab.check(lab)
    assert (status, answer["verdict"]) == (3, None)
    assert any("remove what is there" in finding for finding in check_lab.findings(answer, "programs"))


def test_wait_ends_when_the_verdict_changes(lab):
    check_lab.build(lab)
    waiting = laboratory.start(lab, "router", check_lab.STATUS, "--check", check_lab.STREAM, "--wait")
    laboratory.wait_for(lambda: "ok: nothing was found" in laboratory.log_of(waiting), 30, "first answer")
    assert not laboratory.has_ended(waiting)
    with PROGRAM_FAULTS["companion ended"].produce(lab):
        assert laboratory.wait_for_end(waiting, 60) == 1
    assert laboratory.log_of(waiting).splitlines()[-1].startswith("NO: tarnwick-assist does not run")
