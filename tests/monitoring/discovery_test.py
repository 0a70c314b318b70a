#!/usr/bin/env python3
"""Prometheus finds what is announced: discovery_test.py ORVX_REGISTRY.

A real Prometheus reads /-/prometheus with a token. It scrapes a service that is announced, keeps its labels, and
forgets it when it is withdrawn. Every step waits for half a minute at most.
"""

import hashlib
import http.server
import json
import pathlib
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

TOKEN = "a token of the test"
OPENER = urllib.request.build_opener(urllib.request.ProxyHandler({}))


class Service(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Type", "text/plain; version=0.0.4")
        self.end_headers()
        self.wfile.write(b"lamps_lit 3\n")

    def log_message(self, *arguments):
        pass


def ask(url, method="GET", body=None):
    headers = {"Authorization": "Bearer " + TOKEN}
    return OPENER.open(urllib.request.Request(url, body, headers, method=method), timeout=10)


def query(prometheus, expression):
    url = f"{prometheus}/api/v1/query?query=" + urllib.request.quote(expression)
    return json.load(OPENER.open(url, timeout=10))["data"]["result"]


def wait_until(condition, what):
    deadline = time.monotonic() + 30
    while True:
        try:
            if condition():
                return
        except OSError:
            pass  # it does not listen yet
        if time.monotonic() > deadline:
            sys.exit(f"never: {what}")
        time.sleep(0.1)


def free_port():
    with http.server.HTTPServer(("127.0.0.1", 0), Service) as server:
        return server.server_port


def main():
    service = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Service)
    threading.Thread(target=service.serve_forever, daemon=True).start()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        digest = hashlib.sha256(TOKEN.encode()).hexdigest()
        (folder / "tokens").write_text(json.dumps(
            {"name": "test", "sha256": digest, "read": True, "announce": "/"}) + "\n")
        registry = subprocess.Popen([sys.argv[1], "--port", "0", "--tokens", folder / "tokens"],
                                    stdout=subprocess.PIPE, text=True)
        at = registry.stdout.readline().split()[-1]
        (folder / "prometheus.yml").write_text(f"""
global: {{scrape_interval: 1s, scrape_timeout: 1s}}
scrape_configs:
  - job_name: services
    http_sd_configs:
      - url: {at}/-/prometheus
        refresh_interval: 1s
        authorization: {{type: Bearer, credentials: {TOKEN}}}
    relabel_configs:
      - {{source_labels: [__meta_orvx_name], target_label: service}}
      - {{source_labels: [__meta_orvx_versions], regex: '.*,2\\.0,.*', target_label: newest, replacement: 'yes'}}
""")
        port = free_port()
        prometheus = subprocess.Popen(
            ["prometheus", f"--config.file={folder}/prometheus.yml", f"--storage.tsdb.path={folder}/data",
             f"--web.listen-address=127.0.0.1:{port}"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        at_prometheus = f"http://127.0.0.1:{port}"
        try:
            for path, body in {
                    "/lamp": {"name": "lamp", "host": "127.0.0.1", "port": service.server_port,
                              "versions": ["1.0", "2.0"]},
                    "/nowhere": {"name": "nowhere"},
                    "/strange": {"name": "strange", "host": "a b/\u202e", "port": 1}}.items():
                answer = ask(at + path, "PUT", json.dumps(body).encode())
                if path == "/lamp":
                    location = answer.headers["Location"]
            wait_until(lambda: query(at_prometheus, 'lamps_lit{service="lamp",newest="yes"}'), "scraped")
            targets = json.load(OPENER.open(f"{at_prometheus}/api/v1/targets", timeout=10))["data"]["activeTargets"]
            if [target["labels"]["service"] for target in targets] != ["lamp"]:
                sys.exit(f"other targets: {targets}")
            ask(at + location, "DELETE")
            wait_until(lambda: not query(at_prometheus, "lamps_lit"), "forgotten")
        finally:
            for process in prometheus, registry:
                process.terminate()
                process.wait(timeout=30)


main()
