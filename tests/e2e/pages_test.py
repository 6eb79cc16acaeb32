"""The pages of mfpsim in a real browser: what a person clicks, reads and types there.

Screenshots go to the folder in QOMA_SCREENSHOTS. Without chromium and selenium (scripts/setup.sh pages) all is
skipped.
"""
import json
import os
import pathlib
import shutil
import tempfile
import unittest
import urllib.request

from programs import LIMIT, Device, Program, RoadTest

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    webdriver = None

WIDTHS = {"desktop": 1440, "tablet": 820, "phone": 390}
SWITCHES = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-background-networking", "--no-first-run",
            "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage", "--window-size=1440,1000")


class Panel:
    """A browser at a device's panel."""

    def __init__(self, profile, url):
        options = webdriver.ChromeOptions()
        for switch in (*SWITCHES, f"--user-data-dir={profile}"):
            options.add_argument(switch)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        self.browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
        self.url = url
        self.browser.get(url)

    def find(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def all(self, selector):
        return self.browser.find_elements(By.CSS_SELECTOR, selector)

    def click(self, selector):
        self.until(lambda: self.find(selector).is_displayed(), selector)
        self.find(selector).click()

    def until(self, condition, what):
        """Elements come and go: one that went while it was looked at is looked for again."""
        def met(_):
            try:
                return condition()
            except Exception:  # noqa: BLE001
                return False
        try:
            return WebDriverWait(self.browser, LIMIT, 0.05).until(met)
        except Exception:
            raise AssertionError(f"{what}; the page reads\n{self.find('body').text}") from None

    def reads(self, selector, text):
        self.until(lambda: text in self.find(selector).text, f"{selector} does not read {text!r}")

    def timeline(self, text, after=0):
        self.until(lambda: any(text in row.text.replace("\n", " ") for row in self.all("#events li")[after:]),
                   f"{text!r} is not in the timeline")

    def entry(self, text):
        return self.until(lambda: next(e for e in self.all(".entry") if text in e.text), f"no entry {text}")

    def focused(self):
        return self.browser.switch_to.active_element

    def keys(self, *keys):
        ActionChains(self.browser).send_keys(*keys).perform()


class PageTest(RoadTest):
    def browse(self, url):
        profile = tempfile.TemporaryDirectory()
        self.addCleanup(profile.cleanup)
        panel = Panel(profile.name, url)
        self.addCleanup(panel.browser.quit)
        panel.reads("#connection", "live")
        return panel

    def look_at(self, panel, page):
        """All widths, light and dark: nothing sticks out, all can be read, and what can be operated has a name."""
        folder = pathlib.Path(os.environ.get("QOMA_SCREENSHOTS", tempfile.gettempdir()))
        for scheme in ("light", "dark"):
            panel.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
                {"name": "prefers-color-scheme", "value": scheme}]})
            for name, width in WIDTHS.items():
                panel.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                    "width": width, "height": 1000, "deviceScaleFactor": 1, "mobile": width < 500})
                self.assertLessEqual(panel.browser.execute_script(
                    "return document.documentElement.scrollWidth - document.documentElement.clientWidth"), 0, name)
                panel.browser.save_screenshot(str(folder / f"{page}-{name}-{scheme}.png"))
            self.assertEqual([], panel.browser.execute_script(CONTRAST))
        self.assertEqual([], panel.browser.execute_script(NAMELESS))
        self.assertEqual([], [entry for entry in panel.browser.get_log("browser") if entry["level"] == "SEVERE"])


