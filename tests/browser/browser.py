"""A headless chromium for the tests, with an empty profile that is deleted at the end.

CMakeLists.txt sets environment variables with the paths of chromium and its driver. Pages cannot run scripts unless a
test allows it; scripts of the driver still run. Each wait has a timeout. However the test ends, the browser ends too: the driver dies with the
process that started it, and chromium when its pipe to the driver breaks.

Order: start and end of the processes, windows, navigation, elements, the log of requests, screenshots.
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

from server_process import TIMEOUT_SECONDS, ServerProcess

COMMAND_SECONDS = TIMEOUT_SECONDS + 30  # a command of the driver includes the wait for a page
POLL_SECONDS = 0.05
DRIVER_TRIES = 10
MAX_TABS = 40
SCRIPTS = "profile.managed_default_content_settings.javascript"
SCRIPTS_ALLOWED = 1
SCRIPTS_BLOCKED = 2

# No traffic of the browser's own; only this machine can be reached.
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
    "--hide-scrollbars",  # a picture of a whole page has none, and would be too narrow by their width
    "--lang=en-US",
    "--no-first-run",
    "--no-proxy-server",
    "--window-size=1000,800",
)
PREFERENCES = {
    "intl.accept_languages": "en-US",
    "net.network_prediction_options": 2,  # no connections in advance
    "session.restore_on_startup": 4,  # start with these pages, not with the page for new tabs
    "session.startup_urls": ["about:blank"],
}


class Browser:
    """A chromium with its driver. Runs from construction to close().

    Call open_window() before any other method. A new window has no cookies and no cache of earlier ones. `authority` is
    the file of a certificate to trust in addition to chromium's own; None for none. `scripts`: pages can run them.
    """

    def __init__(self, authority=None, scripts=False):
        self.temporary = tempfile.TemporaryDirectory(prefix="tallowin-browser-")
        self.directory = pathlib.Path(self.temporary.name)
        self.log = self.directory / "driver.log"
        self.scripts = scripts
        self.driver = None
        self.requested = []
        self.failed = set()
        if authority:
            self.trust(authority)
        self.server = self.start_driver()
        atexit.register(self.close)  # an interrupted test calls nothing else
        address = f"http://127.0.0.1:{self.server.ready.group(1)}"
        connection = ChromiumRemoteConnection(address, "goog", "chrome", ignore_proxy=True)
        connection.set_timeout(COMMAND_SECONDS)
        self.driver = webdriver.Remote(connection, options=self.options())
        self.driver.set_page_load_timeout(TIMEOUT_SECONDS)
        self.base = self.driver.current_window_handle

    def trust(self, authority):
        """Stores the certificate where chromium looks for it in its home directory."""
        store = self.directory / ".pki" / "nssdb"
        store.mkdir(parents=True)
        certutil = [os.environ["KVX_CERTUTIL"], "-d", f"sql:{store}"]
        for command in (["-N", "--empty-password"], ["-A", "-n", "authority", "-t", "C,,", "-i", str(authority)]):
            subprocess.run(certutil + command, check=True, stdin=subprocess.DEVNULL, timeout=TIMEOUT_SECONDS)

    def start_driver(self):
        """Starts the driver, several times if necessary: it takes a free IPv4 port, then needs the same port for IPv6,
        and ends when that one is in use."""
        for _ in range(DRIVER_TRIES - 1):
            try:
                return self.try_to_start_driver()
            except AssertionError:
                continue
        return self.try_to_start_driver()

    def try_to_start_driver(self):
        """Starts the driver on a free port. All files that chromium writes go to the directory."""
        variables = ("HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "TMPDIR")
        return ServerProcess([os.environ["KVX_CHROMEDRIVER"], "--port=0", f"--log-path={self.log}"],
                      r"started successfully on port (\d+)", self.directory / "driver.errors",
                      **{variable: str(self.directory) for variable in variables})

    def options(self):
        options = webdriver.ChromeOptions()
        options.binary_location = os.environ["KVX_CHROMIUM"]
        for switch in SWITCHES:
            options.add_argument(switch)
        options.add_argument(f"--user-data-dir={self.directory / 'profile'}")
        if os.geteuid() == 0:
            options.add_argument("--no-sandbox")  # chromium refuses to start as root with its sandbox
        setting = SCRIPTS_ALLOWED if self.scripts else SCRIPTS_BLOCKED
        options.add_experimental_option("prefs", {**PREFERENCES, SCRIPTS: setting})
        options.set_capability("goog:loggingPrefs", {"performance": "ALL"})
        return options

    def close(self):
        """Ends chromium and its driver. Raises AssertionError when a process had to be killed."""
        atexit.unregister(self.close)
        try:
            if self.driver is not None:
                self.driver.quit()
        finally:
            self.end_processes()
            self.temporary.cleanup()

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
        """The process ids of the driver, chromium and its helpers: their command lines contain the directory."""
        found = []
        for entry in pathlib.Path("/proc").iterdir():
            if entry.name.isdigit():
                try:
                    command = (entry / "cmdline").read_bytes()
                except OSError:
                    continue  # it has ended, or belongs to another user
                if os.fsencode(self.directory) in command:
                    found.append(int(entry.name))
        return found

    def open_window(self):
        self.driver.switch_to.new_window("tab")
        self.command("Network.clearBrowserCookies")
        self.command("Network.clearBrowserCache")
        self.requested = []
        self.failed = set()

    def close_window(self):
        self.driver.close()
        self.driver.switch_to.window(self.base)
        self.driver.get_log("performance")  # drop the requests of the closed window

    def command(self, name, **parameters):
        """Sends a command of chromium's DevTools protocol."""
        return self.driver.execute("executeCdpCommand", {"cmd": name, "params": parameters})["value"]

    def emulate_phone(self, width, height):
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=2, mobile=True)
        self.command("Emulation.setTouchEmulationEnabled", enabled=True)

    def leave(self, action):
        """Runs `action`, which leads to another page, and waits until that page has loaded or failed."""
        before = self.page()
        action()
        # Commands may fail while one page replaces another.
        wait = WebDriverWait(self.driver, TIMEOUT_SECONDS, POLL_SECONDS, [WebDriverException])
        wait.until(lambda _: self.page() != before and self.has_ended(), "no other page was loaded")

    def has_ended(self):
        """Whether the page has loaded or failed to load. A page that fails halfway stays "loading" forever."""
        if self.driver.execute_script("return document.readyState") == "complete":
            return True
        self.read_log()
        return self.page() in self.failed

    def page(self):
        """An id of the loaded page; a reload has another one."""
        return self.command("Page.getFrameTree")["frameTree"]["frame"]["loaderId"]

    def open(self, address):
        self.leave(lambda: self.driver.get(address))

    def press(self, element):
        self.leave(element.click)

    def press_key(self, key):
        ActionChains(self.driver).send_keys(key).perform()

    def tab_to(self, element):
        """Presses Tab until the element has the keyboard focus."""
        for _ in range(MAX_TABS):
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
        # A page that ends in its head has no body. One that has failed halfway may not have been parsed yet.
        wait = WebDriverWait(self.driver, TIMEOUT_SECONDS, POLL_SECONDS, [WebDriverException])
        return wait.until(lambda _: self.all("html"), "the page has no element")[0].text

    def addresses(self):
        """The URLs that this window requested, oldest first, redirects included."""
        self.read_log()
        return self.requested

    def read_log(self):
        for entry in self.driver.get_log("performance"):
            event = json.loads(entry["message"])["message"]
            if event["method"] == "Network.requestWillBeSent":
                address = event["params"]["request"]["url"]
                if urllib.parse.urlsplit(address).scheme in ("http", "https"):
                    self.requested.append(address)
            elif event["method"] == "Network.loadingFailed":
                self.failed.add(event["params"]["requestId"])  # for a page this is its page()

    def size(self):
        """The size of the whole page, not only of its visible part."""
        return self.command("Page.getLayoutMetrics")["cssContentSize"]

    def save_screenshot(self, path):
        """Saves a picture of the whole page."""
        picture = self.command("Page.captureScreenshot", captureBeyondViewport=True,
                               clip={**self.size(), "scale": 1})["data"]
        path.write_bytes(base64.b64decode(picture))

    def save_report(self, directory):
        """Saves the driver's log, the page's URL, source and picture."""
        directory.mkdir(parents=True)
        shutil.copy(self.log, directory)
        (directory / "address.txt").write_text(self.driver.current_url + "\n", encoding="utf-8")
        (directory / "page.html").write_text(self.driver.page_source, encoding="utf-8")
        self.save_screenshot(directory / "page.png")


def ends(process, deadline):
    """Waits until a process has ended. Returns False when it still runs at the deadline."""
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
        return  # it ended with a process that was killed before
    ends(process, time.monotonic() + TIMEOUT_SECONDS)
