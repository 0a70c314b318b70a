"""A command to be run by orvx-announce: tells which signals it gets.

usage: command.py [CODE] [URL]

Prints "up"; then for each signal "got NAME", and with URL how many entries the registry there has.
SIGTERM ends it with CODE; when that is "never", only SIGKILL does. It ends with its parent at the latest.
"""

import ctypes
import json
import os
import signal
import sys
import urllib.request

PR_SET_PDEATHSIG = 1
ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, int(signal.SIGKILL), 0, 0, 0)

code, url = (sys.argv[1:] + ["0", ""][len(sys.argv) - 1:])[:2]


def entries():
    with urllib.request.urlopen(url + "/") as answer:
        return len(json.load(answer)["entries"])


def say(text):
    os.write(1, (text + "\n").encode())


signals = [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT, signal.SIGUSR1, signal.SIGUSR2]
signal.pthread_sigmask(signal.SIG_BLOCK, signals)
say("up")
while True:
    number = signal.sigwait(signals)
    say("got " + signal.Signals(number).name + (f", entries: {entries()}" if url else ""))
    if number == signal.SIGTERM and code != "never":
        sys.exit(int(code))
