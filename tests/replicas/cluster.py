"""Processes in network namespaces on one bridge: members of etcd, replicas of the registry, haproxy, services.

The caller has a network, a mount and a process namespace of its own (see `run`), so everything ends with the caller.
"""

import base64
import csv
import http.client
import io
import json
import signal
import subprocess
import threading
import time

from checker import Stall

NETWORK = "10.99.0."
PREFIX = "/orvx-registry/"
TIMEOUTS = (OSError, http.client.HTTPException, ValueError)  # of a request that has no usable answer


def shell(*arguments, **more):
    subprocess.run([str(argument) for argument in arguments], check=True, **more)


def now():
    return time.time_ns() // 1_000_000


def wait_until(condition, seconds, what):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(f"not within {seconds} s: {what}")
        time.sleep(0.05)


def ask(host, port, method, path, body=None, timeout=2):
    """The status and the body of the answer."""
    connection = http.client.HTTPConnection(host, port, timeout=timeout)
    try:
        connection.request(method, path, body, {"Content-Type": "application/json"})
        answer = connection.getresponse()
        return answer.status, answer.read()
    finally:
        connection.close()


class Node:
    """A network namespace with an address and one program, which can be killed, paused and disconnected."""

    def __init__(self, name, number, log):
        self.name = name
        self.address = NETWORK + str(number)
        self.log = log
        self.command = []
        self.process = None
        self.ended = False  # by end()
        link = f"to-{name}"
        shell("ip", "netns", "add", name)
        shell("ip", "link", "add", link, "type", "veth", "peer", "name", "eth0", "netns", name)
        shell("ip", "link", "set", link, "master", "bridge", "up")
        self.inside("ip", "link", "set", "lo", "up")
        self.inside("ip", "address", "add", self.address + "/24", "dev", "eth0")
        self.inside("ip", "link", "set", "eth0", "up")
        self.inside("nft", "add table inet cut; add chain inet cut in { type filter hook input priority 0; }; "
                           "add chain inet cut out { type filter hook output priority 0; }")

    def inside(self, *command):
        shell("nsenter", f"--net=/run/netns/{self.name}", *command)

    def start(self, *command):
        """Starts the command; without a command the last one again."""
        self.command = [str(word) for word in command] or self.command
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(["nsenter", f"--net=/run/netns/{self.name}", *self.command],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.ended = False

    def send(self, number):
        self.process.send_signal(number)

    def end(self, number=signal.SIGKILL, seconds=20):
        self.ended = True
        self.send(number)
        self.process.wait(seconds)

    def has_crashed(self):
        return self.process is not None and not self.ended and self.process.poll() is not None

    def cut(self, others):
        """Drops all packets between this node and the others, until mend()."""
        addresses = ", ".join(other.address for other in others)
        self.inside("nft", f"add rule inet cut in ip saddr {{ {addresses} }} drop; "
                           f"add rule inet cut out ip daddr {{ {addresses} }} drop")

    def mend(self):
        self.inside("nft", "flush table inet cut")

    def get(self, path, port, timeout=2):
        return ask(self.address, port, "GET", path, timeout=timeout)


class Member(Node):
    """A member of etcd. Its data is in a file system of its own, which can be filled."""

    def __init__(self, name, number, log, folder):
        super().__init__(name, number, log)
        self.folder = folder
        folder.mkdir()
        shell("mount", "-t", "tmpfs", "-o", "size=256m", "none", folder)

    def start_in(self, members):
        peer = f"http://{self.address}:2380"
        client = f"http://{self.address}:2379"
        self.start("etcd", "--name", self.name, "--data-dir", self.folder / "data", "--logger", "zap",
                   "--log-outputs", "stderr", "--listen-peer-urls", peer, "--initial-advertise-peer-urls", peer,
                   "--listen-client-urls", client, "--advertise-client-urls", client,
                   "--initial-cluster", ",".join(f"{one.name}=http://{one.address}:2380" for one in members))

    def is_ready(self):
        try:
            status, body = self.get("/health", 2379)
            return status == 200 and json.loads(body)["health"] == "true"
        except TIMEOUTS:
            return False

    def call(self, name, request, timeout=1):
        status, body = ask(self.address, 2379, "POST", "/v3/" + name, json.dumps(request), timeout)
        if status != 200:
            raise ValueError(f"{name}: {status} {body[:200]}")
        return json.loads(body)

    # Without a buffer: a buffer would be flushed again when the file is closed, and fail again.
    def fill_disk(self):
        with open(self.folder / "full", "wb", buffering=0) as file:
            try:
                while True:
                    file.write(bytes(1 << 20))
            except OSError:
                pass

    def free_disk(self):
        (self.folder / "full").unlink()


class Replica(Node):
    PORT = 8500

    def is_ready(self):
        try:
            return self.get("/-/ready", self.PORT)[0] == 200
        except TIMEOUTS:
            return False

    def lag(self):
        """The age of the last state of etcd that the replica knows completely, in milliseconds."""
        status, body = self.get("/-/metrics", self.PORT)
        metrics = dict(line.split() for line in body.decode().splitlines() if line.startswith("orvx_registry_etcd_lag"))
        if status != 200 or not metrics:
            raise ValueError(f"{self.name} has no lag: {status}")
        return round(float(metrics["orvx_registry_etcd_lag_seconds"]) * 1000)

    def entries(self):
        """Uuids and paths. Repeats the request if the registry aborts the list because of a change."""
        for _ in range(20):
            try:
                status, body = self.get("/", self.PORT, timeout=5)
                if status == 200:
                    return [(entry["uuid"], entry["path"]) for entry in json.loads(body)["entries"]]
            except TIMEOUTS:
                pass
            time.sleep(0.1)
        raise TimeoutError(f"{self.name} has no list")


HAPROXY = """
global
    nbthread 1
    log stdout len 4096 format raw local0
defaults
    mode http
    log global
    retries 3
    option redispatch 1
    timeout connect 500ms
    timeout client 30s
    timeout server 3s
    timeout check 500ms
listen state
    bind :8404
    no log
    stats enable
    stats uri /
frontend services
    bind :8500
    http-request set-var(txn.begin) date(0,ms)
    capture response header Location len 64
    log-format '{"begin":"%[var(txn.begin)]","end":"%[date(0,ms)]","method":"%HM","path":"%HPO","status":"%ST",\
"location":"%[capture.res.hdr(0)]","server":"%s","retries":"%rc","termination":"%ts"}'
    default_backend replicas
backend replicas
    balance roundrobin
    option httpchk GET /-/ready
    default-server check inter 500ms fall 2 rise 1
"""


def base64_text(text):
    return base64.b64encode(text.encode()).decode()


def plain(text):
    return base64.b64decode(text).decode()


class Cluster:
    def __init__(self, build, folder, ttl, members=3, replicas=3):
        self.build = build
        self.folder = folder
        self.ttl = ttl
        shell("ip", "link", "set", "lo", "up")
        shell("ip", "link", "add", "bridge", "type", "bridge")
        shell("ip", "address", "add", NETWORK + "1/24", "dev", "bridge")
        shell("ip", "link", "set", "bridge", "up")
        self.members = [Member(f"etcd{i}", 10 + i, self.log(f"etcd{i}"), folder / f"disk{i}")
                        for i in range(1, members + 1)]
        self.replicas = [Replica(f"registry{i}", 20 + i, self.log(f"registry{i}"))
                         for i in range(1, replicas + 1)]
        self.haproxy = Node("haproxy", 31, self.log("haproxy"))
        self.services = [Node(f"services{i}", 40 + i, self.log(f"services{i}")) for i in range(1, 7)]
        self.nodes = [*self.members, *self.replicas, self.haproxy, *self.services]
        self.revision = 0
        self.answering = self.members[0]

    def log(self, name):
        return self.folder / f"{name}.log"

    def start(self, services, interval, seed):
        for member in self.members:
            member.start_in(self.members)
        self.wait_until_healed()
        for replica in self.replicas:
            replica.start(self.build / "tools/registry/orvx-registry", "--host", replica.address, "--open",
                          "--port", replica.PORT, "--ttl", self.ttl, f"--log={self.log(replica.name + '-requests')}",
                          "--etcd", ",".join(f"http://{member.address}:2379" for member in self.members))
        configuration = self.folder / "haproxy.cfg"
        configuration.write_text(HAPROXY + "".join(
            f"    server {replica.name} {replica.address}:{replica.PORT}\n" for replica in self.replicas))
        self.wait_until_healed()
        self.haproxy.start("haproxy", "-f", configuration)
        for number, node in enumerate(self.services):
            node.start(self.build / "tests/replicas/services", self.haproxy.address, 8500, node.name,
                       services // len(self.services), interval, seed + number)

    def wait_until_healed(self):
        """All members and all replicas are ready."""
        for node in [*self.members, *self.replicas]:
            if node.process:
                wait_until(node.is_ready, 30, f"{node.name} is ready")

    def wait_until_used(self):
        """haproxy knows that all replicas are ready."""
        wait_until(self.are_all_used, 30, "all replicas are up for haproxy")

    def are_all_used(self):
        try:
            status, body = self.haproxy.get("/;csv", 8404)
        except TIMEOUTS:
            return False
        states = {line["svname"]: line["status"] for line in csv.DictReader(io.StringIO(body.decode()))
                  if line["# pxname"] == "replicas"}
        return status == 200 and all(states[replica.name] == "UP" for replica in self.replicas)

    def crashed(self):
        return [node.name for node in self.nodes if node.has_crashed()]

    def read_etcd(self):
        """The entries and the keys of the paths, at one revision."""
        answer = self.call("kv/range", {
            "key": base64_text(PREFIX), "range_end": base64_text(PREFIX[:-1] + chr(ord(PREFIX[-1]) + 1))})
        if not answer:
            return None
        self.revision = int(answer["header"]["revision"])
        entries, paths = [], {}
        for pair in answer.get("kvs", []):
            key, value = plain(pair["key"])[len(PREFIX):], plain(pair.get("value", ""))
            if key.startswith("entries/"):
                head = json.loads(value.partition("\n")[0])
                entries.append((key[len("entries/"):], plain(head["path"])))
            elif key.startswith("paths/") and value != "-":  # "-": the entry was removed
                paths[key[len("paths/"):]] = value.split()[0]
        return entries, paths

    def compact(self):
        """Compacts etcd's history up to the revision of the last sample."""
        self.call("kv/compaction", {"revision": str(self.revision), "physical": True})

    def call(self, name, request):
        """Asks the member that answered last, then the others. Returns the first answer, or None."""
        for member in sorted(self.members, key=lambda member: member is not self.answering):
            try:
                answer = member.call(name, request)
                self.answering = member
                return answer
            except TIMEOUTS:
                continue
        return None


class StallWatch:
    """Writes stalls: times in which this program did not run, or in which a replica lagged behind etcd. One thread
    waits in short steps, one for each replica asks for its lag."""

    STEP = 0.02
    LONGEST_OVERSHOOT = 200  # milliseconds
    LONGEST_LAG = 700  # a replica is not ready after a sixth of the ttl
    LAG_PAUSE = 0.1

    def __init__(self, folder, replicas):
        self.file = open(folder / "stalls.log", "a")
        self.lock = threading.Lock()
        self.stalls = []
        self.stopped = threading.Event()
        self.threads = [threading.Thread(target=self.watch_machine, daemon=True),
                        *(threading.Thread(target=self.watch_replica, args=[replica], daemon=True)
                          for replica in replicas)]
        for thread in self.threads:
            thread.start()

    def stop(self):
        if not all(thread.is_alive() for thread in self.threads):
            raise RuntimeError("stalls were not watched to the end")
        self.stopped.set()
        for thread in self.threads:
            thread.join()

    def seen(self):
        with self.lock:
            return list(self.stalls)

    def last_lag(self):
        """The end of the last time in which a replica may have lagged, or 0."""
        return max((stall.end for stall in self.seen()
                    if stall.of != "machine" or stall.end - stall.begin >= self.LONGEST_LAG), default=0)

    def note(self, of, begin, end):
        with self.lock:
            self.stalls.append(Stall(of, begin, end))
            self.file.write(json.dumps({"of": of, "begin": begin, "end": end}) + "\n")
            self.file.flush()

    def watch_machine(self):
        begin = now()
        while not self.stopped.wait(self.STEP):
            end = now()
            if end - begin > self.STEP * 1000 + self.LONGEST_OVERSHOOT:
                self.note("machine", begin, end)
            begin = end

    # A replica that starts lags until it is ready. That is no stall.
    def watch_replica(self, replica):
        process, was_ready = None, False
        while not self.stopped.wait(self.LAG_PAUSE):
            if process is not replica.process:
                process, was_ready = replica.process, False
            was_ready = was_ready or replica.is_ready()
            if not was_ready:
                continue
            begin = now()
            try:
                lag = replica.lag()
            except TIMEOUTS:
                lag = now() - begin
            if lag >= self.LONGEST_LAG:
                self.note(replica.name, begin - lag, now())


class Sampler:
    """Writes samples. A thread of its own samples etcd periodically."""

    def __init__(self, cluster, pause=0.7):
        self.cluster = cluster
        self.pause = pause
        self.file = open(cluster.folder / "samples.log", "a")
        self.lock = threading.Lock()
        self.stopped = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.stopped.wait(self.pause):
            self.sample_etcd()

    def stop(self):
        if not self.thread.is_alive():
            raise RuntimeError("etcd was not sampled to the end")
        self.stopped.set()
        self.thread.join()

    def write(self, **sample):
        with self.lock:
            self.file.write(json.dumps(sample) + "\n")
            self.file.flush()

    def sample_etcd(self, final=False):
        begin = now()
        found = self.cluster.read_etcd()
        if found:
            self.write(source="etcd", begin=begin, end=now(), entries=found[0], paths=found[1], final=final)

    def sample_replicas(self, final=False):
        for replica in self.cluster.replicas:
            begin = now()
            entries = replica.entries()
            self.write(source=replica.name, begin=begin, end=now(), entries=entries, final=final)
