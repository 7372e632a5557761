"""tarnwick-status --prometheus beside the real daemon, checked with Prometheus' own tool."""

import os
import re
import subprocess

import laboratory
import proxy
import traffic
from test_status import group_of, snapshot, status


def assert_promtool_accepts(metrics):
    done = subprocess.run(["promtool", "check", "metrics"], input=metrics, capture_output=True, text=True, timeout=60,
                          check=False)
    assert (done.returncode, done.stdout + done.stderr) == (0, "")


def start_watched_router(lab):
    proxy.start_proxy(lab)
    traffic.listen(lab, "host1", "ff3e::8000:1", sources=(laboratory.S1,))
    laboratory.wait_for(lambda: group_of(snapshot(lab), "ff3e::8000:1"), what="group in the status")


def test_metrics_are_what_promtool_accepts_and_say_what_json_says(lab):
    start_watched_router(lab)
    done = status(lab, "--prometheus")
    assert done.returncode == 0, done.stderr
    assert_promtool_accepts(done.stdout)
    assert re.search(r"^tarnwick_groups 1$", done.stdout, re.M)
    assert re.search(r'^tarnwick_stream_packets_total\{group="ff3e::8000:1",source="2001:db8:2::10",interface="wan0"\} 0$',
                     done.stdout, re.M)
    assert re.search(r'^tarnwick_interface_joins_total\{interface="br0",protocol="MLD",role="downstream"\} [1-9]',
                     done.stdout, re.M)


def test_file_is_replaced_whole_and_stays_when_there_is_nothing_to_say(lab):
    file = lab.router_tmp / "tarnwick.prom"
    file.write_text("old\n")
    assert status(lab, "--prometheus=/tmp/tarnwick.prom").returncode == 1
    assert file.read_text() == "old\n"
    start_watched_router(lab)
    before = file.stat().st_ino
    assert status(lab, "--prometheus=/tmp/tarnwick.prom").returncode == 0
    assert_promtool_accepts(file.read_text())
    assert file.stat().st_ino != before
    assert file.stat().st_mode & 0o777 == 0o644
    assert [name for name in os.listdir(lab.router_tmp) if name.startswith("tarnwick.prom")] == ["tarnwick.prom"]


def test_file_that_cannot_be_written_is_told(lab):
    proxy.start_daemon(lab)
    done = status(lab, "--prometheus=/nowhere/tarnwick.prom")
    assert done.returncode == 1
    assert "cannot write /nowhere/tarnwick.prom: No such file or directory" in done.stderr
