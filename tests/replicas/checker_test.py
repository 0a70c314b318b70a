#!/usr/bin/env python3
"""The checker with histories that were made up: each broken promise is found, and what may happen is not."""

import io
import unittest

from checker import Checker, History, Kill, Phase, Request, Sample, Stall, unacknowledged

TTL = 6000


def sample(time, *entries, source="etcd", **more):
    entries = [tuple(entry.split()) for entry in entries]
    paths = {path: uuid for uuid, path in entries} if source == "etcd" else {}
    return Sample(source, time, time + 10, entries, **{"paths": paths, **more})


def event(time, kind, path, **more):
    return {"time": time, "event": kind, "path": path, **more}


class Judged(unittest.TestCase):
    """A service at /a with the uuid u, announced at 1000 and checked at 3000, while etcd is sampled."""

    def setUp(self):
        self.history = History(TTL)
        self.request(1000, "PUT", "/a", 201, "u")
        self.request(3000, "HEAD", "/u", 200)
        self.history.samples.append(sample(3500, "u /a"))
        self.history.events.append(event(900, "announce", "/a"))
        self.history.events.append(event(1020, "announced", "/a", uuid="u"))

    def request(self, begin, method, path, status, uuid="", duration=10, direct=False):
        self.history.requests.append(Request(begin, begin + duration, method, path, status, uuid, direct))

    def sampled(self, *arguments, **more):
        self.history.samples.append(sample(*arguments, **more))

    def happened(self, *arguments, **more):
        self.history.events.append(event(*arguments, **more))

    def broken(self):
        return {verdict.name: len(verdict.broken) for verdict in Checker(self.history).judge() if verdict.broken}

    def assert_kept(self):
        self.assertEqual(self.broken(), {})

    def assert_broken(self, name):
        self.assertEqual(self.broken(), {name: 1})


class AHistory(Judged):
    def testWithoutFaultsIsAccepted(self):
        self.assert_kept()

    def testWithoutRequestsIsRefused(self):
        self.history.requests.clear()
        self.history.events.clear()
        self.history.samples.clear()
        self.assert_broken("gaps in the history")

    def testThatLacksThePutOfAnAnnouncedEntryIsRefused(self):
        self.happened(4000, "announced", "/b", uuid="w")
        self.assert_broken("gaps in the history")

    def testThatLacksThe404OfALostEntryIsRefused(self):
        self.happened(4000, "lost", "/a", uuid="")
        self.assert_broken("gaps in the history")


class AFalse404(Judged):
    def testIsReportedWithTheRequestsBeforeIt(self):
        self.request(8900, "HEAD", "/u", 404)
        line, = (line for verdict in Checker(self.history).judge() for line in verdict.broken)
        self.assertIn("\n  7900 to 7890 ms before it: PUT 201 \n  5900 to 5890 ms before it: HEAD 200 ", line)

    def testIsOneWithinTheTtlOfACheck(self):
        self.request(8900, "HEAD", "/u", 404)
        self.assert_broken("false 404s")

    def testIsOneWithinTheTtlOfThePut(self):
        self.request(2000, "HEAD", "/u", 404)
        self.assert_broken("false 404s")

    def testIsA410Too(self):
        self.request(5000, "HEAD", "/u", 410)
        self.assert_broken("false 404s")

    def testIsTheAnswerToAFirstWithdrawalThatNobodyRepeats(self):
        self.request(5000, "DELETE", "/u", 404, direct=True)
        self.assert_broken("false 404s")

    def testIsNoneAfterTheTtl(self):
        self.request(9000, "HEAD", "/u", 404)
        self.assert_kept()

    def testIsNoneIfOnlyFailedChecksRenewedTheEntry(self):
        self.request(8000, "HEAD", "/u", 503)
        self.request(9000, "HEAD", "/u", 404)
        self.assert_kept()

    def testIsNoneAfterAWithdrawalThatWasNotAnswered(self):
        self.request(4000, "DELETE", "/u", 504)
        self.request(5000, "HEAD", "/u", 404)
        self.assert_kept()

    def testIsNoneWhileAWithdrawalIsOnItsWay(self):
        self.request(5000, "DELETE", "/u", 200)
        self.request(4995, "HEAD", "/u", 404)
        self.assert_kept()

    def testIsNoneForARepeatedWithdrawal(self):
        self.request(4000, "DELETE", "/u", 502)
        self.request(5000, "DELETE", "/u", 404)
        self.assert_kept()

    def testIsNoneForAWithdrawalThatTheLibraryMayHaveRepeated(self):
        self.request(5000, "DELETE", "/u", 404)
        self.assert_kept()

    def testIsNoneAfterAWithdrawalThatIsNotInTheLog(self):
        self.happened(4000, "withdraw", "/a")
        self.request(5000, "HEAD", "/u", 404)
        self.assert_kept()

    def testIsNoneIfTheCheckThatRenewedMayHaveComeLater(self):
        self.request(7990, "HEAD", "/u", 200, duration=1015)
        self.request(9000, "HEAD", "/u", 404)
        self.assert_kept()


