"""Fails unless the program in README is the text of an example: readme.py PROJECT."""

import pathlib
import re
import sys

project = pathlib.Path(sys.argv[1])
shown = re.findall(r"```cpp\n(.*?)```", (project / "README.md").read_text(), re.S)
sys.exit(shown != [(project / "examples" / "blocking.cpp").read_text()])