@unittest.skipUnless(webdriver and shutil.which("chromium") and shutil.which("chromedriver"), "no chromium, no selenium")
class PanelTest(PageTest):
    def panel(self, *arguments):
        """A device with a page, and a browser that shows it."""
        device = self.device("--web", "0", *arguments)
        device.url = device.expect(r"pages at (http://\S+)").group(1)
        return device, self.browse(device.url)

    def test_a_click_is_heard_and_its_way_is_drawn(self):
        device, panel = self.panel("--lose-echo", "1")
        client = self.client(device, "--option", "Paper Archive", "--option", "<script>document.title='x'</script><b>")
        panel.entry("<script>document.title='x'</script><b>").click()
        self.assertIn("<script>", client.next("eCT_SELECT_NOTIFY")["option"])
        self.assertIn("front panel", panel.browser.title)
        panel.timeline("sent again")
        panel.timeline("echoed Echo of datagram 1")
        next(row for row in panel.all(".event") if "sent again" in row.text).click()
        panel.reads("#inspector-title", "pick 1")
        steps = [step.get_attribute("textContent") for step in panel.all("#way-text li")]
        for step, words in zip(steps, ("User to Device, picks", "Device to Client 1, datagram 1", "echo, not heard",
                                       "datagram again, try 2", "Client 1 to Device, echo"), strict=True):
            self.assertIn(words, step)

    def test_a_press_its_lamp_and_whose_claim_it_is(self):
        device, panel = self.panel()
        panel.click("#scan")
        panel.reads("#claim", "waits for a claim")
        self.assertEqual("waiting", panel.find("#lamp").get_attribute("data-state"))
        client = self.client(device, "--local", "--on", "button,adf,fax")
        panel.reads("#links", "hears SCANNER_BUTTON_STATUS")
        panel.click("#scan")
        client.next("eCT_SCANNER_BUTTON_NOTIFY")
        panel.reads("#claim", "claimed by client 1")
        self.assertEqual("claimed", panel.find("#lamp").get_attribute("data-state"))
        panel.click("#feeder")
        self.assertEqual(1, client.next("eCT_ADF_NOTIFY")["nValue"])
        panel.reads("#feeder-state", "paper in")
        panel.click("#fax")
        client.next("eCT_FAX_UPLOAD_NOTIFY")
        panel.reads("#fax-state", "one waits")

    def test_cuts_habits_and_a_device_that_goes_are_shown_and_end(self):
        device, panel = self.panel()
        client = self.client(device)
        panel.reads("#links-count", "1")
        panel.click("#cut")
        panel.reads("#display-status", "Links are cut")
        panel.reads("#links-count", "0")
        client.next("eCT_LINK_RECOVERED")
        panel.reads("#links-count", "1")
        panel.reads("#display-status", "Ready")
        panel.click("#habit-drop-switch")
        panel.reads("#habit-drop-hint", "3 to come")
        panel.entry("notifymon").click()
        client.next("eCT_SELECT_NOTIFY")  # after the three that got lost
        panel.until(lambda: panel.find("#habit-drop-switch").get_attribute("aria-checked") == "false", "still on")
        device.tell("mute on")  # at the terminal
        panel.until(lambda: panel.find("#habit-mute-switch").get_attribute("aria-checked") == "true", "still off")
        port = int(device.url.rstrip("/").rsplit(":", 1)[1])
        device.kill()
        panel.reads("#connection", "does not answer")
        self.start(Device, "--web", port, port=device.port)
        panel.reads("#connection", "live")
        panel.until(lambda: panel.find("#habit-mute-switch").get_attribute("aria-checked") == "false", "an old state")

    def test_a_reload_and_other_tabs_miss_nothing(self):
        device, panel = self.panel()
        panel.click("#scan")
        panel.timeline("pressed Scan button pressed")
        panel.browser.refresh()
        panel.timeline("pressed Scan button pressed")
        for _ in range(19):
            panel.browser.switch_to.new_window("tab")
            panel.browser.get(panel.url)
        device.tell("adf on")
        for tab in panel.browser.window_handles:
            panel.browser.switch_to.window(tab)
            panel.reads("#feeder-state", "paper in")
            panel.timeline("Paper in the feeder")
        panel.click("#feeder")  # the twentieth can still ask for something
        device.expect("feeder: off")

    def test_by_keyboard_alone(self):
        device, panel = self.panel()
        client = self.client(device, "--option", "One", "--option", "Two")
        panel.entry("Two")
        for _ in range(30):
            panel.keys(Keys.TAB)
            if "entry" in panel.focused().get_attribute("class").split():
                break
        panel.keys(Keys.ARROW_DOWN, Keys.ENTER)
        self.assertIn("Two;", client.next("eCT_SELECT_NOTIFY")["option"])
        self.assertIn("Two", panel.focused().text)  # the place is not lost
        panel.keys(Keys.TAB, Keys.ENTER)
        device.expect("button: pressed")
        panel.keys(Keys.TAB, Keys.SPACE)
        device.expect("feeder: on")
        panel.until(lambda: panel.focused().get_attribute("aria-checked") == "true", "the switch does not tell")

    def test_it_can_be_read_by_everybody_at_every_width(self):
        device, panel = self.panel()
        client = self.client(device, "--option", "Paper Archive", "--option", "Invoices of the second floor " * 3)
        panel.entry("Paper Archive").click()
        client.next("eCT_SELECT_NOTIFY")
        panel.timeline("echoed")
        next(row for row in panel.all(".event") if "picked" in row.text).click()
        self.look_at(panel, "panel")
        asked = {json.loads(entry["message"])["message"]["params"]["request"]["url"]
                 for entry in panel.browser.get_log("performance") if '"Network.requestWillBeSent"' in entry["message"]}
        self.assertEqual(set(), {url for url in asked if url.startswith(("http", "ws")) and not url.startswith(panel.url)})

    def test_other_pages_and_hosts_reach_nothing(self):
        device, panel = self.panel()
        stranger = self.device("--web", "0")
        panel.browser.get(stranger.expect(r"pages at (\S+)").group(1))
        panel.reads("#connection", "live")
        outcome = panel.browser.execute_async_script("""
            const done = arguments[1];
            fetch(arguments[0] + 'api/devices/1/commands', {method: 'POST', mode: 'no-cors', body: '{"command":"quit"}',
              headers: {'Content-Type': 'text/plain'}}).then(() => done('sent'), (error) => done('refused'));""",
                                                     device.url)
        self.assertEqual("refused", outcome)  # by the page's own policy already
        request = urllib.request.Request(device.url + "api/devices", headers={"Host": "device.example:80"})
        with self.assertRaises(urllib.error.HTTPError) as refused:
            urllib.request.urlopen(request)
        self.assertEqual(421, refused.exception.code)


