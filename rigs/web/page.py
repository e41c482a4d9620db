"""camera_sim with its page in Chromium, and what a person could see and do there."""
import json
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By

PATIENCE = 30  # seconds until something must have happened
BROWSER = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
           "--disable-background-networking", "--disable-component-update", "--disable-sync", "--hide-scrollbars"]

# Run in the page.
COUNTER = """
  const canvas = document.getElementById("view"), cell = Math.floor(canvas.width / 40) & ~1;
  const pixels = canvas.getContext("2d").getImageData(0, 0, cell * 40, cell).data;
  let counter = 0;
  for (let i = 0; i < 32; i++)
    counter = counter * 2 + (pixels[4 * (cell * 40 * (cell >> 1) + i * cell + (cell >> 1)) + 1] > 127);
  return counter;"""
LUMA = """
  const canvas = document.getElementById("view"), {width, height} = canvas;
  const pixels = canvas.getContext("2d").getImageData(0, height / 4, width, height / 2).data;
  let sum = 0;
  for (let i = 1; i < pixels.length; i += 4) sum += pixels[i];
  return sum / (pixels.length / 4);"""
ROW = """
  const canvas = document.getElementById("view"), {width, height} = canvas;
  const pixels = canvas.getContext("2d").getImageData(0, Math.floor(height * 0.15), width, 1).data;
  return Array.from({length: width}, (_, i) => [pixels[4 * i], pixels[4 * i + 1], pixels[4 * i + 2]]);"""
FOCUSABLE = """
  return [...document.querySelectorAll("button, input, select, textarea, a[href], summary, [tabindex]")]
    .filter((e) => !e.disabled && e.tabIndex >= 0 && e.checkVisibility())
    .map((e) => e.id || e.ariaLabel || e.labels?.[0]?.innerText || e.innerText);"""


class Missed(Exception):
    """What was expected was not seen."""


class Page:
    """`build` holds camera_sim; screenshots and what it says go to the folder `out`."""

    def __init__(self, build, out):
        self.out = out
        self.marked = 0  # the request of the conversation that the last mark() made
        self.folder = tempfile.mkdtemp(prefix="webtest.")
        self.said = open(out / "camera_sim.txt", "w+")
        self.camera = subprocess.Popen([str(build / "camera_sim"), "--web", "--out", str(out / "camera")], stdout=self.said)
        self.address = self.until("the address is printed", self.printed_address)
        options = webdriver.ChromeOptions()
        for argument in BROWSER + [f"--user-data-dir={self.folder}"]:
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.shape(1440, 1000)

    def end(self):
        if hasattr(self, "browser"):
            self.browser.quit()
        self.camera.send_signal(signal.SIGINT)
        self.camera.wait(20)
        shutil.rmtree(self.folder, ignore_errors=True)

    def printed_address(self):
        self.said.seek(0)
        found = re.search(r"http://127\.0\.0\.1:\d+/", self.said.read())
        return found and found[0]

    @staticmethod
    def until(what, condition, patience=PATIENCE):
        end = time.monotonic() + patience
        while time.monotonic() < end:
            value = condition()
            if value:
                return value
            time.sleep(0.05)
        raise Missed(f"not within {patience} s: {what}")

    def shape(self, width, height, dark=False):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                     {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})

    def run(self, script, *arguments):
        return self.browser.execute_script(script, *arguments)

    def find(self, name):
        return self.browser.find_element(By.ID, name)

    def in_view(self, element):
        """Returns it, scrolled to the middle of the window."""
        self.run("arguments[0].scrollIntoView({block: 'center'})", element)
        return element

    def text(self, name):
        return self.find(name).text

    def click(self, name):
        self.in_view(self.find(name)).click()

    def choose(self, name, value):
        self.run("const e = document.getElementById(arguments[0]); e.value = arguments[1]; e.dispatchEvent(new Event('change'))",
                 name, value)

    def lines(self, record):
        return self.run("return document.querySelector(`#${arguments[0]} .lines`).innerText", record)

    def pictures(self):
        return int(self.run("return document.getElementById('view').dataset.pictures ?? 0"))

    def settled(self):
        """Waits for a picture that was made after now."""
        before = self.pictures()
        self.until("five pictures more", lambda: self.pictures() > before + 5)

    def until_picture_is_back(self):
        self.until("the picture is back", lambda: not self.find("no-picture").is_displayed())

    def ask(self, command, **arguments):
        body = json.dumps(arguments).encode() if arguments else None
        with urllib.request.urlopen(self.address + "api/" + command, body) as answer:
            return json.load(answer)

    def state(self):
        return self.ask("state")

    def set_control(self, name, value):
        """As its slider does."""
        self.run("const s = document.getElementById(arguments[0]); s.value = arguments[1]; s.dispatchEvent(new Event('input'))",
                 f"control-{name}", value)

    def hold_pad(self, sideways):
        """Holds the pad so many pixels beside its middle, until the head moves."""
        pad = self.in_view(self.find("pad"))
        ActionChains(self.browser).move_to_element(pad).click_and_hold().move_by_offset(sideways, 0).perform()
        self.until("the head moves", lambda: self.state()["head"]["moving"])

    def let_go(self):
        ActionChains(self.browser).release().perform()

    def mark(self):
        """Returns the number and the time of a request of its own in the conversation."""
        self.ask("get", name="brightness")
        last = self.ask("conversation", **{"from": self.marked})["conversation"][-1]
        self.marked = last["number"]
        return last["number"], last["seconds"]

    def stopped_after(self, mark):
        """Waits until the head stands, and returns how many seconds after a mark the camera was asked to stop it."""
        self.until("the head stands", lambda: not self.state()["head"]["moving"], 2)
        later = self.ask("conversation", **{"from": mark[0]})["conversation"]
        stop = next((each for each in later if re.search("SET_CUR.*pan_speed = 0", each["request"])), None)
        if not stop:
            raise Missed("the conversation has no request that stops the head")
        return stop["seconds"] - mark[1]

    def centre_head(self):
        self.set_control("pan_absolute", 0)
        self.until("the head is in the middle", lambda: abs(self.state()["head"]["pan"]) < 0.1)

    def press(self, *keys):
        ActionChains(self.browser).send_keys(*keys).perform()

    def counter(self):
        """The counter that is burnt into the picture."""
        return self.run(COUNTER)

    def luma(self):
        """The mean of the picture's middle, 0 to 255."""
        return self.run(LUMA)

    def row(self):
        """The colours of a row of pixels."""
        return self.run(ROW)

    def focusable(self):
        """Whatever takes input now, as focused() names it, in the order of the page."""
        return self.run(FOCUSABLE)

    def focused(self):
        """What has the focus, named for a person."""
        return self.run("const e = document.activeElement; return e.id || e.ariaLabel || e.labels?.[0]?.innerText || e.innerText")

    def browser_processes(self):
        """The driver's children, their children and so on."""
        parents = {}
        for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
            try:
                parents[int(stat.parent.name)] = int(stat.read_text().rpartition(")")[2].split()[1])
            except OSError:
                continue  # it has just ended
        found, more = set(), {self.browser.service.process.pid}
        while more:
            more = {child for child, parent in parents.items() if parent in more} - found
            found |= more
        return found

    def sockets(self):
        """How many connections the server has."""
        port = f":{int(self.address.rsplit(':', 1)[1].strip('/')):04X}"
        lines = pathlib.Path("/proc/net/tcp").read_text().splitlines()
        return sum(line.split()[1].endswith(port) and line.split()[3] == "01" for line in lines)

    def shot(self, name):
        self.browser.save_screenshot(str(self.out / f"{name}.png"))
