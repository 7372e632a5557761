"""The Debian package: what it holds, and its whole life on a Debian system that systemd runs."""

import os
import pathlib
import re
import subprocess
import time

import pytest

import debian_box
import kernel_view
import laboratory
import traffic
from conftest import BUILD

PROJECT = pathlib.Path(__file__).parents[2]
GROUP = "ff0e::101"

HELD = {
    "./etc/default/tarnwick",
    "./etc/tarnwick/nvram",
    "./usr/lib/systemd/system/tarnwick.service",
    "./usr/sbin/tarnwick",
    "./usr/lib/tarnwick/libtarnwick-smooth.so",
    "./usr/sbin/tarnwick-assist",
    "./usr/sbin/tarnwick-run",
    "./usr/sbin/tarnwick-status",
    "./usr/share/bash-completion/completions/tarnwick",
    "./usr/share/bash-completion/completions/tarnwick-assist",
    "./usr/share/bash-completion/completions/tarnwick-run",
    "./usr/share/bash-completion/completions/tarnwick-status",
    "./usr/share/zsh/vendor-completions/_tarnwick",
    "./usr/share/doc/tarnwick/CHANGELOG.md",
    "./usr/share/doc/tarnwick/copyright",
    "./usr/share/doc/tarnwick/examples/private-state.conf",
    "./usr/share/doc/tarnwick/examples/tarnwick-metrics.service",
    "./usr/share/doc/tarnwick/examples/tarnwick-metrics.timer",
    "./usr/share/doc/tarnwick/examples/tarnwick.nft",
    "./usr/share/man/man5/tarnwick-nvram.5",
    "./usr/share/man/man8/tarnwick-assist.8",
    "./usr/share/man/man8/tarnwick-run.8",
    "./usr/share/man/man8/tarnwick-status.8",
    "./usr/share/man/man8/tarnwick.8"}


def made_package(name, *options):
    folder = BUILD / "package" / name
    commands = [["cmake", "-S", PROJECT, "-B", folder, "-DCMAKE_BUILD_TYPE=Release", *options],
                ["cmake", "--build", folder, f"-j{os.cpu_count()}"]]
    for old in folder.glob("*.deb"):
        old.unlink()
    for command in commands:
        subprocess.run(command, check=True, capture_output=True)
    subprocess.run(["cpack", "-G", "DEB"], cwd=folder, check=True, capture_output=True)
    [package] = folder.glob("*.deb")
    return package


@pytest.fixture(scope="module")
def package():
    return made_package("native")


def field(package, name):
    return subprocess.run(["dpkg-deb", "--field", package, name], check=True, capture_output=True,
                          text=True).stdout.strip()


def held(package):
    listing = subprocess.run(["dpkg-deb", "--contents", package], check=True, capture_output=True, text=True).stdout
    return {line.split()[5]: line.split()[:2] for line in listing.splitlines() if not line.startswith("d")}


def test_package_holds_what_it_promises_and_belongs_to_root(package):
    contents = held(package)
    assert set(contents) == HELD
    assert {owner for _mode, owner in contents.values()} == {"root/root"}
    assert {path for path, (mode, _owner) in contents.items() if "x" in mode} == {
        path for path in HELD if path.startswith("./usr/sbin/")}


def test_package_is_named_after_version_and_architecture(package):
    version = re.search(r"project\(tarnwick VERSION ([0-9.]+)", (PROJECT / "CMakeLists.txt").read_text()).group(1)
    machine = subprocess.run(["dpkg", "--print-architecture"], check=True, capture_output=True, text=True).stdout
    assert package.name == f"tarnwick_{version}_{machine.strip()}.deb"
    assert field(package, "Depends").startswith("libc6")
    assert "stdc++" not in field(package, "Depends")


