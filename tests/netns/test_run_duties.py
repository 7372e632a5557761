"""What tarnwick-run promises beside the stream: reasons in plain words, rights kept apart, few wake-ups, little memory.
"""

import os
import pathlib
import re
import socket
import time

import pytest

import kernel_view
import supervisor
from kernel_view import ANY
from laboratory import BR0_MAC, PROGRAMS, configure, log_of, run, start, stop, wait_for, wait_for_end
from proxy import TWO_CAPABILITIES, is_sanitized, private_kilobytes, start_daemon
from supervisor import NOTHING, leftovers
from traffic import program

DEADLINE_S = 30
CAP_NET_ADMIN_AND_RAW = 1 << 12 | 1 << 13  # linux/capability.h
WRONG_COMMAND_LINE = 2
MOST_PRIVATE_KILOBYTES = 400 + 16  # the goal, and four pages more for a build for tests


def add_lan(lab, name, index):
    configure(lab, "router", f"link add {name} index {index} address 02:00:00:00:09:fe type bridge\n"
                             f"link add port type veth peer name far\nlink set port up master {name}\n"
                             f"link set far up\nlink set {name} up\n")


def test_index_above_31_is_told_with_its_cure(lab):
    add_lan(lab, "br9", 37)
    supervised = supervisor.start(lab, downstream="br9", wait=False)
    supervisor.wait_for_line(supervised, r"tarnwick ended: index 37 of br9 is above 31: use --network=private$")
    assert stop(supervised) == 0
    assert leftovers(lab) == NOTHING


def test_name_of_nine_characters_is_told_with_its_cure(lab):
    add_lan(lab, "br-lan.10", 20)
    supervised = supervisor.start(lab, downstream="br-lan.10", wait=False)
    supervisor.wait_for_line(
        supervised,
        r"tarnwick ended: name br-lan.10 has 9 characters, above 8: use --network=private, or a shorter name$")
    assert stop(supervised) == 0


def test_other_multicast_router_is_named(lab):
    other = start_daemon(lab)
    supervised = supervisor.start(lab, wait=False)
    supervisor.wait_for_line(supervised, r"tarnwick ended: another multicast router holds the routing socket: "
                                         r"tarnwick \(\d+\); end it, or use --network=private$")
    assert stop(other) == 0
    supervisor.wait_until_ready(supervised)
    assert stop(supervised) == 0


def test_missing_rights_are_reported(lab):
    supervised = supervisor.start(lab, wait=False, before=(
        "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--bounding-set=-all", "--no-new-privs"))
    supervisor.wait_for_line(supervised, "tarnwick ended: no permission: run it as root, or with CAP_NET_ADMIN")
    stop(supervised)


def test_pauses_between_early_ends_grow(lab):
    add_lan(lab, "br9", 37)
    supervised = supervisor.start(lab, downstream="br9", wait=False)
    supervisor.wait_for_line(supervised, "it is started again in 5 s", deadline_s=60)
    said = re.findall(r"it is started again in (\d+) s", log_of(supervised))
    assert said == ["1", "2", "5"]
    assert stop(supervised) == 0, "a pause does not delay the end"


def test_second_supervisor_for_the_same_lan_ends_and_says_why(lab):
    first = supervisor.start(lab)
    second = supervisor.start(lab, wait=False)
    assert wait_for_end(second, DEADLINE_S) == 1
    assert "another tarnwick-run serves br0" in log_of(second)
    assert stop(first) == 0
    assert leftovers(lab) == NOTHING


def test_wrong_command_line_is_refused(lab):
    supervised = supervisor.start(lab, "--network=elsewhere", wait=False)
    assert wait_for_end(supervised, DEADLINE_S) == WRONG_COMMAND_LINE
    assert '--network cannot be "elsewhere"' in log_of(supervised)


def status_of(pid):
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)


@pytest.mark.parametrize("before", [(), TWO_CAPABILITIES], ids=["root", "two capabilities"])
def test_programs_get_two_capabilities_and_a_clean_environment(lab, before):
    (lab.router_tmp / "run").mkdir(mode=0o777)
    (lab.router_tmp / "run").chmod(0o777)
    supervised = supervisor.start(lab, before=before, environment={"SECRET": "1", "LD_LIBRARY_PATH": "/nowhere"})
    for name, pid in supervisor.wait_for_children(supervised).items():
        status = status_of(pid)
        for capability_set in ("CapPrm", "CapEff", "CapBnd"):
            assert int(status[capability_set], 16) == CAP_NET_ADMIN_AND_RAW, (name, capability_set)
        assert status["NoNewPrivs"] == "1"
        variables = pathlib.Path(f"/proc/{pid}/environ").read_text().split("\0")
        assert "PATH=/usr/sbin:/usr/bin:/sbin:/bin" in variables
        names = {variable.split("=")[0] for variable in variables if variable}
        assert names <= {"PATH", "TARNWICK_NVRAM", "LD_PRELOAD"}
        descriptors = [str(link.readlink()) for link in pathlib.Path(f"/proc/{pid}/fd").iterdir()]
        assert not [target for target in descriptors if "lock" in target]
    assert stop(supervised) == 0


