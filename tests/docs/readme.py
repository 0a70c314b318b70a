"""Fails unless the program of each of these pages is the text of an example: readme.py PROJECT."""

import pathlib
import re
import sys

project = pathlib.Path(sys.argv[1])
for page, example in {"README.md": "blocking", "docs/howto-shutdown.md": "shutdown"}.items():
    shown = re.findall(r"```cpp\n(.*?)```", (project / page).read_text(), re.S)
    if shown != [(project / "examples" / (example + ".cpp")).read_text()]:
        sys.exit(f"{page} does not show examples/{example}.cpp")
