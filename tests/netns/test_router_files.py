"""What may be wrong with /tmp: planted things, a full disk, a file system that cannot be written."""

import os
import signal

import pytest

import kernel_view
from kernel_view import ANY
from frames import report
from laboratory import S1, S2, has_ended, log_of, run, send_signal, stop, wait_for
from proxy import PRELOAD, open_descriptors, start_proxy, start_snooping
from traffic import listen, send_frame

GROUP = "ff0e::1:2:3"
STALE_GROUP = "ff0e::5"
FAST = 10  # ticks per second
DEADLINE_S = 30
DUMP_FILES = ("tarnwick_host_in_group", "tarnwick_type_messages", "tarnwick_join_state")
LEAVE_RECORD = "tarnwick_leave_record"
DUMP_FAILED = "Create /tmp/tarnwick_type_messages failed!"
RECORD_FAILED = 'Open file "/tmp/tarnwick_leave_record" failed.'


def let_a_group_run_out(lab):
    """One of two sources is blocked and nobody answers the query: two seconds later the group's time is over."""
    send_frame(lab, "host2", "eth0", report("host2", [("ALLOW", STALE_GROUP, [S1, S2])]))
    wait_for(lambda: STALE_GROUP in kernel_view.memberships(lab, "wan0"), DEADLINE_S, "stale group")
    send_frame(lab, "host2", "eth0", report("host2", [("BLOCK", STALE_GROUP, [S1])]))
    wait_for(lambda: STALE_GROUP not in kernel_view.memberships(lab, "wan0"), DEADLINE_S, "end of the stale group")


def dump(daemon):
    send_signal(daemon, signal.SIGUSR1)


def assert_it_works(lab, group="ff0e::7"):
    listen(lab, "host1", group)
    wait_for(lambda: kernel_view.forwarding_of(lab, group) == {ANY: {"br0"}}, DEADLINE_S, "entry")
    assert not has_ended(lab.daemon)


NOBODY = 65534


def plant(kind, path, victim, owner=NOBODY):
    """Something of another user in place of a file; the router's /tmp is sticky."""
    if kind == "link":
        path.symlink_to("/tmp/victim")
    elif kind == "directory":
        path.mkdir()
    elif kind == "fifo":
        os.mkfifo(path)
    elif kind == "hard link":
        path.hardlink_to(victim)
    else:
        path.write_text("of another user\n")
    os.chown(path, owner, owner, follow_symlinks=False)


def open_descriptors_after_a_query(daemon):
    """With the library that tarnwick-run preloads the first query leaves a socket open."""
    wait_for(lambda: "[QUERY]" in log_of(daemon), DEADLINE_S, "first query")
    return open_descriptors(daemon)


def make_victim(lab):
    victim = lab.router_tmp / "victim"
    victim.write_text("precious\n")
    return victim


def start_stale_dump(lab, **options):
    """A running daemon that was asked for a dump and has let a group run out."""
    daemon = start_proxy(lab, ticks_per_second=FAST, **options)
    dump(daemon)
    let_a_group_run_out(lab)
    return daemon


@pytest.mark.parametrize("kind", ["link", "fifo", "file", "hard link"])
def test_planted_thing_is_replaced_by_a_file_of_the_daemons_own(lab, kind):
    victim = make_victim(lab)
    for name in (*DUMP_FILES, LEAVE_RECORD):
        plant(kind, lab.router_tmp / name, victim)
    daemon = start_stale_dump(lab)
    record = lab.router_tmp / LEAVE_RECORD
    wait_for(lambda: record.is_file() and record.read_text() == f"grp={STALE_GROUP}\n", DEADLINE_S, "leave record")
    for name in (*DUMP_FILES, LEAVE_RECORD):
        path = lab.router_tmp / name
        assert path.is_file() and not path.is_symlink()
        assert (path.stat().st_uid, path.stat().st_nlink) == (0, 1)
    assert "[MLD]ifname: br0" in (lab.router_tmp / "tarnwick_type_messages").read_text()
    assert victim.read_text() == "precious\n"
    assert DUMP_FAILED not in log_of(daemon)
    assert_it_works(lab)
    assert stop(daemon) == 0


@pytest.mark.parametrize("kind,owner", [("directory", NOBODY), ("fifo", 0)])
def test_thing_that_is_not_replaced_costs_only_its_file(lab, kind, owner):
    victim = make_victim(lab)
    for name in (*DUMP_FILES, LEAVE_RECORD):
        plant(kind, lab.router_tmp / name, victim, owner)
    daemon = start_stale_dump(lab)
    wait_for(lambda: DUMP_FAILED in log_of(daemon), DEADLINE_S, "failed dump")
    wait_for(lambda: RECORD_FAILED in log_of(daemon), DEADLINE_S, "failed leave record")
    assert_it_works(lab)
    assert stop(daemon) == 0


def test_link_that_root_made_is_followed(lab):
    target = lab.router_tmp / "elsewhere"
    target.write_text("old and longer than what comes now\n" * 100)
    (lab.router_tmp / "tarnwick_type_messages").symlink_to("/tmp/elsewhere")
    daemon = start_proxy(lab)
    dump(daemon)
    wait_for(lambda: "[MLD]ifname: br0" in target.read_text(), DEADLINE_S, "dump")
    assert "old and longer" not in target.read_text()
    assert stop(daemon) == 0


