"""What Markdown viewers and Doxygen see differently: names of headings, and links.

As a program it is Doxygen's filter: markdown.py FILE writes the page with a name for each heading
and with its links to other pages as references. A link to a file that is no page becomes its text.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
CODE = r"(?ms)(^ *```.*?^ *```$)"
HEADING = r"(?m)^(#+ .*)$"
LINK = re.compile(r"`[^`]*`|(!?)\[([^\]]*)\]\(([^)\s]+)\)")  # what stands in code is no link


def page_name(path):
    """README.md has the name of its folder, and that of the project is the main page."""
    if path == ROOT / "README.md":
        return "index"
    name = path.parent.name if path.name == "README.md" else path.stem.lower()
    return f"adr-{name}" if name[0].isdigit() else name


def is_page(path):
    return path.suffix == ".md" and (path.parent == ROOT or (ROOT / "docs") in path.parents)


def parts(path):
    """The text in order: each heading with the name that viewers give to it, code with None, and
    what stands between with an empty text."""
    seen = {}
    for index, block in enumerate(re.split(CODE, path.read_text())):
        for place, text in enumerate([block] if index % 2 else re.split(HEADING, block)):
            slug = None if index % 2 else ""
            if place % 2:
                slug = re.sub(r"[^\w\- ]", "", text.lstrip("# ").lower()).replace(" ", "-")
                count = seen[slug] = seen.get(slug, -1) + 1
                slug += f"-{count}" if count else ""
            yield text, slug


def links(path):
    """Text and target of each."""
    for text, slug in parts(path):
        if slug == "":
            yield from (link.groups()[1:] for link in LINK.finditer(text) if link[3])


def split(path, target):
    """The file that a relative link on the page leads to, and the heading."""
    file, _, anchor = target.partition("#")
    return (path.parent / file).resolve() if file else path, anchor


def reference(path, link):
    image, text, target = link.groups()
    if not target or image or ":" in target:
        return link[0]
    file, anchor = split(path, target)
    if file.is_dir():
        file /= "README.md"
    if not is_page(file):
        return text
    return f"[{text}](@ref {page_name(file)}{'-' + anchor if anchor else ''})"


def filtered(path):
    for text, slug in parts(path):
        if not slug:
            yield text if slug is None else LINK.sub(lambda link: reference(path, link), text)
            continue
        name = page_name(path)
        if not text.startswith("# "):
            name += f"-{slug}"
        yield text if name == "index" else f"{text} {{#{name}}}"


if __name__ == "__main__":
    print("".join(filtered(pathlib.Path(sys.argv[1]).resolve())), end="")
