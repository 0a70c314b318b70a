"""A registry at a Unix domain socket. usage: unix_registry.py SOCKET

Prints "up"; then each request: "PUT /echo", with the host that was asked for.
"""

import http.server
import socketserver
import sys


class Handler(http.server.BaseHTTPRequestHandler):
    def answer(self):
        self.rfile.read(int(self.headers.get("Content-Length", 0)))
        print(self.command, self.path, "of", self.headers["Host"], flush=True)
        self.send_response(201 if self.command == "PUT" else 200)
        self.send_header("Location", "/1")
        self.send_header("Content-Length", "0")
        self.end_headers()

    do_PUT = do_HEAD = do_DELETE = answer

    def log_message(self, *_):
        pass


with socketserver.ThreadingUnixStreamServer(sys.argv[1], Handler) as server:
    print("up", flush=True)
    server.serve_forever()
