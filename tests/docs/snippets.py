"""Turns the C++ of a Markdown page into programs that a test compiles and runs, as a reader pastes it.

usage: snippets.py OUTPUT EXAMPLES_FOLDER PAGE

A block that is the text of an example is left to the tests of the examples. The first other one is the
page's program. Each further block is pasted into it: where it says "// <options>" when it sets an option of
the context, which takes options before init() only, and where it says "// <operations>" otherwise. So
the compiler sees nothing but what the page shows. Replaced are: the port at which a registry
listens by default, and its name, by those of the registry of the test.
"""

import pathlib
import re
import sys

OPTIONS, OPERATIONS = "    // <options>\n", "    // <operations>\n"
MAIN = re.compile(r"^(int main\(\)|TEST\(\w+, \w+\)) \{$", re.M)

output, examples, page = (pathlib.Path(argument) for argument in sys.argv[1:])
programs_elsewhere = {path.read_text() for path in examples.rglob("*.cpp")}
frame, *snippets = (block for block in re.findall(r"```cpp\n(.*?)```", page.read_text(), re.S)
                    if block not in programs_elsewhere)
if not MAIN.search(frame):
    sys.exit(f"{page}: the first program has no main() and is none of the examples")


def pasted(snippet):
    place = OPTIONS if OPTIONS in frame and re.search(r"\bcontext[.](set|enable)", snippet) else OPERATIONS
    if place not in frame:
        sys.exit(f"{page}: the first program has no place for\n{snippet}")
    return frame.replace(place, snippet)


programs = [pasted(snippet) for snippet in snippets] or [frame]
if page.stem.startswith("howto-"):  # the guide begins with the default path
    for program in programs:
        if "registerService" in program and "setUri(" not in program:
            sys.exit(f"{page}: two instances would share an entry\n{program}")
includes = re.match(r"(#include.*\n|\n)*", frame)[0]
text = [includes, "extern unsigned short portOfTheRegistry;", "// NOLINTBEGIN"]
for number, program in enumerate(programs):
    body = program[len(includes):].replace("8500", "portOfTheRegistry").replace("registry.example.com", "127.0.0.1")
    text += [f"namespace program{number} {{", MAIN.sub("static void run() {", body), "}"]
# After the programs, which see nothing of it.
name = page.stem.replace("-", "_")
runs = ", ".join(f"program{number}::run" for number in range(len(programs)))
text += ['#include "Programs.h"', f"const Programs {name}{{{runs}}};", ""]
output.write_text("\n".join(text))
