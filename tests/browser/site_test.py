#!/usr/bin/python3 -B
"""The documentation site on a phone: site_test.py SITE opens every page 360 pixels wide.

No page scrolls sideways: wide code and wide tables scroll by themselves.
"""

import pathlib
import sys
import unittest

from browser import WIDTH_OF_A_PHONE, show, start_browser

LISTINGS = ("_source", "-members")  # made alike for every header and class; they take half the time
SITE = pathlib.Path(sys.argv.pop(1)).resolve()

# The page scrolls in a frame of its own. Answers nothing where it fits, and the nodes farthest to the
# right that do not scroll by themselves otherwise.
TOO_WIDE = """const width = arguments[0], frame = document.querySelector('#doc-content');
const fits = node => node.scrollWidth <= Math.min(node.clientWidth, width);
if (innerWidth <= width && fits(document.documentElement) && (!frame || fits(frame))) return null;
const right = node => node.getBoundingClientRect().right;
const scrolls = node => node !== frame && getComputedStyle(node).overflowX !== 'visible';
const isInside = node => node.parentElement && (scrolls(node.parentElement) || isInside(node.parentElement));
return [...document.querySelectorAll('body *')].filter(node => right(node) > width && !isInside(node))
  .sort((one, other) => right(other) - right(one)).slice(0, 4)
  .map(node => `${node.tagName}.${node.className}#${node.id} ${right(node)} ${node.textContent.slice(0, 40)}`)"""


class TheSite(unittest.TestCase):
    def setUp(self):
        self.browser = start_browser()
        self.addCleanup(self.browser.quit)

    def test_does_not_scroll_sideways_on_a_phone(self):
        pages = [page for page in sorted(SITE.glob("*.html")) if not page.stem.endswith(LISTINGS)]
        self.assertIn(SITE / "limits.html", pages)
        show(self.browser, WIDTH_OF_A_PHONE, 740)
        too_wide = {}
        for page in pages:
            self.browser.get(page.as_uri())
            found = self.browser.execute_script(TOO_WIDE, WIDTH_OF_A_PHONE)
            if found is not None:
                too_wide[page.name] = found
        self.assertEqual(too_wide, {})


if __name__ == "__main__":
    unittest.main()
