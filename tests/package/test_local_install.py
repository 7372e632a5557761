"""cmake --install below /usr/local, and its unit on a Debian system that systemd runs."""

import os
import re
import subprocess

import debian_box
from conftest import BUILD
from test_life import is_active, is_gone, streams_can_flow


def installed(folder, prefix, umask):
    subprocess.run(["cmake", "--install", BUILD, "--prefix", prefix], env={**os.environ, "DESTDIR": str(folder)},
                   umask=umask, check=True, capture_output=True)
    return folder


def test_everybody_may_read_what_is_installed_whatever_the_umask(tmp_path):
    for prefix in ("/usr", "/usr/local"):
        root = installed(tmp_path / prefix.replace("/", "-"), prefix, 0o077)
        modes = {path.relative_to(root): oct(path.stat().st_mode & 0o7777) for path in root.rglob("*")}
        assert len(modes) > 20
        programs = {path for path in modes if path.parent.name == "sbin"}
        assert len(programs) == 4
        assert {path: mode for path, mode in modes.items()
                if mode != ("0o755" if path in programs or (root / path).is_dir() else "0o644")} == {}


def test_paths_in_the_unit_and_the_settings_follow_the_prefix(tmp_path):
    root = installed(tmp_path, "/usr/local", 0o022)
    unit = (root / "usr/local/lib/systemd/system/tarnwick.service").read_text()
    settings = (root / "usr/local/etc/default/tarnwick").read_text()
    named = re.findall(r"^(?:EnvironmentFile|ExecStart)=(\S+)", unit, re.M)
    named += re.findall(r"--nvram=(/\w\S*\w)", settings)
    assert len(named) == 3
    assert {path for path in named if not (root / path[1:]).is_file()} == set()
    assert not (root / "etc").exists()


def test_unit_below_usr_local_runs(box, tmp_path):
    lab, debian = box
    debian_box.put(debian, installed(tmp_path, "/usr/local", 0o077) / "usr", "/usr")
    debian_box.run(debian, "sed", "-i", "s/=br1/=wan0/", "/usr/local/etc/default/tarnwick")
    debian_box.run(debian, "systemctl", "daemon-reload")
    debian_box.run(debian, "systemctl", "enable", "--now", "tarnwick.service")
    assert is_active(debian, "tarnwick.service")
    assert streams_can_flow(lab)
    debian_box.run(debian, "systemctl", "stop", "tarnwick.service")
    assert is_gone(debian)