def test_cross_build_makes_a_package_for_the_routers_architecture(tmp_path):
    toolchain = PROJECT / "cmake" / "mipsel-linux-gnu.cmake"
    package = made_package("mipsel", f"-DCMAKE_TOOLCHAIN_FILE={toolchain}")
    assert package.name.endswith("_mipsel.deb")
    assert field(package, "Architecture") == "mipsel"
    assert set(held(package)) == HELD
    subprocess.run(["dpkg-deb", "--extract", package, tmp_path], check=True)
    header = (tmp_path / "usr" / "sbin" / "tarnwick").read_bytes()[:20]
    elf_32_bit, little_endian, machine_mips = 1, 1, 8
    assert header[:6] == b"\x7fELF" + bytes([elf_32_bit, little_endian])
    assert int.from_bytes(header[18:20], "little") == machine_mips


@pytest.fixture
def box(package):
    lab = laboratory.build()
    debian = None
    try:
        debian = debian_box.boot(lab, debian_box.unpacked_root(BUILD / "package"), package)
        yield lab, debian
    finally:
        if debian:
            print(debian_box.run(debian, "journalctl", "--no-pager", "-n", "60", check=False).stdout)
            debian_box.shut_down(debian)
        laboratory.remove(lab)


def is_active(debian, *units):
    return all(debian_box.run(debian, "systemctl", "is-active", unit, check=False).stdout == "active\n"
               for unit in units)


def journal(debian, unit):
    return debian_box.run(debian, "journalctl", "--no-pager", "-o", "cat", "-u", unit).stdout


def streams_can_flow(lab):
    return (set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0"} and
            kernel_view.forwarding_of(lab, kernel_view.ANY) == {kernel_view.ANY: {"wan0"}})


def is_gone(debian):
    return "tarnwick" not in debian_box.run(debian, "sh", "-c", "cat /proc/[0-9]*/comm", check=False).stdout


def test_package_installs_runs_under_its_units_and_leaves_nothing_behind(box):
    lab, debian = box
    before = debian_box.files(debian)

    debian_box.run(debian, "dpkg", "--install", "/tarnwick.deb")
    assert is_gone(debian), "nothing is started before the interfaces are named"

    debian_box.run(debian, "sed", "-i", "s/=br1/=wan0/", "/etc/default/tarnwick")
    debian_box.run(debian, "systemctl", "enable", "--now", "tarnwick.service")
    assert is_active(debian, "tarnwick.service", "tarnwick-assist.service"), "the companion's old name is an alias"
    assert streams_can_flow(lab), "the start has waited for it"

    listener = traffic.listen(lab, "host1", GROUP)
    laboratory.wait_for(lambda: "br0" in kernel_view.forwarding_of(lab, GROUP).get("::", ()), 20, "forwarding entry")
    sent = traffic.send_stream(lab, GROUP, count=50)
    laboratory.wait_for(lambda: traffic.received(listener) == sent, 10, "the whole stream")

    shown = debian_box.run(debian, "tarnwick-status").stdout
    assert re.search(rf"^{GROUP} +br0 ", shown, re.M), shown
    assert "tarnwick-assist: joined ff02::16 on br0" in journal(debian, "tarnwick.service")
    shown = debian_box.run(debian, "sh", "-c", "systemctl restart tarnwick && tarnwick-status").stdout
    assert "br0" in shown, "one pasted line"
    assert streams_can_flow(lab)

    debian_box.run(debian, "systemctl", "stop", "tarnwick.service")
    laboratory.wait_for(lambda: is_gone(debian), 10, "end of both programs")
    assert "Stop MLD Proxy." in journal(debian, "tarnwick.service")
    assert not [path for path in debian_box.files(debian) if path.startswith("/run/tarnwick")]
    assert kernel_view.interface_flags(lab, "br0") == set()
    assert kernel_view.multicast_interfaces(lab) == {}
    debian_box.run(debian, "systemctl", "start", "tarnwick.service")
    assert streams_can_flow(lab)

    debian_box.run(debian, "dpkg", "--remove", "tarnwick")
    laboratory.wait_for(lambda: is_gone(debian), 10, "end of both programs")
    left = debian_box.files(debian) - before
    assert {path for path in left if not path.startswith("/etc")} == set()
    assert {"/etc/default/tarnwick", "/etc/tarnwick/nvram"} <= left, "settings outlive the removal"
    debian_box.run(debian, "dpkg", "--purge", "tarnwick")
    assert debian_box.files(debian) - before == set()


