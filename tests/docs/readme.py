"""Fails unless the pages show what the project has: readme.py PROJECT.

The program of a page is the text of an example, README's table has the options of the build with their defaults, and
CONTRIBUTING's table has the folders of the tests.
"""

import pathlib
import re
import sys

project = pathlib.Path(sys.argv[1])
for page, example in {"README.md": "blocking", "docs/howto-shutdown.md": "shutdown"}.items():
    shown = re.findall(r"```cpp\n(.*?)```", (project / page).read_text(), re.S)
    if shown != [(project / "examples" / (example + ".cpp")).read_text()]:
        sys.exit(f"{page} does not show examples/{example}.cpp")

shown = re.findall(r"^\| `(ORVX_\w+)` \| `(ON|OFF)` \|", (project / "README.md").read_text(), re.M)
options = re.findall(r'^option\((ORVX_\w+) "[^"]*" (\S+)\)', (project / "CMakeLists.txt").read_text(), re.M)
if shown != [(name, default.replace("${ORVX_TOP_LEVEL}", "ON")) for name, default in options]:
    sys.exit(f"README.md shows the options {shown}, CMakeLists.txt has {options}")

# CONTRIBUTING's table of the folders.
described = re.findall(r"`tests/(\w+)/`", (project / "CONTRIBUTING.md").read_text())
missing = {path.name for path in (project / "tests").iterdir() if path.is_dir() and path.name[0] != "_"} - {*described}
if missing:
    sys.exit(f"CONTRIBUTING.md does not describe the folders {sorted(missing)} of tests/")
