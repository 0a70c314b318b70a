#!/usr/bin/python3 -B
"""The registry's page in a real browser: page_test.py ORVX_REGISTRY FOLDER.

FOLDER holds node_modules/axe-core; the screenshots go to FOLDER/screenshots. Services are put, lost, put
again and withdrawn while the page is open; every step waits, for ten seconds at most, until the page
shows it.
"""

import http.client
import json
import pathlib
import re
import socket
import subprocess
import sys
import time
import unittest
import urllib.request

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys

from browser import WIDTH_OF_A_PHONE, show, start_browser

PROGRAM = sys.argv.pop(1)
FOLDER = pathlib.Path(sys.argv.pop(1))
AXE = (FOLDER / "node_modules/axe-core/axe.min.js").read_text()
SCREENSHOTS = FOLDER / "screenshots"
SCHEMES = ("light", "dark")
SELECT_ALL = Keys.CONTROL + "a" + Keys.NULL

# Of each row in the document: its class, its index, and its texts.
READ_ROWS = """return [...document.querySelectorAll('#rows tr')].map(row => {
  const text = selector => row.querySelector(selector).textContent;
  return {state: row.className, index: Number(row.getAttribute('aria-rowindex')),
    name: text('.open'), uuid: text('.uuid'), uri: text('.uri'), address: text('.address'),
    age: text('.age'), checked: text('.checks')}})"""
FITS = """const right = document.documentElement.clientWidth;
return document.documentElement.scrollWidth > right ? 'the page scrolls' : [...document.querySelectorAll('body *')]
  .filter(node => node.getClientRects().length && node.getBoundingClientRect().right > right + .5)
  .map(node => node.outerHTML.slice(0, 80)).join()"""
FIND_BARRIERS = """axe.run(document, {resultTypes: ['violations']}).then(found => arguments[0](found.violations.map(
  rule => `${rule.id}: ${rule.nodes.map(node => node.html.slice(0, 120) + ' ' + node.failureSummary).join(' | ')}`)))"""
# Scrolls from the first row to the last in so many frames, and tells the most rows that were in the
# document.
FRAMES = 60
SCROLL_THROUGH = """const [frames, done] = arguments, end = document.documentElement.scrollHeight - innerHeight;
let frame = 0, rows = 0;
requestAnimationFrame(function step() {
  rows = Math.max(rows, document.querySelectorAll('#rows tr').length);
  if (frame === frames) return done({rows, at: scrollY, end});
  scrollTo({top: end * ++frame / frames, behavior: 'instant'});
  requestAnimationFrame(step);
})"""


