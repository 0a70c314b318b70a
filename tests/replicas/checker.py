#!/usr/bin/env python3
"""Checks the history of a run. `checker.py FOLDER` checks the recorded history in that folder again.

The history has five sources, whose times are milliseconds since 1970 by the clock of the one machine:

- Requests, from the log of the load balancer between the services and the replicas: the times at which a
  request arrived and its answer was sent, and the status of the answer. The requests of the racer are added.
- Events, from the services: operations, their answers, and the library's events.
- Samples: the entries that etcd has at one revision, read linearizably, and the lists of the replicas.
- Phases, from the nemesis: the kind and the time of each fault.
- Stalls: times in which the machine, or etcd, was too slow for a promise that has a limit in time.

An operation takes effect at an unknown time between its begin and its end. A promise counts as broken only if it is
broken for each of these times:

- An entry is *acknowledged* when a PUT was answered 200 or 201 with its uuid.
- It is *renewed* by that PUT and by each check that was answered 200. It is *kept* during an interval if such a
  request ended before the interval, and began less than the ttl before the end of the interval.
- It is *withdrawn* as soon as its service begins to withdraw its path, or a DELETE of its uuid has begun, even without
  an answer. The load balancer does not log a request on a kept connection that a replica closed, and the library
  repeats this request. So the 404 to a DELETE counts only for the racer, which repeats no request.

A 404 is false if the entry is kept and is not withdrawn. The same holds for an entry that a sample lacks, and for a
later PUT that gives the path another uuid: the entry is lost. A path has two uuids if two PUTs at the same time give
it two, or if etcd holds two. An entry that is sampled after the end of a DELETE that succeeded has outlived its
withdrawal.

Two promises depend on time: checks do not fail in a rolling restart, and entries of a killed service expire within
1.5 ttl. A replica is not ready, and begins anew to count the time of an entry, after etcd was slower than a sixth of
the ttl. So a restart or a kill decides only without a stall, and at least one of each must decide.
"""

import bisect
import collections
import dataclasses
import itertools
import json
import pathlib
import sys

# A replica is ready if its last heartbeat that came back is less than three seconds old. Its list
# may lag by that time.
REPLICA_LAG = 3000
GONE = (200, 204, 404, 410)  # the answers of a successful withdrawal
NO_ENTRY = (404, 410)
CHECK_INTERVAL = 2000
HEAD_TIMEOUT = 1500


@dataclasses.dataclass(slots=True)
class Request:
    begin: int
    end: int
    method: str
    path: str
    status: int
    uuid: str = ""  # in the answer to a PUT
    direct: bool = False  # sent to a replica, not through the load balancer
    server: str = ""  # to which the load balancer sent it


@dataclasses.dataclass
class Sample:
    source: str  # "etcd", or the name of a replica
    begin: int
    end: int
    entries: list  # of (uuid, path)
    paths: dict = dataclasses.field(default_factory=dict)  # at etcd: path to uuid, from the keys of the paths
    final: bool = False  # taken some time after the last fault and the last change


@dataclasses.dataclass
class Phase:
    kind: str
    begin: int
    end: int


@dataclasses.dataclass
class Stall:
    of: str  # "machine", or the name of the replica that lagged
    begin: int
    end: int


@dataclasses.dataclass
class Kill:
    """Of a process of services, at the end."""
    time: int
    prefix: str  # of their paths


def is_stalled(stalls, begin, end):
    return any(stall.begin <= end and begin <= stall.end for stall in stalls)


def has_stalled_restart(stalls, phase):
    """A check that began in the restart may end after it."""
    return is_stalled(stalls, phase.begin, phase.end + HEAD_TIMEOUT)


def has_stalled_kill(stalls, kill, ttl):
    """The time of an entry begins with its last check, an interval before the kill."""
    return is_stalled(stalls, kill.time - CHECK_INTERVAL, kill.time + 1.5 * ttl + 1000)


@dataclasses.dataclass
class History:
    ttl: int
    requests: list = dataclasses.field(default_factory=list)
    events: list = dataclasses.field(default_factory=list)  # dicts, as the services write them
    samples: list = dataclasses.field(default_factory=list)
    phases: list = dataclasses.field(default_factory=list)
    stalls: list = dataclasses.field(default_factory=list)
    kills: list = dataclasses.field(default_factory=list)


