"""The init script of the OpenWrt package, with stand-ins for what it calls there that record each request.

Its commands are busybox's and nothing else. What the jail shows is tried out in tests/netns/test_openwrt_jail.py.
"""

import json
import re
import subprocess

import pytest

from openwrt_router import FOLDER, INIT, NETWORK_STUBS, SETTINGS, SHELLS, STUBS, USUAL, Router, command

POWERS = {"tarnwick": {"CAP_NET_ADMIN", "CAP_NET_RAW", "CAP_SETPCAP"},
          "tarnwick-private": {"CAP_NET_ADMIN", "CAP_NET_RAW", "CAP_SETPCAP", "CAP_SYS_ADMIN", "CAP_SYS_PTRACE"}}


@pytest.fixture(params=SHELLS, ids=lambda shell: shell[-1], name="router")
def router_with_one_shell(request, tmp_path):
    return Router(request.param, tmp_path)


def messages(lines, level="err"):
    return [line.removeprefix(f"logger -t tarnwick -p daemon.{level} ") for line in lines
            if line.startswith(f"logger -t tarnwick -p daemon.{level} ")]


def firewall_rules(lines):
    """The data of the instance, as procd would hand it on."""
    if "open_data" not in lines:
        return []
    parts = []
    for line in lines[lines.index("open_data") + 1:lines.index("close_data")]:
        _json, sign, *rest = line.split(" ", 3)
        name, value = (rest + ["", ""])[:2]
        key = f"{json.dumps(name)}: " if name else ""
        parts.append({"=": key + json.dumps(value) + ",", "[": key + "[", "{": key + "{"}.get(sign, sign + ","))
    text = "{" + "".join(parts) + "}"
    return json.loads(re.sub(r",([]}])", r"\1", text))["firewall"]


def test_one_instance_runs_the_supervisor_and_is_started_again(router):
    lines = router.start()
    folder = router.places["RUNTIME_FOLDER"]
    assert command(lines) == ["/usr/sbin/tarnwick-run", "-u", "eth0.2", "-d", "br-lan,br-iptv", "--network=host",
                              "--log=error", f"--runtime-folder={folder}"]
    assert folder.is_dir(), "a jail takes in only folders that are there"
    assert lines.count("set respawn 3600 5 0") == 1 and lines.count("set term_timeout 10") == 1
    assert [line.strip() for line in lines if line.strip() in ("open", "close")] == ["open", "close"]
    assert not re.search(r"^set std(out|err)", "\n".join(lines), re.M), "its log has levels of its own"


def test_procd_runs_it_late_in_the_boot(router):
    assert router.run("echo $START $STOP $USE_PROCD") == (0, ["95 10 1"])


def test_networks_stand_for_their_devices_and_each_device_is_watched(router):
    lines = router.start(networks={"wan": "pppoe-w", "lan": "br-lan"}, upstream="wan", downstream="lan eth3")
    assert command(lines)[1:5] == ["-u", "pppoe-w", "-d", "br-lan,eth3"]
    assert "set netdev pppoe-w br-lan eth3" in lines
    assert lines.index("network_flush_cache") < lines.index("open ")


def test_networks_without_a_device_are_waited_for(router):
    for networks, waiting, downstreams in (({"lan": "br-lan"}, "wan", None),
                                           ({"wan": "eth1", "lan": "br-lan"}, "guest", "br-lan"),
                                           ({"wan": "eth1"}, "lan guest", None)):
        lines = router.start(networks=networks, defined="wan lan guest", upstream="wan",
                             downstream="lan" if waiting == "wan" else "lan guest")
        assert messages(lines, "notice") == [f"waiting for a device of: {waiting}"]
        assert ("open " in lines) == (downstreams is not None)
        assert command(lines)[4:5] == ([downstreams] if downstreams else [])


def test_network_and_log_are_passed_on(router):
    assert command(router.start(network="private", log="all"))[5:7] == ["--network=private", "--log=all"]


def test_nothing_starts_until_it_is_enabled(router):
    for enabled in ("0", "off", ""):
        status, lines = router.run("start_service", **USUAL | {"enabled": enabled, "log": "loud"})
        assert (status, lines) == (0, ["network_flush_cache", "config_load tarnwick", "validate tarnwick tarnwick"])


