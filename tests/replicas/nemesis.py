"""Causes one fault in a cluster at a time, and waits until the cluster is healthy before the next one."""

import dataclasses
import itertools
import json
import signal
import time

from checker import Phase, has_stalled_restart
from cluster import now

REST = 2.0  # seconds between two faults
ATTEMPTS = 4  # at a rolling restart without a stall


class Nemesis:
    def __init__(self, cluster, random, sampler, stalls, say):
        self.cluster = cluster
        self.random = random
        self.sampler = sampler
        self.stalls = stalls
        self.say = say
        self.restarts = []
        self.phases = open(cluster.folder / "phases.log", "a")
        self.kinds = {
            "kill-replica": self.kill_replica,
            "pause-replica": lambda: self.pause(self.one_of(cluster.replicas), self.between(1, 4)),
            "pause-replica-long": lambda: self.pause(self.one_of(cluster.replicas), cluster.ttl * 1.5),
            "cut-haproxy-replica": lambda: self.cut(cluster.haproxy, [self.one_of(cluster.replicas)],
                                                    self.between(2, 6)),
            "rolling-restart": self.restart_replicas,
            "kill-etcd": self.kill_member,
            "pause-etcd": lambda: self.pause(self.one_of(cluster.members), self.between(1, 4)),
            "pause-etcd-long": lambda: self.pause(self.one_of(cluster.members), cluster.ttl * 1.5),
            "cut-replica-etcd": lambda: self.cut(self.one_of(cluster.replicas), [self.one_of(cluster.members)],
                                                 self.between(3, 7)),
            "cut-replica-all-etcd": lambda: self.cut(self.one_of(cluster.replicas), cluster.members,
                                                     self.between(3, 9)),
            "cut-etcd-etcd": lambda: self.cut(*self.pair(cluster.members), self.between(3, 7)),
            "full-disk": self.fill_disk,
            "compaction": self.compact,
        }

    def one_of(self, nodes):
        return self.random.choice(nodes)

    def pair(self, nodes):
        first, second = self.random.sample(nodes, 2)
        return first, [second]

    def between(self, least, most):
        return self.random.uniform(least, most)

    def run(self, seconds):
        """Repeats all kinds in random order until the time has passed; each kind occurs at least once, and a rolling
        restart once without a stall, in a few attempts."""
        self.repeat_all(seconds)
        while 0 < len(self.restarts) < ATTEMPTS and not self.has_clear_restart():
            self.say("each rolling restart had a stall")
            self.disturb("rolling-restart")

    def has_clear_restart(self):
        return any(not has_stalled_restart(self.stalls.seen(), phase) for phase in self.restarts)

    def repeat_all(self, seconds):
        begin = time.monotonic()
        for turn in itertools.count():
            for kind in self.random.sample(list(self.kinds), len(self.kinds)):
                if turn > 0 and time.monotonic() - begin > seconds:
                    return
                self.disturb(kind)

    def disturb(self, kind):
        self.say(kind)
        begin = now()
        try:
            self.kinds[kind]()
            self.cluster.wait_until_healed()
        finally:
            phase = Phase(kind, begin, now())
            self.phases.write(json.dumps(dataclasses.asdict(phase)) + "\n")
            self.phases.flush()
        if kind == "rolling-restart":
            self.restarts.append(phase)
        crashed = self.cluster.crashed()
        if crashed:
            raise RuntimeError(f"ended by itself: {' '.join(crashed)}")
        time.sleep(REST)
        self.sampler.sample_replicas()

    def kill_replica(self):
        replica = self.one_of(self.cluster.replicas)
        replica.end()
        time.sleep(self.between(0, 3))
        replica.start()

    def kill_member(self):
        member = self.one_of(self.cluster.members)
        member.end()
        time.sleep(self.between(0, 4))
        member.start()

    def restart_replicas(self):
        for replica in self.random.sample(self.cluster.replicas, len(self.cluster.replicas)):
            replica.end(signal.SIGTERM)
            replica.start()
            self.cluster.wait_until_healed()
            self.cluster.wait_until_used()

    def pause(self, node, seconds):
        node.send(signal.SIGSTOP)
        try:
            time.sleep(seconds)
        finally:
            node.send(signal.SIGCONT)

    def cut(self, node, others, seconds):
        node.cut(others)
        try:
            time.sleep(seconds)
        finally:
            node.mend()

    # A member usually ends when its database cannot grow. If it has not ended, it is killed.
    def fill_disk(self):
        member = self.one_of(self.cluster.members)
        member.ended = True
        member.fill_disk()
        deadline = time.monotonic() + 10
        while member.process.poll() is None and time.monotonic() < deadline:
            time.sleep(0.1)
        self.say(f"  {member.name} " + ("runs on" if member.process.poll() is None else "ended"))
        member.end()
        member.free_disk()
        member.start()

    # Compacts the revision at which the replica will resume its watch, and with it the checks of
    # all entries.
    def compact(self):
        replica = self.one_of(self.cluster.replicas)
        replica.cut(self.cluster.members)
        try:
            time.sleep(self.cluster.ttl + 2)
            self.cluster.compact()
        finally:
            replica.mend()
