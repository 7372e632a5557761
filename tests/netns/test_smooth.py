"""The daemon under libtarnwick-smooth.so: same frames, same answers of the kernel, no wait for it, a current log."""

import json
import pathlib
import socket
import subprocess
import sys
import sysconfig

import pytest

import kernel_view
import namespaces
import supervisor
from frames import report
from kernel_view import ANY
from laboratory import BR0_LINK_LOCAL, PROGRAMS, S1, S2, log_of, run, start, stop, wait_for
from proxy import DAEMON, SMOOTH, USUAL_OPTIONS, environment_of, preloading, start_companion, wait_until_listening
from traffic import ETH_P_ALL, MLD_QUERY, listen, send_frame, to_mld, wait_until_all_is_said

GROUP, SOURCE_GROUP = "ff0e::1:2:3", "ff3e::4:5:6"
DEADLINE_S = 30
IPPROTO_ICMPV6 = 58
FRAMES_OF_A_FLOOD = 3000
RECORDS_OF_A_REPORT = 60


def start_smooth(lab, *, library=SMOOTH, output=None, ticks_per_second=1):
    wanted = environment_of(ticks_per_second)
    before = preloading(library, wanted) if library else ()
    lab.daemon = start(lab, "router", *before, DAEMON, *USUAL_OPTIONS, environment=wanted, standard_output=output)
    wait_until_listening(lab.daemon)
    start_companion(lab)
    return lab.daemon


class OutgoingQueries:
    """Queries as they leave br0, with the protocol number that the router's own network stack sees."""

    def __init__(self, lab):
        with namespaces.entered(lab.nodes["router"]):
            self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        self.socket.bind(("br0", ETH_P_ALL))
        self.socket.setblocking(False)
        self.seen = []

    def now(self):
        while True:
            try:
                frame, (_name, protocol, kind, _type, _address) = self.socket.recvfrom(2048)
            except BlockingIOError:
                return self.seen
            mld = to_mld(0, frame) if frame[12:14] == b"\x86\xdd" and frame[20] == 0 else None
            if mld and mld.type == MLD_QUERY and mld.sender == BR0_LINK_LOCAL:
                self.seen.append((mld.group, mld.sources, protocol, kind, frame))

    def wait_for(self, group, sources=()):
        return wait_for(lambda: [query for query in self.now() if query[:2] == (group, sources)], DEADLINE_S,
                        f"query for {group}")


def queries_of_a_usual_evening(lab, library):
    """One query of each kind, in the order in which they were sent."""
    outgoing = OutgoingQueries(lab)
    start_smooth(lab, library=library)
    leaving, staying = listen(lab, "host1", GROUP), listen(lab, "host1", SOURCE_GROUP, sources=[S1, S2])
    wait_until_all_is_said(leaving, staying)
    outgoing.wait_for(ANY)
    stop(leaving)
    outgoing.wait_for(GROUP)
    send_frame(lab, "host2", "eth0", report("host2", [("TO_IN", SOURCE_GROUP, [])]))
    outgoing.wait_for(SOURCE_GROUP, (S1, S2))
    return list(dict.fromkeys(query[2:] for query in outgoing.now()))


def test_queries_are_the_same_byte_by_byte(make_lab):
    plain = queries_of_a_usual_evening(make_lab(), None)
    smooth = queries_of_a_usual_evening(make_lab(), SMOOTH)
    assert len(plain) == 3
    assert smooth == plain


def packet_sockets(lab):
    """Protocol, and bytes that are queued for reading, of every packet socket in the router."""
    rows = [line.split() for line in kernel_view.read_table(lab, "packet").splitlines()[1:]]
    return [(int(row[3], 16), int(row[6])) for row in rows]


def test_kept_socket_receives_nothing_from_a_flooded_lan(lab):
    """Not even frames whose type is the protocol number of the daemon's queries."""
    start_smooth(lab)
    wait_for(lambda: packet_sockets(lab) == [(0, 0)], what="kept socket")
    with namespaces.entered(lab.nodes["host1"]):
        sender = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    ethernet = b"\xff" * 6 + b"\x02\x00\x00\x00\x01\x01"
    payload = bytes(1000)
    with sender:
        sender.bind(("eth0", 0))
        for number in range(FRAMES_OF_A_FLOOD):
            protocol = (IPPROTO_ICMPV6, 0, 0x86dd)[number % 3]
            sender.send(ethernet + protocol.to_bytes(2, sys.byteorder if protocol < 256 else "big") + payload)
    assert packet_sockets(lab) == [(0, 0)]
    listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}, what="entry")
    assert packet_sockets(lab) == [(0, 0)]


def test_a_link_that_sends_nothing_does_not_hold_the_daemon(lab):
    """Frames that wait in the link's queue use up a socket's send buffer; the daemon must not wait for it."""
    daemon = start_smooth(lab, ticks_per_second=20)
    run(lab, "router", "tc", "qdisc", "add", "dev", "br0", "root", "tbf", "rate", "8bit", "burst", "100", "limit",
        "10000000")
    for round_number in range(6):
        groups = [f"ff0e::{round_number + 1}:{number + 1}" for number in range(RECORDS_OF_A_REPORT)]
        for kind in ("TO_EX", "TO_IN"):
            send_frame(lab, "host1", "eth0", report("host1", [(kind, group, []) for group in groups]))
        last = groups[-1]
        wait_for(lambda: last not in kernel_view.memberships(lab, "wan0"), DEADLINE_S, f"end of {last}")
    queued = json.loads(run(lab, "router", "tc", "-j", "-s", "qdisc", "show", "dev", "br0"))[0]["qlen"]
    assert queued > 300, "more than a send buffer holds"
    assert stop(daemon, DEADLINE_S) == 0


