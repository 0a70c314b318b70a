"""Finds broken links: links.py SITE FILE... checks the Markdown files and the site made from them.

A link within the project must lead to a file, and to a heading or a name that is there. Each page of
the documentation must be linked from another one. Addresses elsewhere are not looked at: what fails
when somebody else's server does proves nothing about the project.
"""

import html.parser
import pathlib
import sys
import urllib.parse

import markdown

site, *files = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
broken = []


def is_elsewhere(target):
    return urllib.parse.urlsplit(target).scheme != "" or target.startswith("//")


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.names, self.targets = set(), set()
        self.feed(path.read_text())

    def handle_starttag(self, tag, attrs):
        for name, value in attrs:
            if name == "id" or (tag == "a" and name == "name"):
                self.names.add(value)
            elif name in ("href", "src", "data") and value and not is_elsewhere(value):
                self.targets.add(value)


def names(path):
    return {slug for _, slug in markdown.parts(path) if slug}


def check_markdown():
    linked = {markdown.ROOT / "README.md"}
    for path in files:
        for text, target in markdown.links(path):
            if is_elsewhere(target):
                continue
            file, anchor = markdown.split(path, target)
            linked |= {file / "README.md" if file.is_dir() else file} - {path}
            if not file.exists() or anchor and anchor not in names(file):
                broken.append(f"{path}: [{text}]({target})")
    broken.extend(f"{path}: no page links here"
                  for path in files if markdown.is_page(path) and path not in linked)


def check_site():
    pages = {path: Page(path) for path in site.rglob("*.html")}
    for path, page in pages.items():
        # Doxygen 1.9 offers a list of nested classes also where all of them are private.
        for target in page.targets - {"#nested-classes"}:
            file, _, anchor = urllib.parse.unquote(target).partition("#")
            file = (path.parent / file).resolve() if file else path
            if not file.exists() or anchor and file in pages and anchor not in pages[file].names:
                broken.append(f"{path}: {target}")
    return len(pages)


check_markdown()
count = check_site()
print("\n".join(sorted(broken)) or f"links: {len(files)} Markdown files and {count} pages are whole")
sys.exit(bool(broken))
