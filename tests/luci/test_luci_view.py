"""The view of OpenWrt's web interface, in a headless browser, against a stand-in of the interface's run-time.

With LUCI_PICTURES=FOLDER in the environment each test leaves pictures of what it saw there.
"""

import json
import os
import pathlib
import re

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

import web_router

ROOT = pathlib.Path(__file__).parents[2]
PICTURES = os.environ.get("LUCI_PICTURES")
DESKTOP = (1280, 800)
TELEPHONE = (390, 844)
STATUS = "/usr/sbin/tarnwick-status --json"
CHECK = "/usr/sbin/tarnwick-status --check --json"
RESTART = "/etc/init.d/tarnwick restart"
ALL_WELL = {"result": "ok", "steps": [{"result": "ok", "place": "kernel", "finding": "routing is compiled in"}],
            "verdict": None}
BROKEN_STEP = {"result": "no", "place": "programs", "finding": "tarnwick-assist does not run beside the daemon",
               "cure": "/etc/init.d/tarnwick restart"}
BROKEN = {"result": "no", "steps": [BROKEN_STEP], "verdict": BROKEN_STEP}


@pytest.fixture(scope="module")
def browser():
    options = Options()
    for switch in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                   "--disable-background-networking", "--disable-component-update", "--disable-sync",
                   "--disable-dev-shm-usage", "--force-device-scale-factor=1"):
        options.add_argument(switch)
    options.binary_location = "/usr/bin/chromium"
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    yield driver
    driver.quit()


@pytest.fixture
def router():
    made = web_router.WebRouter()
    made.answers = {STATUS: (0, json.dumps(status())), CHECK: (0, json.dumps(ALL_WELL)), RESTART: (0, "")}
    yield made
    made.shutdown()
    made.server_close()


def interface(name, role, **counters):
    return {"name": name, "protocol": "MLD", "role": role, "queries": 0, "joins": 0, "leaves": 0, "timeouts": 0,
            "mif": 2, "packets_in": 0, "bytes_in": 0, "packets_out": 0, "bytes_out": 0, **counters}


def stream(**fields):
    return {"source": "::", "kind": "wanted", "packets": 0, "bytes": 0, "wrong_interface": 0, "bits_per_second": 0,
            "packets_per_second": 0.0, "outputs": ["br-lan"], **fields}


def group(address, *streams, listeners=("br-lan",)):
    return {"group": address, "listeners": [{"interface": name, "average_seconds": 3} for name in listeners],
            "streams": list(streams)}


def status(*groups):
    return {"pid": 412, "running_seconds": 60, "sample_seconds": 1.0,
            "interfaces": [interface("wan", "upstream", bytes_in=2_000_000),
                           interface("br-lan", "downstream", joins=4, bytes_out=2_000_000)],
            "groups": list(groups)}


def opened(browser, router, size=DESKTOP, picture=None):
    browser.set_window_size(*size)
    browser.get(router.url)
    WebDriverWait(browser, 30).until(lambda page: page.find_element(By.TAG_NAME, "body").get_attribute("data-shown"))
    assert browser.find_element(By.TAG_NAME, "body").get_attribute("data-shown") == "yes", text(browser, "#view")
    if PICTURES and picture:
        browser.save_screenshot(str(pathlib.Path(PICTURES) / f"luci-{picture}.png"))
    return browser


def text(browser, selector):
    return browser.find_element(By.CSS_SELECTOR, selector).text


def rows(browser, table):
    return [[cell.text for cell in row.find_elements(By.CSS_SELECTOR, ".td")]
            for row in browser.find_elements(By.CSS_SELECTOR, f"#{table} .tr:not(.table-titles)")]


def is_wider_than_window(browser):
    return browser.execute_script("return document.documentElement.scrollWidth > window.innerWidth")


def polled_again(browser):
    browser.execute_async_script(
        "const done = arguments[0]; Promise.all(TestPolls.map(poll => poll.look())).then(() => done());")


def test_no_stream_says_so_and_all_is_well(browser, router):
    page = opened(browser, router, picture="no-stream")
    assert rows(page, "tarnwick-streams") == [["No host on the LAN listens to a stream."]]
    assert [row[:2] for row in rows(page, "tarnwick-interfaces")] == [["wan", "provider"], ["br-lan", "LAN"]]
    assert page.find_element(By.CSS_SELECTOR, "[data-verdict=ok]").is_displayed()


def test_one_stream_is_shown_with_its_source_rate_and_outputs(browser, router):
    playing = stream(source="2001:db8:2::10", packets=1500, bits_per_second=8_200_000)
    tree = {"group": "::", "listeners": [], "streams": [stream(kind="static_tree", outputs=["wan"])]}
    router.answers[STATUS] = (0, json.dumps(status(group("ff3e::8000:1", playing), tree)))
    page = opened(browser, router, picture="one-stream")
    assert rows(page, "tarnwick-streams") == [
        ["ff3e::8000:1", "br-lan", "2001:db8:2::10", "1500", "8.2 Mbit/s", "br-lan", ""]]


