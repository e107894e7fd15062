"""The programs under test as objects: a suite, a worker, an AMQP client, a control service."""

import json
import os
import queue
import re
import signal
import socket
import subprocess
import threading
import time
import uuid

from proton import Message, SSLDomain, Timeout
from proton.utils import BlockingConnection

WORKER = os.environ.get("KV_WORKER", "kv-av-activecontent")
SUITE = os.environ.get("KV_SUITE", "kv-av-suite")
SERVICE = "kv-av-activecontent"
CONTROL = "kv-av-worker-control"


def eventually(condition, limit=20.0, step=0.02):
    """Waits until the condition is true; its last value."""
    deadline = time.monotonic() + limit
    while True:
        value = condition()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(step)


def read_text(path):
    try:
        with open(path, "rb") as file:
            return file.read().decode("utf-8", "replace")
    except FileNotFoundError:
        return ""


class Suite:
    """A kv-av-suite on a free port of its own."""

    def __init__(self, folder, *arguments, definitions=None):
        self.folder = str(folder)
        self.arguments = list(arguments)
        if definitions is not None:
            self.definitions_file = self.folder + "-definitions.json"
            self.define(definitions)
            self.arguments += ["--definitions", self.definitions_file]
        self.port = "0"
        self.process = None
        self.start()

    def define(self, definitions):
        with open(self.definitions_file + ".new", "w", encoding="utf-8") as file:
            json.dump(definitions, file)
        os.replace(self.definitions_file + ".new", self.definitions_file)

    def start(self):
        listen = os.path.join(self.folder, "listen")
        if os.path.exists(listen):
            os.unlink(listen)
        self.output = self.folder + ".out"
        with open(self.output, "ab") as out, open(self.folder + ".err", "ab") as err:
            self.process = subprocess.Popen(
                [SUITE, "run", "--dir", self.folder, "--listen", "127.0.0.1:" + self.port,
                 *self.arguments], stdout=out, stderr=err)
        assert eventually(lambda: os.path.exists(listen)), read_text(self.folder + ".err")
        self.port = read_text(listen).strip().rsplit(":", 1)[1]

    def end(self, number=signal.SIGTERM):
        if self.process is None:
            return 0
        self.process.send_signal(signal.SIGCONT)
        self.process.send_signal(number)
        rc = self.process.wait(20)
        self.process = None
        return rc

    @property
    def password(self):
        return read_text(os.path.join(self.folder, "password")).strip()

    @property
    def ca(self):
        return os.path.join(self.folder, "ca.pem")

    def lines(self, sink):
        """Messages of one sink so far: "control", "event" or "log"."""
        found = []
        for line in read_text(self.output).splitlines():
            if line.startswith("{"):
                record = json.loads(line)
                if record.get("sink") == sink:
                    found.append(record["message"])
        return found

    def command(self, *arguments):
        return subprocess.run([SUITE, *arguments[:1], "--dir", self.folder, *arguments[1:]],
                              capture_output=True, text=True, timeout=60, check=False)


class Worker:
    """A worker process with its base folder and its trace."""

    def __init__(self, folder, suite, *arguments, level=5, console=True, trace=True, broker=None,
                 password=None, ca=None, threads=4):
        self.base = str(folder)
        os.makedirs(self.base, exist_ok=True)
        self.trace = os.path.join(self.base, "trace.log")
        self.arguments = [
            "--basedir", self.base,
            "--broker", broker or "amqps://localhost:" + suite.port,
            "--broker-user", "kv-av",
            "--broker-password", password or suite.password,
            "--broker-cert", ca or suite.ca,
            "--worker-threads", str(threads), "--tracelevel", str(level)]
        if console:
            self.arguments.append("--console-mode")
        if trace:
            self.arguments += ["--tracefile", self.trace]
        self.arguments += arguments
        self.errors = os.path.join(self.base, "stderr")
        with open(self.errors, "ab") as err:
            self.process = subprocess.Popen([WORKER, *self.arguments], stdin=subprocess.DEVNULL,
                                            stdout=subprocess.DEVNULL, stderr=err)
        self.pid = self.process.pid

    @property
    def name(self):
        return "%s_%s_%d" % (SERVICE, socket.gethostname(), self.pid)

    def text(self):
        return read_text(self.trace)

    def lines(self, part):
        return [line for line in self.text().splitlines() if part in line]

    def wait_for(self, part, count=1, limit=30.0):
        found = eventually(lambda: len(self.lines(part)) >= count, limit)
        assert found, "no %r in:\n%s\n%s" % (part, self.text()[-4000:], read_text(self.errors))
        return self

    def wait_ready(self):
        """Serving requests on both addresses."""
        return self.wait_for("Receiver opened for address '%s'" % self.name)

    def signal(self, number=signal.SIGTERM):
        self.process.send_signal(number)

    def wait(self, limit=30.0):
        return self.process.wait(limit)

    def end(self):
        """Ends it as an operator does; its exit status."""
        if self.process.poll() is None:
            self.signal()
        rc = self.wait()
        self.forget()
        return rc

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.forget()

    def forget(self):
        for kind in ("sem", "own"):
            lock = "/dev/shm/%s.kv_log_%s" % (kind, re.sub("/", "_", self.trace))
            if os.path.exists(lock):
                os.unlink(lock)


