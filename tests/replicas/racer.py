"""Repeatedly puts a path at one replica, or at all at once, immediately checks its entry at all replicas, and
withdraws it."""

import concurrent.futures
import http.client
import itertools
import json
import threading

from cluster import TIMEOUTS, Replica, now

PAUSE = 0.3  # seconds


class Racer:
    def __init__(self, cluster, random):
        self.replicas = cluster.replicas
        self.random = random
        self.file = open(cluster.folder / "race.log", "a")
        self.lock = threading.Lock()
        self.stopped = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def stop(self):
        self.stopped.set()
        self.thread.join()

    def run(self):
        with concurrent.futures.ThreadPoolExecutor(len(self.replicas)) as pool:
            for number in itertools.count():
                if self.stopped.wait(PAUSE):
                    return
                self.race(pool, f"/race/{number}")

    def race(self, pool, path):
        asked = self.random.choice([self.replicas, [self.random.choice(self.replicas)]])
        for location in set(pool.map(lambda replica: self.ask(replica, "PUT", path), asked)) - {""}:
            list(pool.map(lambda replica: self.ask(replica, "HEAD", location), self.replicas))
            self.ask(self.random.choice(self.replicas), "DELETE", location)

    def ask(self, replica, method, path):
        """Sends a request, logs it in the format of the load balancer, and returns the Location of the answer."""
        begin, status, location = now(), -1, ""
        connection = http.client.HTTPConnection(replica.address, Replica.PORT, timeout=2)
        try:
            connection.request(method, path, '{"name":"race"}' if method == "PUT" else None,
                               {"Content-Type": "application/json"})
            answer = connection.getresponse()
            status, location = answer.status, answer.headers.get("Location", "")
        except TIMEOUTS:
            pass
        finally:
            connection.close()
        with self.lock:
            self.file.write(json.dumps({"begin": begin, "end": now(), "method": method, "path": path, "status": status,
                                        "location": location, "server": replica.name}) + "\n")
            self.file.flush()
        return location