def test_log_of_an_event_is_there_when_it_is_over_and_is_one_write(lab):
    ours, daemons = socket.socketpair(socket.AF_UNIX, socket.SOCK_DGRAM)
    with ours:
        start_smooth(lab, output=daemons.fileno())
        daemons.close()
        send_frame(lab, "host1", "eth0", report("host1", [("TO_EX", GROUP, [])]))
        ours.settimeout(DEADLINE_S)
        writes = []
        while not writes or b"[PACKET] group     : ff0e:0000:0000:0000:0000:0001:0002:0003" not in writes[-1]:
            writes.append(ours.recv(1 << 16))
        assert writes[-1].startswith(b"\n") and b"[PACKET] host" in writes[-1]
        assert b"MFC Entry will be created" in writes[-1]
        assert writes[-1].endswith(b"setsockopt: MRT6_ADD_MFC\n")


ANSWERS = """
import ctypes, errno, fcntl, json, os, resource, sys
libc = ctypes.CDLL(None, use_errno=True)
PACKET, RAW, DGRAM, ICMPV6 = 17, 3, 2, 58
def opened(*how):
    ctypes.set_errno(0)
    return libc.socket(*how)
def answer(*how):
    number = opened(*how)
    if number < 0:
        return errno.errorcode[ctypes.get_errno()]
    flags = fcntl.fcntl(number, fcntl.F_GETFD), fcntl.fcntl(number, fcntl.F_GETFL)
    os.close(number)
    return [number, *flags]
said = [answer(PACKET, RAW, ICMPV6) for _ in range(3)]
said.append([opened(PACKET, RAW, ICMPV6) for _ in range(3)])
said += [answer(PACKET, RAW | 0o2000000, ICMPV6), answer(PACKET, DGRAM, ICMPV6), answer(PACKET, RAW, 3)]
said += [answer(99, RAW, ICMPV6), answer(10, RAW, ICMPV6)]
resource.setrlimit(resource.RLIMIT_NOFILE, (6, 6))
said += [answer(PACKET, RAW, ICMPV6), answer(PACKET, RAW, 3)]
print(json.dumps(said))
"""


@pytest.mark.parametrize("before", [(), ("setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw")],
                         ids=["root", "without CAP_NET_RAW"])
def test_kernel_answers_as_without_the_library(before):
    def said(*words):
        command = ["unshare", "--net", *before, *words, "/usr/bin/python3", "-c", ANSWERS]
        done = subprocess.run(command, capture_output=True, text=True, check=True, close_fds=True)
        return json.loads(done.stdout)

    plain = said()
    assert said("env", f"LD_PRELOAD={PROGRAMS}/libtarnwick-smooth.so") == plain
    assert ("EPERM" in plain) == bool(before)
    assert "EMFILE" in plain or before


MUSL_WITHOUT_CXX = ("-x", "c++", "-nostdinc++", "-idirafter", "/usr/include", "-idirafter",
                    f"/usr/include/{sysconfig.get_config_var('MULTIARCH')}")
SOURCES = pathlib.Path(__file__).parents[2]


@pytest.mark.parametrize("compiler, options", [("g++", ()), ("musl-gcc", MUSL_WITHOUT_CXX)], ids=["glibc", "musl"])
def test_library_works_with_either_c_library(tmp_path, compiler, options):
    """musl has no C++ headers here, and the library needs two names of them."""
    (tmp_path / "cstdio").write_text("#include <stdio.h>\nnamespace std { using ::size_t; }\n")
    library, user = tmp_path / "library.so", tmp_path / "user"
    here = ("-isystem", tmp_path) if options else ()
    subprocess.run([compiler, *options, *here, "-std=c++20", "-D_GNU_SOURCE", "-fno-exceptions", "-fno-rtti",
                    "-fno-threadsafe-statics", "-fPIC", "-shared", SOURCES / "run" / "smooth" / "smooth.cpp",
                    "-o", library], check=True)
    subprocess.run([compiler.replace("g++", "gcc"), SOURCES / "tests" / "netns" / "tools" / "wait_and_ask.c", "-o",
                    user], check=True)

    def said(*words):
        done = subprocess.run(["unshare", "--net", *words, user], capture_output=True, text=True, check=True)
        sockets = [line.split()[3] for line in done.stderr.splitlines()[1:]]
        return "line before the wait\n" in done.stdout, sockets

    assert said() == (False, [])
    assert said("env", f"LD_PRELOAD={library}") == (True, ["0000"])


def test_join_and_leave_are_a_few_lines_of_tarnwick_runs_log(lab):
    program = supervisor.start(lab, "--log=info")
    listener = listen(lab, "host1", GROUP)
    supervisor.wait_for_line(program, "MFC Entry will be created for iface:br0.")
    wait_until_all_is_said(listener)
    stop(listener)
    supervisor.wait_for_line(program, "Set group timer to 2")
    said = [line.split(": ", 1)[1] for line in log_of(program).splitlines() if line.startswith("D:mld :")]
    address = "ff0e:0000:0000:0000:0000:0001:0002:0003"
    host = "[PACKET] host      : fe80:0000:0000:0000:0000:00ff:fe00:0101"
    about_the_group = said[said.index(host):]
    assert about_the_group[:4] == [host, f"[PACKET] group     : {address}", f"add the gernel mcast {address}",
                                   "MFC Entry will be created for iface:br0."]
    # What the host repeats, and answers to the first query, changes nothing.
    assert about_the_group[4:7] == [host, f"[PACKET] group     : {address}", "Set group timer to 2"]
    assert stop(program, DEADLINE_S) == 0
