"""A router with tarnwick, a WAN source and LAN hosts, each in a network namespace of its own.

    source              router                           hosts
   +------+         +-------------+                    +-------+
   | src0 |---------| wan0    br0 |---- lan-a   eth0 --| host1 |   2001:db8:1::101
   +------+         |          `--|---- lan-b   eth0 --| host2 |   2001:db8:1::102
   2001:db8:2::10   |             |                    +-------+
   2001:db8:2::11   |        lan1 |------------ eth0 --| host3 |   2001:db8:3::103 (only with second_lan)
                    +-------------+                    +-------+

The router also has a /tmp and a process table of its own, so that state files and `killall` of labs that run side by
side never meet. Everything goes away when the test process ends, however it ends. With LAB_KEEP=1 in the environment
the lab keeps standing for an hour and the names of its namespaces are printed.
"""

import dataclasses
import os
import pathlib
import secrets
import shutil
import signal
import subprocess
import tempfile
import time

import namespaces

TOOLS = pathlib.Path(__file__).parent / "tools"
PROGRAMS = pathlib.Path(os.environ.get("TARNWICK_PROGRAMS", pathlib.Path(__file__).parents[2] / "build" / "dev"))
PROGRAMS_IN_ROUTER = "/mnt"  # the router's own /tmp may hide the folder of the build
KEEP = os.environ.get("LAB_KEEP") == "1"
LONGEST_LIFE_SECONDS = 3600

S1 = "2001:db8:2::10"
S2 = "2001:db8:2::11"
BR0_MAC = "02:00:00:00:01:fe"
BR0_LINK_LOCAL = "fe80::ff:fe00:1fe"
HOST_ADDRESS = {"host1": "2001:db8:1::101", "host2": "2001:db8:1::102", "host3": "2001:db8:3::103"}
HOST_LINK_LOCAL = {"host1": "fe80::ff:fe00:101", "host2": "fe80::ff:fe00:102", "host3": "fe80::ff:fe00:303"}
PORT = 5004

ROUTER_LINKS = """
link set lo up
link add br0 address {br0_mac} type bridge
link add wan0 address 02:00:00:00:02:fe type veth peer name src0 address 02:00:00:00:02:01 netns {source}
link add lan-a type veth peer name eth0 address 02:00:00:00:01:01 netns {host1}
link add lan-b type veth peer name eth0 address 02:00:00:00:01:02 netns {host2}
link set lan-a up master br0
link set lan-b up master br0
link set br0 up
link set wan0 up
address add 2001:db8:1::1/64 dev br0
address add 2001:db8:2::1/64 dev wan0
"""
SECOND_LAN = """
link add lan1 address 02:00:00:00:03:fe type veth peer name eth0 address 02:00:00:00:03:03 netns {host3}
link set lan1 up
address add 2001:db8:3::1/64 dev lan1
"""
END_LINKS = """
link set lo up
link set {interface} up
"""


@dataclasses.dataclass
class Program:
    """A running program and the file that its output goes to."""
    process: subprocess.Popen
    log: pathlib.Path
    in_router: bool
    pid: int = 0
    said: tuple = ()  # of a listener: where its host's reports are noted, and what they are about


@dataclasses.dataclass
class Lab:
    suffix: str
    directory: pathlib.Path
    keeper: subprocess.Popen
    nodes: dict  # name -> namespace
    programs: list = dataclasses.field(default_factory=list)
    daemon: Program = None

    @property
    def router_tmp(self):
        return self.directory / "tmp"


class DeadlineMissed(AssertionError):
    pass


def wait_for(condition, deadline_s=5.0, what=None):
    """The first true value of `condition`, polled every 10 ms; DeadlineMissed if it stays false too long."""
    end = time.monotonic() + deadline_s
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise DeadlineMissed(f"{what or condition.__name__}: not within {deadline_s} s; last value {value!r}")
        time.sleep(0.01)


def build(second_lan=False):
    directory = pathlib.Path(tempfile.mkdtemp(prefix="tarnwick-lab-"))
    directory.chmod(0o755)
    (directory / "tmp").mkdir(mode=0o1777)
    (directory / "tmp").chmod(0o1777)
    keeper = start_keeper(directory)
    lab = Lab(suffix=secrets.token_hex(3), directory=directory, keeper=keeper, nodes={})
    try:
        lab.nodes["router"] = os.open(f"/proc/{keeper_of(lab)}/ns/net", os.O_RDONLY)
        for end in ("source", "host1", "host2") + (("host3",) if second_lan else ()):
            lab.nodes[end] = namespaces.create()
        connect(lab, second_lan)
        (lab.router_tmp / "nvram").write_text(f"# the router's settings\net0macaddr={BR0_MAC}\n")
    except BaseException:
        remove(lab)
        raise
    return lab


def start_keeper(directory):
    """Holds the router's namespaces: when it ends, every process of the router is killed with it."""
    mounts = f"mount --bind {PROGRAMS} {PROGRAMS_IN_ROUTER} && mount --bind {directory}/tmp /tmp"
    return subprocess.Popen(
        ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "--propagation", "private",
         "sh", "-c", f"{mounts} && touch /tmp/.ready && exec sleep {LONGEST_LIFE_SECONDS}"],
        # Not the tests' own output: its reader would wait for as long as a kept lab stands.
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        preexec_fn=None if KEEP else lambda: namespaces.die_with_parent(signal.SIGKILL))


def keeper_of(lab):
    """The first process of the router's process table."""
    wait_for((lab.router_tmp / ".ready").exists, what="the router's namespaces")
    return child_of(lab.keeper.pid)