class AnAcknowledgedEntry(Judged):
    def testIsLostIfASampleLacksIt(self):
        self.sampled(5000)
        self.assert_broken("acknowledged entries lost")

    def testIsLostIfTheListOfAReplicaLacksItAfterItsLag(self):
        self.sampled(6100, source="registry1")
        self.assert_broken("acknowledged entries lost")

    def testIsNotLostWhileTheReplicaLags(self):
        self.sampled(3900, source="registry1")
        self.assert_kept()

    def testIsNotLostAfterItsTtl(self):
        self.sampled(9000)
        self.assert_kept()

    def testIsNotLostIfItWasWithdrawn(self):
        self.request(4000, "DELETE", "/u", 503)
        self.sampled(5000)
        self.assert_kept()

    def testIsNotLostBeforeItIsAcknowledged(self):
        self.request(4000, "PUT", "/b", 201, "w", duration=1000)
        self.sampled(4500, "u /a")
        self.assert_kept()

    def testIsLostIfItsPathGetsAnotherUuid(self):
        self.request(5000, "PUT", "/a", 201, "w")
        self.assert_broken("acknowledged entries lost")

    def testIsNotLostIfItsPathGetsAnotherUuidAfterItsWithdrawal(self):
        self.request(4000, "DELETE", "/u", 200)
        self.request(5000, "PUT", "/a", 201, "w")
        self.assert_kept()

    def testIsLostIfAFinalListLacksWhatIsAnnounced(self):
        self.sampled(20000, source="registry1", final=True)
        self.assert_broken("acknowledged entries lost")

    def testIsNotAnnouncedAtTheEndAfterItsWithdrawal(self):
        self.happened(4000, "withdraw", "/a")
        self.sampled(20000, source="registry1", final=True)
        self.assert_kept()


class AWithdrawnEntry(Judged):
    def testHasOutlivedItsWithdrawalIfItIsSampledLater(self):
        self.request(4000, "DELETE", "/u", 200)
        self.sampled(4100, "u /a")
        self.assert_broken("entries that outlive their withdrawal")

    def testHasNotIfTheWithdrawalFailed(self):
        self.request(4000, "DELETE", "/u", 503)
        self.sampled(4100, "u /a")
        self.assert_kept()

    def testHasNotIfTheSampleBeganBefore(self):
        self.request(4000, "DELETE", "/u", 200)
        self.sampled(4005, "u /a")
        self.assert_kept()

    def testMayBeInTheListOfAReplicaThatLags(self):
        self.request(4000, "DELETE", "/u", 200)
        self.sampled(7000, "u /a", source="registry1")
        self.assert_kept()

    def testHasOutlivedItsWithdrawalIfAReplicaKeepsIt(self):
        self.request(4000, "DELETE", "/u", 200)
        self.sampled(7100, "u /a", source="registry1")
        self.assert_broken("entries that outlive their withdrawal")

    def testHasOutlivedItsWithdrawalIfNobodyAnnouncesItAtTheEnd(self):
        self.happened(4000, "withdraw", "/a")
        self.sampled(20000, "u /a", source="registry1", final=True)
        self.assert_broken("entries that outlive their withdrawal")


