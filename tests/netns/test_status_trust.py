"""Root looks at the daemon while another user has planted things where its answer is to stand."""

import concurrent.futures
import contextlib
import fcntl
import itertools
import json
import os
import pathlib
import subprocess
import tempfile
import time

import laboratory
import proxy
from test_status import STATUS, UNPRIVILEGED, snapshot, status

ANSWER = ("tarnwick_type_messages", "tarnwick_join_state")
FORGED_GROUP = "ff0e::bad"
ESCAPE = "\033]0;owned\a"
FORGED_TEXT = (f"[MLD]ifname: br0 query: 666013 join: 666013 leave: 666013 timeout: 666013\n"
               f"ifname: br0 group: {FORGED_GROUP} average: 666013\nifname: {ESCAPE} group: {ESCAPE} average: 666013\n")
PLANTING = {
    "link": "ln -s /tmp/forged {path}",
    "fifo": "mkfifo -m 666 {path}",
    "file": "cp /tmp/forged {path}",
    "future file": "cp /tmp/forged {path}; touch -d 2099-01-01 {path}",
    "sparse file": "truncate -s 100G {path}",
    "folder": "mkdir -m 777 {path}",
    "hard link": "ln /tmp/of_root {path}",
}
NOT_REPLACED_IN = {"sticky": {"folder"}, "open": {"folder", "link", "fifo"}}
MODE = {"sticky": 0o1777, "open": 0o777}
PROTECTIONS = {"symlinks": 1, "hardlinks": 1, "fifos": 2, "regular": 2}  # the strictest value of each
LOOKS_AT_ONCE = 4
MOST_MEMORY = 4_000_000


