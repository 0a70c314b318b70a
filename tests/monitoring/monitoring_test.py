#!/usr/bin/env python3
"""The dashboard and the alert rules, compared with the metrics that the programs serve.

usage: monitoring_test.py METRICS_EXAMPLE ORVX_REGISTRY [--promtool]

Every metric and label that the rules or the dashboard name is served by the example or the registry, and every
alert that the pages name is a rule. With --promtool also: what is served follows the conventions, and
the rules and the dashboard's queries can be read, and the alerts fire when they should (alerts_test.yml).
"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import urllib.request

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
RULES = ROOT / "monitoring" / "alerts.yml"
DASHBOARD = ROOT / "monitoring" / "dashboard.json"
# Given by Prometheus itself.
LABELS_OF_A_TARGET = {"job", "instance"}
# The first PUT fails, so that each metric has a sample.
FAULTS = """{"fault":"status","status":503,"method":"PUT","requests":1}\n"""

example, registry = sys.argv[1:3]
failures = []


def check(condition, message):
    if not condition:
        failures.append(message)


def read(url):
    # Proxies of the environment are for elsewhere.
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    return opener.open(urllib.request.Request(url, headers={"Accept": "text/plain"}), timeout=10).read().decode()


def started(*command):
    """The process and the address that its first line ends with."""
    process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, text=True)
    return process, process.stdout.readline().split()[-1]


def served():
    """The text of the example, when each of its metrics has a sample, and that of the registry."""
    with tempfile.NamedTemporaryFile("w", suffix=".faults") as script:
        script.write(FAULTS)
        script.flush()
        server, at = started(registry, "--port", "0", "--script", script.name)
    host, port = at.removeprefix("http://").split(":")
    client, metrics = started(example, host, port, "0")
    try:
        deadline = time.monotonic() + 20
        while True:
            text = read(metrics)
            if all(re.search(rf"^{name}\{{", text, re.M) for name in re.findall(r"^# TYPE (\w+)", text, re.M)):
                return text, read(f"{at}/-/metrics")
            if time.monotonic() > deadline:
                sys.exit(f"a metric without a sample in\n{text}")
            time.sleep(0.05)
    finally:
        client.stdin.close()
        client.wait(timeout=30)
        server.terminate()
        server.wait(timeout=30)


def labels_by_metric(text):
    """The labels of the samples, by the metric's name."""
    labels = {}
    for name, inside in re.findall(r"^(\w+)(?:\{(.*)\})? \S+$", text, re.M):
        labels.setdefault(name, set()).update(re.findall(r'(\w+)="', inside))
    return labels


def queries_of_the_dashboard():
    dashboard = json.loads(DASHBOARD.read_text())
    queries = [target["expr"] for panel in dashboard["panels"] for target in panel.get("targets", [])]
    return queries, [variable["query"]["query"] for variable in dashboard["templating"]["list"]
                     if variable["type"] == "query"]


def promtool(*arguments, text=None):
    result = subprocess.run(["promtool", *arguments], input=text, capture_output=True, text=True)
    check(result.returncode == 0 and not (text and result.stderr),
          f"promtool {' '.join(arguments)}\n{result.stdout}{result.stderr}")


def served_by_a_replica():
    """The text of a replica whose etcd is away, which has metrics of its own."""
    replica, at = started(registry, "--port", "0", "--etcd", "http://127.0.0.1:1")
    try:
        return read(f"{at}/-/metrics")
    finally:
        replica.terminate()
        replica.wait(timeout=30)


texts = *served(), served_by_a_replica()
labels = {}
for text in texts:
    labels.update(labels_by_metric(text))

queries, variables = queries_of_the_dashboard()
for where, text in [(RULES.name, RULES.read_text()), *((DASHBOARD.name, query) for query in queries + variables)]:
    for name, inside in re.findall(r"\b(orvx_\w+)(?:\{([^}]*)\})?", text):
        check(name in labels, f"{where}: nobody serves {name}")
        for label in re.findall(r"(\w+)(?:=~|!=|!~|=)", inside):
            check(label in labels.get(name, set()) | LABELS_OF_A_TARGET, f"{where}: {name} has no label {label}")

    for state in re.findall(r'\bstate!?="(\w+)"', text):
        check(f'state="{state}"' in texts[0], f"{where}: no state {state}")

alerts = set(re.findall(r"- alert: (\w+)", RULES.read_text()))
tested = set(re.findall(r"alertname: (\w+)", (HERE / "alerts_test.yml").read_text()))
check(alerts == tested, f"alerts without a test, or the other way: {alerts ^ tested}")
for page in [ROOT / "docs" / "troubleshooting.md", ROOT / "monitoring" / "README.md"]:
    for name in re.findall(r"`(Orvx[A-Z]\w*)`", page.read_text()):
        check(name in alerts, f"{page.name}: no alert {name}")

if "--promtool" in sys.argv:
    for text in texts:
        promtool("check", "metrics", text=text)
    promtool("check", "rules", str(RULES))
    promtool("test", "rules", str(HERE / "alerts_test.yml"))
    # As rules, with values for Grafana's variables.
    rules = [{"record": f"query:{number}", "expr": re.sub(r"\$__rate_interval", "5m", query).replace("$", "")}
             for number, query in enumerate(queries)]
    with tempfile.NamedTemporaryFile("w", suffix=".yml") as file:
        json.dump({"groups": [{"name": "dashboard", "rules": rules}]}, file)
        file.flush()
        promtool("check", "rules", file.name)

sys.exit("\n".join(failures) or 0)