def test_queries_carry_the_lan_interfaces_address(lab):
    supervised = supervisor.start(lab)
    assert (lab.router_tmp / "run" / "br0" / "nvram").read_text() == f"et0macaddr={BR0_MAC}\n"
    assert stop(supervised) == 0


def test_settings_of_the_operator_are_taken_as_they_are(lab):
    supervised = supervisor.start(lab, "--nvram=/tmp/nvram")
    environment = pathlib.Path(f"/proc/{supervisor.children(supervised)['tarnwick']}/environ").read_text()
    assert "TARNWICK_NVRAM=/tmp/nvram" in environment.split("\0")
    assert not (lab.router_tmp / "run" / "br0" / "nvram").exists()
    assert stop(supervised) == 0


def test_service_manager_is_told_when_streams_can_flow_and_not_before(lab):
    manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    manager.bind(str(lab.router_tmp / "manager"))
    manager.settimeout(DEADLINE_S)
    configure(lab, "router", "link set wan0 down")
    supervised = supervisor.start(lab, wait=False, environment={"NOTIFY_SOCKET": "/tmp/manager"})
    assert manager.recv(1024).decode() == "STATUS=waiting for wan0 (down)"
    configure(lab, "router", "link set wan0 up")
    told = manager.recv(1024).decode()
    while "READY=1" not in told:
        assert told.startswith("STATUS="), told
        told = manager.recv(1024).decode()
    assert told == "READY=1\nSTATUS=Streams from wan0 can flow to br0"
    assert set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0"}
    assert kernel_view.forwarding_of(lab, ANY) == {ANY: {"wan0"}}
    assert stop(supervised) == 0
    assert manager.recv(1024).decode() == "STOPPING=1"
    manager.close()


def wake_ups(pid):
    return int(status_of(pid)["voluntary_ctxt_switches"])


def test_idle_supervisor_sleeps_and_all_three_need_little_memory(lab, record_property):
    supervised = supervisor.start(lab)
    pids = {"tarnwick-run": supervised.pid, **supervisor.wait_for_children(supervised)}
    end = time.monotonic() + 3  # the daemon's first queries and the kernel's own reports
    wait_for(lambda: time.monotonic() > end, DEADLINE_S)
    before = {name: wake_ups(pid) for name, pid in pids.items()}
    seconds = 10
    end = time.monotonic() + seconds
    wait_for(lambda: time.monotonic() > end, DEADLINE_S)
    counts = {name: wake_ups(pid) - before[name] for name, pid in pids.items()}
    record_property("wake_ups_in_10_s", counts)
    assert counts["tarnwick-run"] <= seconds
    if not is_sanitized(supervised):
        for name in (*pids, "libtarnwick-smooth.so"):  # pages that a build has just written would count, too
            with open(PROGRAMS / name, "rb") as file:
                os.fsync(file.fileno())
        kilobytes = {name: private_kilobytes(type("Process", (), {"pid": pid})) for name, pid in pids.items()}
        record_property("private_kilobytes", kilobytes)
        assert sum(kilobytes.values()) <= MOST_PRIVATE_KILOBYTES
    assert stop(supervised) == 0


def test_burst_of_reports_wakes_the_supervisor_hundred_times_a_second_at_most(lab, record_property):
    supervised = supervisor.start(lab, "--log=all")
    before, start_s = wake_ups(supervised.pid), time.monotonic()
    reports = start(lab, "host2", program("mld_flood"), "-i", "eth0", "-k", "churn", "-n", "2000", "-r", "1000")
    assert wait_for_end(reports, DEADLINE_S) == 0
    seconds = time.monotonic() - start_s
    count = wake_ups(supervised.pid) - before
    record_property("wake_ups_a_second", count / seconds)
    assert count <= 130 * seconds + 30  # besides its rests: the daemon's queries, the companion's lines
    assert stop(supervised) == 0


def test_without_companion_it_is_ready_when_the_interfaces_stand(lab):
    supervised = supervisor.start(lab, "--no-assist")
    assert set(supervisor.children(supervised)) == {"tarnwick"}
    assert set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0"}
    assert stop(supervised) == 0


def test_options_reach_the_programs(lab):
    supervised = supervisor.start(lab, "--assist-options=", "--", "-v", "-q", "1")
    command = pathlib.Path(f"/proc/{supervisor.children(supervised)['tarnwick']}/cmdline").read_text().split("\0")
    assert command[1:-1] == ["-u", "wan0", "-d", "br0", "-v", "-q", "1"]
    assert stop(supervised) == 0
