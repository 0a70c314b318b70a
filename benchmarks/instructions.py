"""Instructions of the client process for a fixed piece of work, against the recorded ones."""

import glob
import json
import re
import subprocess
import sys
import tempfile

UNITS = {"communication": 1000, "registration": 300, "check": 300, "withdrawal": 300}
GOALS = {"registration": 48000, "check": 16000, "withdrawal": 20000}
ALLOWED = 1.10


def count(program):
    """Instructions for one request, registration, check and withdrawal.

    The program fails when the machine is so busy that a second round of checks begins."""
    for _ in range(2):
        try:
            return count_once(program)
        except subprocess.CalledProcessError as error:
            print(f"again: {error.stderr.strip()}", file=sys.stderr)
    return count_once(program)


def count_once(program):
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["valgrind", "--quiet", "--tool=callgrind", "--fair-sched=yes",
                        f"--callgrind-out-file={folder}/out", program],
                       check=True, capture_output=True, text=True)
        counted = {}
        for name in glob.glob(f"{folder}/out.*"):
            with open(name) as dump:
                text = dump.read()
            reason = re.search(r"^desc: Trigger: Client Request: (\w+)$", text, re.M)
            if reason and reason[1] in UNITS:
                total = int(re.search(r"^(?:summary|totals): (\d+)", text, re.M)[1])
                counted[reason[1]] = round(total / UNITS[reason[1]])
    return counted


def compare(program, record_path, record):
    """Prints a table; whether nothing passes what was recorded by more than a tenth."""
    counted = count(program)
    if record:
        with open(record_path, "w") as file:
            json.dump(counted, file, indent=2)
            file.write("\n")
    with open(record_path) as file:
        recorded = json.load(file)
    good = True
    print(f"{'instructions for one':<22}{'now':>9}{'recorded':>10}{'ratio':>8}{'goal':>9}")
    for name in UNITS:
        ratio = counted[name] / recorded[name]
        good = good and ratio <= ALLOWED
        print(f"{name:<22}{counted[name]:>9}{recorded[name]:>10}{ratio:>8.3f}{GOALS.get(name, ''):>9}"
              + ("" if ratio <= ALLOWED else "  TOO MANY"))
    return good
