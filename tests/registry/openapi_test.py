#!/usr/bin/python3
"""Compares the answers of a registry with docs/openapi.yaml: openapi_test.py ORVX_REGISTRY OPENAPI_YAML.

Every operation is asked for, and every documented status is provoked but those of CANNOT_BE_PROVOKED. A status, a
header or a field that is not documented is an error, as is a status that no answer had. The document itself is
checked as far as it is used: references, schemas, and the keys of its objects.
"""

import collections
import hashlib
import http.client
import json
import pathlib
import re
import resource
import subprocess
import sys
import tempfile
import uuid

import jsonschema
import yaml

# Only a registry with --etcd gives these answers.
CANNOT_BE_PROVOKED = {"503"}
# Headers of every answer, which belong to no interface.
ORDINARY = {"content-length", "connection", "transfer-encoding"}
LONG_HEADER = {"X-Long": "x" * 9000}
LAMP = {"name": "lamp", "uri": "/lamp", "host": "10.0.0.5", "port": 80, "versions": ["1.0"],
        "serviceCategories": ["light"]}

faults = []


def fail(text):
    faults.append(text)


class Document:
    """The document, with what of it was seen in answers."""

    METHODS = {"get", "put", "head", "delete"}
    KEYS = {
        "document": {"openapi", "info", "servers", "security", "paths", "components"},
        "path": METHODS | {"parameters", "description"},
        "operation": {"operationId", "summary", "parameters", "requestBody", "responses", "security"},
        "response": {"description", "headers", "content"},
    }

    def __init__(self, path):
        self.root = yaml.safe_load(path.read_text(encoding="utf-8"))
        self.seen = set()
        self.check()

    def resolve(self, part):
        while isinstance(part, dict) and "$ref" in part:
            found = self.root
            for step in part["$ref"].removeprefix("#/").split("/"):
                found = found[step]
            part = found
        return part

    def operations(self):
        """(path, method, operation) of each."""
        for path, item in self.root["paths"].items():
            for method in sorted(self.METHODS & item.keys()):
                yield path, method, item[method]

    def check(self):
        self.check_keys("document", self.root)
        if self.root["openapi"] != "3.1.0":
            fail("the document is not of OpenAPI 3.1.0")
        names = collections.Counter(operation["operationId"] for _, _, operation in self.operations())
        for name, count in names.items():
            if count > 1:
                fail(f"two operations are {name}")
        for path, item in self.root["paths"].items():
            self.check_keys("path", item)
            declared = {self.resolve(parameter)["name"] for parameter in item.get("parameters", [])}
            if not set(re.findall("{(.*?)}", path)) <= declared:
                fail(f"{path}: a parameter is not declared")
        for path, method, operation in self.operations():
            self.check_keys("operation", operation)
            for response in operation["responses"].values():
                response = self.resolve(response)
                self.check_keys("response", response)
                if "description" not in response:
                    fail(f"{method} {path}: a response has no description")
        for schema in self.root["components"]["schemas"].values():
            jsonschema.Draft202012Validator.check_schema(schema)
        text = json.dumps(self.root)
        for key in re.findall(r'"([^"]* [^"]*)":', text):
            fail(f"{key} is no key: quote the text that it is a part of")
        for kind in ("parameters", "headers", "responses", "schemas"):
            for name in self.root["components"][kind]:
                if f'"#/components/{kind}/{name}"' not in text:
                    fail(f"nothing refers to {kind}/{name}")
        for reference in set(re.findall(r'"\$ref": "(.*?)"', text)):
            self.resolve({"$ref": reference})

    def check_keys(self, kind, part):
        for key in part.keys() - self.KEYS[kind]:
            fail(f"a {kind} has the key {key}")

    def validate(self, where, schema, value):
        validator = jsonschema.Draft202012Validator(
            {**schema, "components": self.root["components"]})
        for error in validator.iter_errors(value):
            fail(f"{where}: {error.json_path}: {error.message}")

    def compare(self, method, path, response, body):
        """An answer with the operation that it answers."""
        where = f"{method} {path} {response.status}"
        documented = self.root["paths"][path][method.lower()]["responses"].get(str(response.status))
        if documented is None:
            fail(f"{where}: the status is not documented: {body[:200]}")
            return
        self.seen.add((path, method.lower(), str(response.status)))
        documented = self.resolve(documented)
        self.compare_headers(where, documented.get("headers", {}), response)
        kind = response.headers.get_content_type()
        content = documented.get("content", {})
        if method == "HEAD":
            if body:
                fail(f"{where}: there is a body")
        elif kind not in content:
            fail(f"{where}: {kind} is not documented")
        elif kind == "application/json":
            self.validate(where, content[kind]["schema"], json.loads(body))

    def compare_headers(self, where, documented, response):
        names = {name.lower() for name in response.headers} - ORDINARY - {"content-type"}
        for name in names - {name.lower() for name in documented}:
            fail(f"{where}: the header {name} is not documented")
        for name, header in documented.items():
            header = self.resolve(header)
            value = response.headers.get(name)
            if value is not None:
                self.validate(f"{where}: {name}", header["schema"], value)
            elif header.get("required"):
                fail(f"{where}: the header {name} is missing")

    def compare_events(self, lines):
        """Events of the stream, up to the first that removes. Returns the names of all."""
        events = self.resolve(self.root["paths"]["/-/watch"]["get"]["responses"]["200"])
        schemas = events["content"]["text/event-stream"]["x-events"]
        names = set()
        name = None
        for line in lines:
            field, _, value = line.decode().rstrip("\n").partition(": ")
            if field == "event":
                name = value
                if name not in schemas:
                    fail(f"the event {name} is not documented")
            elif field == "data" and name in schemas:
                names.add(name)
                self.validate(f"event {name}", schemas[name], json.loads(value))
            if field == "data" and name == "removed":
                break
        return names, set(schemas)

    def report_unseen(self):
        for path, method, operation in self.operations():
            for status in operation["responses"]:
                if (path, method, status) not in self.seen and status not in CANNOT_BE_PROVOKED:
                    fail(f"{method} {path} {status}: no answer had this status")


