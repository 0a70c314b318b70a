"""Chooses what is kept of a fuzzer's inputs: keep.py CONTROL_FILE CORPUS

CONTROL_FILE is what the fuzzer wrote with -set_cover_merge=1 -merge_control_file. Inputs with a name
that somebody gave them stay; those that fuzzing found (named by their hash) are chosen anew, the one
that adds most first, until none adds anything or the corpus is full.
"""
import pathlib
import re
import sys

MOST_FILES = 60

control, corpus = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
lines = control.read_text().splitlines()
files = [pathlib.Path(line) for line in lines[2 : 2 + int(lines[0])]]
features = {}
for line in lines[2 + len(files) :]:
    kind, index, *numbers = line.split()
    if kind == "FT":
        features[files[int(index)]] = set(numbers)


def is_found(file):
    return re.fullmatch("[0-9a-f]{40}", file.name)


covered = set()
named = [file for file in features if not is_found(file)]
for file in named:
    covered |= features[file]
contents = {}
while len(named) + len(contents) < MOST_FILES:
    best = max(features, key=lambda file: len(features[file] - covered))
    if not features[best] - covered:
        break
    covered |= features[best]
    contents[best.name] = best.read_bytes()
for file in corpus.iterdir():
    if is_found(file):
        file.unlink()
for name, content in contents.items():
    (corpus / name).write_bytes(content)
