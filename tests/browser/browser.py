"""A headless chromium that the tests drive, with an empty profile that is gone afterwards.

CMakeLists.txt tells in the environment where chromium and its driver are. Pages cannot run scripts; what the driver
itself runs in a page still works. Every wait is bounded. Whatever ends the test ends the browser: the driver dies with
the process that started it, and chromium when its pipe to the driver breaks.
"""

import atexit
import base64
import json
import os
import pathlib
import select
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.parse

from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver import ActionChains
from selenium.webdriver.chromium.remote_connection import ChromiumRemoteConnection
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.wait import WebDriverWait

from server import TIMEOUT_SECONDS, Server

COMMAND_SECONDS = TIMEOUT_SECONDS + 30  # the driver answers after it has waited for a page
POLL_SECONDS = 0.05
DRIVER_TRIES = 10
MOST_TABS = 40
SCRIPTS_BLOCKED = 2

# Quiet, and nothing but this machine can be reached.
SWITCHES = (
    "--headless=new",
    "--remote-debugging-pipe",
    "--disable-dev-shm-usage",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-default-apps",
    "--disable-domain-reliability",
    "--disable-extensions",
    "--disable-sync",
    "--host-resolver-rules=MAP * ~NOTFOUND , EXCLUDE 127.0.0.1 , EXCLUDE localhost",
    "--hide-scrollbars",  # a picture of a whole page has none either, and would be cut off by their width
    "--lang=en-US",
    "--no-first-run",
    "--no-proxy-server",
    "--window-size=1000,800",
)
PREFERENCES = {
    "profile.managed_default_content_settings.javascript": SCRIPTS_BLOCKED,
    "intl.accept_languages": "en-US",
    "net.network_prediction_options": 2,  # no connections ahead of their use
    "session.restore_on_startup": 4,  # with these pages instead of the page for new tabs
    "session.startup_urls": ["about:blank"],
}


