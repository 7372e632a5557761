"""tarnwick-status with the real daemon."""

import json
import os
import subprocess

import laboratory
import proxy
import traffic

STATUS = f"{laboratory.PROGRAMS_IN_ROUTER}/tarnwick-status"
UNPRIVILEGED = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]


def status(lab, *options, before=()):
    """Status, standard output and standard error of one run in the router."""
    return subprocess.run(laboratory.enter(lab, "router") + list(before) + [STATUS, *options], capture_output=True,
                          text=True, timeout=60, check=False, env={**os.environ, "LC_ALL": "C.UTF-8"})


def snapshot(lab):
    done = status(lab, "--json")
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def group_of(shown, address):
    return next((group for group in shown["groups"] if group["group"] == address), None)


def test_stream_is_shown_with_its_listener_rate_and_output(lab):
    proxy.start_proxy(lab)
    traffic.listen(lab, "host1", "ff0e::101")
    laboratory.wait_for(lambda: group_of(snapshot(lab), "ff0e::101"), what="group in the status")
    traffic.start_stream(lab, "ff0e::101", count=3000, per_second=100)

    def flowing():
        stream = group_of(snapshot(lab), "ff0e::101")["streams"][0]
        return stream if stream["packets_per_second"] > 50 else None

    stream = laboratory.wait_for(flowing, deadline_s=10, what="rate of the stream")
    assert stream["kind"] == "wanted"
    assert stream["source"] == "::"
    assert stream["outputs"] == ["br0"]
    assert stream["packets_per_second"] < 200
    shown = snapshot(lab)
    assert [(row["name"], row["role"]) for row in shown["interfaces"]] == [("wan0", "upstream"), ("br0", "downstream")]
    assert group_of(shown, "ff0e::101")["listeners"][0]["interface"] == "br0"
    assert group_of(shown, "::")["streams"][0]["kind"] == "static_tree"
    assert shown["interfaces"][1]["packets_out"] > 50
    assert shown["interfaces"][1]["joins"] >= 1


def test_table_names_the_group_and_ends_with_status_0(lab):
    proxy.start_proxy(lab)
    traffic.listen(lab, "host1", "ff3e::8000:1", sources=(laboratory.S1,))
    laboratory.wait_for(lambda: group_of(snapshot(lab), "ff3e::8000:1"), what="group in the status")
    done = status(lab)
    assert done.returncode == 0, done.stderr
    rows = [line.split() for line in done.stdout.splitlines()]
    assert ["ff3e::8000:1", "br0"] == next(row for row in rows if row and row[0] == "ff3e::8000:1")[:2]
    assert laboratory.S1 in done.stdout
    assert "\033" not in done.stdout


def test_every_look_is_a_new_one(lab):
    """An earlier dump is never taken for the answer."""
    proxy.start_daemon(lab)
    first = snapshot(lab)["interfaces"][1]["joins"]
    proxy.start_companion(lab)
    for number in range(1, 6):
        traffic.listen(lab, "host1", f"ff0e::{number}")
    shown = laboratory.wait_for(lambda: group_of(snapshot(lab), "ff0e::5") and snapshot(lab), what="fifth group")
    assert shown["interfaces"][1]["joins"] >= first + 5
    assert len([group for group in shown["groups"] if group["listeners"]]) == 5


def test_two_lookers_at_once_both_see_whole_files(lab):
    proxy.start_daemon(lab)
    command = laboratory.enter(lab, "router") + [STATUS, "--json"]
    lookers = [subprocess.Popen(command, stdout=subprocess.PIPE, text=True) for _ in range(5)]
    for looker in lookers:
        output, _ = looker.communicate(timeout=30)
        assert looker.returncode == 0
        assert [row["name"] for row in json.loads(output)["interfaces"]] == ["wan0", "br0"]


def test_missing_companion_is_reported(lab):
    proxy.start_daemon(lab)
    laboratory.run(lab, "router", "ip", "-6", "address", "add", "ff02::16/128", "dev", "br0", "autojoin")
    traffic.listen(lab, "host1", "ff0e::101")
    laboratory.wait_for(lambda: group_of(snapshot(lab), "ff0e::101"), what="group in the status")
    assert "start tarnwick-assist" in status(lab).stdout


