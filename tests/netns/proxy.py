"""Starts the programs under test in the lab's router."""

import os
import pathlib
import re
import signal

import kernel_view
import laboratory

DAEMON = f"{laboratory.PROGRAMS_IN_ROUTER}/tarnwick"
COMPANION = f"{laboratory.PROGRAMS_IN_ROUTER}/tarnwick-assist"
FAST_CLOCK = f"{laboratory.PROGRAMS_IN_ROUTER}/libfast_clock.so"
FAST_TICK = f"{laboratory.PROGRAMS_IN_ROUTER}/libfast_tick.so"
SIGNAL_AT_CALL = f"{laboratory.PROGRAMS_IN_ROUTER}/libsignal_at_call.so"
SMOOTH = f"{laboratory.PROGRAMS_IN_ROUTER}/libtarnwick-smooth.so"
# To be left out where the daemon's own queries are looked at: the companion's come sooner, and hosts answer them.
COMPANIONS_QUESTIONS = ("ask-after-leave", "ask-after-end", "general-queries")
# With TARNWICK_PRELOAD=libtarnwick-smooth.so all tests run with the library that tarnwick-run preloads.
PRELOAD = os.environ.get("TARNWICK_PRELOAD")
MLDV2_ROUTERS = "ff02::16"
USUAL_OPTIONS = ("-u", "wan0", "-d", "br0")
START_DEADLINE_S = 15
# Another user with two capabilities; programs that it starts cannot get more.
TWO_CAPABILITIES = (
    "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--inh-caps=-all,+net_admin,+net_raw",
    "--ambient-caps=-all,+net_admin,+net_raw", "--bounding-set=-all,+net_admin,+net_raw", "--no-new-privs")
SHORT_LOG_BYTES = 1 << 16
# For builds with sanitizers: stdbuf preloads a library too; a file lists what the daemon loses on purpose.
ENVIRONMENT = {
    "TARNWICK_NVRAM": "/tmp/nvram",
    "ASAN_OPTIONS": "verify_asan_link_order=0",
    "LSAN_OPTIONS": f"suppressions={laboratory.PROGRAMS_IN_ROUTER}/lsan.supp:print_suppressions=0"}


def start_daemon(lab, *options, ticks_per_second=1, wait=True, environment=None):
    """The daemon with the given options ("-u wan0 -d br0" when there are none), its log line by line.

    With `wait` it returns once the daemon listens. `ticks_per_second` hurries its clock.
    """
    chosen = options or USUAL_OPTIONS
    wanted = environment_of(ticks_per_second) | (environment or {})
    lab.daemon = laboratory.start(lab, "router", *flushing(wanted), DAEMON, *chosen, environment=wanted)
    if wait:
        wait_until_listening(lab.daemon)
    return lab.daemon


def flushing(environment):
    """Words before the daemon that make its log readable line by line."""
    if PRELOAD is None:
        return ("stdbuf", "-oL")
    return preloading(f"{laboratory.PROGRAMS_IN_ROUTER}/{PRELOAD}", environment)


def preloading(library, environment):
    """Words before a program that preload a library beside those that its environment names.

    Those go from the environment: `env` may have another C library than the program.
    """
    libraries = [library] + [environment.pop(name) for name in ("LD_PRELOAD",) if name in environment]
    return ("env", f"LD_PRELOAD={' '.join(libraries)}")


def environment_of(ticks_per_second=1):
    hurried = {"LD_PRELOAD": FAST_TICK, "FAST_TICK_PER_SECOND": str(ticks_per_second)}
    return ENVIRONMENT | (hurried if ticks_per_second != 1 else {})


def wait_until_listening(daemon):
    laboratory.wait_for(lambda: is_listening(daemon), START_DEADLINE_S, what="start of the daemon")


def start_daemon_with_short_log(lab, *options, ticks_per_second=1):
    """For floods, whose log would fill the disk: keeps only its last lines, readable after the daemon's end.

    Returns the daemon and the program that keeps the lines.
    """
    read_end, write_end = os.pipe()
    keeper = laboratory.start(lab, "router", "tail", "-c", str(SHORT_LOG_BYTES), standard_input=read_end)
    lab.daemon = laboratory.start(lab, "router", DAEMON, *(options or USUAL_OPTIONS), standard_output=write_end,
                                  environment=environment_of(ticks_per_second))
    os.close(read_end)
    os.close(write_end)
    wait_until_listening(lab.daemon)
    return lab.daemon, keeper


def is_sanitized(program):
    return "libasan" in pathlib.Path(f"/proc/{program.pid}/maps").read_text(encoding="ascii")


def private_kilobytes(program):
    """Memory that the program has written to and does not share."""
    rollup = pathlib.Path(f"/proc/{program.pid}/smaps_rollup").read_text(encoding="ascii")
    return int(re.search(r"^Private_Dirty:\s+(\d+) kB", rollup, re.M).group(1))


def open_descriptors(program):
    return len(os.listdir(f"/proc/{program.pid}/fd"))


def is_listening(program):
    """Whether start-up is over: the tick's handler is installed, and the process waits."""
    if laboratory.has_ended(program):
        raise AssertionError(f"{program.log.name} ended early:\n{laboratory.log_of(program)}")
    lines = pathlib.Path(f"/proc/{program.pid}/status").read_text(encoding="ascii").splitlines()
    status = dict(line.split(":\t", 1) for line in lines if ":\t" in line)
    catches_tick = int(status["SigCgt"], 16) & (1 << (signal.SIGALRM - 1))
    return bool(catches_tick) and status["State"].startswith("S")


def start_companion(lab, downstream="br0", wait=True, without=(), times_as_fast=1):
    """The companion that a mainline kernel needs, some of its remedies left out.

    With `wait` it returns once the memberships and the static entry stand. `times_as_fast` hurries its clock.
    """
    left_out = ["--without=" + ",".join(without)] if without else []
    companion = laboratory.start(lab, "router", COMPANION, "-u", "wan0", "-d", downstream, *left_out,
                                 environment=hurried(times_as_fast))
    if not wait:
        return companion

    def is_effective():
        joined = all(MLDV2_ROUTERS in kernel_view.memberships(lab, name) for name in downstream.split(","))
        return joined and kernel_view.forwarding_of(lab, kernel_view.ANY) == {kernel_view.ANY: {"wan0"}}

    laboratory.wait_for(is_effective, what="effect of the companion")
    return companion


def hurried(times_as_fast):
    """For builds with sanitizers: the library is preloaded before theirs."""
    if times_as_fast == 1:
        return {}
    return ENVIRONMENT | {"LD_PRELOAD": FAST_CLOCK, "FAST_CLOCK": str(times_as_fast)}


def start_proxy(lab, downstream="br0", without=(), **options):
    """Daemon and companion, ready for reports of hosts; the companion leaves some remedies out."""
    daemon = start_daemon(lab, "-u", "wan0", "-d", downstream, **options)
    start_companion(lab, downstream, without=without)
    return daemon


def start_snooping(lab, *before):
    """A process named `igmp_snooping` in the router; returns the file with the signals that it got."""
    # Through a link in the router's own /tmp: the build's folder does not hold the stand-in.
    stand_in = lab.router_tmp / "igmp_snooping"
    stand_in.write_bytes((laboratory.TOOLS / "igmp_snooping").read_bytes())
    os.chmod(stand_in, 0o755)
    laboratory.start(lab, "router", *before, "/tmp/igmp_snooping", "/tmp/signals")
    notes = lab.router_tmp / "signals"
    laboratory.wait_for(lambda: notes.exists() and "ready" in notes.read_text(), what="start of igmp_snooping")
    return notes