def test_group_without_entry_and_entry_without_listener_have_notes(browser, router):
    left = group("ff0e::2", stream(kind="left_over", outputs=[]), listeners=())
    router.answers[STATUS] = (0, json.dumps(status(group("ff0e::1"), left)))
    page = opened(browser, router)
    assert [(row[0], row[-1]) for row in rows(page, "tarnwick-streams")] == [
        ("ff0e::1", "no forwarding entry"), ("ff0e::2", "no listener")]


@pytest.mark.parametrize("size,name", [(DESKTOP, "wide"), (TELEPHONE, "telephone")])
def test_hundred_and_twenty_eight_groups_fit_the_window(browser, router, size, name):
    many = [group(f"ff3e:1234:5678:9abc:def0:1234:8000:{number:x}",
                  stream(source="2001:db8:1234:5678:9abc:def0:1234:5678", packets=10**9, bits_per_second=9e9))
            for number in range(128)]
    router.answers[STATUS] = (0, json.dumps(status(*many)))
    page = opened(browser, router, size, picture=f"128-groups-{name}")
    assert len(rows(page, "tarnwick-streams")) == 128
    assert not is_wider_than_window(page)


@pytest.mark.parametrize("size,name", [(DESKTOP, "wide"), (TELEPHONE, "telephone")])
def test_verdict_stands_on_top_with_its_cure(browser, router, size, name):
    router.answers[CHECK] = (1, json.dumps(BROKEN))
    page = opened(browser, router, size, picture=f"verdict-{name}")
    verdict = page.find_element(By.CSS_SELECTOR, "[data-verdict=no]")
    assert BROKEN_STEP["finding"] in verdict.text
    assert verdict.find_element(By.TAG_NAME, "code").text == BROKEN_STEP["cure"]
    assert verdict.location["y"] < page.find_element(By.ID, "tarnwick-streams").location["y"]
    assert not is_wider_than_window(page)


def test_session_that_ended_is_said_once_and_nobody_asks_again(browser, router):
    router.is_session_over = True
    page = opened(browser, router, picture="session-ended")
    assert "log in again" in text(page, "[data-verdict=session]")
    router.is_session_over = False
    page = opened(browser, router)
    router.is_session_over = True
    polled_again(page)
    assert "log in again" in text(page, "[data-verdict=session]")
    assert page.execute_script("return TestPolls.length") == 0


def test_daemon_that_does_not_answer_leaves_empty_tables(browser, router):
    router.answers = {CHECK: (1, json.dumps(BROKEN))}
    page = opened(browser, router)
    assert rows(page, "tarnwick-interfaces") == [["tarnwick does not run, or it does not answer."]]


def test_page_follows_what_changes(browser, router):
    page = opened(browser, router)
    router.answers[STATUS] = (0, json.dumps(status(group("ff0e::1", stream()))))
    router.answers[CHECK] = (1, json.dumps(BROKEN))
    polled_again(page)
    assert rows(page, "tarnwick-streams")[0][0] == "ff0e::1"
    assert page.find_elements(By.CSS_SELECTOR, "[data-verdict=no]")
    assert page.execute_script("return TestPolls.map(poll => poll.seconds)") == [10]


def test_texts_of_the_network_are_never_taken_for_html(browser, router):
    evil = "<img src=x onerror=\"document.title='taken'\">"
    router.answers[STATUS] = (0, json.dumps(status(group(evil, stream(source=evil, outputs=[evil]), listeners=(evil,)))))
    router.answers[CHECK] = (1, json.dumps({**BROKEN, "verdict": {**BROKEN_STEP, "finding": evil, "cure": evil}}))
    page = opened(browser, router)
    assert rows(page, "tarnwick-streams")[0][0] == evil
    assert page.find_elements(By.TAG_NAME, "img") == []
    assert page.title != "taken"


def test_restart_button_runs_the_init_script_and_says_when_that_fails(browser, router):
    page = opened(browser, router)
    page.find_element(By.ID, "tarnwick-restart").click()
    WebDriverWait(page, 10).until(lambda _: RESTART in router.asked)
    assert page.execute_script("return TestNotifications") == []
    router.answers[RESTART] = (1, "")
    page.find_element(By.ID, "tarnwick-restart").click()
    WebDriverWait(page, 10).until(lambda shown: shown.execute_script("return TestNotifications.length") == 1)


def test_access_list_permits_what_the_view_runs_and_nothing_else(router):
    assert [line for line in (STATUS, CHECK, RESTART) if not router.is_permitted(line.split())] == []
    for line in ("/usr/sbin/tarnwick-status --watch", "/etc/init.d/tarnwick stop", "/bin/sh -c reboot"):
        assert not router.is_permitted(line.split()), line


def test_fields_that_the_view_reads_are_the_ones_that_the_program_writes():
    source = (ROOT / "status" / "json_report.cpp").read_text() + (ROOT / "status" / "check_list.cpp").read_text()
    written = set(re.findall(r'\\"(\w+)\\":', source))
    view = (web_router.VIEWS / "tarnwick" / "status.js").read_text()
    read = set(re.findall(r"\b(?:row|group|stream|listener|status|check|verdict)\.([a-z_]+)\b", view))
    assert read - written <= {"error", "map", "filter", "length", "join"}, read - written
    assert {"interfaces", "groups", "listeners", "streams", "finding", "cure"} <= read
