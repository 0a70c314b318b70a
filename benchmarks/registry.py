"""The servers that the registry's benchmark asks, and the rows of what it prints.

All run on the last processor, but for etcd, which is on the client's: it is no part of the registry. The watchers do
not ask for the checks.
"""

import contextlib
import itertools
import os
import socket
import subprocess
import tempfile
import time
import urllib.request

from report import row

CHECK_RATE, CHANGES, WATCHERS = 4000, 100, 1000
NGINX = """
daemon off; master_process off; worker_rlimit_nofile 4096;
user root; pid {folder}/pid; error_log {folder}/error.log;
events {{ worker_connections 2048; }}
http {{
    access_log off; keepalive_requests 1000000000; keepalive_timeout 1h;
    server {{ listen 127.0.0.1:{port}; root {folder}; }}
}}
"""
ENTRY = '{"name":"service","port":8080}'
NUMBERS = itertools.count()


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def pinned(processor):
    return lambda: os.sched_setaffinity(0, {processor})


@contextlib.contextmanager
def process(command, processor, **options):
    one = subprocess.Popen(command, preexec_fn=pinned(processor), **options)
    try:
        yield one
    finally:
        one.terminate()
        one.wait()


def wait_for(url):
    end = time.monotonic() + 30
    while True:
        try:
            return urllib.request.urlopen(url, timeout=5).read()
        except OSError:
            if time.monotonic() > end:
                raise
            time.sleep(0.05)


@contextlib.contextmanager
def nginx():
    """Its port and its process, which is the one worker."""
    with tempfile.TemporaryDirectory() as folder:
        port = free_port()
        with open(f"{folder}/nginx.conf", "w") as file:
            file.write(NGINX.format(folder=folder, port=port))
        with open(f"{folder}/entry.json", "w") as file:
            file.write(ENTRY)
        command = ["nginx", "-p", folder, "-c", f"{folder}/nginx.conf"]
        with process(command, max(os.sched_getaffinity(0)), stderr=subprocess.DEVNULL) as one:
            wait_for(f"http://127.0.0.1:{port}/entry.json")
            yield port, one.pid


@contextlib.contextmanager
def etcd():
    """Its address. In memory: no disk is measured."""
    with tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
        own, peer = (f"http://127.0.0.1:{free_port()}" for _ in range(2))
        command = ["etcd", "--data-dir", folder, "--listen-client-urls", own,
                   "--advertise-client-urls", own, "--listen-peer-urls", peer,
                   "--initial-advertise-peer-urls", peer, "--initial-cluster", f"default={peer}"]
        with process(command, min(os.sched_getaffinity(0)), stdout=subprocess.DEVNULL,
                     stderr=subprocess.DEVNULL):
            wait_for(f"{own}/health")
            yield own


@contextlib.contextmanager
def registry(program, *options):
    """Its port and its process. Each has entries of its own at etcd."""
    command = [program, "--port", "0", "--max-connections", "2000", *options]
    if "--etcd" in options:
        command += ["--etcd-prefix", f"/{next(NUMBERS)}/"]
    with process(command, max(os.sched_getaffinity(0)), stdout=subprocess.PIPE, text=True) as one:
        port = one.stdout.readline().rsplit(":", 1)[1].strip()
        wait_for(f"http://127.0.0.1:{port}/-/ready")
        yield port, one.pid


def load(bench, program, name, *options):
    with nginx() as yardstick, registry(program, *options) as own:
        rounds, seconds = bench.pick((3, 2), (7, 5))
        lines = bench.run("registry", "load", *own, *yardstick, 20000, rounds, seconds, WATCHERS)
    return list(load_rows(name, lines))


def load_rows(name, lines):
    own, other = lines["registry"], lines["nginx"]

    def ratios(key):
        return [one / two for one, two in zip(own[key], other[key])]

    checks = f"{name}: {CHECK_RATE:,} checks a second: "
    yield row(checks + "answered", own["answered"], ("least", round(0.99 * CHECK_RATE)), "")
    yield row(checks + "99th percentile", own["99th percentile"], 5, "ms")
    for key in ("median", "99th percentile"):
        yield row(f"{checks}{key}, against nginx", ratios(key))
    yield row(checks + "processor time, against nginx", ratios("cost"))
    yield row(f"{name}: most checks a second", own["most"], None, "")
    yield row(f"{name}: most checks a second, against nginx", ratios("most"))
    yield row(f"{name}: memory for an entry beside its text", lines["memory"]["bytes"], 1024,
              "bytes")
    for key, rest in (("watchers", ""), ("watchers and checks", f", {CHECK_RATE:,} checks")):
        line = lines[key]
        begin = f"{name}: {WATCHERS:,} watchers, {CHANGES} changes{rest} a second: "
        yield row(begin + "changes that arrive", line["arrived"], ("least", 1), "")
        yield row(begin + "lag, 99th percentile", line["lag"], None, "ms")
        yield row(begin + "processor, of one", line["server"], None, "")
        yield row(begin + "client's processor, of one", line["client"], None, "")
        if "check" in line:
            yield row(begin + "check, 99th percentile", line["check"], 5, "ms")


def changes(bench, program, name, *options):
    few, many = 1000, bench.pick(20000, 100000)
    with registry(program, *options) as (one, _), registry(program, *options) as (other, _):
        lines = bench.run("registry", "changes", one, few, other, many, bench.pick(3, 9))
    return [row(f"{name}: a change, {many:,} entries against {few:,}", lines["change"]["ratio"],
                1.1)]
