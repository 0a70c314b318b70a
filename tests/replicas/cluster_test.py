#!/usr/bin/env python3
"""Parts of the cluster that need neither root nor etcd."""

import pathlib
import resource
import tempfile
import unittest

from cluster import Member, Replica, StallWatch


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


class Lagging(Replica):
    """A replica that starts and then has these lags. The watch ends with the last one."""

    def __init__(self, *lags):
        self.name = "registry1"
        self.process = object()
        self.readiness = [False, False, True]
        self.lags = list(lags)
        self.watch = None

    def is_ready(self):
        return self.readiness.pop(0)

    def lag(self):
        if self.readiness:
            raise AssertionError("asked before it is ready")
        lag = self.lags.pop(0)
        if not self.lags:
            self.watch.stopped.set()
        return lag


class AStallWatch(unittest.TestCase):
    def stalls(self, replica):
        with tempfile.TemporaryDirectory() as folder:
            watch = StallWatch(pathlib.Path(folder), [])
            replica.watch = watch
            watch.watch_replica(replica)
            for thread in watch.threads:
                thread.join()
            watch.file.close()
            return [(stall.end - stall.begin) // 100 for stall in watch.seen() if stall.of == replica.name]

    def testSeesALagOfAReplicaThatWasReady(self):
        self.assertEqual(self.stalls(Lagging(250, 700, 100, 699, 900)), [7, 9])


unittest.main()
