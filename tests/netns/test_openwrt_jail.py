"""What OpenWrt's init script puts into a jail is all that the programs need.

A stand-in for ujail: a file system that holds the paths named by the script and the C library, process numbers of its
own, /proc with a read-only /proc/sys, the script's capabilities, and no way to gain others.
"""

import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys

import pytest

import kernel_view
import supervisor
from laboratory import PROGRAMS, PROGRAMS_IN_ROUTER, child_of, log_of, run, send_signal, start, wait_for, wait_for_end
from traffic import listen, received, send_stream

sys.path.append(str(pathlib.Path(__file__).parents[1] / "lint"))
from openwrt_router import FOLDER, SHELLS, Router  # noqa: E402

GROUP = "ff0e::1:2:3"
DEADLINE_S = 80
FEW_LINES = 20
# Bits of linux/capability.h: SETPCAP, NET_ADMIN, NET_RAW, and SYS_PTRACE, SYS_ADMIN.
HOST_POWERS = 1 << 8 | 1 << 12 | 1 << 13
PRIVATE_POWERS = HOST_POWERS | 1 << 19 | 1 << 21
RUNTIME_FOLDER = "/var/run/tarnwick"
INSTALLED = {"/usr/sbin/": f"{PROGRAMS_IN_ROUTER}/", "/usr/lib/tarnwick/": f"{PROGRAMS_IN_ROUTER}/",
             "/var/run/": "/tmp/run/"}
MAKE_JAIL = """
set -e
jail=/tmp/jail
show() { # SOURCE PLACE
  if [ -d "$1" ]; then mkdir -p "$jail$2"; else mkdir -p "$jail${2%/*}"; touch "$jail$2"; fi
  mount --bind "$1" "$jail$2"
}
show_for_reading() { show "$@"; mount -o remount,bind,ro "$jail$2"; }
mkdir $jail
mount -t tmpfs jail $jail
"""
MAKE_PROC = """
mkdir $jail/proc
mount -t proc proc $jail/proc
mount --bind $jail/proc/sys $jail/proc/sys
mount -o remount,bind,ro $jail/proc/sys
show /dev/null /dev/null
exec chroot $jail "$@"
"""
# procd gives a service that asks for nothing else /dev/null; then the log goes to syslog.
SHOW_SYSTEM_LOG = """
show /tmp/log /dev/log
exec 2>/dev/null
"""


@pytest.fixture(name="asked")
def asked_of_procd(lab, tmp_path):
    """What the init script asks of procd in the lab's router."""
    router = Router(SHELLS[-1], tmp_path)
    router.places["RUNTIME_FOLDER"] = lab.router_tmp / "run" / "tarnwick"
    router.install_jail()

    def ask(**settings):
        lines = router.start(upstream="wan0", downstream="br0", **settings)
        return [line.replace(str(router.places["RUNTIME_FOLDER"]), RUNTIME_FOLDER) for line in lines]

    return ask


def words_after(lines, start_of_line):
    return [word for line in lines if line.startswith(start_of_line + " ")
            for word in line.removeprefix(start_of_line).split()]


def place_in_router(path):
    for installed, place in INSTALLED.items():
        if path.startswith(installed):
            return place + path.removeprefix(installed)
    return path


def libraries_of(program):
    printed = subprocess.run(["ldd", program], capture_output=True, text=True, check=True).stdout
    return re.findall(r"(/\S+) \(0x", printed)


def capability_options(lines):
    """setpriv with the sets of the script's capability file."""
    [file] = words_after(lines, "set capabilities")
    kept = json.loads((FOLDER / "files" / pathlib.Path(file).name.replace(".json", ".capabilities")).read_text())

    def kind(name):
        return ",".join(["-all"] + ["+" + capability.removeprefix("CAP_").lower() for capability in kept[name]])

    assert words_after(lines, "set no_new_privs") == ["1"]
    return ["--bounding-set=" + kind("bounding"), "--inh-caps=" + kind("inheritable"),
            "--ambient-caps=" + kind("ambient"), "--no-new-privs"]