def test_watch_redraws_until_it_is_told_to_end(lab):
    proxy.start_daemon(lab)
    watcher = laboratory.start(lab, "router", STATUS, "--watch", "1")
    laboratory.wait_for(lambda: laboratory.log_of(watcher).count("INTERFACE") >= 3, deadline_s=15, what="third table")
    assert laboratory.stop(watcher) == 0


def test_watch_waits_for_the_daemon_to_come_back(lab):
    daemon = proxy.start_daemon(lab)
    watcher = laboratory.start(lab, "router", STATUS, "--watch", "1")
    laboratory.wait_for(lambda: "INTERFACE" in laboratory.log_of(watcher), what="first table")
    assert laboratory.stop(daemon) == 0
    laboratory.wait_for(lambda: "tarnwick does not run here" in laboratory.log_of(watcher), what="message about the end")
    proxy.start_daemon(lab)
    seen = laboratory.log_of(watcher).count("INTERFACE")
    laboratory.wait_for(lambda: laboratory.log_of(watcher).count("INTERFACE") > seen, what="table of the new daemon")
    assert laboratory.stop(watcher) == 0


def test_without_daemon_it_says_so_and_calls_old_files_old(lab):
    done = status(lab)
    assert (done.returncode, done.stdout) == (1, "")
    assert "tarnwick does not run here" in done.stderr
    assert "type_messages" not in done.stderr
    (lab.router_tmp / "tarnwick_type_messages").write_text("[MLD]ifname: br0 query: 9 join: 9 leave: 9 timeout: 9\n")
    assert "says nothing about the present" in status(lab).stderr


def test_without_permission_it_says_whom_to_be(lab):
    proxy.start_daemon(lab)
    done = status(lab, before=UNPRIVILEGED)
    assert done.returncode == 1
    assert "run tarnwick-status as root" in done.stderr


def test_daemon_that_cannot_write_is_distinguished_from_a_missing_one(lab):
    daemon = proxy.start_daemon(lab)
    (lab.router_tmp / "tarnwick_type_messages").mkdir()
    done = status(lab)
    assert done.returncode == 1
    assert "tarnwick was not asked, since it cannot write /tmp/tarnwick_type_messages" in done.stderr
    assert "Create /tmp/tarnwick_type_messages failed!" not in laboratory.log_of(daemon)


def test_foreign_process_is_never_signalled(lab):
    other = laboratory.start(lab, "router", "sleep", "60")
    inside = next(line for line in laboratory.run(lab, "router", "ps", "-o", "pid=,comm=").splitlines()
                  if "sleep" in line and line.split()[0] != "1").split()[0]
    done = status(lab, "--pid", inside)
    assert done.returncode == 1
    assert f"process {inside} is 'sleep', not tarnwick" in done.stderr
    assert not laboratory.has_ended(other)


def test_name_alone_does_not_expose_a_process_to_the_signal(lab):
    """SIGUSR1 would end a daemon that has not installed its handlers yet."""
    link = lab.router_tmp / "tarnwick"
    link.write_bytes(open("/bin/sleep", "rb").read())
    link.chmod(0o755)
    starting = laboratory.start(lab, "router", "/tmp/tarnwick", "60")
    laboratory.wait_for(lambda: "tarnwick" in laboratory.run(lab, "router", "ps", "-e", "-o", "comm="), what="its name")
    done = status(lab)
    assert done.returncode == 1
    assert "it is still starting" in done.stderr
    assert not laboratory.has_ended(starting)


def test_closed_output_ends_it_with_a_status(lab):
    proxy.start_daemon(lab)
    done = subprocess.run(laboratory.enter(lab, "router") + ["sh", "-c", f"{STATUS} > /dev/full; echo $?"],
                          capture_output=True, text=True, timeout=60, check=False)
    assert done.stdout == "1\n"
