# SPDX-License-Identifier: MIT
"""The rig console in a real browser (Debian's chromium, headless, driven by
selenium): a broker that serves the page, two agents of three virtual
cameras each. Screenshots go to the test's artefact directory."""

import os
import tempfile
import time

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select, WebDriverWait

from conftest import RIG, USERS, Agent, Broker, qkcam, wait_online

CONSOLE = os.environ.get("QK_CONSOLE_DIR", "")
ARTEFACTS = os.environ.get("QK_ARTEFACTS", tempfile.gettempdir())
pytestmark = pytest.mark.skipif(not os.path.isfile(os.path.join(CONSOLE, "console.js")),
                                reason="the console page was not built (no npm)")


@pytest.fixture(scope="module")
def console():
    work = tempfile.mkdtemp(prefix="qkcam-console-test-")
    broker = Broker(work, console_dir=CONSOLE)
    agents = {h: Agent(broker, h, work, cameras=3) for h in ("h1", "h2")}
    wait_online(broker, ("h1", "h2"), work, cameras_per_host=3)
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=1280,1000"):
        options.add_argument(flag)
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    browser.get(f"http://127.0.0.1:{broker.web_port}/index.html?rig={RIG}&user=coordinator"
                f"&password={USERS['coordinator']}")
    yield broker, agents, work, browser
    browser.quit()
    for agent in agents.values():
        agent.stop()
    broker.stop()


def tiles(browser, gone=None):
    found = browser.find_elements(By.CSS_SELECTOR, "article.tile")
    if gone is not None:
        found = [t for t in found if ("gone" in t.get_attribute("class")) == gone]
    return found


def shot(browser, name):
    os.makedirs(ARTEFACTS, exist_ok=True)
    browser.save_screenshot(os.path.join(ARTEFACTS, name))


def test_six_tiles_whose_previews_move(console):
    broker, agents, work, browser = console
    WebDriverWait(browser, 20).until(lambda b: len(tiles(b, gone=False)) == 6)
    serials = sorted(t.get_attribute("data-serial") for t in tiles(browser))
    assert serials == sorted(agents["h1"].serials + agents["h2"].serials)
    WebDriverWait(browser, 20).until(lambda b: all(int(t.get_attribute("data-frames")) >= 2 for t in tiles(b)))
    before = {t.get_attribute("data-serial"): t.get_attribute("data-frame") for t in tiles(browser)}
    time.sleep(1.5)
    after = {t.get_attribute("data-serial"): t.get_attribute("data-frame") for t in tiles(browser)}
    assert all(before[s] != after[s] for s in serials), (before, after)
    # Each tile names its model and carries the settings menus.
    for t in tiles(browser):
        assert t.find_element(By.CSS_SELECTOR, ".model").text
        WebDriverWait(browser, 10).until(lambda b: t.find_elements(By.CSS_SELECTOR, 'select[data-property="ISO Speed"]'))
    shot(browser, "console-six-cameras.png")


def test_shoot_brings_six_thumbnails(console):
    broker, agents, work, browser = console
    browser.find_element(By.ID, "shoot").click()
    WebDriverWait(browser, 20).until(lambda b: len(b.find_elements(By.CSS_SELECTOR, "#strip figure")) >= 6)
    figures = browser.find_elements(By.CSS_SELECTOR, "#strip figure")
    assert sorted(f.get_attribute("data-serial") for f in figures) == sorted(t.get_attribute("data-serial")
                                                                            for t in tiles(browser))
    assert all(f.find_element(By.TAG_NAME, "img").get_property("naturalWidth") == 160 for f in figures)
    WebDriverWait(browser, 5).until(lambda b: "over 6 cameras" in b.find_element(By.ID, "spread").text)
    shot(browser, "console-after-shot.png")


def test_iso_set_from_the_page_is_read_back(console):
    broker, agents, work, browser = console
    tile = browser.find_element(By.CSS_SELECTOR, 'article.tile[data-serial="H1C0"]')
    Select(tile.find_element(By.CSS_SELECTOR, 'select[data-property="ISO Speed"]')).select_by_visible_text("ISO 400")
    deadline = time.time() + 10
    while time.time() < deadline:
        got = qkcam(broker, "get", "ISO Speed", work=work).stdout
        if "h1 H1C0 ISO Speed = ISO 400" in got:
            break
        time.sleep(0.3)
    assert "h1 H1C0 ISO Speed = ISO 400" in got and "h2 H2C0 ISO Speed = Auto" in got, got


def test_a_camera_pulled_out_greys_its_tile_within_two_seconds(console):
    broker, agents, work, browser = console
    started = time.time()
    h3 = Agent(broker, "h3", work, cameras=1, launcher_options=["--unplug-after", "4000", "H3C0"])
    try:
        WebDriverWait(browser, 10).until(lambda b: len(tiles(b, gone=False)) == 7)
        WebDriverWait(browser, 10, poll_frequency=0.05).until(
            lambda b: "gone" in b.find_element(By.CSS_SELECTOR, 'article.tile[data-serial="H3C0"]').get_attribute("class"))
        # The launcher pulls the camera out 4 s after it started the agent, not before.
        assert time.time() - (started + 4.0) < 2.0
        tile = browser.find_element(By.CSS_SELECTOR, 'article.tile[data-serial="H3C0"]')
        assert tile.find_element(By.CSS_SELECTOR, ".reason").text == "camera disconnected"
        shot(browser, "console-camera-pulled-out.png")
        browser.set_window_size(390, 844)
        shot(browser, "console-phone.png")
        browser.set_window_size(1280, 1000)
    finally:
        h3.stop()


def test_a_host_that_goes_away_greys_its_tiles(console):
    broker, agents, work, browser = console
    os.kill(agents["h2"].agent_pid(), 9)  # no goodbye: the broker's last will says it
    WebDriverWait(browser, 20).until(lambda b: all(
        t.find_element(By.CSS_SELECTOR, ".reason").get_attribute("textContent") == "host offline"
        for t in b.find_elements(By.CSS_SELECTOR, 'article.tile[data-host="h2"]')))
    assert len(tiles(browser, gone=True)) >= 3 and all(
        t.get_attribute("data-host") != "h1" for t in tiles(browser, gone=True))