@dataclasses.dataclass
class Verdict:
    name: str
    of: str  # the number of things that were checked
    broken: list  # a line for each


class Life:
    """One uuid, from its acknowledgement."""

    def __init__(self, path):
        self.path = path
        self.renewals = []  # PUTs and checks that succeeded, by their end
        self.latest = []  # for each renewal the latest begin up to it
        self.attempts = []  # PUTs and checks with any answer
        self.deletes = []
        self.withdrawals = []  # their begins, answered or not

    def sort(self):
        self.renewals.sort(key=lambda request: request.end)
        self.latest = list(itertools.accumulate((request.begin for request in self.renewals), max))

    def last_renewal(self, time):
        """The latest begin of a renewal that ended before the time. The time is not before the first renewal."""
        return self.latest[bisect.bisect_right(self.renewals, time, key=lambda request: request.end) - 1]

    def is_kept(self, begin, end, ttl):
        if begin < self.renewals[0].end or self.latest[-1] <= end - ttl:
            return False  # the usual case, without a search
        return self.last_renewal(begin) > end - ttl

    def begin(self):
        return self.renewals[0].begin

    def before(self, request):
        """The last requests before this one, with their times before it."""
        earlier = [other for other in self.attempts if other.begin < request.begin][-5:]
        return "".join(f"\n  {request.begin - other.begin} to {request.begin - other.end} ms before it: {other.method} "
                       f"{other.status} {other.server}" for other in earlier)

    def overlaps(self, other):
        """Two PUTs at the same time, of entries that were not withdrawn meanwhile, had different uuids."""
        one, two = self.renewals[0], other.renewals[0]
        end = max(one.end, two.end)
        return (one.begin <= two.end and two.begin <= one.end
                and not self.is_withdrawn(end) and not other.is_withdrawn(end))

    def is_withdrawn(self, end):
        return any(begin < end for begin in self.withdrawals)

    def is_gone(self, begin):
        return any(request.end < begin and request.status in GONE for request in self.deletes)

    def must_live(self, begin, end, ttl):
        return self.is_kept(begin, end, ttl) and not self.is_withdrawn(end)


def lives(requests):
    found = {}
    for request in requests:
        if request.method == "PUT" and request.status in (200, 201) and request.uuid:
            life = found.setdefault(request.uuid, Life(request.path))
            life.renewals.append(request)
            life.attempts.append(request)
    for request in requests:
        life = found.get(request.path[1:])
        if life and request.method == "HEAD":
            life.attempts.append(request)
            if request.status == 200:
                life.renewals.append(request)
        elif life and request.method == "DELETE":
            life.deletes.append(request)
            if request.status not in NO_ENTRY or not request.direct:  # false_404s() checks the others
                life.withdrawals.append(request.begin)
    for life in found.values():
        life.sort()
    return found


