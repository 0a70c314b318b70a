"""A registry over TLS, with a fault. usage: tls_registry.py FOLDER FAULT

Makes an authority (FOLDER/authority.pem), certificates of it, and one for a client
(FOLDER/client.pem, FOLDER/client.key). Then prints its port and serves one connection after
another, one request on each, until stdin ends. FAULT is "None" or a key of one of the tables below.
SIGUSR1 takes the fault away and SIGUSR2 brings it back, once the connection that is served has
ended, which "turned N." confirms; with each the entries are forgotten. Every request that comes,
over TLS or in plain text, is printed: "saw PUT /lamp."
"""

import os
import select
import signal
import socket
import ssl
import struct
import subprocess
import sys
import threading

folder, fault = sys.argv[1:]

PAST = ("20010101000000Z", "20020101000000Z")
PRESENT = ("20010101000000Z", "20990101000000Z")
FUTURE = ("20980101000000Z", "20990101000000Z")
HERE = "subjectAltName=IP:127.0.0.1"
ELSEWHERE = "subjectAltName=DNS:elsewhere"

# Subject, extension, dates and issuer.
CERTIFICATES = {
    "None": ("server", HERE, PRESENT, "authority"),
    "Expired": ("server", HERE, PAST, "authority"),
    "NotYetValid": ("server", HERE, FUTURE, "authority"),
    "OfAnotherName": ("server", ELSEWHERE, PRESENT, "authority"),
    "OfAnotherAddress": ("server", "subjectAltName=IP:127.0.0.2", PRESENT, "authority"),
    "OfThisNameInItsSubjectOnly": ("127.0.0.1", ELSEWHERE, PRESENT, "authority"),
    "OfAnUnknownAuthority": ("server", HERE, PRESENT, "stranger"),
    "SelfSigned": ("server", HERE, PRESENT, None),
    "ForClientsOnly": ("server", f"extendedKeyUsage=clientAuth\n{HERE}", PRESENT, "authority"),
}
# What is set on the server's context, with the certificate that is good.
OPTIONS = {
    "OldProtocol": {"maximum_version": ssl.TLSVersion.TLSv1_1,
                    "minimum_version": ssl.TLSVersion.TLSv1_1},
    "SecondNewestProtocol": {"maximum_version": ssl.TLSVersion.TLSv1_2},
    "WantsACertificate": {"verify_mode": ssl.CERT_REQUIRED},
    "WantsACertificateInTheHandshake": {"verify_mode": ssl.CERT_REQUIRED,
                                        "maximum_version": ssl.TLSVersion.TLSv1_2},
}
KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True)


def make_authority(name):
    # Both have the same name: only their keys tell them apart.
    openssl("req", "-x509", *KEY, "-keyout", f"{name}.key", "-out", f"{name}.pem", "-days", "2",
            "-subj", "/CN=authority")


def make_certificate(name, subject, extension, dates, issuer):
    with open(f"{folder}/{name}.ext", "w") as file:
        file.write(extension)
    openssl("req", *KEY, "-keyout", f"{name}.key", "-out", f"{name}.csr", "-subj", f"/CN={subject}")
    signer = ["-cert", f"{issuer}.pem", "-keyfile", f"{issuer}.key"] if issuer else [
        "-selfsign", "-keyfile", f"{name}.key"]
    openssl("ca", "-batch", "-notext", "-config", "ca.conf", *signer, "-in", f"{name}.csr",
            "-out", f"{name}.pem", "-startdate", dates[0], "-enddate", dates[1],
            "-extfile", f"{name}.ext")


def make_context(name):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    certificate = name if name in CERTIFICATES else "None"
    context.load_cert_chain(f"{folder}/{certificate}.pem", f"{folder}/{certificate}.key")
    context.load_verify_locations(f"{folder}/authority.pem")
    context.set_ciphers("DEFAULT@SECLEVEL=0")  # without which the old protocol is not spoken
    for option, value in OPTIONS.get(name, {}).items():
        setattr(context, option, value)
    return context


