"""The router's private network, seen from the host: its links, its processes, and the long way to a snooping bridge.

    source              router                                            hosts
   +------+         +---------------------------------------------+    +-------+
   | src0 |---------| wan0 <- macvlan - up0 [private] down0 - veth |----| host1 |
   +------+         |                               tarnwick0 -> br0 ---| host2 |
                    +---------------------------------------------+    +-------+
"""

import dataclasses
import json
import os

import kernel_view
import laboratory
import namespaces
import supervisor
import traffic
from laboratory import configure, run, wait_for

LONG_UPSTREAM = "wan-port.2001-x"  # the longest name that the kernel takes
LONG_LAN = "br-lan.100"
PROBES = 10
SNOOPING_DEADLINE_S = 60


def give_long_names(lab):
    """Names and indexes as on a router that has made many interfaces."""
    configure(lab, "router", "link set wan0 down\n"
                             f"link set wan0 name {LONG_UPSTREAM}\n"
                             f"link set {LONG_UPSTREAM} up\n"
                             "link delete br0\n"
                             f"link add {LONG_LAN} index 140 type bridge\n"
                             f"link set lan-a up master {LONG_LAN}\nlink set lan-b up master {LONG_LAN}\n"
                             f"link set {LONG_LAN} up\n")


def start(lab, upstream="wan0", downstream="br0", wait=True, options=()):
    program = laboratory.start(lab, "router", supervisor.PROGRAM, "-u", upstream, "-d", downstream,
                               "--network=private", f"--runtime-folder={supervisor.RUNTIME_FOLDER}", *options,
                               environment=supervisor.ENVIRONMENT)
    if wait:
        supervisor.wait_until_ready(program)
    return program


def explain(lab, upstream, downstream, *options):
    """The exit status and what was printed."""
    command = [supervisor.PROGRAM, "--explain", "-u", upstream, "-d", downstream, *options]
    printed = run(lab, "router", "sh", "-c", f"{' '.join(command)}; echo status $?")
    text, status = printed.rsplit("status ", 1)
    return int(status), text


def links(lab):
    """Name -> what `ip` knows about it."""
    return {link["ifname"]: link for link in json.loads(run(lab, "router", "ip", "-j", "-d", "link"))}


def outer_links(lab):
    return {name: link for name, link in links(lab).items() if name.startswith("tarnwick")}


@dataclasses.dataclass
class Inside:
    """A private network that stays in reach while this exists."""
    nodes: dict


def enter(program):
    """The daemon's network, for kernel_view and the like, which take a lab and the name of a node."""
    daemon = supervisor.wait_for_children(program)["tarnwick"]
    return Inside({"router": os.open(f"/proc/{daemon}/ns/net", os.O_RDONLY)})


def leave(inside):
    os.close(inside.nodes["router"])


def addresses(inside):
    """Interface -> addresses, loopback left out."""
    found = {}
    for line in kernel_view.read_table(inside, "if_inet6").splitlines():
        address, _index, _length, _scope, _flags, name = line.split()
        found.setdefault(name, []).append(kernel_view.as_text(address))
    found.pop("lo", None)
    return found


def setting(inside, interface, name):
    with namespaces.entered(inside.nodes["router"]):
        with open(f"/proc/sys/net/ipv6/conf/{interface}/{name}", encoding="ascii") as file:
            return file.read().strip()


def start_ticks(lab, pid):
    """When a process of the router was started, in clock ticks since boot."""
    return int(run(lab, "router", "cat", f"/proc/{pid}/stat").rsplit(")", 1)[1].split()[19])


def namespaces_of_processes(lab):
    """Network namespaces of the router's processes."""
    listed = run(lab, "router", "sh", "-c", "readlink /proc/[0-9]*/ns/net; true")
    return set(listed.split())


def everything(lab):
    """What a supervisor must leave as it was."""
    found = supervisor.leftovers(lab)
    found["links"] = {name: (link.get("master"), link["mtu"], link.get("address"), link["promiscuity"], link["allmulti"])
                      for name, link in links(lab).items()}
    found["namespaces"] = len(namespaces_of_processes(lab))
    found["held namespaces"] = run(lab, "router", "cat", "/proc/mounts").count("nsfs")
    return found


def send_until_bridge_snoops(lab, group, joined, other_capture):
    """A bridge floods every port until some seconds after the first query that it has seen."""
    traffic.wait_until_all_is_said(joined)

    def is_quiet():
        before = traffic.datagrams(other_capture, group)
        heard = traffic.received(joined)
        traffic.send_stream(lab, group, count=PROBES, per_second=100)
        wait_for(lambda: traffic.received(joined) >= heard + PROBES, what="probes at the port that has joined")
        return traffic.datagrams(other_capture, group) == before

    wait_for(is_quiet, SNOOPING_DEADLINE_S, "no datagram at the port that has not joined")


def path_of_node(lab, node):
    return namespaces.path_of(lab.nodes[node])
