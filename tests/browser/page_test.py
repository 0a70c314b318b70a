#!/usr/bin/python3 -B
"""The registry's page in a real browser: page_test.py ORVX_REGISTRY [FOLDER_FOR_SCREENSHOTS].

Services are put, lost, put again and withdrawn while the page is open; every step waits, for ten
seconds at most, until the page shows it.
"""

import json
import os
import re
import subprocess
import sys
import time
import unittest
import urllib.request

from browser import show, start_browser

PROGRAM = sys.argv.pop(1)
SCREENSHOTS = sys.argv.pop(1) if len(sys.argv) > 1 else None

# Of each row: its class, whether it shows, and its texts.
READ_ROWS = """return [...document.querySelectorAll('#rows tr')].map(row => ({
  state: row.className, shown: row.offsetParent !== null || row.getClientRects().length > 0,
  name: row.querySelector('.name').textContent, uuid: row.querySelector('.uuid').textContent,
  uri: row.querySelector('.uri').textContent, port: row.querySelector('.port').textContent,
  age: row.querySelector('.age').textContent, checked: row.querySelector('.checked').textContent}))"""
FITS = """const right = document.documentElement.clientWidth;
return document.documentElement.scrollWidth <= right && [...document.querySelectorAll('header, table, td, td *')]
  .every(node => node.getBoundingClientRect().right <= right && node.scrollWidth <= node.clientWidth + 1
    || getComputedStyle(node).display === 'inline' && node.getBoundingClientRect().right <= right)"""


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
        return self.ask("PUT", path, {"name": name, "uri": "/" + name, "port": 8080, **more})

    def end(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class ThePage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = start_browser()

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()

    def setUp(self):
        self.refusals_are_expected = False
        self.show(1280, 800, "light")

    def tearDown(self):
        errors = [entry["message"] for entry in self.browser.get_log("browser")
                  if not (self.refusals_are_expected and "ERR_CONNECTION_REFUSED" in entry["message"])]
        self.browser.get("about:blank")
        self.assertEqual(errors, [])

    def show(self, width, height, scheme):
        show(self.browser, width, height, scheme)

    def open(self, *arguments):
        registry = Registry(*arguments)
        self.addCleanup(lambda: registry.end())
        self.browser.get(registry.url + "/")
        self.wait(lambda: self.state() == "live")
        return registry

    def screenshot(self, name):
        if SCREENSHOTS:
            self.browser.save_screenshot(os.path.join(SCREENSHOTS, name + ".png"))

    def wait(self, condition):
        deadline = time.monotonic() + 10
        while not condition():
            self.assertLess(time.monotonic(), deadline, "not seen on the page:\n" + self.text("body"))
            time.sleep(0.05)

    def text(self, selector):
        return self.browser.execute_script(
            "return document.querySelector(arguments[0]).innerText", selector)

    def is_shown(self, selector):
        return self.browser.execute_script(
            "return document.querySelector(arguments[0]).getClientRects().length > 0", selector)

    def state(self):
        return self.text("#state")

    def rows(self):
        return self.browser.execute_script(READ_ROWS)

    def row(self, name):
        return next((row for row in self.rows() if row["name"] == name), None)

    def test_shows_services_that_appear_get_lost_return_and_vanish_while_it_is_open(self):
        registry = self.open("--ttl", "60")
        self.assertIn("No services yet", self.text("#empty"))
        self.screenshot("empty")
        first = registry.put("lamp")
        self.wait(lambda: self.row("lamp"))
        self.assertFalse(self.is_shown("#empty"))
        row = self.row("lamp")
        self.assertEqual((row["uuid"], row["uri"], row["port"]), (first[1:], "/lamp", "8080"))
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

    def test_runs_no_script_that_a_service_brings(self):
        registry = self.open()
        name = "<script>window.harmed=1</script><img src=x onerror='window.harmed=1'>"
        registry.put(name, uri="javascript:window.harmed=1")
        self.wait(lambda: self.row(name))
        self.assertEqual(self.browser.execute_script(
            "return [window.harmed ?? null, document.querySelectorAll('main img, main script, main a').length]"),
            [None, 0])

    def test_keeps_the_writing_direction_of_a_service_within_its_own_text(self):
        registry = self.open()
        name = "lamp\u202egnirts\u2067"
        registry.put(name)
        self.wait(lambda: self.row(name))
        self.assertEqual(self.browser.execute_script("""
            return [...document.querySelectorAll('.name, .address, .uuid')].map(node =>
              [node.dir, getComputedStyle(node).unicodeBidi])"""), [["auto", "isolate"]] * 3)

    def test_shows_that_two_instances_put_one_path(self):
        registry = self.open()
        registry.put("lamp", host="10.0.0.1")
        self.wait(lambda: self.row("lamp"))
        self.assertFalse(self.is_shown(".moved"))
        registry.put("lamp", host="10.0.0.2")
        self.wait(lambda: self.is_shown(".moved"))
        self.assertRegex(self.text(".moved"), r"^was 10\.0\.0\.1:8080 until \d+ s ago$")
        self.assertIn("two instances", self.browser.execute_script(
            "return document.querySelector('.moved').title"))
        self.screenshot("moved")

    def test_says_when_the_registry_is_gone_and_when_it_is_back(self):
        registry = self.open()
        registry.put("lamp")
        self.wait(lambda: self.row("lamp"))
        self.refusals_are_expected = True
        registry.end()
        self.wait(lambda: self.state() == "not answering")
        self.assertIn("keeps asking", self.text("#notice"))
        self.assertEqual(self.row("lamp")["name"], "lamp")
        self.screenshot("gone")
        back = Registry(port=registry.port)
        self.addCleanup(back.end)
        self.wait(lambda: self.state() == "live")
        self.assertFalse(self.is_shown("#notice"))
        self.wait(lambda: self.row("lamp")["state"] == "lost")

    def test_shows_thousands_of_services_and_filters_them(self):
        registry = self.open()
        for number in range(2000):
            registry.put(f"service-{number}")
        self.wait(lambda: self.text("#count") == "2,000")
        self.wait(lambda: self.browser.execute_script("return document.querySelectorAll('#rows tr').length") == 2000)
        self.assertEqual(self.browser.execute_script(
            "return document.querySelector('.name').textContent"), "service-1999")
        self.browser.find_element("id", "filter").send_keys("service-777")
        self.wait(lambda: [row["name"] for row in self.rows() if row["shown"]] == ["service-777"])
        self.browser.find_element("id", "filter").send_keys("x")
        self.wait(lambda: "No service fits" in self.text("#more"))

    def test_fits_a_phone_and_follows_the_colour_scheme(self):
        registry = self.open("--ttl", "60")
        for name in ("lamp", "thermostat", "a-service-with-a-name-" + "that-does-not-end-" * 12):
            location = registry.put(name, uri="/rooms/kitchen/" + name)
        registry.ask("HEAD", location)
        registry.put("doorbell")
        registry.ask("PUT", "/-/faults", {"fault": "status", "status": 503})
        self.wait(lambda: len(self.rows()) == 4 and not any(row["state"] for row in self.rows()))
        self.wait(lambda: self.is_shown("#faults"))
        background = "return getComputedStyle(document.body).backgroundColor"
        light = self.browser.execute_script(background)
        self.screenshot("light")
        self.show(1280, 800, "dark")
        self.assertNotEqual(self.browser.execute_script(background), light)
        self.screenshot("dark")
        for width in (320, 390, 700, 1280):
            self.show(width, 844, "light")
            self.assertTrue(self.browser.execute_script(FITS), width)
            self.screenshot(f"width-{width}")
        self.show(390, 844, "dark")
        self.screenshot("phone-dark")


if __name__ == "__main__":
    unittest.main(verbosity=2)