class Checker:
    def __init__(self, history):
        self.history = history
        self.ttl = history.ttl
        self.lives = lives(history.requests)
        self.by_path = collections.defaultdict(dict)  # path to uuids
        for uuid, life in self.lives.items():
            self.by_path[life.path][uuid] = life
        for event in history.events:
            if event["event"] == "withdraw":
                for life in self.by_path[event["path"]].values():
                    if life.begin() < event["time"]:
                        life.withdrawals.append(event["time"])
        self.around = collections.defaultdict(set)  # ten seconds to the uuids that may be kept then
        for uuid, life in self.lives.items():
            for ten in range(life.renewals[0].end // 10_000, (life.renewals[-1].end + self.ttl) // 10_000 + 1):
                self.around[ten].add(uuid)
        self.etcd = [sample for sample in history.samples if sample.source == "etcd"]
        self.failed = collections.defaultdict(list)  # path to the begins of its checks without an answer in time
        for request in self.with_uuid("HEAD"):
            if (request.path[1:] in self.lives and not request.direct
                    and (request.status != 200 or request.end - request.begin >= HEAD_TIMEOUT)):
                self.failed[self.lives[request.path[1:]].path].append(request.begin)

    def judge(self):
        return [self.complete(), self.false_404s(), self.lost(), self.outlived(), self.two_uuids(),
                self.rolling_restarts(), self.expired_early(), self.expired_late()]

    def with_uuid(self, *methods):
        return [request for request in self.history.requests if request.method in methods]

    # A history without all requests cannot be checked.
    def complete(self):
        lost = {self.lives[request.path[1:]].path for request in self.with_uuid("HEAD", "DELETE")
                if request.status in NO_ENTRY and request.path[1:] in self.lives}
        broken = []
        for event in self.history.events:
            if event["event"] == "announced" and event["uuid"] not in self.lives:
                broken.append(f"{event['path']} {event['uuid']} is announced, but no PUT is in the log")
            if event["event"] == "lost" and event["path"] not in lost:
                broken.append(f"{event['path']} is lost, but no 404 is in the log")
        if not self.history.requests or not self.etcd:
            broken.append("no requests, or no samples of etcd")
        return Verdict("gaps in the history", f"{len(self.history.events)} events of services", broken)

    def false_404s(self):
        requests = self.with_uuid("HEAD", "DELETE")
        broken = []
        for request in requests:
            life = self.lives.get(request.path[1:])
            if request.status in NO_ENTRY and life and life.must_live(request.begin, request.end, self.ttl):
                last = life.last_renewal(request.begin)
                broken.append(f"{at(request.begin)} {request.method} {life.path} {request.path[1:]}: {request.status} "
                              f"{request.end - last} ms after its renewal{self.during(request.begin)}"
                              f"{life.before(request)}")
        return Verdict("false 404s", f"{len(requests)} checks and withdrawals", broken)

    def lost(self):
        broken = {}
        for uuid, life in self.lives.items():
            for other, later in self.by_path[life.path].items():
                put = later.renewals[0]
                if other != uuid and life.must_live(put.begin, put.end, self.ttl):
                    broken[uuid] = f"{at(put.begin)} {life.path} {uuid}: PUT gave {other}{self.during(put.begin)}"
        for sample in self.history.samples:
            begin = sample.begin - (0 if sample.source == "etcd" else REPLICA_LAG)
            present = {uuid for uuid, _ in sample.entries}
            for uuid in self.around[begin // 10_000] - present - broken.keys():
                if self.lives[uuid].must_live(begin, sample.end, self.ttl):
                    broken[uuid] = (f"{at(sample.begin)} {self.lives[uuid].path} {uuid}: not at {sample.source}"
                                    f"{self.during(sample.begin)}")
        for sample in self.finals():
            for path, uuid in self.announced(sample.begin).items():
                if uuid not in broken and (uuid, path) not in sample.entries:
                    broken[uuid] = f"{path} {uuid}: announced at the end, but not at {sample.source}"
        return Verdict("acknowledged entries lost", f"{len(self.lives)} entries", list(broken.values()))

    def outlived(self):
        broken = {}
        for sample in self.history.samples:
            begin = sample.begin - (0 if sample.source == "etcd" else REPLICA_LAG)
            for uuid, path in sample.entries:
                if uuid not in broken and uuid in self.lives and self.lives[uuid].is_gone(begin):
                    broken[uuid] = (f"{at(sample.begin)} {path} {uuid}: withdrawn, but at {sample.source}"
                                    f"{self.during(sample.begin)}")
        for sample in self.finals():
            announced = self.announced(sample.begin)
            for uuid, path in sample.entries:
                if uuid not in broken and path not in announced:
                    broken[uuid] = f"{path} {uuid}: announced by nobody at the end, but at {sample.source}"
        deletes = [request for request in self.with_uuid("DELETE") if request.status in GONE]
        return Verdict("entries that outlive their withdrawal", f"{len(deletes)} withdrawals", list(broken.values()))

    def two_uuids(self):
        broken = {}
        for path, found in self.by_path.items():
            for (one, first), (two, second) in itertools.combinations(found.items(), 2):
                if first.overlaps(second):
                    broken[path] = f"{at(second.begin())} {path}: PUTs at the same time gave {one} and {two}"
        for sample in self.etcd + self.finals():
            uuids = collections.defaultdict(set)
            for uuid, path in sample.entries:
                uuids[path].add(uuid)
            for path, uuid in sample.paths.items():
                uuids[path].add(uuid)
            for path, of_path in uuids.items():
                if len(of_path) > 1 or (sample.source == "etcd" and path not in sample.paths):
                    broken.setdefault(path, f"{at(sample.begin)} {path} has {' '.join(sorted(of_path))} at "
                                            f"{sample.source}{self.during(sample.begin)}")
        return Verdict("two uuids for one path", f"{len(self.etcd)} samples of etcd", list(broken.values()))

    def rolling_restarts(self):
        restarts = self.restarts()
        deciding = [phase for phase in restarts if not has_stalled_restart(self.history.stalls, phase)]
        broken = [line for line in self.failed_in(deciding) if "HEAD" in line]
        if restarts and not deciding:
            broken.append("each restart had a stall")
        return Verdict("failed checks in rolling restarts", f"{len(deciding)} restarts", broken)

    def restarts(self):
        return [phase for phase in self.history.phases if phase.kind == "rolling-restart"]

    def failed_in(self, phases):
        """The failures of requests of the services that began in these phases."""
        return [f"{at(event['time'])} {event['path']} {event['event']}: {event['reason'].splitlines()[0]}"
                for event in self.history.events if event["event"] in ("unreachable", "lost")
                for phase in phases if phase.begin <= self.begin_of_failed(event) <= phase.end]

    def begin_of_failed(self, event):
        """The begin of the check that failed. The time of the failure, if another request failed, or if the check did
        not come to the load balancer."""
        begins = self.failed[event["path"]] if "HEAD" in event["reason"] else []
        return max((begin for begin in begins if event["time"] - CHECK_INTERVAL < begin <= event["time"]),
                   default=event["time"])

    def expiring(self, kill):
        """The entries of the killed services that were kept until then."""
        return {uuid: life for uuid, life in self.lives.items()
                if life.path.startswith(kill.prefix) and not life.is_withdrawn(kill.time)
                and life.is_kept(kill.time, kill.time, self.ttl)}

    def after(self, kill):
        return [sample for sample in self.etcd if sample.begin > kill.time]

    def expired_early(self):
        broken = []
        count = 0
        for kill in self.history.kills:
            expiring = self.expiring(kill)
            count += len(expiring)
            for uuid, life in expiring.items():
                last = max(request.begin for request in life.renewals)
                absent = [sample.end for sample in self.after(kill) if (uuid, life.path) not in sample.entries]
                if absent and absent[0] < last + self.ttl:
                    broken.append(f"{life.path} {uuid}: gone {absent[0] - last} ms after its last check")
        return Verdict("entries that expire before 1 ttl", f"{count} of killed services", broken)

    def expired_late(self):
        broken = []
        count = 0
        deciding = [kill for kill in self.history.kills
                    if not has_stalled_kill(self.history.stalls, kill, self.ttl)]
        for kill in deciding:
            expiring = self.expiring(kill)
            count += len(expiring)
            until = max((sample.begin for sample in self.after(kill)), default=0)
            for uuid, life in expiring.items():
                last = max(request.end for request in life.attempts)
                present = [sample.begin for sample in self.after(kill) if (uuid, life.path) in sample.entries]
                if until <= last + 1.5 * self.ttl:
                    broken.append(f"{life.path} {uuid}: watched for {until - last} ms only")
                elif present and present[-1] > last + 1.5 * self.ttl:
                    broken.append(f"{life.path} {uuid}: still there {present[-1] - last} ms after its last check")
        if self.history.kills and not deciding:
            broken.append("each kill had a stall")
        return Verdict("entries that expire after 1.5 ttl", f"{count} of killed services", broken)

    def finals(self):
        return [sample for sample in self.history.samples if sample.final]

    def announced(self, when):
        """The entries that are announced at that time by the running services: path to uuid."""
        paths = {}
        for event in self.history.events:
            if event["time"] > when:
                continue
            if event["event"] == "announce":
                paths[event["path"]] = None
            elif event["event"] == "withdraw":
                paths.pop(event["path"], None)
            elif event["event"] == "announced" and event["path"] in paths:
                paths[event["path"]] = event["uuid"]
        return {path: uuid for path, uuid in paths.items()
                if not any(kill.time < when and path.startswith(kill.prefix) for kill in self.history.kills)}

    # Figures without a limit.

    def longest_gap(self):
        """The longest time between two successful checks of an entry that is not withdrawn."""
        longest = (0, 0, "")
        for life in self.lives.values():
            ends = [request.end for request in life.renewals if not life.is_withdrawn(request.end)]
            for before, after in zip(ends, ends[1:]):
                longest = max(longest, (after - before, before, life.path))
        return longest

    def failed_checks(self):
        return [request for request in self.with_uuid("HEAD") if not request.direct
                and request.status not in (200, *NO_ENTRY) and request.path[1:] in self.lives]

    def phase(self, time):
        index = bisect.bisect_right(self.history.phases, time, key=lambda phase: phase.begin)
        phase = self.history.phases[index - 1] if index else None
        return phase if phase and time <= phase.end else None

    def during(self, time):
        phase = self.phase(time)
        return f" ({phase.kind}, {time - phase.begin} ms after its begin)" if phase else ""

    def report(self, out):
        verdicts = self.judge()
        print(f"{'kind of fault':24}{'times':>7}{'checks':>9}{'failed':>8}", file=out)
        checks = self.by_phase(request for request in self.with_uuid("HEAD") if not request.direct)
        failed = self.by_phase(self.failed_checks())
        times = collections.Counter(phase.kind for phase in self.history.phases)
        for kind in [*times, "none"]:
            print(f"{kind:24}{times[kind] or '':>7}{checks[kind]:>9}{failed[kind]:>8}", file=out)
        seen = self.failed_in(self.restarts())
        others = [line for line in seen if "HEAD" not in line]
        print(f"\nfailed PUTs and DELETEs in rolling restarts: {len(others)}", *others[:3], sep="\n  ", file=out)
        gap, time, path = self.longest_gap()
        print(f"\nlongest time without a successful check: {gap} ms, {path} at {at(time)}{self.during(time)}",
              file=out)
        stalled = [phase for phase in self.restarts() if has_stalled_restart(self.history.stalls, phase)]
        kills = [kill for kill in self.history.kills if has_stalled_kill(self.history.stalls, kill, self.ttl)]
        print(f"{len(self.history.stalls)} stalls; with a stall: {len(stalled)} rolling restarts, {len(kills)} kills\n",
              file=out)
        for verdict in verdicts:
            print(f"{verdict.name:40}{len(verdict.broken):>6}   of {verdict.of}", file=out)
        for verdict in verdicts:
            for line in verdict.broken[:20]:
                print(f"{verdict.name}: {line}", file=out)
        return not any(verdict.broken for verdict in verdicts)

    def by_phase(self, requests):
        phases = (self.phase(request.begin) for request in requests)
        return collections.Counter(phase.kind if phase else "none" for phase in phases)


def at(milliseconds):
    seconds, rest = divmod(milliseconds, 1000)
    return f"{seconds // 3600 % 24:02}:{seconds // 60 % 60:02}:{seconds % 60:02}.{rest:03}"


def read_lines(file):
    """The JSON objects of a file, one per line. The last line of a killed process may be incomplete."""
    for line in file.read_text(errors="replace").splitlines():
        if line.startswith("{"):
            try:
                yield json.loads(line)
            except ValueError:
                pass


def unacknowledged(events):
    """The paths that are announced and have no entry, as far as their services know."""
    paths = set()
    for event in events:
        if event["event"] in ("announce", "lost"):
            paths.add(event["path"])
        elif event["event"] in ("withdraw", "announced"):
            paths.discard(event["path"])
    return paths


def read_events(folder):
    events = [event for file in sorted(folder.glob("services*.log")) for event in read_lines(file)]
    return sorted(events, key=lambda event: event["time"])


def read(folder):
    folder = pathlib.Path(folder)
    settings = json.loads((folder / "settings.json").read_text())
    history = History(settings["ttl"], kills=[Kill(*kill) for kill in settings["kills"]])
    for name in "haproxy", "race":
        for line in read_lines(folder / f"{name}.log"):
            if str(line["begin"]).isdigit():  # haproxy has read a complete request
                history.requests.append(Request(int(line["begin"]), int(line["end"]), line["method"], line["path"],
                                                int(line["status"]), line["location"].rpartition("/")[2],
                                                name == "race", line.get("server", "")))
    history.events = read_events(folder)
    history.stalls = [Stall(**line) for line in read_lines(folder / "stalls.log")]
    for line in read_lines(folder / "samples.log"):
        # Shares equal texts: half an hour has thousands of samples.
        line["entries"] = [tuple(map(sys.intern, entry)) for entry in line["entries"]]
        line["paths"] = {sys.intern(path): sys.intern(uuid) for path, uuid in line.get("paths", {}).items()}
        history.samples.append(Sample(**line))
    history.phases = [Phase(**line) for line in read_lines(folder / "phases.log")]
    return history


if __name__ == "__main__":
    sys.exit(0 if Checker(read(sys.argv[1])).report(sys.stdout) else 1)
