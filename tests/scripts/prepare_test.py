#!/usr/bin/env python3
"""scripts/prepare on a machine that has no package: a dpkg-query and an apt-get of this test stand before
the system's, and write down what is asked for."""

import os
import pathlib
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]


def installed_by(*groups):
    with tempfile.TemporaryDirectory() as folder:
        asked = pathlib.Path(folder, "asked")
        asked.touch()
        for name, body in {"dpkg-query": "exit 1", "apt-get": f'echo "$@" >>{asked}'}.items():
            program = pathlib.Path(folder, name)
            program.write_text(f"#!/bin/sh\n{body}\n")
            program.chmod(0o755)
        subprocess.run([ROOT / "scripts/prepare", *groups], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.PIPE, env={**os.environ, "PATH": f"{folder}:{os.environ['PATH']}"})
        install = [line.split() for line in asked.read_text().splitlines() if "install" in line]
    return {word for line in install for word in line if word != "install" and word[0] != "-"}


def listed():
    lines = (line.split() for line in (ROOT / "packages.txt").read_text().splitlines())
    return {line[0]: line[1].split(",") for line in lines if line and line[0][0] != "#"}


class Prepare(unittest.TestCase):
    def testInstallsAllPackagesWhenNoGroupIsGiven(self):
        self.assertEqual(installed_by(), set(listed()))

    # With ccache, so that scripts/test does not change the compiler's command, and builds no object again.
    def testInstallsForTheDemonstrationNoBrowserServerOrSecondCompiler(self):
        packages = installed_by("library", "tools", "demo")
        self.assertLessEqual({"g++", "cmake", "curl", "ccache"}, packages)
        self.assertFalse({"chromium", "nginx-light", "valgrind", "clang", "libgtest-dev"} & packages)

    def testRefusesAnUnknownGroup(self):
        with self.assertRaises(subprocess.CalledProcessError) as refused:
            installed_by("library", "unknown")
        self.assertEqual((refused.exception.returncode, refused.exception.stderr), (2, b"unknown group: unknown\n"))

    def testKnowsTheGroupsOfEachPackage(self):
        known = {"library", "tools", "demo", "test", "check", "docs", "bench", "arm64", "package", "clang"}
        for package, groups in listed().items():
            self.assertLessEqual(set(groups), known, package)


if __name__ == "__main__":
    unittest.main()