def flight(hello):
    """What a good server answers to the client's first bytes."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    incoming.write(hello)
    try:
        contexts["None"].wrap_bio(incoming, outgoing, server_side=True).do_handshake()
    except ssl.SSLWantReadError:
        pass
    return outgoing.read()


def first_record(records):
    return records[:5 + int.from_bytes(records[3:5], "big")]


def hold(connection):
    held.append(connection.dup())


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def cut_a_little_later_each_time(connection, hello):
    global cut
    records = flight(hello)
    cut += 9
    if cut < len(records):
        connection.sendall(records[:cut])
    else:
        turn("None")


# What is done instead of a handshake, before the connection is closed.
INSTEAD = {
    "Silent": lambda connection, hello: hold(connection),
    "StopsAfterItsHello": lambda connection, hello: (
        connection.sendall(first_record(flight(hello))), hold(connection)),
    "StopsBeforeItsLastByte": lambda connection, hello: (
        connection.sendall(flight(hello)[:-1]), hold(connection)),
    "EndsAtOnce": lambda connection, hello: None,
    "EndsAfterItsHello": lambda connection, hello: connection.sendall(first_record(flight(hello))),
    "BreaksAtOnce": lambda connection, hello: reset(connection),
    "Refuses": lambda connection, hello: connection.sendall(bytes.fromhex("15030300020228")),
    "TalksGarbage": lambda connection, hello: connection.sendall(b"\x16\x03\x03" + b"x" * 9999),
    "SpeaksPlainHttp": lambda connection, hello: connection.sendall(
        b"HTTP/1.1 201 Created\r\nLocation: /plain\r\nContent-Length: 0\r\n\r\n"),
    "CutsALittleLaterEachTime": cut_a_little_later_each_time,
}


def answer(request, path):
    if request == "PUT":
        entries.add(path)
        if path == "/cut":
            return "HTTP/1.1 201 Created\r\nLocation: /cut\r\n"
    found = path in entries or request == "DELETE"
    status = "201 Created" if request == "PUT" else "200 OK" if found else "404 Not Found"
    return (f"HTTP/1.1 {status}\r\nLocation: {path}\r\nContent-Length: 0\r\n"
            "Connection: close\r\n\r\n")


def receive(connection):
    data = connection.recv(65536)
    if not data:
        raise OSError("ended")
    return data


def read_request(connection):
    head = b""
    while b"\r\n\r\n" not in head:
        head += receive(connection)
    head, _, body = head.partition(b"\r\n\r\n")
    length = int(dict(line.split(b": ", 1) for line in head.split(b"\r\n")[1:])
                 .get(b"Content-Length", 0))
    while len(body) < length:
        body += receive(connection)
    return head.decode().split(" ")[:2]


def see(text):
    print(f"saw {text}.", flush=True)


def serve(connection):
    connection.settimeout(10)
    first = connection.recv(65536, socket.MSG_PEEK)
    for method in (b"PUT", b"HEAD", b"DELETE"):
        if first.startswith(method + b" "):  # a greeting of TLS is random bytes
            see(f"{method.decode()} in plain text")
    if current in INSTEAD:
        INSTEAD[current](connection, connection.recv(65536))
        return
    with contexts[current].wrap_socket(connection, server_side=True) as secure:
        request, path = read_request(secure)
        see(f"{request} {path}")
        secure.sendall(answer(request, path).encode())


def ask_to_turn(to):
    """Handles a signal. Prints nothing: the signal may interrupt print()."""
    global wanted
    wanted = to


def await_connection():
    """Turns meanwhile. A signal makes `awoken` readable, so one that comes before select() counts."""
    while True:
        ready = select.select([listener, awoken], [], [])[0]
        if awoken in ready:
            awoken.recv(4096)
            turn_if_asked()
        if listener in ready:
            return


def turn_if_asked():
    global wanted
    if wanted:
        turn(wanted)
    wanted = None


def turn(to):
    global current
    current = to
    entries.clear()
    turns.append(to)
    print(f"turned {len(turns)}.", flush=True)


with open(f"{folder}/ca.conf", "w") as conf:
    conf.write("[ca]\ndefault_ca=here\n[here]\ndatabase=index\nrand_serial=yes\nnew_certs_dir=.\n"
               "default_md=sha256\nunique_subject=no\npolicy=any\n[any]\ncommonName=supplied\n")
open(f"{folder}/index", "w").close()
make_authority("authority")
make_authority("stranger")
make_certificate("client", "client", "subjectAltName=DNS:client", PRESENT, "authority")
for name in {"None", fault} & CERTIFICATES.keys():
    make_certificate(name, *CERTIFICATES[name])
contexts = {name: make_context(name) for name in {"None", fault}}
current, entries, turns, held, cut = fault, set(), [], [], 0
wanted = None
signal.signal(signal.SIGUSR1, lambda *_: ask_to_turn("None"))
signal.signal(signal.SIGUSR2, lambda *_: ask_to_turn(fault))
awoken, awake = socket.socketpair()
awake.setblocking(False)
signal.set_wakeup_fd(awake.fileno())
threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
listener = socket.create_server(("127.0.0.1", 0))
print(f"port {listener.getsockname()[1]}.", flush=True)
while True:
    await_connection()
    with listener.accept()[0] as accepted:
        try:
            serve(accepted)
        except OSError as error:
            print(f"failed: {error}", flush=True)
    turn_if_asked()
