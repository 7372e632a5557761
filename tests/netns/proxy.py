"""Starts the programs under test in the lab's router."""

import os
import pathlib
import signal

import kernel_view
import lab as laboratory

DAEMON = f"{laboratory.PROGRAMS_IN_ROUTER}/tarnwick"
COMPANION = f"{laboratory.PROGRAMS_IN_ROUTER}/tarnwick-assist"
FAST_TICK = f"{laboratory.PROGRAMS_IN_ROUTER}/libfast_tick.so"
MLDV2_ROUTERS = "ff02::16"


def start_daemon(lab, *options, ticks_per_second=1, wait=True):
    """The daemon with the given options ("-u wan0 -d br0" when there are none), its log line by line.

    With `wait` it returns once the daemon listens. `ticks_per_second` hurries its clock.
    """
    environment = {
        "TARNWICK_NVRAM": "/tmp/nvram",
        # Builds with AddressSanitizer: stdbuf preloads a library too; deleted hosts stay allocated by design.
        "ASAN_OPTIONS": "verify_asan_link_order=0:detect_leaks=0"}
    if ticks_per_second != 1:
        environment |= {"LD_PRELOAD": FAST_TICK, "FAST_TICK_PER_SECOND": str(ticks_per_second)}
    chosen = options or ("-u", "wan0", "-d", "br0")
    lab.daemon = laboratory.start(lab, "router", "stdbuf", "-oL", DAEMON, *chosen, environment=environment)
    if wait:
        laboratory.wait_for(lambda: is_listening(lab.daemon), what="start of the daemon")
    return lab.daemon


def is_listening(program):
    """Whether start-up is over: the tick's handler stands, and the process waits."""
    if laboratory.has_ended(program):
        raise AssertionError(f"{program.log.name} ended early:\n{laboratory.log_of(program)}")
    lines = pathlib.Path(f"/proc/{program.pid}/status").read_text(encoding="ascii").splitlines()
    status = dict(line.split(":\t", 1) for line in lines if ":\t" in line)
    catches_tick = int(status["SigCgt"], 16) & (1 << (signal.SIGALRM - 1))
    return bool(catches_tick) and status["State"].startswith("S")


def start_companion(lab, downstream="br0"):
    """The companion that a mainline kernel needs; returns once both of its works are done."""
    companion = laboratory.start(lab, "router", COMPANION, "-u", "wan0", "-d", downstream)

    def is_effective():
        joined = all(MLDV2_ROUTERS in kernel_view.memberships(lab, name) for name in downstream.split(","))
        return joined and kernel_view.forwarding_of(lab, kernel_view.ANY) == {kernel_view.ANY: {"wan0"}}

    laboratory.wait_for(is_effective, what="effect of the companion")
    return companion


def start_proxy(lab, downstream="br0", **options):
    """Daemon and companion, ready for reports of hosts."""
    daemon = start_daemon(lab, "-u", "wan0", "-d", downstream, **options)
    start_companion(lab, downstream)
    return daemon


def start_snooping(lab):
    """A process of the name `igmp_snooping` in the router; returns the file with the signals that it got."""
    # Through a link in the router's own /tmp: the build's folder does not hold the stand-in.
    stand_in = lab.router_tmp / "igmp_snooping"
    stand_in.write_bytes((laboratory.TOOLS / "igmp_snooping").read_bytes())
    os.chmod(stand_in, 0o755)
    laboratory.start(lab, "router", "/tmp/igmp_snooping", "/tmp/signals")
    notes = lab.router_tmp / "signals"
    laboratory.wait_for(lambda: notes.exists() and "ready" in notes.read_text(), what="start of igmp_snooping")
    return notes