def connect(suite, password=None):
    domain = SSLDomain(SSLDomain.MODE_CLIENT)
    domain.set_trusted_ca_db(suite.ca)
    domain.set_peer_authentication(SSLDomain.VERIFY_PEER_NAME)
    return BlockingConnection("amqps://localhost:" + suite.port, timeout=20, ssl_domain=domain,
                              user="kv-av", password=password or suite.password,
                              allowed_mechs="PLAIN")


class Client:
    """Sends requests and waits for their replies. One thread."""

    def __init__(self, suite):
        self.connection = connect(suite)
        self.reply_to = "kv-replies-test-" + uuid.uuid4().hex
        self.receiver = self.connection.create_receiver(self.reply_to, credit=100)
        self.sender = self.connection.create_sender(None)
        self.replies = {}

    def send(self, address, body, ttl=None, reply_to=True):
        """Sends a body; the request's id."""
        message = Message(id=uuid.uuid4(), address=address, body=body)
        if reply_to:
            message.reply_to = self.reply_to
        if ttl is not None:
            message.ttl = ttl
        self.sender.send(message, timeout=20)
        return message.id

    def wait(self, request_id, limit=20.0):
        """The reply's JSON text, or None when there is none in time."""
        deadline = time.monotonic() + limit
        while request_id not in self.replies:
            left = deadline - time.monotonic()
            if left <= 0:
                return None
            try:
                message = self.receiver.receive(timeout=left)
            except Timeout:
                return None
            self.receiver.accept()
            self.replies[message.correlation_id] = message
        return self.replies.pop(request_id).body[0]

    def request_text(self, address, text, data=None, limit=20.0):
        body = [text] if data is None else [text, data]
        return self.wait(self.send(address, body), limit)

    def request(self, address, value, data=None, limit=20.0):
        text = self.request_text(address, json.dumps(value), data, limit)
        return None if text is None else json.loads(text)

    def close(self):
        self.connection.close()


class ControlService(threading.Thread):
    """A control service of the test's own (for a suite started with --no-control)."""

    def __init__(self, suite, answer=None, address=CONTROL):
        super().__init__(daemon=True)
        self.answer = answer or (lambda request: {"ReturnCode": 0})
        self.received = []  # (seconds, request text)
        self.ending = False
        self.failures = queue.Queue()
        self.connection = connect(suite)
        self.receiver = self.connection.create_receiver(address, credit=100)
        self.sender = self.connection.create_sender(None)
        self.start()

    def run(self):
        try:
            while not self.ending:
                try:
                    message = self.receiver.receive(timeout=0.1)
                except Timeout:
                    continue
                self.receiver.accept()
                self.serve(message)
            self.connection.close()
        except Exception as error:  # shown by the test that waits for something
            self.failures.put(error)

    def serve(self, message):
        text = message.body[0]
        self.received.append((time.monotonic(), text))
        reply = self.answer(json.loads(text))
        if reply is not None:
            text = reply if isinstance(reply, str) else json.dumps(reply)
            self.sender.send(Message(id=uuid.uuid4(), address=message.reply_to,
                                     correlation_id=message.id, body=[text]))

    def texts(self, command):
        return [text for _, text in self.received if json.loads(text).get("Command") == command]

    def times(self, command):
        return [when for when, text in self.received if json.loads(text).get("Command") == command]

    def wait_for(self, command, count=1, limit=30.0):
        eventually(lambda: len(self.texts(command)) >= count or not self.failures.empty(), limit)
        assert self.failures.empty(), self.failures.get()
        assert len(self.texts(command)) >= count, self.received
        return self.texts(command)

    def end(self):
        self.ending = True
        self.join(10)


def scan_request(**members):
    """A complete scan request; a member of None is left out."""
    request = {
        "Command": 101, "ObjectName": "upload.bin", "ObjectLen": 0, "Services": SERVICE,
        "Recursion": 0, "shmID": "ffffffff", "CUST_CHECK_MIME_TYPE": 0, "CUST_ACTIVE_CONTENT": 1,
        "SCANEXTRACT": 1, "SCANEXTRACT_DEPTH": 20, "SCANEXTRACT_MAX_FILES": 0,
        "SCANEXTRACT_SIZE": 0, "SCANEXTRACT_RATIO": 1032, "ENFORCE_MIME_POLICY_IN_ARCHIVES": 1,
        "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES": 1, "MIME-type": "application/octet-stream",
        "File-type": "data", "Extension": ".bin", "realmID": "realm", "SID": "SID",
        "EventID": str(uuid.uuid4()), "ENFORCE_MIME_EXTENSION_MATCH": 0, "BLOCKENCRYPTED": 0,
        "BLOCKHTML_IN_PDF": 0, "SCANBASE64": 0, "SCANUUENCODED": 0, "SCANXMLCONTENT": 0,
        "LONGMIMETYPES": 0, "SCAN_MIN_SIZE": 0, "SCAN_MAX_SIZE": 0, "HTMLDETECTION": "ON",
        "SCANTIMEOUT": 0, "SCANBANDWIDTH": 0,
    }
    for key, value in members.items():
        key = {"mime": "MIME-type", "file_type": "File-type", "length": "ObjectLen",
               "command": "Command", "event": "EventID", "name": "ObjectName"}.get(key, key)
        if value is None:
            del request[key]
        else:
            request[key] = value
    return request
