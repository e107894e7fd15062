"""What the checks stand on: the broker, the programs and peers of one check, small helpers."""

import json
import os
import shlex
import signal
import socket
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system"))

from kv_programs import CONTROL, SERVICE, Worker, eventually, scan_request  # noqa: E402
from peer import Broker, Peer  # noqa: E402

LOG, EVENTS = "kv-av-log", "kv-av-events-dispatch"
OK = {"ReturnCode": 0}
REFUSED = {"ReturnCode": -1000}
FAILED = {"ReturnCode": -1000, "Error": "Failed to handle request"}
ELF = {"mime": "application/x-executable", "file_type": "ELF 64-bit LSB executable"}
DEFINITIONS = {"open": [], "guarded": [["EXECUTABLE", 1], ["HTML_SCRIPT", 1]]}


class Skipped(Exception):
    pass


class Lab:
    """The broker, and what one check starts: all of it is ended with the check."""

    def __init__(self, options):
        self.options = options
        with open(options.password_file, encoding="utf-8") as file:
            self.password = file.read().strip()
        self.broker = Broker(options.broker, options.user, self.password, options.ca)
        self.port = options.broker.rsplit(":", 1)[1]
        self.ca = options.ca
        self.process = None
        self.folder = None
        self.peers, self.workers = [], []

    # ---- the broker's process, when this program may have it ----

    def start_broker(self, password=None):
        command = self.options.broker_command.replace("{password}", password or self.password)
        self.process = subprocess.Popen(shlex.split(command), start_new_session=True)
        assert eventually(self.listens, 120), "the broker does not listen"

    def listens(self):
        try:
            socket.create_connection(("127.0.0.1", int(self.port)), 1).close()
            return True
        except OSError:
            return False

    def own_broker(self):
        if self.process is None:
            raise Skipped("needs --broker-command")

    def end_broker(self, number=signal.SIGKILL):
        self.process.send_signal(number)
        self.process.wait(60)

    # ---- programs and peers ----

    def peer(self, services=None):
        self.peers.append(Peer(self.broker, services))
        return self.peers[-1]

    def control(self, definitions=None, **services):
        """The control service and both sinks."""
        known = DEFINITIONS if definitions is None else definitions

        def answer(message):
            request = json.loads(message.body[0])
            if request["Command"] != 203:
                return OK
            found = known(request) if callable(known) else known.get(request["realmID"])
            return {"ReturnCode": 0, "Active-content-definition": found} if found is not None \
                else {"ReturnCode": -1}

        return self.peer({CONTROL: answer, LOG: lambda _: OK, EVENTS: lambda _: OK, **services})

    def worker(self, *arguments, ready=True, **members):
        members.setdefault("threads", 8)
        folder = os.path.join(self.folder, "base%d" % len(self.workers))
        self.workers.append(Worker(folder, self, *arguments, **members))
        if ready:
            self.workers[-1].wait_for("Receiver opened for address '%s'" % self.workers[-1].name,
                                      limit=90)
        return self.workers[-1]

    def end(self):
        for worker in self.workers:
            worker.kill()
        for peer in self.peers:
            peer.end()
        self.peers, self.workers = [], []


def scan(**members):
    members.setdefault("realmID", "open")
    return scan_request(**members)


def page(services, length, **members):
    request = scan(mime="text/html", file_type="HTML document", Extension=".html",
                   name="page.html", length=length, Services=services, realmID="guarded",
                   SCANTIMEOUT=20000)
    request.update({"Hostname": "host", "Scan-Servers": "servers", "XML_MODE": "ON",
                    "SVG_MODE": "ON", "EVENT_ID_DELIMITER": ":", **members})
    return request


def same(value, expected, what=""):
    assert value == expected, "%s: %r instead of %r" % (what, value, expected)


def no_errors(worker):
    """No error line, and no connection but the first."""
    same(worker.lines("unexpected error"), [])
    same(worker.lines("Sender reconnected"), [])


def ends(worker, limit=30):
    started = time.monotonic()
    worker.signal()
    same(worker.wait(limit), 0, "exit status")
    return time.monotonic() - started


def load(peer, count, **members):
    return [peer.send(SERVICE, [json.dumps(scan(length=4096, **members)), b"x" * 4096])
            for _ in range(count)]


def answered(peer, ids, limit=120):
    peer.until(lambda: all(i in peer.replies for i in ids), limit)
    missing = [i for i in ids if i not in peer.replies]
    same(len(missing), 0, "unanswered of %d" % len(ids))
    return sum(len(peer.replies[i]) - 1 for i in ids)


def cpu(worker):
    with open("/proc/%d/stat" % worker.pid, encoding="ascii") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