class APath(Judged):
    def testHasTwoUuidsIfEtcdHoldsTwoEntriesOfIt(self):
        self.sampled(4000, "u /a", "w /a")
        self.assert_broken("two uuids for one path")

    def testHasTwoUuidsIfTwoPutsAtOnceGiveItTwo(self):
        self.request(4000, "PUT", "/b", 201, "v")
        self.request(4005, "PUT", "/b", 201, "w")
        self.assert_broken("two uuids for one path")

    def testHasOneUuidIfTwoPutsAtOnceGiveTheSame(self):
        self.request(4000, "PUT", "/b", 201, "v")
        self.request(4005, "PUT", "/b", 200, "v")
        self.assert_kept()

    def testMayGetASecondUuidDuringItsWithdrawal(self):
        self.request(4000, "PUT", "/b", 201, "v", duration=100)
        self.request(4050, "DELETE", "/v", 200)
        self.request(4070, "PUT", "/b", 201, "w")
        self.assert_kept()

    def testHasTwoUuidsIfItsKeyNamesAnother(self):
        self.sampled(4000, "u /a", paths={"/a": "w"})
        self.assert_broken("two uuids for one path")

    def testNeedsItsKey(self):
        self.sampled(4000, "u /a", paths={})
        self.assert_broken("two uuids for one path")


class ARollingRestart(Judged):
    def setUp(self):
        super().setUp()
        self.history.phases = [Phase("rolling-restart", 4000, 5000), Phase("kill-replica", 6000, 7000)]

    def testHasNoFailedCheck(self):
        self.happened(4500, "unreachable", "/a", reason="HEAD: 503")
        self.assert_broken("failed checks in rolling restarts")

    def testMayRefuseAPut(self):
        self.happened(4500, "unreachable", "/a", reason="PUT: 503")
        self.assert_kept()

    def testIsNotBlamedForOtherFaults(self):
        self.happened(6500, "unreachable", "/a", reason="HEAD: 503")
        self.assert_kept()


    def testIsNotBlamedForACheckThatBeganBefore(self):
        self.request(3900, "HEAD", "/u", 503, duration=600)
        self.happened(4500, "unreachable", "/a", reason="HEAD: 503")
        self.assert_kept()

    def testIsBlamedForACheckThatFailsAfterIt(self):
        self.request(4900, "HEAD", "/u", 503, duration=600)
        self.happened(5500, "unreachable", "/a", reason="HEAD: 503")
        self.assert_broken("failed checks in rolling restarts")

    def testIsBlamedForACheckWithoutAnAnswerInTime(self):
        self.request(4400, "HEAD", "/u", 200, duration=1700)
        self.happened(5900, "unreachable", "/a", reason="HEAD: no answer")
        self.assert_broken("failed checks in rolling restarts")

    def testIsBlamedForACheckThatIsNotInTheLog(self):
        self.request(3900, "HEAD", "/u", 200)
        self.happened(4500, "unreachable", "/a", reason="HEAD: no connection")
        self.assert_broken("failed checks in rolling restarts")

    def testDoesNotDecideWithAStall(self):
        self.history.phases.append(Phase("rolling-restart", 8000, 9000))
        self.history.stalls.append(Stall("machine", 3900, 4100))
        self.happened(4500, "unreachable", "/a", reason="HEAD: 503")
        self.assert_kept()

    def testDecidesIfAStallCameBefore(self):
        self.history.stalls.append(Stall("registry1", 3000, 3900))
        self.happened(4500, "unreachable", "/a", reason="HEAD: 503")
        self.assert_broken("failed checks in rolling restarts")

    def testDecidesWithoutAStallAtLeastOnce(self):
        self.history.stalls.append(Stall("machine", 4900, 5100))
        self.assert_broken("failed checks in rolling restarts")