WRONG = [
    ({"enabled": "maybe"}, "enabled 'maybe' is wrong: 0 or 1"),
    ({"assist": "some"}, "assist 'some' is wrong: 0 or 1"),
    ({"jail": "2"}, "jail '2' is wrong: 0 or 1"),
    ({"firewall": "x"}, "firewall 'x' is wrong: 0 or 1"),
    ({"network": "own"}, "network 'own' is wrong: host or private"),
    ({"log": "loud"}, "log 'loud' is wrong: error, info, all or none"),
    ({"upstream_zone": "w n"}, "upstream_zone 'w n' is wrong: the name of a firewall zone"),
    ({"downstream_zone": "lan l-2"}, "downstream_zone 'lan l-2' is wrong: names of firewall zones"),
    ({"upstream": ""}, "upstream is missing: a network or device towards the streams' source"),
    ({"downstream": ""}, "downstream is missing: networks or devices towards the listeners"),
    ({"upstream": "eth0;x"}, "upstream 'eth0;x' is neither the name of a network nor that of a device"),
    ({"upstream": "long, odd name"}, "upstream 'long, odd name' is neither the name of a network nor that of a device"),
    ({"downstream": "br-lan .."}, "downstream '..' is neither the name of a network nor that of a device"),
    ({"downstream": "sixteen-letters0"},
     "downstream 'sixteen-letters0' is not a network, and too long for a device: at most 15 characters"),
    ({"downstream": "br-lan br-lan"}, "downstream 'br-lan' is the device br-lan, which is named twice"),
    ({"downstream": "br-lan eth0.2"}, "downstream 'eth0.2' is the device eth0.2, which is named twice"),
    ({"downstream": "a b c d e f g h i"}, "downstream names 9 devices: at most 8"),
] + [({"lan_mac": mac}, f"lan_mac '{mac}' is wrong: the MAC address of a station, such as 02:00:00:00:01:fe")
     for mac in ("02:00:00:00:01", "02:00:00:00:01:fe:03", "02:00:00:00:01:fg", "03:00:00:00:01:fe", "2:0:0:0:1:fe")]


@pytest.mark.parametrize("settings, message", WRONG, ids=lambda value: value if isinstance(value, str) else "")
def test_each_wrong_option_is_named_in_the_system_log(router, settings, message):
    status, lines = router.run("start_service", **USUAL | settings)
    assert (status, messages(lines)) == (1, [f"/etc/config/tarnwick: {message}"])
    assert "open " not in lines


def test_all_wrong_options_are_named_at_once(router):
    _status, lines = router.run("start_service", **USUAL | {"log": "loud", "network": "own", "upstream": ""})
    assert len(messages(lines)) == 3


def test_companion_can_be_left_out(router):
    assert "--no-assist" in command(router.start(assist="0"))
    assert "--no-assist" not in command(router.start(assist="on"))


def test_queries_carry_the_address_that_is_set(router):
    nvram = router.places["NVRAM_FILE"]
    lines = router.start()
    assert not nvram.exists() and "nvram" not in " ".join(lines), "the supervisor takes the device's own"
    lines = router.start(lan_mac="02:00:00:00:01:fe")
    assert nvram.read_text() == "et0macaddr=02:00:00:00:01:fe\n"
    assert command(lines)[-1] == f"--nvram={nvram}"
    assert f"set file {nvram}" in lines, "a changed address is a reason to start anew"


def test_jail_of_the_hosts_network_shows_programs_state_files_and_the_log(router):
    router.install_jail()
    places = router.places
    lines = router.start(lan_mac="02:00:00:00:01:fe")
    jail = [line for line in lines if line.startswith(("jail", "mount", "set capabilities", "set no_new_privs"))]
    assert jail == [
        "jail tarnwick log procfs",
        "mount /usr/sbin/tarnwick /usr/sbin/tarnwick-assist /usr/lib/tarnwick/libtarnwick-smooth.so",
        f"mount {places['NVRAM_FILE']}",
        f"mount_rw /tmp {places['RUNTIME_FOLDER']}",
        f"set capabilities {places['CAPABILITIES']}/tarnwick.json",
        "set no_new_privs 1"]


def test_jail_of_a_private_network_takes_powers_away_and_hides_nothing(router):
    router.install_jail()
    lines = router.start(network="private")
    jail = [line for line in lines if line.startswith(("jail", "mount", "set capabilities", "set no_new_privs"))]
    assert jail == ["jail tarnwick", f"set capabilities {router.places['CAPABILITIES']}/tarnwick-private.json",
                    "set no_new_privs 1"]


def test_it_runs_without_a_jail_where_there_is_none_or_none_is_wanted(router):
    assert not re.search(r"^(jail|mount|set cap|set no_new)", "\n".join(router.start()), re.M)
    router.install_jail()
    assert not re.search(r"^(jail|mount|set cap|set no_new)", "\n".join(router.start(jail="0")), re.M)


