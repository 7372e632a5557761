"""Runs functions of the OpenWrt package's init script, with stand-ins for what it calls there."""

import pathlib
import re
import subprocess

FOLDER = pathlib.Path(__file__).parents[2] / "packaging" / "openwrt"
INIT = FOLDER / "files" / "tarnwick.init"
SETTINGS = FOLDER / "files" / "tarnwick.config"
STUBS = pathlib.Path(__file__).parent / "openwrt" / "stubs.sh"
NETWORK_STUBS = STUBS.with_name("network.sh")
SHELLS = [["dash"], ["busybox", "ash"]]
COMMANDS = ("mkdir", "tr")
USUAL = {"enabled": "1", "upstream": "eth0.2", "downstream": "br-lan br-iptv"}
CAPABILITY_FILES = ("tarnwick.json", "tarnwick-private.json")


class Router:
    """Runs functions of the init script; its files and folders are below one of the test."""

    def __init__(self, shell, folder):
        self.shell = subprocess.check_output(["which", shell[0]], text=True).split() + shell[1:]
        self.folder = folder
        self.places = {"RUNTIME_FOLDER": folder / "run" / "tarnwick", "NVRAM_FILE": folder / "etc" / "nvram",
                       "NETWORK_FUNCTIONS": NETWORK_STUBS, "UJAIL": folder / "ujail", "CAPABILITIES": folder / "powers"}
        (folder / "bin").mkdir()
        for command in COMMANDS:
            (folder / "bin" / command).symlink_to("/bin/busybox")

    def install_jail(self):
        self.places["UJAIL"].touch(mode=0o755)
        self.places["CAPABILITIES"].mkdir()
        for name in CAPABILITY_FILES:
            (self.places["CAPABILITIES"] / name).touch()

    def run(self, function, networks=None, defined="", **settings):
        """`networks` have devices; those of `defined` are only in /etc/config/network."""
        networks = networks or {}
        script = INIT.read_text()
        for name, place in self.places.items():
            script, count = re.subn(rf"^{name}=.*", f"{name}={place}", script, flags=re.M)
            assert count == 1
        assignments = [f"CONFIG_main_{name}='{value}'" for name, value in settings.items()]
        assignments += [f"DEVICE_{name}='{device}'" for name, device in networks.items()]
        assignments += [f"NETWORKS='{' '.join(networks)} {defined}'"]
        program = "\n".join(["set -u", f". {STUBS}", *assignments, script, function])
        done = subprocess.run(self.shell, input=program, capture_output=True, text=True, timeout=20, check=False,
                              env={"PATH": str(self.folder / "bin")})
        assert done.stderr == ""
        return done.returncode, done.stdout.splitlines()

    def start(self, **settings):
        """What a start with these settings asks of procd."""
        status, lines = self.run("start_service", **USUAL | settings)
        assert status == 0, lines
        return lines


def command(lines):
    """The words of the one instance's command."""
    words = []
    for line in lines:
        for start in ("set command ", "append command "):
            words += line.removeprefix(start).split() if line.startswith(start) else []
    return words
