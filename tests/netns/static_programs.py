"""Programs of which each is one file without dependency (scripts/musl static): what is different with them."""

import pytest

import kernel_view
import supervisor
from kernel_view import ANY
from laboratory import PROGRAMS, log_of, run, stop, wait_for
from supervisor import NOTHING, leftovers
from traffic import listen

GROUP = "ff0e::1:2:3"
DEADLINE_S = 30


WITHOUT_LIBRARY = "/mnt/tarnwick is linked statically: its log lines come in blocks, and each query makes it wait"


def test_supervisor_says_what_a_static_daemon_goes_without_and_serves(lab):
    supervised = supervisor.start(lab)
    listen(lab, "host1", GROUP)
    wait_for(lambda: kernel_view.forwarding_of(lab, GROUP) == {ANY: {"br0"}}, DEADLINE_S, "entry")
    assert stop(supervised) == 0
    assert WITHOUT_LIBRARY in log_of(supervised)
    assert "MFC Entry will be created for iface:br0." in log_of(supervised), "blocks come at the end at the latest"
    assert leftovers(lab) == NOTHING


@pytest.mark.parametrize("preload, is_said", [("/tmp/libtarnwick-smooth.so", True), ("", False)])
def test_library_that_is_named_all_the_same_is_left_out(lab, preload, is_said):
    (lab.router_tmp / "libtarnwick-smooth.so").write_bytes(b"could be preloaded")
    supervised = supervisor.start(lab, f"--preload={preload}")
    assert stop(supervised) == 0
    assert (WITHOUT_LIBRARY in log_of(supervised)) == is_said


def test_programs_run_where_nothing_else_is(lab):
    """In a folder that they have for themselves: no loader, no library, no shell."""
    for name in ("tarnwick-assist", "tarnwick-run", "tarnwick-status"):
        (lab.router_tmp / name).write_bytes((PROGRAMS / name).read_bytes())
        (lab.router_tmp / name).chmod(0o755)
        assert f"{name} " in run(lab, "router", "chroot", "/tmp", f"/{name}", "--version")
