"""A headless browser that notes what a page complains about and what it asks the network for."""
import contextlib
import json
import os
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from quarrow_driver.waiting import wait_for

FLAGS = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run", "--disable-extensions",
         "--disable-background-networking", "--disable-component-update", "--disable-sync", "--no-pings")
KEYS = {"ArrowLeft": Keys.ARROW_LEFT, "ArrowRight": Keys.ARROW_RIGHT, "ArrowUp": Keys.ARROW_UP, "ArrowDown": Keys.ARROW_DOWN,
        "Enter": Keys.ENTER, "Escape": Keys.ESCAPE, "Tab": Keys.TAB, "Home": Keys.HOME}


class Browser:
    def __init__(self, driver):
        self.driver = driver

    def open(self, path, width=1200, height=900, scheme="light"):
        """Opens the file in a window of that size, for a system with that colour scheme, and waits until it is drawn."""
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                    {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                    {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        self.driver.get(f"file://{path}")
        wait_for(lambda: self.all(".tile, .problem"), "the drawn page")

    def run(self, script, *arguments):
        """The value that the script returns."""
        return self.driver.execute_script(script, *arguments)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        return self.one(selector).text

    def press(self, *keys):
        """To whatever has the focus."""
        for key in keys:
            webdriver.ActionChains(self.driver).send_keys(KEYS.get(key, key)).perform()

    def complaints(self):
        """Lines of the console since the last call: errors, warnings, what the content security policy has refused."""
        return [entry["message"] for entry in self.driver.get_log("browser")]

    def requests(self):
        """What pages from files have asked for since the last call: the browser has pages of its own."""
        messages = [json.loads(entry["message"])["message"] for entry in self.driver.get_log("performance")]
        sent = [message["params"] for message in messages if message["method"] == "Network.requestWillBeSent"]
        return [request["request"]["url"] for request in sent if request["documentURL"].startswith("file:")]


@contextlib.contextmanager
def started(arena):
    """A browser whose files all lie in a folder of the arena, and which is gone at the end."""
    folder = tempfile.mkdtemp(prefix="browser-", dir=arena.folder)
    options = webdriver.ChromeOptions()
    for flag in (*FLAGS, f"--user-data-dir={folder}/profile"):
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    environment = {**os.environ, "HOME": folder, "TMPDIR": folder, "XDG_CONFIG_HOME": folder, "XDG_CACHE_HOME": folder}
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver", env=environment), options=options)
    try:
        yield Browser(driver)
    finally:
        driver.quit()
