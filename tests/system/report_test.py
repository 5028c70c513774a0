"""The page of `moatctl report` in a real browser: where clicks lead, what a reader with keyboard or screen reader finds, and
that values from rows do nothing.

usage: report_test.py --daemon DAEMON
MOATKEEPER_REPORT_RULES in the environment says how many rules the large page has; with 10000 it must be ready within two
seconds. How long it took to make is told, not judged: that depends on what else the machine does."""

import importlib.util
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

from lab import config, machine, sandbox, waiting

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
RULES = int(os.environ.get("MOATKEEPER_REPORT_RULES", "1000"))
OUTPUT = 5
VERBS = {"MoatKeeper": "global", "MoatKeeperInputPolicy": "policy", "MoatKeeperForwardingPolicy": "forward-policy",
         "MoatKeeperRuleset": "rule", "MoatKeeperBridgeFilters": "filter", "MoatKeeperBridgeFilterRules": "filter-rule"}
MAC = "02:00:00:00:0a:01"
HOSTILE = ("<script>document.title=1</script>", "\"><img src=x onerror=alert(1)>", "</code></table><h1>obeyed",
           "\u001b[31mobeyed\u0007", "&lt;b&gt;&#60;i>", "javascript:document.title=1", "--></style><style>*{color:red}")
TABLES = {
    config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "ACCEPT"}],
    config.RULES: [{"Id": 4, "RulePrio": 10, "InInterface": "p1", "SrcMAC": MAC, "Target": "ACCEPT"},
                   {"Id": 5, "RulePrio": 20, "InInterface": "p3", "OutInterface": "p1", "Target": "DROP"},
                   *({"Id": 100 + i, "RulePrio": 50, "InInterface": "p2", "SrcMAC": text, "Target": "DROP"}
                     for i, text in enumerate(HOSTILE))],
    config.INPUT_POLICY: [{"Id": 7, "Interface": "p2", "Policy": "ACCEPT"}],
    config.FORWARD_POLICY: [{"Id": 8, "InInterface": "p2", "OutInterface": "p3", "Policy": "DROP"}],
    config.FILTERS: [{"Id": 9, "Prio": 10, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": "MAC",
                      "Mode": "blacklist"}],
    config.FILTER_RULES: [{"Id": 3, "BridgeFilterID": 9, "FilterMatch": MAC}],
}
# Of tidy's remarks those that ask a person to look, and what it wants of pages of former times.
KNOWN = ("requires? testing", "ensure ", "require updating", "remove flicker", "missing <noscript>", "missing summary",
         "proprietary attribute \"nonce\"")
# What stands out too little: text whose colour and background have less contrast than 4.5 to 1.
CONTRAST = """
const light = (text) => text.match(/[0-9.]+/g).slice(0, 3).map((part) => part / 255)
  .map((c) => c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4)
  .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
const behind = (at) => {
  for (; at; at = at.parentElement) {
    const colour = getComputedStyle(at).backgroundColor;
    if (!colour.startsWith('rgba(0, 0, 0, 0')) return colour;
  }
  return 'rgb(255, 255, 255)';
};
const weak = [];
let looked = 0;
for (const each of document.querySelectorAll('body *')) {
  if (![...each.childNodes].some((node) => node.nodeType === 3 && node.data.trim()) || each.tagName === 'SCRIPT') continue;
  const [a, b] = [light(getComputedStyle(each).color), light(behind(each))];
  ++looked;
  if ((Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05) < 4.5) weak.push(each.outerHTML.slice(0, 80));
}
return [looked, weak];
"""


def report(path, *words):
    return subprocess.run([MOATCTL, "report", path, *words], capture_output=True, text=True, timeout=60, check=False)


def startBrowser(folder):
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
                 "--disable-background-networking", "--disable-extensions", f"--user-data-dir={folder}/browser"):
        options.add_argument(word)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


