"""The Makefile of the OpenWrt package in a stand-in of the build root, and the scripts that the feed's tests run."""

import os
import pathlib
import re
import subprocess

import pytest

from programs import PROGRAMS, PROJECT

FOLDER = PROJECT / "packaging" / "openwrt"
BUILD_ROOT = pathlib.Path(__file__).parent / "openwrt"
INSTALLED = {
    "etc/capabilities/tarnwick-private.json": 0o644,
    "etc/capabilities/tarnwick.json": 0o644,
    "etc/config/tarnwick": 0o600,
    "etc/init.d/tarnwick": 0o755,
    "usr/lib/tarnwick/libtarnwick-smooth.so": 0o644,
    "usr/sbin/tarnwick": 0o755,
    "usr/sbin/tarnwick-assist": 0o755,
    "usr/sbin/tarnwick-run": 0o755,
    "usr/sbin/tarnwick-status": 0o755,
    "usr/share/doc/tarnwick/examples/tarnwick.nft": 0o644}
COMMANDS = ("dirname",)


def make(*arguments):
    done = subprocess.run(["make", "--no-print-directory", "-C", FOLDER, f"TOPDIR={BUILD_ROOT}", *arguments],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


@pytest.fixture(scope="module", name="settings")
def shown_settings():
    return dict(re.findall(r"^(\w+)=(.*)", make("--dry-run"), re.M))


@pytest.fixture(scope="module", name="root")
def installed_package(tmp_path_factory):
    built = tmp_path_factory.mktemp("built")
    root = tmp_path_factory.mktemp("root")
    subprocess.run(["cmake", "--install", PROGRAMS, "--prefix", "/usr"], env={**os.environ, "DESTDIR": str(built)},
                   check=True, capture_output=True)
    make(f"PKG_INSTALL_DIR={built}", f"ROOT={root}", "install")
    return root


def version():
    return re.search(r"project\(tarnwick VERSION ([0-9.]+)", (PROJECT / "CMakeLists.txt").read_text()).group(1)


def test_package_has_the_projects_version_and_says_what_the_feed_asks_for(settings):
    assert settings["PKG_VERSION"] == version()
    assert settings["PKG_SOURCE"] == f"tarnwick-{version()}.tar.gz"
    assert (settings["PKG_SOURCE_URL"], settings["PKG_HASH"]) == (f"file://{FOLDER}", "skip")
    assert settings["PKG_RELEASE"].isdigit()
    assert re.fullmatch(r"\S.* <\S+@\S+>", settings["PKG_MAINTAINER"])
    assert settings["URL"].startswith("https://")
    assert settings["PKG_LICENSE"] == "MIT" and (PROJECT / settings["PKG_LICENSE_FILES"]).is_file()
    assert 0 < len(settings["TITLE"]) < 60
    assert (settings["SECTION"], settings["CATEGORY"]) == ("net", "Network")
    assert settings["SUBMENU"] == "Routing and Redirection"
    for line in ("Joins IPv6 multicast groups", "so that IPTV streams", "needs kmod-macvlan and kmod-veth."):
        assert line in make("--dry-run")


def test_package_needs_a_kernel_that_routes_multicast_and_no_other_package(settings):
    assert settings["DEPENDS"] == "@IPV6 @KERNEL_IPV6_MROUTE"


def test_flags_of_the_compiler_are_the_build_roots(settings):
    assert settings["PKG_BUILD_FLAGS"] == "gc-sections lto"
    assert settings["CMAKE_OPTIONS"].split() == ["-DTARNWICK_FIRMWARE=file"]
    assert settings["PKG_INSTALL"] == "1"


def test_firmwares_libraries_can_be_chosen(settings):
    assert settings["PKG_CONFIG_DEPENDS"] == "CONFIG_TARNWICK_FIRMWARE_LIBS"
    choice = r"^  config TARNWICK_FIRMWARE_LIBS\n    bool \".+\"\n    depends on PACKAGE_tarnwick\n    default n$"
    assert re.search(choice, make("--dry-run"), re.M)
    assert "CMAKE_OPTIONS=-DTARNWICK_FIRMWARE=libs\n" in make("--dry-run", "CONFIG_TARNWICK_FIRMWARE_LIBS=y")


def test_package_consists_of_these_files(root):
    found = {str(path.relative_to(root)): path.stat().st_mode & 0o7777 for path in root.rglob("*") if path.is_file()}
    assert found == INSTALLED


def test_what_the_init_script_names_is_in_the_package(root):
    script = (FOLDER / "files" / "tarnwick.init").read_text()
    for name in ("RUN", "SMOOTH_LIBRARY"):
        assert (root / re.search(rf"^{name}=/(.*)$", script, re.M).group(1)).is_file()
    folder = root / re.search(r"^CAPABILITIES=/(.*)$", script, re.M).group(1)
    files = re.findall(r"\$CAPABILITIES/([\w.-]+)", script)
    assert len(files) == 2
    for file in files:
        assert (folder / file).is_file()


def test_settings_are_kept_when_the_package_is_replaced(root, settings):
    assert settings["conffile"] == "/etc/config/tarnwick"
    assert (root / settings["conffile"][1:]).is_file()


@pytest.fixture(name="feed_test")
def script_of_the_feed(root, tmp_path):
    """Runs one of the two scripts under busybox, with the package's programs and busybox's commands alone."""
    for command in COMMANDS:
        (tmp_path / command).symlink_to("/bin/busybox")

    def run(script, package="tarnwick", expected=version(), programs=root / "usr" / "sbin"):
        done = subprocess.run(["/bin/busybox", "ash", FOLDER / script, package, expected], capture_output=True,
                              text=True, timeout=30, check=False, env={"PATH": f"{programs}:{tmp_path}"})
        assert done.stderr == ""
        return done.returncode, done.stdout

    return run


@pytest.mark.parametrize("script", ["test-version.sh", "test.sh"])
def test_feeds_scripts_accept_the_package_and_leave_others_alone(feed_test, script):
    assert feed_test(script) == (0, "")
    assert feed_test(script, package="other", expected="9") == (0, "")


def test_feeds_scripts_refuse_another_version(feed_test):
    status, said = feed_test("test-version.sh", expected="0.1")
    assert status == 1 and said.count("--version shows") == 3
    assert feed_test("test.sh", expected="0.1")[0] == 1


def broken_programs(folder, **texts):
    (folder / "sbin").mkdir(parents=True)
    for name, text in texts.items():
        program = folder / "sbin" / name.replace("_", "-")
        program.write_text(f"#!/bin/sh\n{text}\n")
        program.chmod(0o755)
    return folder / "sbin"


def test_feeds_scripts_refuse_programs_that_do_not_work(feed_test, tmp_path):
    right = f'echo "${{0##*/}} {version()}"'
    programs = {"tarnwick": "echo Usage: tarnwick x", "tarnwick_run": right, "tarnwick_assist": right,
                "tarnwick_status": right}
    assert feed_test("test-version.sh", programs=broken_programs(tmp_path / "right", **programs)) == (0, "")
    silent = broken_programs(tmp_path / "silent", **programs | {"tarnwick": "exit 1"})
    assert feed_test("test-version.sh", programs=silent) == (1, "tarnwick -? does not show the usage text\n")
    status, said = feed_test("test.sh", programs=broken_programs(tmp_path / "lax", **programs))
    assert status == 1
    for complaint in ("cannot be preloaded", "does not refuse a command line", "--explain says"):
        assert complaint in said
    killed = broken_programs(tmp_path / "killed", **programs | {"tarnwick_run": "echo --network=private would; exit 9"})
    assert "--explain fails" in feed_test("test.sh", programs=killed)[1]


def test_scripts_of_the_feed_are_clean():
    for script in FOLDER.glob("*.sh"):
        assert os.access(script, os.X_OK)
        done = subprocess.run(["shellcheck", "-s", "dash", script], capture_output=True, text=True, check=False)
        assert done.returncode == 0, done.stdout