class AKilledService(Judged):
    def setUp(self):
        super().setUp()
        self.history.kills = [Kill(3600, "/a")]

    def testIsGoneBetweenOneAndOneAndAHalfTtl(self):
        self.sampled(9000, "u /a")
        self.sampled(11900)
        self.sampled(12100)
        self.assert_kept()

    def testIsNotGoneBefore(self):
        self.sampled(8900)
        self.sampled(12100)
        self.assertEqual(self.broken(), {"entries that expire before 1 ttl": 1, "acknowledged entries lost": 1})

    def testIsNotThereAnyMoreAfterwards(self):
        self.sampled(12100, "u /a")
        self.assert_broken("entries that expire after 1.5 ttl")

    def testIsWatchedForLongEnough(self):
        self.sampled(11900)
        self.assert_broken("entries that expire after 1.5 ttl")

    def killed_with_a_stall(self, begin, end):
        """The service at /a, and then the one at /b without a stall."""
        self.history.stalls.append(Stall("machine", begin, end))
        self.request(30000, "PUT", "/b", 201, "w")
        self.happened(29900, "announce", "/b")
        self.happened(30020, "announced", "/b", uuid="w")
        self.history.kills.append(Kill(30500, "/b"))

    def testMayBeThereLongerAfterAStall(self):
        self.killed_with_a_stall(5000, 5900)
        self.sampled(14000, "u /a")
        self.sampled(40000)
        self.assert_kept()

    def testIsNotThereLongerAfterAStallBeforeItsLastCheck(self):
        self.killed_with_a_stall(1000, 1500)
        self.sampled(14000, "u /a")
        self.sampled(40000)
        self.assert_broken("entries that expire after 1.5 ttl")

    def testIsNotGoneBeforeInSpiteOfAStall(self):
        self.killed_with_a_stall(5000, 5900)
        self.sampled(8900)
        self.sampled(40000)
        self.assertEqual(self.broken(), {"entries that expire before 1 ttl": 1, "acknowledged entries lost": 1})

    def testDecidesWithoutAStallAtLeastOnce(self):
        self.history.stalls.append(Stall("machine", 5000, 5900))
        self.sampled(12100)
        self.assert_broken("entries that expire after 1.5 ttl")

    def testIsJudgedAfterAnother(self):
        self.killed_with_a_stall(5000, 5900)
        self.sampled(12100)
        self.sampled(40000, "w /b")
        self.assert_broken("entries that expire after 1.5 ttl")


class AnAnnouncedService(Judged):
    def testIsAcknowledgedWhenItHasItsEntry(self):
        self.assertEqual(unacknowledged(self.history.events), set())
        self.assertEqual(unacknowledged(self.history.events[:1]), {"/a"})

    def testIsNotWhenItHasLostItsEntry(self):
        self.happened(4000, "lost", "/a", uuid="")
        self.assertEqual(unacknowledged(self.history.events), {"/a"})

    def testNeedsNoEntryWhenItIsWithdrawn(self):
        self.happened(4000, "lost", "/a", uuid="")
        self.happened(4100, "withdraw", "/a")
        self.assertEqual(unacknowledged(self.history.events), set())


class AReport(Judged):
    def report(self):
        out = io.StringIO()
        return Checker(self.history).report(out), out.getvalue()

    def testShowsTheLongestTimeWithoutACheck(self):
        self.assertIn("longest time without a successful check: 2000 ms, /a at 00:00:01.010", self.report()[1])

    def testCountsFailedChecksOfEachKindOfFault(self):
        self.history.phases = [Phase("kill-etcd", 4000, 5000)]
        self.request(4500, "HEAD", "/u", 503)
        self.assertRegex(self.report()[1], r"kill-etcd +1 +1 +1\n")

    def testFailsIfAPromiseIsBroken(self):
        self.assertTrue(self.report()[0])
        self.sampled(4000, "u /a", "w /a")
        self.assertFalse(self.report()[0])


unittest.main()
