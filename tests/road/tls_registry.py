"""A registry over TLS that accepts everything. usage: tls_registry.py FOLDER HOST [client-certificate]

Makes an authority (FOLDER/authority.pem), a certificate of it for HOST, and one for a client
(FOLDER/client.pem, FOLDER/client.key), then prints the port and serves until stdin ends.
"""

import http.server
import os
import ssl
import subprocess
import sys
import threading

folder, host, *more = sys.argv[1:]


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True)


def certificate(name, subject):
    with open(f"{folder}/{name}.ext", "w") as extensions:
        extensions.write(f"subjectAltName={subject}\n")
    openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
            "-keyout", f"{name}.key", "-out", f"{name}.csr", "-subj", f"/CN={name}")
    openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "authority.pem", "-CAkey", "authority.key",
            "-CAcreateserial", "-days", "2", "-extfile", f"{name}.ext", "-out", f"{name}.pem")


class Registry(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_PUT(self):
        self.rfile.read(int(self.headers["Content-Length"]))
        self.send_response(201)
        self.send_header("Location", "/over-tls")
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


class Server(http.server.ThreadingHTTPServer):
    def handle_error(self, *_):
        pass  # handshakes that fail are what the test is about


openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
        "-keyout", "authority.key", "-out", "authority.pem", "-days", "2", "-subj", "/CN=authority")
certificate("server", host)
certificate("client", "DNS:client")

context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(f"{folder}/server.pem", f"{folder}/server.key")
if more == ["client-certificate"]:
    context.verify_mode = ssl.CERT_REQUIRED
    context.load_verify_locations(f"{folder}/authority.pem")
server = Server(("127.0.0.1", 0), Registry)
server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
threading.Thread(target=server.serve_forever, daemon=True).start()
print(f"port {server.server_port}.", flush=True)
sys.stdin.read()
os._exit(0)