@contextlib.contextmanager
def protections(strict):
    """The kernel's rules for sticky folders hold for the whole machine: one test at a time changes them."""
    files = {pathlib.Path(f"/proc/sys/fs/protected_{name}"): most for name, most in PROTECTIONS.items()}
    with open(pathlib.Path(tempfile.gettempdir()) / "tarnwick-protections.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        before = {file: file.read_text() for file in files}
        try:
            for file, most in files.items():
                file.write_text(str(most if strict else 0))
            yield
        finally:
            for file, value in before.items():
                file.write_text(value)


def plant(lab, kind):
    """In place of both files, as nobody. Returns whether the kernel let it."""
    script = "set -e; " + "; ".join(PLANTING[kind].format(path=f"/tmp/{name}") for name in ANSWER)
    return subprocess.run(laboratory.enter(lab, "router") + UNPRIVILEGED + ["sh", "-c", script], check=False,
                          capture_output=True, timeout=30).returncode == 0


def clear(lab):
    for name in ANSWER:
        path = lab.router_tmp / name
        with contextlib.suppress(FileNotFoundError):
            path.rmdir() if path.is_dir() and not path.is_symlink() else path.unlink()


def looks_at_once(lab, daemon):
    for code, output, errors, _took in timed_looks(lab, daemon, "--json"):
        yield code, output, errors


def timed_looks(lab, daemon, option):
    """Status, standard output, standard error and seconds of each of several looks side by side."""
    memory = [] if proxy.is_sanitized(daemon) else ["prlimit", f"--data={MOST_MEMORY}"]
    command = laboratory.enter(lab, "router") + memory + [STATUS, option]

    def look(_number):
        began = time.monotonic()
        done = subprocess.run(command, capture_output=True, timeout=60, check=False)
        return done.returncode, done.stdout.decode(), done.stderr.decode(), time.monotonic() - began

    with concurrent.futures.ThreadPoolExecutor(LOOKS_AT_ONCE) as pool:
        return list(pool.map(look, range(LOOKS_AT_ONCE)))


def assert_nothing_forged(output, errors):
    for shown in (output, errors):
        assert FORGED_GROUP not in shown and "666013" not in shown
        assert "\033" not in shown and "owned" not in shown


def test_planted_things_are_not_shown_and_cost_the_daemon_nothing(lab):
    daemon = proxy.start_proxy(lab)
    snapshot(lab)
    (lab.router_tmp / "forged").write_text(FORGED_TEXT)
    (lab.router_tmp / "of_root").write_text(FORGED_TEXT)
    before = proxy.open_descriptors(daemon)
    looks = 0
    for strict, folder in itertools.product((False, True), MODE):
        lab.router_tmp.chmod(MODE[folder])
        for kind in PLANTING:
            clear(lab)
            with protections(strict):
                if not plant(lab, kind):
                    assert (kind, strict) == ("hard link", True)
                    continue
                for code, output, errors in looks_at_once(lab, daemon):
                    assert code == (1 if kind in NOT_REPLACED_IN[folder] else 0), (kind, folder, strict, errors)
                    assert_nothing_forged(output, errors)
                    if code == 0:
                        assert [row["name"] for row in json.loads(output)["interfaces"]] == ["wan0", "br0"]
                    looks += 1
            assert proxy.open_descriptors(daemon) == before, (kind, folder, strict)
    assert looks >= 100
    assert (lab.router_tmp / "of_root").read_text() == FORGED_TEXT
    assert (lab.router_tmp / "forged").read_text() == FORGED_TEXT


# What the daemon replaces in a folder of either kind, so that whoever plants it at any moment costs it nothing.
PLANTER = """
import contextlib, os, sys, time
MAKE = {"file": lambda path: open(path, "w").write(sys.argv[2]), "sparse file": lambda path: os.truncate(path, 10 ** 11),
        "hard link": lambda path: os.link("/tmp/of_nobody", path),
        "link": lambda path: os.symlink("/tmp/forged", path), "fifo": lambda path: os.mkfifo(path, 0o666)}
open("/tmp/of_nobody", "w").write(sys.argv[2])
print("ready", flush=True)
while True:
    for kind in sys.argv[1].split(","):
        for name in ("tarnwick_type_messages", "tarnwick_join_state"):
            with contextlib.suppress(OSError):
                os.unlink("/tmp/" + name)
            with contextlib.suppress(OSError):
                open("/tmp/" + name, "x").close() if kind == "sparse file" else None
                MAKE[kind]("/tmp/" + name)
        time.sleep(0.005)
"""
PLANTED_MEANWHILE = {"sticky": "file,sparse file,hard link,link,fifo", "open": "file,sparse file,hard link"}
LOOKS = int(os.environ.get("TARNWICK_LOOKS", "32"))  # of all; for a figure ask for a thousand


def look_for_a_while(lab, daemon, looks):
    """Seconds of each look that got an answer."""
    seconds = []
    for batch in range(looks // LOOKS_AT_ONCE):
        if batch % 2 == 0:
            clear(lab)  # as after a start of the machine: whoever is first makes the file
        for code, output, errors, took in timed_looks(lab, daemon, "--prometheus" if batch % 4 < 2 else "--json"):
            assert code in (0, 1), errors
            assert_nothing_forged(output, errors)
            if code == 0 and batch % 4 < 2:
                seconds.append(took)
    return seconds


def test_looks_while_another_user_keeps_planting_show_nothing_of_it_and_cost_the_daemon_nothing(lab):
    daemon = proxy.start_proxy(lab)
    snapshot(lab)
    (lab.router_tmp / "forged").write_text(FORGED_TEXT)
    before = proxy.open_descriptors(daemon)
    for strict, folder in itertools.product((False, True), MODE):
        lab.router_tmp.chmod(MODE[folder])
        with protections(strict):
            planter = laboratory.start(lab, "router", *UNPRIVILEGED, "/usr/bin/python3", "-c", PLANTER,
                                       PLANTED_MEANWHILE[folder], FORGED_TEXT)
            laboratory.wait_for(lambda: "ready" in laboratory.log_of(planter), 30, "planter")
            seconds = look_for_a_while(lab, daemon, LOOKS // 4)
            laboratory.stop(planter)
        clear(lab)
        snapshot(lab)
        print(f"{folder}, protected {strict}: {len(seconds)} answered, {sorted(seconds)[len(seconds) // 2:][:1]} s in the "
              f"middle, {max(seconds, default=0):.2f} s at most")
        assert seconds or folder == "open"
        assert proxy.open_descriptors(daemon) == before, (folder, strict)


def start_daemon_with_a_folder_of_its_own_over_tmp(lab):
    runtime = lab.router_tmp / "runtime"
    runtime.mkdir(mode=0o755)
    (runtime / "nvram").write_bytes((lab.router_tmp / "nvram").read_bytes())
    environment = proxy.environment_of()
    lab.daemon = laboratory.start(
        lab, "router", "unshare", "--mount", "sh", "-c", 'mount --bind /tmp/runtime /tmp && exec "$@"', "sh",
        *proxy.flushing(environment), proxy.DAEMON, *proxy.USUAL_OPTIONS, environment=environment)
    proxy.wait_until_listening(lab.daemon)
    return runtime


def test_state_files_in_a_folder_of_the_daemons_own_are_found_and_planted_ones_do_not_matter(lab):
    runtime = start_daemon_with_a_folder_of_its_own_over_tmp(lab)
    assert plant(lab, "folder")
    assert [row["name"] for row in snapshot(lab)["interfaces"]] == ["wan0", "br0"]
    assert "[MLD]ifname: br0" in (runtime / ANSWER[0]).read_text()
    assert all((lab.router_tmp / name).is_dir() for name in ANSWER)
    (runtime / ANSWER[0]).unlink()
    (runtime / ANSWER[0]).mkdir()
    assert f"cannot write /proc/{inside_pid(lab.daemon)}/root/tmp/{ANSWER[0]}: remove" in status(lab).stderr


def inside_pid(program):
    """Its number in the router's own table of processes."""
    return pathlib.Path(f"/proc/{program.pid}/status").read_text(encoding="ascii").split("NSpid:")[1].split()[1]


PRETENDER = """
import pathlib, signal, time
signal.signal(signal.SIGUSR1, lambda *_: pathlib.Path("/tmp/was_asked").touch())
pathlib.Path("/proc/self/comm").write_text("tarnwick")
print("ready", flush=True)
time.sleep(600)
"""


def start_pretender(lab, *before):
    pretender = laboratory.start(lab, "router", *before, "/usr/bin/python3", "-c", PRETENDER)
    laboratory.wait_for(lambda: "ready" in laboratory.log_of(pretender), 30, "pretender")
    return pretender


def test_process_of_another_user_that_is_called_tarnwick_changes_nothing(lab):
    pretender = start_pretender(lab, *UNPRIVILEGED)
    done = status(lab)
    assert done.returncode == 1
    assert "tarnwick does not run here" in done.stderr
    proxy.start_daemon(lab)
    assert len(snapshot(lab)["interfaces"]) == 2
    inside = next(line.split()[0] for line in laboratory.run(lab, "router", "ps", "-e", "-o", "pid=,user=,comm=").splitlines()
                  if line.split()[1:] == ["nobody", "tarnwick"])
    named = status(lab, "--pid", inside)
    assert named.returncode == 1
    assert "another user's" in named.stderr
    assert not (lab.router_tmp / "was_asked").exists()
    assert not laboratory.has_ended(pretender)


def test_process_of_roots_own_that_is_only_called_tarnwick_is_not_asked(lab):
    start_pretender(lab)
    done = status(lab)
    assert done.returncode == 1
    assert "cannot be asked" in done.stderr
    assert not (lab.router_tmp / "was_asked").exists()


def test_name_of_an_interface_reaches_the_terminal_without_control_characters(lab):
    name = "w\033[2J\x9b"
    subprocess.run(laboratory.enter(lab, "router") + ["ip", "link", "set", "wan0", "down"], check=True)
    done = subprocess.run([*map(os.fsencode, laboratory.enter(lab, "router")), b"ip", b"link", b"set", b"wan0", b"name",
                           name.encode("latin-1")], check=False, capture_output=True)
    assert done.returncode == 0, done.stderr
    subprocess.run([*map(os.fsencode, laboratory.enter(lab, "router")), b"ip", b"link", b"set", name.encode("latin-1"),
                    b"up"], check=True)
    daemon = subprocess.Popen([*map(os.fsencode, laboratory.enter(lab, "router")), b"/mnt/tarnwick", b"-u",
                               name.encode("latin-1"), b"-d", b"br0"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    try:
        command = laboratory.enter(lab, "router") + [STATUS]
        looked = laboratory.wait_for(
            lambda: (done := subprocess.run(command, capture_output=True, timeout=60, check=False)).returncode == 0
            and done, 30, "a table")
        assert b"w?[2J?" in looked.stdout
        assert b"\033" not in looked.stdout and b"\x9b" not in looked.stdout
        as_json = subprocess.run(command + ["--json"], capture_output=True, timeout=60, check=True).stdout
        assert json.loads(as_json.decode("utf-8"))["interfaces"][0]["name"] == "w\033[2J\ufffd"
    finally:
        daemon.kill()
        daemon.wait(timeout=30)
