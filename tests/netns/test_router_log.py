"""What may be wrong with the log: closed, full, a reader that died or hangs. Joins work on, and the end is clean."""

import fcntl
import os
import pathlib
import pty
import socket
import struct
import termios
import threading

import pytest

import kernel_view
from kernel_view import ANY
from laboratory import start, stop, wait_for, wait_for_end
from proxy import DAEMON, ENVIRONMENT, TWO_CAPABILITIES, environment_of, start_companion, wait_until_listening
from traffic import listen, program, received, send_stream

GROUP = "ff0e::1:2:3"
DEADLINE_S = 30


def start_writing_to(lab, output, *before):
    lab.daemon = start(lab, "router", *before, DAEMON, "-u", "wan0", "-d", "br0", environment=ENVIRONMENT,
                       standard_output=output)
    wait_until_listening(lab.daemon)
    start_companion(lab)
    return lab.daemon


def assert_it_works(lab, daemon):
    """More lines than any pipe holds, then a join, a stream and a clean end."""
    flood = start(lab, "host2", program("mld_flood"), "-i", "eth0", "-k", "queriers", "-n", "20000", "-r", "0")
    assert wait_for_end(flood, DEADLINE_S) == 0
    listener = listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}, DEADLINE_S, "entry")
    sent = send_stream(lab, GROUP)
    wait_for(lambda: received(listener) >= sent - 2, DEADLINE_S, "stream")
    assert stop(daemon, DEADLINE_S) == 0
    assert kernel_view.interface_flags(lab, "br0") == set()


@pytest.mark.parametrize("closed", ["0<&-", "1>&-", "2>&-", "0<&- 1>&- 2>&-"])
def test_closed_standard_streams(lab, closed):
    daemon = start_writing_to(lab, None, "sh", "-c", f'exec "$@" {closed}', "sh")
    assert_it_works(lab, daemon)


@pytest.mark.parametrize("user", ["root", "other user"])
@pytest.mark.parametrize("reader", ["dead", "stuck"])
def test_pipe_without_a_reader_that_reads(lab, reader, user):
    """Another user may not open root's pipe anew, and still must not wait for it."""
    read_end, write_end = os.pipe()
    daemon = start_writing_to(lab, write_end, *(TWO_CAPABILITIES if user == "other user" else ()))
    os.close(write_end)
    if reader == "dead":
        os.close(read_end)
    assert_it_works(lab, daemon)
    if reader == "stuck":
        os.close(read_end)


def test_socket_whose_reader_hangs(lab):
    """A service manager's log is one."""
    ours, daemons = socket.socketpair()
    with ours:
        daemon = start_writing_to(lab, daemons.fileno())
        daemons.close()
        assert_it_works(lab, daemon)


def test_full_device(lab):
    with open("/dev/full", "wb") as full:
        daemon = start_writing_to(lab, full.fileno())
    assert_it_works(lab, daemon)


def bytes_in_tick_pipe(daemon):
    """How much waits in the one pipe of which the daemon holds both ends."""
    folder = pathlib.Path(f"/proc/{daemon.pid}/fd")
    targets = [(path, os.readlink(path)) for path in folder.iterdir()]
    pipes = [target for _path, target in targets if target.startswith("pipe:")]
    ends = [path for path, target in targets if pipes.count(target) == 2]
    if not ends:
        return 0  # not made yet
    reader = os.open(ends[0], os.O_RDONLY | os.O_NONBLOCK)
    try:
        return struct.unpack("i", fcntl.ioctl(reader, termios.FIONREAD, b"\0" * 4))[0]
    finally:
        os.close(reader)


def read_to_the_end(descriptor):
    try:
        while os.read(descriptor, 65536):
            pass
    except OSError:
        pass  # the daemon has ended


def test_terminal_that_stands_still_until_the_tick_pipe_is_full(lab):
    """As with Ctrl-S. Afterwards the daemon goes on; ticks that found no room are lost."""
    master, slave = pty.openpty()
    lab.daemon = daemon = start(lab, "router", DAEMON, "-u", "wan0", "-d", "br0", environment=environment_of(2000),
                                standard_output=slave)
    os.close(slave)
    wait_until_listening(daemon)
    flood = start(lab, "host2", program("mld_flood"), "-i", "eth0", "-k", "queriers", "-n", "2000", "-r", "0")
    assert wait_for_end(flood, DEADLINE_S) == 0
    pipe_bytes, pages, tick_bytes = 65536, 16, 5  # a tick is never split over two pages
    wait_for(lambda: bytes_in_tick_pipe(daemon) > pipe_bytes - pages * tick_bytes, DEADLINE_S, "full pipe")
    threading.Thread(target=read_to_the_end, args=(master,), daemon=True).start()
    wait_for(lambda: bytes_in_tick_pipe(daemon) < pipe_bytes / 2, DEADLINE_S, "ticks that are read")
    start_companion(lab)
    listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}, DEADLINE_S, "entry")
    assert stop(daemon, DEADLINE_S) == 0