def jail_script(lines, left_out=(), before_start=""):
    shown = [line for line in lines if line.startswith("jail ")]
    assert shown == ["jail tarnwick log procfs"]
    program = words_after(lines, "set command")[0]
    steps = [MAKE_JAIL]
    for path in [program, *words_after(lines, "mount")]:
        steps += [f"show_for_reading {place_in_router(path)} {path}"] if path not in left_out else []
    for path in words_after(lines, "mount_rw"):
        steps += [f"show {place_in_router(path)} {path}"] if path not in left_out else []
    setpriv, suppressions = "/usr/bin/setpriv", f"{PROGRAMS_IN_ROUTER}/lsan.supp"  # what only the test needs
    for path in sorted({setpriv, suppressions, *libraries_of(PROGRAMS / "tarnwick-run"), *libraries_of(setpriv)}):
        steps.append(f"show_for_reading {os.path.realpath(path)} {path}")
    return "\n".join(steps) + before_start + MAKE_PROC


def start_jailed(lab, lines, **differences):
    command = words_after(lines, "set command") + words_after(lines, "append command")
    return start(lab, "router", "unshare", "--mount", "--pid", "--fork", "--kill-child", "--propagation", "private",
                 "sh", "-c", jail_script(lines, **differences), "sh", "setpriv", *capability_options(lines), *command,
                 environment=supervisor.ENVIRONMENT | {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"})


def expect_stream(lab):
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: send_stream(lab, GROUP, count=20) and received(listener) > 0, DEADLINE_S, "stream")


def effective_capabilities(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    assert re.search(r"^NoNewPrivs:\s+1$", status, re.M)
    return int(re.search(r"^CapEff:\s+(\w+)", status, re.M).group(1), 16)


def test_everything_works_with_what_the_jail_shows(lab, asked):
    jailed = start_jailed(lab, asked())
    supervisor.wait_until_ready(jailed, deadline_s=DEADLINE_S)
    jailed.pid = child_of(jailed.pid)  # unshare does not pass signals on
    assert "libtarnwick-smooth.so is not there" not in log_of(jailed)
    assert effective_capabilities(jailed.pid) == HOST_POWERS
    expect_stream(lab)
    shown = json.loads(run(lab, "router", f"{PROGRAMS_IN_ROUTER}/tarnwick-status", "--json"))
    assert GROUP in [group["group"] for group in shown["groups"]], "state files are those of the router"
    send_signal(jailed, signal.SIGTERM)
    assert wait_for_end(jailed, DEADLINE_S) == 0
    assert kernel_view.multicast_interfaces(lab) == {}
    assert list((lab.router_tmp / "run" / "tarnwick").iterdir()) == []


def test_its_log_comes_out_of_the_jail_by_syslog(lab, asked):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as system_log:
        system_log.bind(str(lab.router_tmp / "log"))
        system_log.settimeout(DEADLINE_S)
        start_jailed(lab, asked(), before_start=SHOW_SYSTEM_LOG)
        lines = [""]
        while "Streams from wan0 can flow to br0" not in lines[-1]:
            lines.append(system_log.recv(2048).decode())
            assert re.match(r"<\d+>.* tarnwick-run\[\d+\]: (?![DI]:)", lines[-1]), "only the daemon's errors"
            assert len(lines) < FEW_LINES, lines


@pytest.mark.parametrize("missing, complaint", [
    ("/usr/sbin/tarnwick", "cannot run /usr/sbin/tarnwick"),
    ("/usr/sbin/tarnwick-assist", "cannot run /usr/sbin/tarnwick-assist"),
    ("/usr/lib/tarnwick/libtarnwick-smooth.so", "libtarnwick-smooth.so is not there"),
    (RUNTIME_FOLDER, f"cannot make the folder {RUNTIME_FOLDER}")])
def test_each_path_in_the_jail_is_needed(lab, asked, missing, complaint):
    jailed = start_jailed(lab, asked(), left_out=[missing])
    wait_for(lambda: complaint in log_of(jailed), DEADLINE_S, complaint)
    if complaint.startswith("cannot"):
        assert wait_for_end(jailed, DEADLINE_S) == 1


def test_private_network_works_with_the_capabilities_of_its_jail(lab, asked):
    lines = asked(network="private")
    assert [line for line in lines if line.startswith(("jail", "mount"))] == ["jail tarnwick"]
    program, *options = words_after(lines, "set command") + words_after(lines, "append command")
    options = [option.replace(RUNTIME_FOLDER, "/tmp/run/tarnwick") for option in options]
    supervised = start(lab, "router", "setpriv", *capability_options(lines), place_in_router(program), *options,
                       environment=supervisor.ENVIRONMENT)
    supervisor.wait_until_ready(supervised, deadline_s=DEADLINE_S)
    assert effective_capabilities(supervised.pid) == PRIVATE_POWERS
    expect_stream(lab)
    send_signal(supervised, signal.SIGTERM)
    assert wait_for_end(supervised, DEADLINE_S) == 0