class Registry:
    def __init__(self, *arguments, port=0):
        self.process = subprocess.Popen(
            [PROGRAM, "--port", str(port), "--admin", *arguments], stdout=subprocess.PIPE, text=True)
        self.url = re.search(r"http:\S+", self.process.stdout.readline()).group()
        self.port = int(self.url.rsplit(":", 1)[1])

    def ask(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.url + path, data, method=method)
        with urllib.request.urlopen(request, timeout=10) as answer:
            return answer.headers.get("Location")

    def put(self, name, **more):
        path = "/" + urllib.request.quote(name, safe="")
        return self.ask("PUT", path, {"name": name, "uri": "/" + name, "host": "10.0.0.1", "port": 8080, **more})

    def put_at(self, path):
        """A path of any bytes, some of which http.client would refuse."""
        with socket.create_connection(("127.0.0.1", self.port), 10) as connection:
            connection.sendall(b"PUT " + path + b" HTTP/1.0\r\nContent-Length: 2\r\n\r\n{}")
            return connection.makefile("rb").readline()

    def put_many(self, count):
        connection = http.client.HTTPConnection("127.0.0.1", self.port)
        for number in range(count):
            service = {"name": f"service-{number}", "uri": f"/rooms/{number % 40}/service-{number}",
                       "host": f"10.0.{number // 250 % 250}.{number % 250}", "port": 8000 + number % 100,
                       "description": f"The service number {number}", "versions": ["1.0", "1.1"]}
            connection.request("PUT", f"/service-{number}", json.dumps(service))
            connection.getresponse().read()
        connection.close()

    def end(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class ThePage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        SCREENSHOTS.mkdir(parents=True, exist_ok=True)
        cls.browser = start_browser()
        cls.browser.set_script_timeout(120)  # axe takes half a minute on a busy machine
        cls.browser.execute_cdp_cmd("Performance.enable", {"timeDomain": "threadTicks"})

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()

    def setUp(self):
        self.refusals_are_expected = False
        self.show(1280, 800, "light")

    def tearDown(self):
        errors = [entry["message"] for entry in self.browser.get_log("browser")
                  if not (self.refusals_are_expected and "net::ERR_" in entry["message"])
                  and "favicon.ico" not in entry["message"]]  # of an entry that is opened as JSON
        self.browser.get("about:blank")
        self.assertEqual(errors, [])

    def show(self, width, height, scheme, **features):
        show(self.browser, width, height, scheme, **features)

    def open(self, *arguments):
        registry = Registry(*arguments)
        self.addCleanup(lambda: registry.end())
        self.visit(registry)
        return registry

    def visit(self, registry, state=""):
        self.browser.get("about:blank")
        self.browser.get(registry.url + "/" + state)
        self.wait(lambda: self.state() == "live")

    def screenshot(self, name):
        self.browser.save_screenshot(str(SCREENSHOTS / (name + ".png")))

    def screenshots(self, name):
        """In both schemes, wide and on a phone."""
        for scheme in SCHEMES:
            for width, height in ((1280, 800), (WIDTH_OF_A_PHONE, 740)):
                self.show(width, height, scheme)
                self.wait(lambda: self.browser.execute_script(FITS) == "")
                self.screenshot(f"{name}-{width}-{scheme}")
        self.show(1280, 800, "light")

    def expect_no_barrier(self, state):
        self.browser.execute_script(AXE)
        for scheme in SCHEMES:
            for width in (1280, WIDTH_OF_A_PHONE):
                self.show(width, 740, scheme, reduced_motion=True)
                found = self.browser.execute_async_script(FIND_BARRIERS)
                self.assertEqual(found, [], f"{state}, {scheme}, {width} pixels wide")
        self.show(1280, 800, "light")

    def wait(self, condition):
        deadline = time.monotonic() + 10
        while not condition():
            self.assertLess(time.monotonic(), deadline, "not seen on the page:\n" + self.text("body"))
            time.sleep(0.05)

    def run_script(self, script, *arguments):
        return self.browser.execute_script("return " + script, *arguments)

    def text(self, selector):
        return self.run_script("document.querySelector(arguments[0]).innerText", selector)

    def is_shown(self, selector):
        return self.run_script("document.querySelector(arguments[0]).getClientRects().length > 0", selector)

    def state(self):
        return self.text("#state")

    def address(self):
        return self.run_script("decodeURIComponent(location.hash)")

    def rows(self):
        return self.browser.execute_script(READ_ROWS)

    def names(self):
        return [row["name"] for row in self.rows()]

    def row(self, name):
        return next((row for row in self.rows() if row["name"] == name), None)

    def metrics(self):
        metrics = self.browser.execute_cdp_cmd("Performance.getMetrics", {})["metrics"]
        return {metric["name"]: metric["value"] for metric in metrics}

    def press(self, *keys):
        ActionChains(self.browser).send_keys(*keys).perform()

    def filter(self, text):
        self.browser.find_element("id", "filter").send_keys(text)

    def focus(self):
        return self.run_script("document.activeElement.id || document.activeElement.textContent")

    def test_shows_services_that_appear_get_lost_return_and_vanish_while_it_is_open(self):
        registry = self.open("--ttl", "60")
        self.wait(lambda: "No services yet" in self.text("#empty"))
        self.screenshots("0-entries")
        first = registry.put("lamp")
        self.wait(lambda: self.row("lamp"))
        self.assertFalse(self.is_shown("#empty"))
        row = self.row("lamp")
        self.assertEqual((row["uuid"], row["uri"], row["address"]), (first[1:], "/lamp", "10.0.0.1:8080"))
        self.assertEqual(row["state"], "fresh")
        self.assertIn("not yet", row["checked"])
        self.assertIn("expires in", row["checked"])
        registry.ask("HEAD", first)
        self.wait(lambda: "ago" in self.row("lamp")["checked"])

        registry.ask("PUT", "/-/faults", {"fault": "forget"})
        self.wait(lambda: self.row("lamp")["state"] == "lost")
        self.assertIn("gone", self.row("lamp")["checked"])
        self.screenshot("lost")
        second = registry.put("lamp")
        self.wait(lambda: self.row("lamp")["uuid"] == second[1:])
        self.assertNotEqual(self.row("lamp")["state"], "lost")
        self.assertEqual(len(self.rows()), 1)

        registry.ask("DELETE", second)
        self.wait(lambda: self.row("lamp")["state"] == "lost")
        self.wait(lambda: not self.rows())
        self.wait(lambda: self.is_shown("#empty"))

    def test_shows_that_an_entry_expires_although_nobody_asks_the_registry(self):
        registry = self.open("--ttl", "1")
        registry.put("lamp")
        self.wait(lambda: self.row("lamp") and self.row("lamp")["state"] == "lost")

    def test_runs_no_script_that_a_service_brings(self):
        registry = self.open()
        name = "<script>window.harmed=1</script><img src=x onerror='window.harmed=1'>"
        registry.put(name, uri="javascript:window.harmed=1", **{name: name})
        self.wait(lambda: self.row(name))
        self.browser.find_element("css selector", ".open").click()
        self.wait(lambda: self.is_shown("#detail"))
        self.assertEqual(self.run_script(
            "[window.harmed ?? null, document.querySelectorAll('body img, body script, main a').length]"), [None, 0])

    def test_keeps_the_writing_direction_of_a_service_within_its_own_text(self):
        registry = self.open()
        name = "lamp\u202egnirts\u2067"
        registry.put(name, room="kitchen\u202e")
        self.wait(lambda: self.row(name))
        self.browser.find_element("css selector", ".open").click()
        self.wait(lambda: self.is_shown("#detail"))
        self.assertEqual(self.run_script("""[...document.querySelectorAll(
            '.open, .host, .uri, .uuid, h2, dt, dd')].map(node => [node.dir, getComputedStyle(node).unicodeBidi])
            .filter(([dir, bidi]) => dir !== 'auto' || bidi !== 'isolate')"""), [])
        self.assertNotIn("\u202e", self.text("#raw"))
        self.assertEqual(json.loads(self.text("#raw"))["name"], name)

    def test_shows_that_two_instances_put_one_path(self):
        registry = self.open()
        registry.put("lamp", host="10.0.0.1")
        self.wait(lambda: self.row("lamp"))
        self.assertFalse(self.is_shown(".moved"))
        registry.put("lamp", host="10.0.0.2")
        self.wait(lambda: self.is_shown(".moved"))
        self.assertRegex(self.text(".moved"), r"^was 10\.0\.0\.1:8080 until \d+ s ago$")
        self.browser.find_element("css selector", ".open").click()
        self.assertIn("Do two instances share the path?", self.text("#facts"))
        self.press(Keys.ESCAPE)
        self.screenshots("moved")

    def test_shows_one_row_of_an_entry_whose_description_grows_and_shrinks(self):
        registry = self.open()
        for host, description in (("10.0.0.1", ""), ("10.0.0.2", "x" * 7000), ("10.0.0.3", "")):
            entry = registry.put("lamp", host=host, description=description)
            self.wait(lambda: [row["address"] for row in self.rows()] == [host + ":8080"])
        self.browser.find_element("css selector", ".open").click()
        self.wait(lambda: self.is_shown("#detail"))
        registry.put("lamp", description="x" * 7000)
        self.wait(lambda: self.is_shown("#cut"))
        self.assertFalse(self.is_shown("#detail-gone"))
        self.assertEqual(self.address(), "#open=" + entry[1:])
        self.browser.find_element("id", "close").click()
        registry.ask("DELETE", entry)
        self.wait(lambda: [row["state"] for row in self.rows()] == ["lost"])

    def test_shows_a_row_for_each_path_that_is_not_utf_8(self):
        registry = self.open()
        for path in (b"/\xff", b"/\xfe"):
            self.assertIn(b" 201 ", registry.put_at(path))
        self.wait(lambda: len(self.rows()) == 2)

    def test_shows_a_service_whose_port_is_no_number_and_those_after_it(self):
        registry = self.open()
        registry.put("before", port={"toString": 1})
        registry.put("after")
        self.wait(lambda: self.row("after"))
        self.assertEqual(self.text("#count"), "2 services")
        self.visit(registry, "#sort=address")
        self.wait(lambda: self.names() == ["before", "after"])

    def test_goes_on_after_an_event_that_it_cannot_apply(self):
        registry = self.open()
        self.browser.execute_script("""const convert = Number;
            window.Number = text => {
              if (text === '13') throw Error('cannot be applied');
              return convert(text);
            }""")
        registry.put("lamp", port=13)
        registry.put("doorbell")
        self.wait(lambda: self.row("doorbell"))
        self.assertEqual(self.names(), ["doorbell"])
        errors = [entry["message"] for entry in self.browser.get_log("browser")]
        self.assertEqual(len(errors), 1, errors)
        self.assertIn("cannot be applied", errors[0])

    def test_says_once_when_the_registry_is_gone_and_when_it_is_back(self):
        registry = self.open()
        registry.put("lamp")
        self.wait(lambda: self.row("lamp"))
        self.browser.execute_script("""window.alerts = [];
            new MutationObserver(() => alerts.push(document.querySelector('#notice').textContent))
              .observe(document.querySelector('#notice'), {subtree: true, childList: true, characterData: true})""")
        self.refusals_are_expected = True
        registry.end()
        self.wait(lambda: self.state() == "not answering")
        self.assertIn("keeps asking", self.text("#notice"))
        self.assertEqual(self.row("lamp")["name"], "lamp")
        self.expect_no_barrier("gone")
        self.screenshots("gone")
        age = self.row("lamp")["age"]
        self.wait(lambda: self.row("lamp")["age"] != age)  # at least a second later
        self.assertEqual(len(self.run_script("window.alerts")), 1)
        back = Registry(port=registry.port)
        self.addCleanup(back.end)
        self.wait(lambda: self.state() == "live")
        self.assertFalse(self.is_shown("#notice"))
        self.wait(lambda: self.row("lamp")["state"] == "lost")

    def test_says_when_the_registry_hangs(self):
        registry = self.open()
        registry.process.send_signal(subprocess.signal.SIGSTOP)
        self.addCleanup(lambda: registry.process.send_signal(subprocess.signal.SIGCONT))
        self.refusals_are_expected = True
        self.wait(lambda: self.state() == "not answering")
        registry.process.send_signal(subprocess.signal.SIGCONT)
        self.wait(lambda: self.state() == "live")

    def test_goes_on_with_the_stream_that_was_cut_without_the_list(self):
        registry = self.open("--max-connections", "2")
        registry.put("lamp")
        self.wait(lambda: self.row("lamp"))
        self.browser.execute_script("handlers.list = () => { window.lists = (window.lists ?? 0) + 1; }")
        self.refusals_are_expected = True
        others = [http.client.HTTPConnection("127.0.0.1", registry.port) for _ in range(2)]
        for connection in others:
            self.addCleanup(connection.close)
            connection.request("HEAD", "/")
            connection.getresponse().read()
        registry.put("doorbell")
        self.wait(lambda: self.row("doorbell"))
        self.wait(lambda: self.row("lamp")["state"] == "")
        self.assertIsNone(self.run_script("window.lists ?? null"))

    def test_holds_a_few_rows_of_ten_thousand_in_the_document_and_scrolls_through_all(self):
        registry = self.open()
        registry.put_many(10_000)
        begin = time.monotonic()
        self.visit(registry)
        self.wait(self.rows)
        first = time.monotonic() - begin
        self.wait(lambda: self.text("#count") == "10,000 services")
        whole = time.monotonic() - begin
        self.assertEqual(self.rows()[0]["name"], "service-9999")
        self.assertEqual(self.run_script("document.querySelector('table').ariaRowCount ?? "
                                         "document.querySelector('table').getAttribute('aria-rowcount')"), "10001")
        self.screenshots("10000-entries")
        self.expect_no_barrier("10,000 entries")
        before = self.metrics()
        scrolled = self.browser.execute_async_script(SCROLL_THROUGH, FRAMES)
        cost = {name: (value - before[name]) / FRAMES for name, value in self.metrics().items()}
        print(f"10,000 entries: first rows after {first:.2f} s, all after {whole:.2f} s; at most {scrolled['rows']} rows in the "
              f"document; a frame takes {cost['TaskDuration'] * 1000:.1f} ms of the page's thread", file=sys.stderr)
        self.assertEqual(scrolled["at"], scrolled["end"])
        self.assertLess(scrolled["rows"], 60)
        # Each frame is laid out once. How long that takes depends on the machine's load, too.
        self.assertLess(cost["LayoutCount"], 1.3)
        self.assertLess(cost["RecalcStyleCount"], 1.5)
        rows = self.rows()
        self.assertEqual(rows[-1]["name"], "service-0")
        self.assertEqual([row["index"] for row in rows], list(range(10_002 - len(rows), 10_002)))
        self.filter("service-777")
        self.wait(lambda: self.text("#count") == "11 of 10,000 services")
        self.wait(lambda: self.names() == ["service-777", *(f"service-{n}" for n in range(7770, 7780))][::-1])
        self.filter("x")
        self.wait(lambda: self.is_shown("#none"))
        self.assertEqual(self.text("#count"), "0 of 10,000 services")

    def test_keeps_what_is_read_in_its_place_while_rows_come_above_it(self):
        registry = self.open()
        registry.put_many(200)
        self.wait(lambda: self.text("#count") == "200 services")
        place = """(() => { const row = [...document.querySelectorAll('#rows tr')]
            .find(row => row.querySelector('.open').textContent === 'service-100');
            return row ? Math.round(row.getBoundingClientRect().top) : null })()"""
        self.browser.execute_script("scrollTo({top: 6400, behavior: 'instant'})")
        self.wait(lambda: self.run_script(place) is not None)
        before = self.run_script(place)
        for number in range(3):
            registry.put(f"new-{number}")
        self.wait(lambda: self.text("#count") == "203 services")
        self.assertEqual(self.run_script(place), before)

    def test_finds_services_by_host_and_port_and_keeps_filter_and_order_in_its_address(self):
        registry = self.open()
        for number, name in enumerate(("lamp", "Doorbell", "heater", "kettle")):
            registry.put(name, host=f"10.0.{number % 2}.{number}", port=8009 - number)
        self.wait(lambda: self.text("#count") == "4 services")
        self.assertEqual(self.names(), ["kettle", "heater", "Doorbell", "lamp"])
        self.filter("10.0.1.")
        self.wait(lambda: self.names() == ["kettle", "Doorbell"])
        self.assertEqual(self.text("#count"), "2 of 4 services")
        self.filter(SELECT_ALL + "10.0.0.2:8007 heat")
        self.wait(lambda: self.names() == ["heater"])
        self.filter(SELECT_ALL + "10.0")
        heads = {head.text.strip(): head for head in self.browser.find_elements("css selector", "th button")}
        expected = {"Service": ["Doorbell", "heater", "kettle", "lamp"],
                    "Address": ["lamp", "heater", "Doorbell", "kettle"],
                    "URI": ["Doorbell", "heater", "kettle", "lamp"]}
        for head, names in expected.items():
            heads[head].click()
            self.wait(lambda: self.names() == names)
            self.assertEqual(self.run_script(
                "[...document.querySelectorAll('[aria-sort]')].map(head => head.innerText.trim() + ' ' + head.ariaSort)"),
                [head + " ascending"])
            heads[head].click()
            self.wait(lambda: self.names() == names[::-1])
        self.assertEqual(self.address(), "#q=10.0&sort=-uri")
        self.filter(SELECT_ALL + "8006")
        self.wait(lambda: self.names() == ["kettle"])
        self.browser.refresh()
        self.wait(lambda: self.names() == ["kettle"])
        self.visit(registry, "#q=10.0.0&sort=name")
        self.wait(lambda: self.names() == ["heater", "lamp"])
        self.assertEqual(self.run_script("document.querySelector('#filter').value"), "10.0.0")
        self.browser.execute_script("location.hash = ''")
        self.wait(lambda: len(self.names()) == 4)
        self.visit(registry, "#sort=valueOf")
        self.wait(lambda: self.names() == ["kettle", "heater", "Doorbell", "lamp"])

    def test_opens_a_row_to_the_whole_description_to_copy(self):
        registry = self.open("--ttl", "60")
        service = {"description": "On the desk", "versions": ["1.0", "2.0"], "room": {"floor": 2}, "serial": 12345678901234567890}
        location = registry.put("lamp", **service)
        self.wait(lambda: self.row("lamp"))
        registry.ask("HEAD", location)
        self.browser.find_element("css selector", ".open").click()
        self.wait(lambda: self.is_shown("#detail"))
        facts = self.text("#facts")
        for fact in ("10.0.0.1:8080", "On the desk", "1.0, 2.0", '{"floor":2}', "12345678901234567890", location[1:],
                     "/lamp", "Registered", "expires in"):
            self.assertIn(fact, facts)
        self.wait(lambda: re.search(r"Checks\s+1\s", self.text("#facts")))
        self.assertEqual(self.address(), "#open=/lamp")
        self.expect_no_barrier("an open row")
        self.screenshots("open")
        self.browser.execute_cdp_cmd("Browser.grantPermissions", {
            "origin": registry.url, "permissions": ["clipboardReadWrite", "clipboardSanitizedWrite"]})
        self.browser.find_element("id", "copy").click()
        self.assertEqual(self.text("#copied"), "Copied")
        copied = self.browser.execute_async_script("navigator.clipboard.readText().then(arguments[0])")
        self.assertEqual(json.loads(copied), {"name": "lamp", "uri": "/lamp", "host": "10.0.0.1", "port": 8080, **service})
        registry.ask("DELETE", location)
        self.wait(lambda: self.is_shown("#detail-gone"))
        self.browser.find_element("id", "close").click()
        self.assertEqual(self.address(), "")

    def test_leads_to_the_whole_entry_where_a_description_is_too_long_for_it(self):
        registry = self.open()
        location = registry.put("lamp", description="x" * 100_000)
        self.visit(registry, "#open=" + location[1:])
        self.wait(lambda: self.is_shown("#cut"))
        self.assertIn("100,0", f"{int(re.search(r'[0-9]+', self.text('#cut')).group()):,}")
        self.browser.find_element("id", "cut-link").click()
        self.wait(lambda: "x" * 1000 in self.browser.page_source)

    def test_is_used_by_keyboard_alone(self):
        registry = self.open()
        registry.put_many(300)
        self.wait(lambda: self.text("#count") == "300 services")
        stops = []
        for _ in range(7):
            self.press(Keys.TAB)
            stops.append(self.focus())
        self.assertEqual(stops, ["filter", "Service", "Address", "URI", "Age", "Last check", "service-299"])
        for key, name in ((Keys.ARROW_DOWN, "service-298"), (Keys.END, "service-0"), (Keys.ARROW_UP, "service-1"),
                          (Keys.ARROW_DOWN, "service-0"), (Keys.ARROW_DOWN, "service-0"), (Keys.HOME, "service-299"),
                          (Keys.PAGE_DOWN, None), (Keys.PAGE_UP, "service-299"), (Keys.END, "service-0")):
            self.press(key)
            if name:
                self.assertEqual(self.focus(), name)
            self.assertTrue(self.run_script("""(() => { const box = document.activeElement.closest('tr').getBoundingClientRect();
                return box.top >= document.querySelector('thead').getBoundingClientRect().bottom - 1
                  && box.bottom <= innerHeight + 1 })()"""), key)
        self.assertLess(len(self.rows()), 60)
        self.press(Keys.ENTER)
        self.wait(lambda: self.is_shown("#detail"))
        self.assertEqual(self.text("#detail-name"), "service-0")
        self.press(Keys.ESCAPE)
        self.wait(lambda: not self.is_shown("#detail"))
        self.assertEqual(self.focus(), "service-0")
        # Scrolled out of the window it keeps the focus.
        self.browser.execute_script("scrollTo({top: 0, behavior: 'instant'})")
        self.wait(lambda: self.row("service-299"))
        self.assertEqual(self.focus(), "service-0")
        self.press(Keys.ARROW_UP)
        self.assertEqual(self.focus(), "service-1")

    def test_moves_nothing_for_those_who_want_less_motion(self):
        registry = self.open()
        moving = "document.getAnimations().length"
        registry.put("lamp")
        self.wait(lambda: self.run_script(moving) > 0)
        self.show(1280, 800, "light", reduced_motion=True)
        registry.put("doorbell")
        self.wait(lambda: self.row("doorbell"))
        self.assertEqual(self.row("doorbell")["state"], "fresh")
        self.browser.find_element("css selector", ".open").click()
        self.wait(lambda: self.is_shown("#detail"))
        self.assertEqual(self.run_script(moving), 0)

    def test_fits_a_phone_and_follows_the_colour_scheme(self):
        registry = self.open("--ttl", "60")
        for name in ("lamp", "a-service-with-a-name-" + "that-does-not-end-" * 12):
            location = registry.put(name, uri="/rooms/kitchen/" + name)
        registry.ask("HEAD", location)
        registry.put("doorbell", host="doorbell.front-of-the-house.example", port=18080)
        registry.ask("PUT", "/-/faults", {"fault": "status", "status": 503})
        self.wait(lambda: len(self.rows()) == 3 and not any(row["state"] for row in self.rows()))
        self.wait(lambda: self.is_shown("#faults"))
        background = "getComputedStyle(document.body).backgroundColor"
        light = self.run_script(background)
        self.show(1280, 800, "dark")
        self.assertNotEqual(self.run_script(background), light)
        self.screenshots("3-entries")
        for width in (320, 390, 700, 800, 1000):
            self.show(width, 844, "light")
            self.wait(lambda: self.browser.execute_script(FITS) == "")
            self.screenshot(f"3-entries-{width}-light")

    def test_sets_no_barrier_whatever_it_shows(self):
        registry = self.open("--ttl", "60")
        self.wait(lambda: self.is_shown("#empty"))
        self.expect_no_barrier("0 entries")
        lamp = registry.put("lamp")
        registry.put("doorbell")
        registry.put("doorbell", host="10.0.0.2")
        registry.ask("PUT", "/-/faults", {"fault": "status", "status": 503, "skip": 100})
        self.wait(lambda: len(self.rows()) == 2 and self.is_shown("#faults"))
        self.expect_no_barrier("2 entries")
        registry.ask("DELETE", lamp)
        self.wait(lambda: self.row("lamp")["state"] == "lost")
        self.expect_no_barrier("a lost entry")
        self.filter("none")
        self.wait(lambda: self.is_shown("#none"))
        self.expect_no_barrier("nothing that fits")


if __name__ == "__main__":
    unittest.main(verbosity=2)
