"""Network namespaces held by file descriptors: they end with this process, however it ends."""

import contextlib
import ctypes
import os

CLONE_NEWNET = 0x40000000
PR_SET_PDEATHSIG = 1

libc = ctypes.CDLL(None, use_errno=True)


def checked(result):
    if result == -1:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def die_with_parent(signal_number):
    """For a child between fork and exec: it gets the signal when this process ends."""
    checked(libc.prctl(PR_SET_PDEATHSIG, int(signal_number)))


def open_own():
    return os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)


def create():
    """A new, empty network namespace, as a file descriptor. Its interface indexes start at 1."""
    home = open_own()
    try:
        checked(libc.unshare(CLONE_NEWNET))
        created = open_own()
        checked(libc.setns(home, CLONE_NEWNET))
    finally:
        os.close(home)
    return created


@contextlib.contextmanager
def entered(namespace):
    """Sockets opened and /proc/thread-self/net files read inside belong to that namespace, also later."""
    home = open_own()
    checked(libc.setns(namespace, CLONE_NEWNET))
    try:
        yield
    finally:
        checked(libc.setns(home, CLONE_NEWNET))
        os.close(home)


def path_of(namespace):
    """A path that other processes can hand to nsenter and ip."""
    return f"/proc/{os.getpid()}/fd/{namespace}"