# Texts whose contrast with what lies behind them is below 4.5 to 1.
CONTRAST = """
const parse = (text) => text.match(/[\\d.]+/g).map(Number);
const shine = (color) => color.slice(0, 3).map((part) => part / 255)
  .map((part) => part <= 0.03928 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4)
  .reduce((sum, part, index) => sum + part * [0.2126, 0.7152, 0.0722][index], 0);
const behind = (element) => {
  for (let at = element; at; at = at.parentElement) {
    const style = getComputedStyle(at);
    if (style.backgroundImage !== 'none') return null;
    const color = parse(style.backgroundColor);
    if (color.length < 4 || color[3] === 1) return color;
  }
  return [255, 255, 255];
};
const poor = [];
for (const element of document.querySelectorAll('body *:not(svg *):not(script)')) {
  const own = [...element.childNodes].some((node) => node.nodeType === 3 && node.textContent.trim());
  const box = element.getBoundingClientRect();
  if (!own || box.width < 2 || element.closest('.skip, .sr')) continue;
  const back = behind(element);
  if (!back) continue;
  const [a, b] = [shine(parse(getComputedStyle(element).color)), shine(back)].sort((x, y) => y - x);
  const ratio = (a + 0.05) / (b + 0.05);
  if (ratio < 4.5) poor.push(`${element.className || element.tagName} "${element.textContent.trim()}": ${ratio.toFixed(2)}`);
}
return poor;
"""

# What can be operated and has no name.
NAMELESS = """
return [...document.querySelectorAll('button, input, select, a[href], [role=img]')].filter((element) => {
  const labels = (element.getAttribute('aria-labelledby') || '').split(' ').map((id) => document.getElementById(id));
  const name = element.getAttribute('aria-label') || element.textContent.trim() || (element.labels && element.labels.length) ||
    labels.some((label) => label && label.textContent.trim()) || element.querySelector('img[alt]:not([alt=""])');
  return !name;
}).map((element) => element.outerHTML.slice(0, 120));
"""


@unittest.skipUnless(webdriver and shutil.which("chromium") and shutil.which("chromedriver"), "no chromium, no selenium")
@unittest.skipUnless("QOMA_NOTIFYHUB" in os.environ, "no notifyhub")
class HubPageTest(PageTest):
    DEVICES = 60

    def hub(self):
        """A fleet, the hub that hears it, and a browser at its page."""
        path = self.folder().path
        fleet = self.start(Device, "--fleet", self.DEVICES)
        settings = '[journal]\nfile = "journal.db"\n[web]\nport = 0\n' + "".join(
            f'[[sink]]\nname = "{name}"\ntype = "exec"\ncommand = ["{name}"]\n' for name in ("true", "false"))
        for n in range(1, self.DEVICES + 1):
            settings += f'[[device]]\nname = "room-{n:02}"\naddress = "127.0.1.{n}"\nport = {fleet.port}\n'
        (path / "hub.toml").write_text(settings)
        hub = self.start(Program, "QOMA_NOTIFYHUB", "--settings", path / "hub.toml")
        url = hub.expect(r"pages at (http://\S+)", "err").group(1)
        panel = self.browse(url)
        panel.reads("#totals", f"{self.DEVICES} of {self.DEVICES} devices connected")
        return fleet, hub, panel

    def rows(self, panel, table):
        return [row.text for row in panel.all(f"#{table} tbody tr")]

    def type(self, panel, selector, text):
        panel.find(selector).clear()
        panel.find(selector).send_keys(text)

    def test_devices_sinks_and_events(self):
        fleet, hub, panel = self.hub()
        panel.reads("#range", "1 to 50 of 60")
        panel.click("#next")
        panel.reads("#range", "51 to 60 of 60")
        self.type(panel, "#filter", "ROOM-07")
        panel.reads("#range", "1 to 1 of 1")
        self.assertEqual(1, len(self.rows(panel, "devices")))
        panel.until(lambda: any("false exec" in row and "exit code 1" in row for row in self.rows(panel, "sinks")), "sinks")

        fleet.tell("7 pick 1")
        panel.until(lambda: "room-07 panel.picked notifyhub" in self.rows(panel, "events")[0], "the pick, live")
        fleet.tell("7 cut 14000")  # the hub asks its devices now and then, and has noticed after 11 s
        panel.until(lambda: "lost" in self.rows(panel, "devices")[0], "the device is lost")
        self.type(panel, "#device", "room-07")
        panel.until(lambda: len(self.rows(panel, "events")) in (3, 4), "what the journal has of one device")
        panel.find("#type").send_keys("picks")
        panel.until(lambda: len(self.rows(panel, "events")) == 1, "its picks")
        self.type(panel, "#text", "no such text")
        panel.until(lambda: not self.rows(panel, "events"), "a text that nothing holds")
        panel.until(lambda: "connected" in self.rows(panel, "devices")[0] or "back" in self.rows(panel, "devices")[0], "back")
        hub.interrupt()
        panel.reads("#connection", "does not answer")

    def test_it_can_be_read_at_all_widths(self):
        _, _, panel = self.hub()
        self.look_at(panel, "hub")