def child_of(pid):
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return int(children[0]) if children else 0


def connect(lab, second_lan):
    for node in lab.nodes:
        # Without duplicate address detection every address can be used at once.
        run(lab, node, "sysctl", "-q", "net.ipv6.conf.all.accept_dad=0", "net.ipv6.conf.default.accept_dad=0")
    places = {name: namespaces.path_of(fd) for name, fd in lab.nodes.items()}
    links = ROUTER_LINKS + (SECOND_LAN if second_lan else "")
    configure(lab, "router", links.format(br0_mac=BR0_MAC, **places))
    configure(lab, "source", END_LINKS.format(interface="src0"))
    configure(lab, "source", f"address add {S1}/64 dev src0\naddress add {S2}/64 dev src0\n")
    hosts = [node for node in lab.nodes if node.startswith("host")]
    for host in hosts:
        configure(lab, host, END_LINKS.format(interface="eth0") + f"address add {HOST_ADDRESS[host]}/64 dev eth0\n")
    for node, interface in [("router", "br0"), ("router", "wan0"), ("source", "src0")] + [(h, "eth0") for h in hosts]:
        wait_for(lambda n=node, i=interface: link_local_is_ready(lab, n, i), what=f"link-local address of {interface}")
    if second_lan:
        wait_for(lambda: link_local_is_ready(lab, "router", "lan1"), what="link-local address of lan1")


def configure(lab, node, commands):
    # Not by enter(): in the router's process table the paths of the other namespaces mean nothing.
    here = f"--net={namespaces.path_of(lab.nodes[node])}"
    subprocess.run(["nsenter", here, "ip", "-batch", "-"], input=commands, text=True, check=True)


def link_local_is_ready(lab, node, interface):
    tentative = 0x40
    with namespaces.entered(lab.nodes[node]):
        rows = [line.split() for line in open("/proc/thread-self/net/if_inet6", encoding="ascii")]
    return any(row[0].startswith("fe80") and row[5] == interface and not int(row[4], 16) & tentative for row in rows)


def enter(lab, node):
    if node == "router" and lab.keeper.poll() is None:
        return ["nsenter", f"--target={keeper_of(lab)}", "--net", "--mount", "--pid", "--root"]
    return ["nsenter", f"--net={namespaces.path_of(lab.nodes[node])}"]


def run(lab, node, *command, check=True):
    """Runs a command in a node to its end and returns what it printed."""
    done = subprocess.run(enter(lab, node) + list(command), capture_output=True, text=True, timeout=60)
    if check and done.returncode != 0:
        raise AssertionError(f"{node}: {' '.join(command)}: status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def start(lab, node, *command, environment=None, standard_input=subprocess.DEVNULL, standard_output=None):
    """Starts a program in a node; its output goes to a file of its own, or its standard output where the test says."""
    log = lab.directory / f"{len(lab.programs):02d}-{node}-{pathlib.Path(command[0]).name}.log"
    with open(log, "w", encoding="utf-8") as output:
        process = subprocess.Popen(
            enter(lab, node) + list(command), stdin=standard_input,
            stdout=output if standard_output is None else standard_output, stderr=output,
            env={**os.environ, **(environment or {})},
            preexec_fn=None if KEEP else lambda: namespaces.die_with_parent(signal.SIGKILL))
    program = Program(process, log, in_router=node == "router", pid=process.pid)
    lab.programs.append(program)
    if program.in_router:
        # nsenter stays as the parent of what runs in the router's process table.
        program.pid = wait_for(lambda: child_of(process.pid) or process.poll() is not None, what=f"start of {command}")
    return program


def has_ended(program):
    return program.process.poll() is not None


def send_signal(program, signal_number):
    os.kill(program.pid, signal_number)


def wait_for_end(program, deadline_s=5.0):
    """The exit status, as a shell would see it."""
    wait_for(lambda: has_ended(program), deadline_s, f"end of {program.log.name}")
    return program.process.returncode


def stop(program, deadline_s=5.0):
    """SIGTERM, then the exit status."""
    if not has_ended(program):
        send_signal(program, signal.SIGTERM)
    return wait_for_end(program, deadline_s)


def log_of(program):
    return program.log.read_text(encoding="utf-8", errors="replace")


def remove(lab):
    for program in lab.programs:
        if not has_ended(program):
            os.kill(program.pid, signal.SIGKILL)
            program.process.wait()
    lab.keeper.kill()
    lab.keeper.wait()
    for namespace in lab.nodes.values():
        os.close(namespace)
    shutil.rmtree(lab.directory)


def keep_standing(lab):
    """Gives the namespaces names, and says how to look around and how to remove everything."""
    os.makedirs("/run/netns", exist_ok=True)
    names = {node: f"{node}-{lab.suffix}" for node in lab.nodes}
    for node, name in names.items():
        pathlib.Path("/run/netns", name).touch()
        subprocess.run(["mount", "--bind", namespaces.path_of(lab.nodes[node]), f"/run/netns/{name}"], check=True)
    pids = [str(program.pid) for program in lab.programs if not has_ended(program)] + [str(lab.keeper.pid)]
    return "\n".join([
        f"The lab {lab.suffix} keeps standing. Logs: {lab.directory}",
        *(f"  ip netns exec {name} bash" for name in names.values()),
        "To take it down:",
        f"  kill {' '.join(pids)}",
        *(f"  ip netns delete {name}" for name in names.values()),
        f"  rm -r {lab.directory}"])