class Registry:
    """One that runs at a port of its own."""

    def __init__(self, document, program, *options, before=None):
        self.document = document
        self.process = subprocess.Popen([program, "--port", "0", *options], preexec_fn=before,
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.port = int(self.process.stdout.readline().rsplit(":", 1)[1])

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()

    def open(self, method, target, body=None, headers=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
        if isinstance(body, (dict, list)):
            body = json.dumps(body)
        connection.request(method, target, body, headers or {})
        return connection, connection.getresponse()

    def ask(self, method, target, path=None, body=None, headers=None):
        """Compares the answer with the operation of that path, the target by default, and returns it."""
        connection, response = self.open(method, target, body, headers)
        endless = response.headers.get_content_type() == "text/event-stream"
        content = b"" if endless else response.read()
        self.document.compare(method, path or target, response, content)
        connection.close()
        return response, content

    def put(self, target, service, headers=None):
        response, _ = self.ask("PUT", target, "/{path}", service, headers)
        return response.headers.get("Location")


def ask_every_operation(registry, headers, body=None):
    """Once, with a target that is there or not. Without `body`, only operations that have a body get one."""
    for path, method, operation in registry.document.operations():
        sent = body or ("{}" if "requestBody" in operation else None)
        registry.ask(method.upper(), path.replace("{path}", "none"), path, sent, headers)


def ask_an_open_registry(registry):
    location = registry.put("/lamp", LAMP)
    registry.put("/lamp", {**LAMP, "host": "10.0.0.6"})
    registry.put("/odd", {"any": {"more": [1, None]}})
    registry.ask("DELETE", registry.put("/-/metrics", {}), "/{path}")
    for method in ("GET", "HEAD"):
        registry.ask(method, location, "/{path}")
    registry.ask("GET", "/")
    registry.ask("GET", "/", headers={"Accept": "text/html"})
    _, page = registry.ask("GET", "/?limit=1&name=lamp&category=light&version=1.0", "/")
    if "next" not in json.loads(page):
        fail("a page that is full has no next one")
    registry.ask("GET", f"/?after={json.loads(page).get('next')}", "/")
    registry.ask("GET", "/?after=0-1", "/")
    registry.ask("GET", "/?unknown=1", "/")
    registry.ask("GET", "/-/prometheus")
    registry.ask("GET", "/-/prometheus?limit=1", "/-/prometheus")
    registry.ask("GET", "/-/watch?checks=no", "/-/watch")
    registry.ask("GET", "/-/watch?checks=maybe", "/-/watch")
    registry.ask("PUT", "/lamp", "/{path}", body="no JSON")
    ask_every_operation(registry, {})
    ask_every_operation(registry, {}, "x" * 30000)
    ask_every_operation(registry, LONG_HEADER)
    follow(registry)
    registry.ask("DELETE", location, "/{path}")
    registry.ask("PUT", "/-/faults", body="nonsense")
    registry.ask("PUT", "/-/faults", body="".join(json.dumps(fault) + "\n" for fault in (
        {"fault": "delay", "milliseconds": 5, "method": "PUT", "skip": 3, "requests": 2, "seconds": 9},
        {"fault": "status", "status": 503, "after": 600}, {"fault": "reset", "after": 600},
        {"fault": "forget", "uuid": str(uuid.uuid4()), "after": 600})))
    registry.ask("DELETE", "/-/faults")
    connection, response = registry.open("POST", "/")
    registry.document.validate("POST", {"$ref": "#/components/schemas/Error"}, json.loads(response.read()))
    if response.status != 405 or "Allow" not in response.headers:
        fail("POST is not answered with 405 and Allow")
    connection.close()


def follow(registry):
    """Every event of the stream, with every field."""
    moved = registry.put("/moved", {**LAMP, "host": "10.0.0.1"})
    registry.put("/moved", LAMP)
    registry.put("/long", {**LAMP, "text": "x" * 7000})
    connection, response = registry.open("GET", "/-/watch")
    registry.ask("HEAD", moved, "/{path}")
    registry.ask("GET", "/-/metrics")
    names, _ = registry.document.compare_events(until(response, b"event: checked"))
    registry.ask("DELETE", moved, "/{path}")
    more, documented = registry.document.compare_events(response)
    for name in documented - names - more:
        fail(f"the stream has no event {name}")
    connection.close()


def until(lines, last):
    """The lines up to the data of that event."""
    found = False
    for line in lines:
        yield line
        if found and line.startswith(b"data"):
            return
        found |= line.startswith(last)


def token(name, **rights):
    return json.dumps({"name": name, "sha256": hashlib.sha256(name.encode()).hexdigest(), **rights}) + "\n"


def main(program, path):
    document = Document(pathlib.Path(path))
    with tempfile.TemporaryDirectory() as folder:
        tokens = pathlib.Path(folder, "tokens")
        tokens.write_text(token("none") + token("one", announce="/one", entries=1), encoding="ascii")
        with Registry(document, program, "--admin", "--max-body", "20000") as registry:
            ask_an_open_registry(registry)
        with Registry(document, program, "--admin", "--tokens", str(tokens)) as registry:
            for body in (None, "{}"):
                ask_every_operation(registry, {}, body)
                ask_every_operation(registry, {"Authorization": "Bearer none"}, body)
            registry.put("/one/1", {}, {"Authorization": "Bearer one"})
            registry.put("/one/2", {}, {"Authorization": "Bearer one"})
        with Registry(document, program, "--admin", "--rate", "1") as registry:
            for _ in range(10):
                registry.ask("HEAD", "/")
            ask_every_operation(registry, {}, "{}")
        limit = (1_000_000, 1_000_000)
        with Registry(document, program, "--admin", "--store", str(pathlib.Path(folder, "entries")),
                      before=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, limit)) as registry:
            forget(registry, fill(registry))
    document.report_unseen()
    if faults:
        sys.exit("\n".join(sorted(set(faults))))


def fill(registry):
    """Puts until the store is full, and withdraws. Returns the location of an entry that cannot be withdrawn."""
    locations = []
    for i in range(100):
        location = registry.put(f"/{i}", {"text": "x" * 100_000})
        if location is None:
            break
        locations.append(location)
    for location in locations:
        if registry.ask("DELETE", location, "/{path}")[0].status == 500:
            return location
    return sys.exit("every entry could be withdrawn although the store is full")


def forget(registry, location):
    """Every reading operation that a due `forget` makes fail, because the store cannot be written."""
    fault = {"fault": "forget", "uuid": location[1:]}
    for path, method, operation in registry.document.operations():
        if method not in ("get", "head") or "500" not in operation["responses"]:
            continue
        # At the resources of the registry only a fault without a method is carried out, the first time by the PUT.
        more = {"requests": 2} if path.startswith("/-/") else {"method": method.upper()}
        registry.ask("PUT", "/-/faults", body={**fault, **more})
        if registry.ask(method.upper(), path.replace("{path}", "none"), path)[0].status != 500:
            fail(f"{method} {path}: a fault that cannot be written is not answered with 500")


if __name__ == "__main__":
    main(*sys.argv[1:])
