"""The OpenWrt package as far as it can be checked without its build root."""

import pathlib
import re
import subprocess

import pytest

FOLDER = pathlib.Path(__file__).parents[2] / "packaging" / "openwrt"
INIT = FOLDER / "files" / "tarnwick.init"
STUBS = pathlib.Path(__file__).parent / "openwrt_stubs.sh"
SHELLS = [["dash"], ["busybox", "ash"]]


@pytest.fixture(params=SHELLS, ids=lambda shell: shell[-1])
def dry_run(request, tmp_path):
    """Runs a function of the init script; the NVRAM file goes to a folder of the test."""
    nvram = tmp_path / "etc" / "nvram"

    def run(function, **settings):
        script = INIT.read_text().replace("NVRAM_FILE=/var/etc/tarnwick.nvram", f"NVRAM_FILE={nvram}")
        assert str(nvram) in script
        assignments = "\n".join(f"CONFIG_main_{name}='{value}'" for name, value in settings.items())
        program = f"set -u\n. {STUBS}\n{assignments}\n{script}\n{function}\n"
        done = subprocess.run(request.param, input=program, capture_output=True, text=True, timeout=20, check=False)
        assert done.stderr == ""
        return done.returncode, done.stdout.splitlines()

    run.nvram = nvram
    return run


def command(lines):
    """The words of the one instance's command."""
    words = []
    for line in lines:
        for start in ("set command ", "append command "):
            words += line.removeprefix(start).split() if line.startswith(start) else []
    return words


SUPERVISED = "/usr/sbin/tarnwick-run -u eth0.2 -d br-lan,br-iptv --network=host --log=info"


def test_one_instance_runs_the_supervisor_and_is_started_again(dry_run):
    status, lines = dry_run("start_service", enabled="1", upstream="eth0.2", downstream="br-lan br-iptv")
    assert status == 0
    assert command(lines) == SUPERVISED.split()
    assert lines.count("set respawn 3600 5 0") == 1
    assert [line.strip() for line in lines if line.startswith(("open", "close"))] == ["open", "close"]
    assert not [line for line in lines if line.startswith(("set stdout", "set stderr"))], "its log has levels of its own"


def test_network_and_log_are_passed_on(dry_run):
    _status, lines = dry_run("start_service", enabled="1", upstream="wan", downstream="lan", network="private", log="all")
    assert command(lines)[-2:] == ["--network=private", "--log=all"]


def test_nothing_starts_until_it_is_enabled(dry_run):
    for enabled in ("0", ""):
        assert dry_run("start_service", enabled=enabled, upstream="wan", downstream="br-lan") == (
            0, ["config_load tarnwick"])


def test_missing_device_is_told_in_the_system_log(dry_run):
    for settings in ({"upstream": "", "downstream": "br-lan"}, {"upstream": "wan", "downstream": ""}):
        status, lines = dry_run("start_service", enabled="1", **settings)
        assert status == 1
        assert lines[-1].startswith("logger -t tarnwick -p daemon.err")


def test_companion_can_be_left_out(dry_run):
    _status, lines = dry_run("start_service", enabled="1", upstream="wan", downstream="br-lan", assist="0")
    assert command(lines)[-1] == "--no-assist"


def test_queries_carry_the_address_that_is_set(dry_run):
    _status, lines = dry_run("start_service", enabled="1", upstream="wan", downstream="lo")
    assert not dry_run.nvram.exists() and "--nvram" not in " ".join(lines), "the supervisor takes the device's own"
    _status, lines = dry_run("start_service", enabled="1", upstream="wan", downstream="lo", lan_mac="02:00:00:00:01:fe")
    assert dry_run.nvram.read_text() == "et0macaddr=02:00:00:00:01:fe\n"
    assert command(lines)[-1] == f"--nvram={dry_run.nvram}"


def test_changed_settings_restart_it(dry_run):
    assert dry_run("service_triggers") == (0, ["reload on tarnwick"])


def test_every_option_of_the_settings_file_is_read_by_the_init_script():
    named = set(re.findall(r"^\s*#?\s*(?:option|list) (\w+)", (FOLDER / "files" / "tarnwick.config").read_text(), re.M))
    read = set(re.findall(r"(?:config_get(?:_bool)? \w+|config_list_foreach) \"?\$\w+\"? (\w+)", INIT.read_text()))
    assert named == read


def test_scripts_are_clean():
    for script, dialect in ((INIT, "dash"), (STUBS, "dash")):
        done = subprocess.run(["shellcheck", "-s", dialect, script], capture_output=True, text=True, check=False)
        assert done.returncode == 0, done.stdout
    for script in (FOLDER.parent / "debian").glob("p*"):
        done = subprocess.run(["shellcheck", script], capture_output=True, text=True, check=False)
        assert done.returncode == 0, done.stdout


def test_package_has_the_projects_version_and_names_files_that_exist():
    project = (FOLDER.parents[1] / "CMakeLists.txt").read_text()
    version = re.search(r"project\(tarnwick VERSION ([0-9.]+)", project).group(1)
    makefile = (FOLDER / "Makefile").read_text()
    assert f"PKG_VERSION:={version}\n" in makefile
    for file in re.findall(r"\./(files/\S+)", makefile):
        assert (FOLDER / file).is_file()
    assert "-DCMAKE_BUILD_TYPE=MinSizeRel" in makefile and "libs,file" in makefile