class Browser:
    """One chromium with its driver, from construction to close().

    A window has to be opened before the rest is used. It starts without the cookies and the cache of those before.
    `authority` is the file with a certificate that it trusts besides those that it is born with, None for none.
    """

    def __init__(self, authority=None):
        self.place = tempfile.TemporaryDirectory(prefix="tallowin-browser-")
        self.directory = pathlib.Path(self.place.name)
        self.log = self.directory / "driver.log"
        self.driver = None
        self.asked = []
        self.failed = set()
        if authority:
            self.trust(authority)
        self.server = self.start_driver()
        atexit.register(self.close)  # an interrupted test closes nothing else
        address = f"http://127.0.0.1:{self.server.ready.group(1)}"
        connection = ChromiumRemoteConnection(address, "goog", "chrome", ignore_proxy=True)
        connection.set_timeout(COMMAND_SECONDS)
        self.driver = webdriver.Remote(connection, options=self.options())
        self.driver.set_page_load_timeout(TIMEOUT_SECONDS)
        self.base = self.driver.current_window_handle

    def trust(self, authority):
        """Puts it where chromium looks in the home directory that it will have."""
        store = self.directory / ".pki" / "nssdb"
        store.mkdir(parents=True)
        certutil = [os.environ["KVX_CERTUTIL"], "-d", f"sql:{store}"]
        for command in (["-N", "--empty-password"], ["-A", "-n", "authority", "-t", "C,,", "-i", str(authority)]):
            subprocess.run(certutil + command, check=True, stdin=subprocess.DEVNULL, timeout=TIMEOUT_SECONDS)

    def start_driver(self):
        """The driver takes a free port of IPv4 and then wants the same one of IPv6; when that is taken it ends, and
        another port has to be tried."""
        for _ in range(DRIVER_TRIES - 1):
            try:
                return self.try_to_start_driver()
            except AssertionError:
                continue
        return self.try_to_start_driver()

    def try_to_start_driver(self):
        """On a free port. What chromium writes beside its profile goes to the directory as well."""
        places = ("HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "TMPDIR")
        return Server([os.environ["KVX_CHROMEDRIVER"], "--port=0", f"--log-path={self.log}"],
                      r"started successfully on port (\d+)", self.directory / "driver.errors",
                      **{place: str(self.directory) for place in places})

    def options(self):
        options = webdriver.ChromeOptions()
        options.binary_location = os.environ["KVX_CHROMIUM"]
        for switch in SWITCHES:
            options.add_argument(switch)
        options.add_argument(f"--user-data-dir={self.directory / 'profile'}")
        if os.geteuid() == 0:
            options.add_argument("--no-sandbox")  # chromium has none for root, and refuses to start with one
        options.add_experimental_option("prefs", PREFERENCES)
        options.set_capability("goog:loggingPrefs", {"performance": "ALL"})
        return options

    def close(self):
        """Ends chromium and its driver. Throws AssertionError when a process had to be killed."""
        atexit.unregister(self.close)
        try:
            if self.driver is not None:
                self.driver.quit()
        finally:
            self.end_processes()
            self.place.cleanup()

    def end_processes(self):
        self.server.stop()
        deadline = time.monotonic() + TIMEOUT_SECONDS
        while left := self.processes():
            if not ends(left[0], deadline):
                break
        for process in left:
            kill(process)
        if left:
            raise AssertionError(f"processes of the browser did not end and were killed: {left}")

    def processes(self):
        """The driver, chromium and its helpers: their command lines name the directory."""
        found = []
        for entry in pathlib.Path("/proc").iterdir():
            if entry.name.isdigit():
                try:
                    command = (entry / "cmdline").read_bytes()
                except OSError:
                    continue  # it has ended, or belongs to somebody else
                if os.fsencode(self.directory) in command:
                    found.append(int(entry.name))
        return found

    def open_window(self):
        self.driver.switch_to.new_window("tab")
        self.command("Network.clearBrowserCookies")
        self.command("Network.clearBrowserCache")
        self.asked = []
        self.failed = set()

    def close_window(self):
        self.driver.close()
        self.driver.switch_to.window(self.base)
        self.driver.get_log("performance")  # what the closed window asked is nothing to the next one

    def command(self, name, **parameters):
        """A command of chromium's own protocol."""
        return self.driver.execute("executeCdpCommand", {"cmd": name, "params": parameters})["value"]

    def become_phone(self, width, height):
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=2, mobile=True)
        self.command("Emulation.setTouchEmulationEnabled", enabled=True)

    def leave(self, action):
        """Does what leads to another page, and waits until all of that is there that comes."""
        before = self.page()
        action()
        # While one page makes room for another, questions about either may fail.
        wait = WebDriverWait(self.driver, TIMEOUT_SECONDS, POLL_SECONDS, [WebDriverException])
        wait.until(lambda _: self.page() != before and self.has_ended(), "no other page came")

    def has_ended(self):
        """Whether all of the page has come, or the rest of it never will: what came of it stays "loading" then."""
        if self.driver.execute_script("return document.readyState") == "complete":
            return True
        self.read_log()
        return self.page() in self.failed

    def page(self):
        """Tells a page from the one before and from itself loaded again."""
        return self.command("Page.getFrameTree")["frameTree"]["frame"]["loaderId"]

    def open(self, address):
        self.leave(lambda: self.driver.get(address))

    def press(self, element):
        self.leave(element.click)

    def press_key(self, key):
        ActionChains(self.driver).send_keys(key).perform()

    def tab_to(self, element):
        """Moves the keyboard's focus from element to element, as somebody without a pointer does."""
        for _ in range(MOST_TABS):
            self.press_key(Keys.TAB)
            if self.driver.switch_to.active_element == element:
                return
        raise AssertionError(f"the Tab key does not lead to {element.get_attribute('outerHTML')}")

    def one(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def address(self):
        return self.driver.current_url

    def text(self):
        return self.one("html").text  # a page that was cut off in its head has no body

    def addresses(self):
        """What the pages of this window asked web servers for, oldest first, redirections included."""
        self.read_log()
        return self.asked

    def read_log(self):
        for entry in self.driver.get_log("performance"):
            event = json.loads(entry["message"])["message"]
            if event["method"] == "Network.requestWillBeSent":
                address = event["params"]["request"]["url"]
                if urllib.parse.urlsplit(address).scheme in ("http", "https"):
                    self.asked.append(address)
            elif event["method"] == "Network.loadingFailed":
                self.failed.add(event["params"]["requestId"])  # of a page that is its page()

    def size(self):
        """Of the whole page, also of what is to be scrolled to."""
        return self.command("Page.getLayoutMetrics")["cssContentSize"]

    def save_screenshot(self, path):
        """The whole page."""
        picture = self.command("Page.captureScreenshot", captureBeyondViewport=True,
                               clip={**self.size(), "scale": 1})["data"]
        path.write_bytes(base64.b64decode(picture))

    def keep_evidence(self, directory):
        """What a failure looked like: the driver's log, the address, the page's source and its picture."""
        directory.mkdir(parents=True)
        shutil.copy(self.log, directory)
        (directory / "address.txt").write_text(self.driver.current_url + "\n", encoding="utf-8")
        (directory / "page.html").write_text(self.driver.page_source, encoding="utf-8")
        self.save_screenshot(directory / "page.png")


def ends(process, deadline):
    """Waits until a process has ended. False when it still runs at the deadline."""
    try:
        descriptor = os.pidfd_open(process)
    except ProcessLookupError:
        return True
    try:
        return bool(select.select([descriptor], [], [], max(0, deadline - time.monotonic()))[0])
    finally:
        os.close(descriptor)


def kill(process):
    try:
        os.kill(process, signal.SIGKILL)
    except ProcessLookupError:
        return  # it ended with the one that was killed before
    ends(process, time.monotonic() + TIMEOUT_SECONDS)