def test_state_files_can_stand_where_no_user_reaches_them(box):
    _lab, debian = box
    drop_in = "/etc/systemd/system/tarnwick.service.d"
    debian_box.run(debian, "dpkg", "--install", "/tarnwick.deb")
    debian_box.run(debian, "sed", "-i", "s/=br1/=wan0/", "/etc/default/tarnwick")
    debian_box.run(debian, "sh", "-c", f"mkdir {drop_in} && cp /usr/share/doc/tarnwick/examples/private-state.conf "
                                       f"{drop_in} && systemctl daemon-reload && systemctl start tarnwick")
    planted = "/tmp/tarnwick_type_messages /tmp/tarnwick_join_state"
    debian_box.run(debian, "setpriv", "--reuid=65534", "--clear-groups", "sh", "-c", f"mkdir {planted}")
    assert re.search(r"^br0 +downstream ", debian_box.run(debian, "tarnwick-status").stdout, re.M)
    written = debian_box.run(debian, "sh", "-c", "stat -c '%n %U %F' /run/tarnwick/*").stdout
    assert "/run/tarnwick/tarnwick_type_messages root regular file" in written
    assert debian_box.run(debian, "sh", "-c", f"stat -c %F {planted}").stdout == "directory\ndirectory\n"
    debian_box.run(debian, "systemctl", "stop", "tarnwick")
    assert not [path for path in debian_box.files(debian) if path.startswith("/run/tarnwick")]


def test_killed_daemon_is_started_again(box):
    lab, debian = box
    debian_box.run(debian, "dpkg", "--install", "/tarnwick.deb")
    debian_box.run(debian, "sed", "-i", "s/=br1/=wan0/", "/etc/default/tarnwick")
    debian_box.run(debian, "systemctl", "start", "tarnwick.service")
    laboratory.wait_for(lambda: set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0"}, 20, "MIFs")
    debian_box.run(debian, "systemctl", "kill", "--signal=KILL", "tarnwick.service")
    laboratory.wait_for(lambda: "Scheduled restart job" in journal(debian, "tarnwick.service"), 20, "a restart")
    laboratory.wait_for(lambda: is_active(debian, "tarnwick.service") and
                        set(kernel_view.multicast_interfaces(lab).values()) == {"wan0", "br0"}, 20, "MIFs once more")


def test_start_with_a_wrong_interface_fails_within_30_seconds_and_says_why(box):
    lab, debian = box
    debian_box.run(debian, "dpkg", "--install", "/tarnwick.deb")
    began = time.monotonic()
    done = debian_box.run(debian, "systemctl", "start", "tarnwick.service", check=False)
    assert done.returncode != 0
    assert time.monotonic() - began < 30
    assert "waiting for br1 (not there)" in journal(debian, "tarnwick.service")
    debian_box.run(debian, "systemctl", "stop", "tarnwick.service")
    assert is_gone(debian)
    assert kernel_view.multicast_interfaces(lab) == {}


def test_index_above_31_fails_with_its_cure_and_works_in_a_private_network(box):
    lab, debian = box
    debian_box.run(debian, "dpkg", "--install", "/tarnwick.deb")
    laboratory.configure(lab, "router", "link add br9 index 140 type bridge\nlink add port9 type veth peer name far9\n"
                                        "link set port9 up master br9\nlink set far9 up\nlink set br9 up\n")
    debian_box.run(debian, "sed", "-i", "s/=br1/=wan0/; s/=br0/=br9/", "/etc/default/tarnwick")
    done = debian_box.run(debian, "systemctl", "start", "tarnwick.service", check=False)
    assert done.returncode != 0
    assert "index 140 of br9 is above 31: use --network=private" in journal(debian, "tarnwick.service")
    debian_box.run(debian, "sed", "-i", "s/RUN_OPTIONS=/RUN_OPTIONS=--network=private/", "/etc/default/tarnwick")
    debian_box.run(debian, "systemctl", "restart", "tarnwick.service")
    assert is_active(debian, "tarnwick.service")
    assert kernel_view.multicast_interfaces(lab) == {}, "the host's own routing is free"
    debian_box.run(debian, "systemctl", "stop", "tarnwick.service")
    assert is_gone(debian)
