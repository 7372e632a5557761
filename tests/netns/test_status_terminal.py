"""tarnwick-status --watch on a terminal: it ends, stops and grows as a person wants, and leaves the terminal as it was."""

import fcntl
import os
import pty
import signal
import struct
import termios
import time

import laboratory
import pytest
from test_status import STATUS

DEADLINE_S = 30
CLOSED = b"\033[?1049l"


class Terminal:
    """A pseudo terminal with the program in the foreground, as a shell would start it."""

    def __init__(self, lab, rows=24, columns=80):
        command = laboratory.enter(lab, "router") + [STATUS, "--watch", "1"]
        self.pid, self.master = pty.fork()
        if self.pid == 0:
            for number in (signal.SIGINT, signal.SIGQUIT):  # for what enters the lab: it is not to end with its program
                signal.signal(number, signal.SIG_IGN)
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
            os.execvp(command[0], command)
        os.set_blocking(self.master, False)
        self.shown = b""
        self.before = termios.tcgetattr(self.master)

    def read(self):
        try:
            self.shown += os.read(self.master, 65536)
        except (BlockingIOError, OSError):
            time.sleep(0.05)
        return self.shown

    def wait_for(self, text, what):
        laboratory.wait_for(lambda: text in self.read(), DEADLINE_S, what)

    def open_again(self):
        """A descriptor that keeps the terminal's settings when the program has ended."""
        return os.open(os.readlink(f"/proc/{self.pid}/fd/0"), os.O_RDWR | os.O_NOCTTY)

    def wait_for_end(self):
        def ended():
            self.read()
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            return (status,) if pid else None
        return os.waitstatus_to_exitcode(laboratory.wait_for(ended, DEADLINE_S, "end")[0])


@pytest.mark.parametrize("key", [b"q", b"\x1c", b"\x03"], ids=["q", "ctrl-backslash", "ctrl-c"])
def test_key_ends_the_watch_and_leaves_the_terminal_as_it_was(lab, key):
    terminal = Terminal(lab)
    terminal.wait_for(b"tarnwick does not run here", "first page")
    keeper = terminal.open_again()
    assert not termios.tcgetattr(keeper)[3] & termios.ICANON
    os.write(terminal.master, b"x" + key)
    terminal.wait_for(CLOSED, "window closed")
    laboratory.wait_for(lambda: termios.tcgetattr(keeper) == terminal.before, DEADLINE_S, "terminal as it was")
    assert terminal.shown.rstrip().endswith(CLOSED)
    assert terminal.wait_for_end() == 0


def test_ctrl_z_gives_the_terminal_back_until_it_goes_on(lab):
    terminal = Terminal(lab)
    terminal.wait_for(b"tarnwick does not run here", "first page")
    keeper = terminal.open_again()
    # A stop key is ignored in an orphaned process group, as this one is: the terminal is given back all the same.
    os.write(terminal.master, b"\x1a")
    terminal.wait_for(CLOSED, "window closed")
    terminal.shown = b""
    os.kill(terminal.pid, signal.SIGCONT)
    terminal.wait_for(b"tarnwick does not run here", "page after the stop")
    assert not termios.tcgetattr(keeper)[3] & termios.ICANON
    os.write(terminal.master, b"q")
    assert terminal.wait_for_end() == 0
    assert termios.tcgetattr(keeper) == terminal.before


def test_resize_draws_the_page_again(lab):
    terminal = Terminal(lab, columns=30)
    terminal.wait_for(b"tarnwick does not run here", "first page")
    assert b"tarnwick does not run here: start" not in terminal.shown  # broken at blanks
    fcntl.ioctl(terminal.master, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 200, 0, 0))
    terminal.wait_for(b"tarnwick does not run here: start it, for example with 'systemctl start", "wider page")
    os.write(terminal.master, b"q")
    assert terminal.wait_for_end() == 0