def test_planted_link_is_refused_where_its_maker_may_remove_any_file(lab):
    victim = make_victim(lab)
    lab.router_tmp.chmod(0o777)
    plant("link", lab.router_tmp / "tarnwick_type_messages", victim)
    daemon = start_proxy(lab)
    dump(daemon)
    wait_for(lambda: DUMP_FAILED in log_of(daemon), DEADLINE_S, "failed dump")
    assert victim.read_text() == "precious\n"
    assert stop(daemon) == 0


@pytest.mark.parametrize("kind", ["link", "directory", "fifo"])
@pytest.mark.parametrize("name", ["tarnwick_host_in_group", "tarnwick_join_state"])
def test_the_other_dump_files_are_written(lab, kind, name):
    victim = make_victim(lab)
    plant(kind, lab.router_tmp / name, victim)
    daemon = start_proxy(lab)
    before = open_descriptors_after_a_query(daemon)
    dump(daemon)
    counters = lab.router_tmp / "tarnwick_type_messages"
    wait_for(lambda: counters.exists() and "[MLD]ifname: br0" in counters.read_text(), DEADLINE_S, "dump")
    assert open_descriptors(daemon) == before
    assert victim.read_text() == "precious\n"
    assert stop(daemon) == 0


def mount_small_tmp(lab):
    """A /tmp of its own that some processes of the router have filled, seen through the router's mounts."""
    run(lab, "router", "mount", "-t", "tmpfs", "-o", "size=64k", "small", "/tmp")
    run(lab, "router", "sh", "-c", "cat /dev/zero >/tmp/filler 2>/dev/null || true")


def read_in_router(lab, name):
    return run(lab, "router", "cat", f"/tmp/{name}", check=False)


def test_full_disk_leaves_empty_files_and_harms_nothing(lab):
    daemon = start_proxy(lab, ticks_per_second=FAST)
    mount_small_tmp(lab)
    before = open_descriptors_after_a_query(daemon)
    for _ in range(20):
        dump(daemon)
    wait_for(lambda: "tarnwick_join_state" in run(lab, "router", "ls", "/tmp"), DEADLINE_S, "dump")
    let_a_group_run_out(lab)
    wait_for(lambda: LEAVE_RECORD in run(lab, "router", "ls", "/tmp"), DEADLINE_S, "leave record")
    assert read_in_router(lab, "tarnwick_type_messages") == ""
    assert open_descriptors(daemon) == before
    assert_it_works(lab)
    run(lab, "router", "rm", "/tmp/filler")
    dump(daemon)
    wait_for(lambda: "group: ff0e::7 " in read_in_router(lab, "tarnwick_join_state"), DEADLINE_S, "dump with room")
    assert stop(daemon) == 0


def test_unwritable_tmp_is_reported_and_harms_nothing(lab):
    notes = start_snooping(lab)
    daemon = start_proxy(lab, ticks_per_second=FAST)
    run(lab, "router", "mount", "-t", "tmpfs", "-o", "ro", "none", "/tmp")
    dump(daemon)
    wait_for(lambda: DUMP_FAILED in log_of(daemon), DEADLINE_S, "failed dump")
    let_a_group_run_out(lab)
    wait_for(lambda: RECORD_FAILED in log_of(daemon), DEADLINE_S, "failed leave record")
    assert "USR2" not in notes.read_text()  # without a record there is nothing to tell
    assert_it_works(lab)
    run(lab, "router", "umount", "/tmp")
    dump(daemon)
    wait_for((lab.router_tmp / "tarnwick_type_messages").exists, DEADLINE_S, "dump afterwards")
    assert stop(daemon) == 0


def limit_descriptors(lab, limit):
    run(lab, "router", "prlimit", f"--nofile={limit}:", "--pid", run(lab, "router", "pidof", "tarnwick").strip())


def test_failing_dumps_lose_two_streams_each_and_forwarding_outlives_them(lab):
    """Only root can ask for dumps. Streams flow on when no descriptor is left; queries need one and are not sent."""
    (lab.router_tmp / "tarnwick_type_messages").mkdir()
    daemon = start_proxy(lab, ticks_per_second=FAST)
    open_descriptors_after_a_query(daemon)
    limit_descriptors(lab, 40)
    for _ in range(40):
        before = log_of(daemon).count(DUMP_FAILED)
        dump(daemon)
        wait_for(lambda seen=before: log_of(daemon).count(DUMP_FAILED) > seen, DEADLINE_S, "failed dump")
    assert open_descriptors(daemon) - 40 == (PRELOAD is not None)  # the library keeps one beyond the limit
    wait_for(lambda: "Can't create socket to send query!" in log_of(daemon), DEADLINE_S, "query without a socket")
    assert_it_works(lab)
    limit_descriptors(lab, 1024)  # a leak checker needs some at the end, the daemon as well to restore flags
    assert stop(daemon) == 0
    assert kernel_view.multicast_interfaces(lab) == {}