@pytest.mark.parametrize("name", POWERS)
def test_powers_of_the_jail_are_those_of_the_network_mode(name):
    powers = json.loads((FOLDER / "files" / f"{name}.capabilities").read_text())
    assert set(powers) == {"bounding", "effective", "ambient", "permitted", "inheritable"}
    for kind, kept in powers.items():
        assert (kind, set(kept)) == (kind, POWERS[name])


def test_firewall_lets_mld_and_streams_through(router):
    rules = firewall_rules(router.start(upstream_zone="iptv", downstream_zone="lan guest"))
    mld = ["130/0", "131/0", "132/0", "143/0"]
    common = {"type": "rule", "family": "ipv6", "target": "ACCEPT"}
    expected = [{"name": "MLD queries of the provider", "src": "iptv", "proto": "icmp", "icmp_type": ["130/0"]}]
    for zone in ("lan", "guest"):
        expected += [{"name": f"MLD of {zone}", "src": zone, "proto": "icmp", "icmp_type": mld},
                     {"name": f"Streams to {zone}", "src": "iptv", "dest": zone, "proto": "udp", "dest_ip": "ff00::/8"}]
    assert rules == [rule | common for rule in expected]


def test_zones_have_the_names_that_openwrt_gives_them(router):
    assert {rule["src"] for rule in firewall_rules(router.start())} == {"wan", "lan"}


def test_firewall_stays_as_it_is_where_rules_are_not_wanted_or_nothing_passes_it(router):
    for settings in ({"firewall": "0"}, {"network": "private"}):
        assert "open_data" not in router.start(**settings)


def test_rules_belong_to_the_instance(router):
    lines = router.start()
    assert lines.index("open ") < lines.index("open_data") < lines.index("close_data") < lines.index("close")


def test_changed_settings_and_networks_reload_it(router):
    status, lines = router.run("service_triggers", **USUAL | {"upstream": "wan", "downstream": "lan guest"})
    assert status == 0
    assert lines == ["reload on tarnwick", "config_load tarnwick", "reload with network wan",
                     "reload with network lan", "reload with network guest", "validation validate_tarnwick"]


def options_of_settings_file():
    return set(re.findall(r"^\s*#?\s*(?:option|list) (\w+)", SETTINGS.read_text(), re.M))


def test_every_option_of_the_settings_file_is_validated_and_has_the_same_default():
    validated = dict(re.findall(r"^\t\t'(\w+):[^':]+:?([^']*)'", INIT.read_text(), re.M))
    assert options_of_settings_file() == set(validated)
    for option, value in re.findall(r"^\t(?:option|list) (\w+) '(.*)'", SETTINGS.read_text(), re.M):
        if option not in ("upstream", "downstream"):
            assert (option, validated[option]) == (option, value)


def test_settings_file_starts_nothing_and_is_right_once_it_is_enabled(router):
    settings = dict(re.findall(r"^\t(?:option|list) (\w+) '(.*)'", SETTINGS.read_text(), re.M))
    networks = {"wan": "eth1", "lan": "br-lan"}
    assert "open " not in router.run("start_service", networks=networks, **settings)[1]
    lines = router.start(networks=networks, **settings | {"enabled": "1"})
    assert command(lines)[1:5] == ["-u", "eth1", "-d", "br-lan"]


def test_page_about_openwrt_explains_every_option_and_quotes_what_the_script_says(router):
    page = (FOLDER.parents[1] / "docs" / "openwrt.md").read_text()
    [table] = re.findall(r"^\| Option \|.*?\n\n", page, re.M | re.S)
    explained = [name for row in table.strip().splitlines()[2:]
                 for name in re.findall(r"`(\w+)`", row.split("|")[1])]
    assert sorted(explained) == sorted(options_of_settings_file())
    quoted = re.findall(r"^\| `/etc/config/tarnwick: (.*?)`", page, re.M)
    said = [message for _settings, message in WRONG]
    _status, lines = router.run("start_service", networks={"lan": "br-lan"}, enabled="1", upstream="eth0",
                                downstream="br-lan lan")
    said += [message.removeprefix("/etc/config/tarnwick: ") for message in messages(lines)]
    assert len(quoted) >= 2 and set(quoted) <= set(said)
    waiting = router.start(networks={"lan": "br-lan"}, defined="wan", upstream="wan", downstream="lan")
    assert f"| `{messages(waiting, 'notice')[0]}` |" in page


def test_scripts_are_clean():
    for script in (INIT, STUBS, NETWORK_STUBS):
        done = subprocess.run(["shellcheck", "-s", "dash", script], capture_output=True, text=True, check=False)
        assert done.returncode == 0, done.stdout
    for script in (FOLDER.parent / "debian").glob("p*"):
        done = subprocess.run(["shellcheck", script], capture_output=True, text=True, check=False)
        assert done.returncode == 0, done.stdout
