"""A Debian system with its own systemd, booted inside the lab's router in about two seconds."""

import dataclasses
import os
import pathlib
import secrets
import signal
import subprocess

import laboratory
import namespaces

BOOT = pathlib.Path(__file__).parent / "boot_systemd.sh"
MIRROR = os.environ.get("TARNWICK_DEBIAN_MIRROR", "http://deb.debian.org/debian")
RELEASE = "bookworm"
BOOT_DEADLINE_S = 300  # two seconds on a quiet machine
COMMAND_DEADLINE_S = 300
REMOVAL_DEADLINE_S = 60


@dataclasses.dataclass
class Box:
    process: subprocess.Popen  # unshare, the parent of systemd
    systemd: int  # its process number
    group: str  # its control group


def unpacked_root(folder):
    """A minimal Debian with systemd; made once and kept with the build."""
    root = folder / f"root-{RELEASE}"
    if not root.exists():
        unfinished = folder / f"root-{RELEASE}.unfinished"
        subprocess.run(["rm", "-rf", "--one-file-system", unfinished], check=True)
        subprocess.run(["debootstrap", "--variant=minbase", "--include=systemd", RELEASE, unfinished, MIRROR],
                       check=True, stdout=subprocess.DEVNULL, timeout=900)
        (unfinished / "etc" / "machine-id").write_text("0" * 31 + "1\n")
        unfinished.rename(root)
    return root


def boot(lab, root):
    router = namespaces.path_of(lab.nodes["router"])
    group = f"tarnwick-{secrets.token_hex(4)}"
    process = subprocess.Popen(
        ["nsenter", f"--net={router}", "unshare", "--mount", "--pid", "--uts", "--ipc", "--fork", "--kill-child",
         "--propagation", "private", "sh", BOOT, root, group],
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
        preexec_fn=lambda: namespaces.die_with_parent(signal.SIGKILL))
    box = Box(process, 0, group)
    try:
        box.systemd = laboratory.wait_for(lambda: child_named(process, "systemd"), BOOT_DEADLINE_S, "systemd")
        laboratory.wait_for(lambda: is_up(box), BOOT_DEADLINE_S, "end of the boot")
    except BaseException:
        shut_down(box)
        raise
    return box


def child_named(process, name):
    if process.poll() is not None:
        raise AssertionError(f"the boot ended with status {process.returncode}")
    pid = laboratory.child_of(process.pid)
    return pid if pid and pathlib.Path(f"/proc/{pid}/comm").read_text().strip() == name else 0


def is_up(box):
    return run(box, "systemctl", "is-system-running", check=False).stdout.strip() in ("running", "degraded")


def run(box, *command, check=True):
    done = subprocess.run(
        ["nsenter", f"--target={box.systemd}", "--mount", "--pid", "--net", "--cgroup", "--root", "--wdns=/", "env",
         "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND=noninteractive", *command],
        capture_output=True, text=True, timeout=COMMAND_DEADLINE_S, check=False)
    if check and done.returncode != 0:
        raise AssertionError(f"{' '.join(command)}: status {done.returncode}\n{done.stdout}{done.stderr}")
    return done


def put(box, source, path):
    """Copies a file, or a folder's contents, into the system."""
    inside = f"/proc/{box.systemd}/root{path}"
    subprocess.run(["cp", "-a", f"{source}/." if source.is_dir() else source, inside], check=True)


def files(box):
    """Every path of the system but those of the kernel, of logs and of the package manager's own books."""
    found = run(box, "find", "/", "-xdev", "-not", "-path", "/var/lib/dpkg*", "-not", "-path", "/var/log/*", "-not",
                "-path", "/var/cache/*", "-not", "-path", "/var/lib/systemd/*")
    return set(found.stdout.splitlines())


def shut_down(box):
    if box.systemd:
        os.kill(box.systemd, signal.SIGKILL)  # its whole process namespace ends with it
    else:
        box.process.kill()
    box.process.wait()
    # The kernel may still be taking the last processes out of it.
    laboratory.wait_for(lambda: group_is_removed(box.group), REMOVAL_DEADLINE_S, "end of the control group")


def group_is_removed(group):
    remove = f"mount -t cgroup2 cgroup2 /media; [ ! -d /media/{group} ] || find /media/{group} -depth -type d -delete"
    return subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-euc", remove],
                          capture_output=True, check=False).returncode == 0
