"""Turns the C++ in Markdown files into functions that a test compiles and runs.

usage: snippets.py OUTPUT EXAMPLES_FOLDER NAMES FILE...

A block with an #include is a whole program and must be the text of one of the examples, which are
built and run by tests of their own. Every other block becomes a function with what a reader has at
hand at that place: the comma-separated names, for what Reader::has() gives.
"""

import pathlib
import re
import sys

output, examples, names_at_hand, *files = sys.argv[1:]
programs = {path.read_text() for path in pathlib.Path(examples).rglob("*.cpp")}
bodies = []
for file in files:
    for number, block in enumerate(re.findall(r"```cpp\n(.*?)```", pathlib.Path(file).read_text(), re.S)):
        if "#include" in block:
            if block not in programs:
                sys.exit(f"{file}: program {number + 1} is none of the examples")
            continue
        bodies.append(f"// {pathlib.Path(file).name}, block {number + 1}\n{block}")

text = ['#include "Snippets.h"', "// NOLINTBEGIN", "namespace orvx::docs {"]
for index, body in enumerate(bodies):
    text += [f"static void snippet{index}([[maybe_unused]] Reader& reader) {{",
             f"    [[maybe_unused]] const auto& [{names_at_hand}] = reader.has();",
             "    {", body, "    }", "}"]
names = ", ".join(f"snippet{index}" for index in range(len(bodies)))
text += [f"const std::vector<void (*)(Reader&)> snippets{{{names}}};", "}  // namespace orvx::docs", ""]
pathlib.Path(output).write_text("\n".join(text))
