#!/usr/bin/env python3
"""Parts of the cluster that need neither root nor etcd."""

import pathlib
import resource
import tempfile
import unittest

from cluster import Member


class AMember(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.member = Member.__new__(Member)  # without a network namespace
        self.member.folder = pathlib.Path(folder.name)

    def testFillsADiskThatIsFullInTheMiddleOfAWrite(self):
        size = (1 << 20) - 4096
        before = resource.getrlimit(resource.RLIMIT_FSIZE)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, before[1]))
        try:
            self.member.fill_disk()
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, before)
        self.assertEqual((self.member.folder / "full").stat().st_size, size)
        self.member.free_disk()
        self.assertEqual(list(self.member.folder.iterdir()), [])


unittest.main()