class Report(machine.Machine):
    """One page of a small configuration with hostile rows; the browser is for all tests."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.config.replace(TABLES)
        subprocess.run([MOATCTL, "rule", "add", "--id", "6", "--in", "p3", "--out", "p2", "--drop"], check=True, timeout=60,
                       stdout=subprocess.DEVNULL)
        cls.page = f"{machine.FOLDER}/bridge.html"
        done = report(cls.page)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", ""), done
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        cls.browser = startBrowser(machine.FOLDER)
        cls.addClassCleanup(cls.browser.quit)

    def setUp(self):
        self.browser.set_window_size(1200, 900)
        self.media("light")
        for kind in ("browser", "performance"):
            self.browser.get_log(kind)
        self.browser.get(f"file://{self.page}")

    def media(self, scheme, medium=""):
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "media": medium, "features": [{"name": "prefers-color-scheme", "value": scheme}]})

    def script(self, text, *arguments):
        return self.browser.execute_script(text, *arguments)

    def testClicksLeadToTheRowsThatDecide(self):
        done = subprocess.run([MOATCTL, "matrix", "--format=json", "--exceptions"], capture_output=True, text=True, check=True)
        found = json.loads(done.stdout)
        cells = self.browser.find_elements("css selector", "#picture tbody td[class]")
        self.assertEqual(len(cells), len(found["cells"]))
        self.assertEqual({cell["passage"] for cell in found["cells"]}, {"open", "closed", "partly"})
        for number, cell in enumerate(found["cells"]):
            way = f"{cell['in']} to {cell['out'] or 'device'}"
            links = [link.get_attribute("href") for link in cells[number].find_elements("css selector", "a")]
            self.assertEqual(cells[number].get_attribute("class"), cell["passage"], way)
            self.assertEqual(len(links), 2 if cell["exceptions"] else 1)
            cells[number].find_element("css selector", "a").click()
            text = self.shown()
            self.assertIn(VERBS[cell["table"]] + (f" {cell['id']}" if cell["id"] else ""), text, way)
            self.assertIn(cell["text"].split()[-1], text, way)  # DROP or ACCEPT
            if cell["exceptions"]:
                cells[number].find_elements("css selector", "a")[1].click()
                self.assertIn(way, self.shown())
                expected = [VERBS[row["table"]] + f" {row['id']}" for row in found["exceptions"]
                            if (row["in"], row["out"]) == (cell["in"], cell["out"])]
                others = self.browser.switch_to.active_element.find_elements("css selector", "a")[1:]
                self.assertEqual([link.text for link in others], expected, way)
                others[0].click()
                self.assertIn(expected[0], self.shown(), way)

    def shown(self):
        """The text of what a click has led to: it is in sight and has the focus."""
        waiting.until(lambda: self.script("return document.activeElement.id === location.hash.slice(1)"), "the focus")
        at, height, text = self.script("""
            const target = document.activeElement;
            return [target.getBoundingClientRect().top, innerHeight, target.innerText];""")
        self.assertTrue(0 <= at <= height, at)
        return text

    def testNothingIsFetchedAndNothingGoesWrong(self):
        self.assertEqual(self.browser.get_log("browser"), [])
        events = [json.loads(entry["message"])["message"] for entry in self.browser.get_log("performance")]
        asked = [event["params"]["request"]["url"] for event in events if event["method"] == "Network.requestWillBeSent"]
        self.assertEqual(asked, [f"file://{self.page}"])
        # Beside the page's own script nothing runs, and nothing may be fetched.
        self.script("const made = document.createElement('script'); made.textContent = \"document.title = 'obeyed'\";"
                    "document.body.append(made); const image = new Image(); image.src = 'file:///etc/hostname';"
                    "document.body.append(image)")
        self.assertEqual(self.browser.title, "What the bridge does")
        self.assertGreaterEqual(len([entry for entry in self.browser.get_log("browser")
                                     if "Content Security Policy" in entry["message"]]), 2)

    def testHostileRowsAreText(self):
        self.assertEqual(self.browser.title, "What the bridge does")
        self.assertEqual(self.script("return [document.scripts.length, document.images.length, document.styleSheets.length,"
                                     "document.querySelectorAll('h1').length]"), [1, 0, 1, 1])
        text = self.script("return document.querySelector('#not-in-force').parentElement.textContent")
        for hostile in HOSTILE:
            seen = "".join(c if " " <= c <= "~" else f"\\x{ord(c):02x}" for c in hostile)
            self.assertIn(seen[:20], text.replace("\\x22", '"'))
        self.assertNotRegex(pathlib.Path(self.page).read_bytes(), rb"[^\n -~]")

    def testWhoSeesLittleOrNothing(self):
        for scheme in ("light", "dark"):
            self.media(scheme)
            looked, weak = self.script(CONTRAST)
            self.assertEqual(weak, [], scheme)
            self.assertGreater(looked, 100)
        self.media("dark")
        self.assertNotEqual(self.script("return getComputedStyle(document.body).backgroundColor"), "rgb(255, 255, 255)")
        nodes = self.browser.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]
        roles = {}
        for node in nodes:
            if not node.get("ignored"):
                roles.setdefault(node["role"]["value"], []).append(node.get("name", {}).get("value", ""))
        for role in ("link", "table", "region", "searchbox", "heading", "columnheader", "rowheader", "navigation"):
            self.assertIn(role, roles)
            self.assertEqual([name for name in roles[role] if not name.strip()], [], role)
        self.assertEqual(len(roles["main"]), 1)
        self.assertIn("partly: global", " ".join(roles["link"]))
        checked = subprocess.run(["tidy", "-q", "-e", "-access", "3", self.page], capture_output=True, text=True, check=False)
        remarks = [line for line in checked.stderr.splitlines() if not re.search("|".join(KNOWN), line)]
        self.assertEqual(remarks, [])

    def testKeyboardAlone(self):
        from selenium.webdriver import ActionChains
        from selenium.webdriver.common.keys import Keys
        ActionChains(self.browser).send_keys(Keys.TAB).perform()
        self.assertEqual(self.browser.switch_to.active_element.text, "To the matrix")
        ActionChains(self.browser).send_keys(Keys.ENTER).perform()
        self.assertEqual(self.shown(), "Who may talk to whom")
        words = self.browser.find_element("id", "words")
        words.send_keys(f"{MAC} accept")
        rows = [row.text for row in self.browser.find_elements("css selector", ".rules tbody tr") if row.is_displayed()]
        self.assertEqual(len(rows), 1)
        self.assertIn(MAC, rows[0])
        self.assertEqual(self.browser.find_element("id", "found").text, "1 rules")

    def testPhoneAndPaper(self):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                     {"width": 360, "height": 740, "deviceScaleFactor": 2, "mobile": True})
        try:
            self.assertLessEqual(self.script("return document.documentElement.scrollWidth"), 360)
        finally:
            self.browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
        self.media("light", "print")
        self.assertEqual(self.script("return getComputedStyle(document.querySelector('nav')).display"), "none")
        self.assertGreater(len(self.browser.execute_cdp_cmd("Page.printToPDF", {})["data"]), 10_000)

    def testWholeOrNotAtAll(self):
        folder = pathlib.Path(machine.FOLDER) / "pages"
        folder.mkdir()
        self.addCleanup(shutil.rmtree, folder)
        page = folder / "page.html"
        page.write_text("before")
        (folder / "link.html").symlink_to(page)
        for path in (folder, folder / "none/page.html", folder / "link.html", "/proc/page.html"):
            done = report(path)
            self.assertEqual((done.returncode, done.stdout), (OUTPUT, ""))
            self.assertRegex(done.stderr, r"^moatctl: .*\n$")
        self.assertEqual(sorted(os.listdir(folder)), ["link.html", "page.html"])
        self.assertEqual(page.read_text(), "before")
        self.assertEqual(report(page).returncode, 0)
        self.assertTrue(page.read_text().endswith("</html>\n"))
        self.assertEqual(sorted(os.listdir(folder)), ["link.html", "page.html"])

    def testManyRules(self):
        rules = [{"Id": i, "RulePrio": i, "InInterface": f"eth{i % 16}", "OutInterface": f"eth{(i // 16 + i + 1) % 16}",
                  "SrcMAC": f"02:00:00:{i >> 16 & 255:02x}:{i >> 8 & 255:02x}:{i & 255:02x}", "Ethertype": "IPv4",
                  "IPSrcAddr": f"10.{i >> 8 & 255}.{i & 255}.0/24", "IPProto": "TCP", "IPPort": i % 65000 + 1,
                  "Target": "DROP" if i % 2 else "ACCEPT", "EnableLogging": i % 2} for i in range(1, RULES + 1)]
        self.config.replace({**TABLES, config.RULES: rules})
        self.addCleanup(self.config.replace, TABLES)
        # The next change of moatctl's waits until this one is in force.
        subprocess.run([MOATCTL, "--timeout", "60", "rule", "add", "--in", "p1", "--out", "p2", "--drop"],
                       check=True, stdout=subprocess.DEVNULL)
        page = pathlib.Path(machine.FOLDER) / "many.html"
        # Of a change of so many rows the history has the number only. The daemon writes down what other clients have changed.
        waiting.until(lambda: report(page).returncode == 0 and re.search(r">[0-9]{4,} rows<", page.read_text()),
                      "the number of rows in the history", 30)
        start = time.monotonic()
        self.assertEqual(report(page).returncode, 0)
        made = time.monotonic() - start
        self.browser.get(f"file://{page}")
        ready = self.script("const all = performance.getEntriesByType('navigation')[0]; return all.loadEventEnd") / 1000
        size = os.path.getsize(page)
        print(f"  {RULES} rules: made in {made:.2f} s, {size / 1e6:.2f} MB, ready in {ready:.2f} s", flush=True)
        self.assertGreater(self.script("return document.querySelectorAll('.rules tbody tr').length"), RULES)
        self.assertLess(size, 3_000_000)
        if RULES >= 10_000:
            self.assertLess(ready, 2)
        history = self.script("return document.getElementById('history').parentElement.textContent")
        self.assertIn("MoatKeeperRuleset Id ", history)
        self.script("location.hash = document.querySelector('#picture td.partly a:nth-of-type(2)').hash")
        self.assertIn("ACCEPT for ordinary frames", self.shown())


if __name__ == "__main__":
    missing = [path for path in ("/usr/bin/chromium", "/usr/bin/chromedriver", "/usr/bin/tidy") if not os.path.exists(path)]
    if importlib.util.find_spec("selenium") is None:
        missing.append("python3-selenium")
    if missing:
        print(f"skipped: missing {', '.join(missing)}; tools/install-deps.sh browser")
        sys.exit(sandbox.SKIPPED)
    machine.main()
