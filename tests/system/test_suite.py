"""kv-av-suite as a running program: who gets in, where messages go, what comes back."""

import json
import os
import select
import signal
import socket
import ssl
import subprocess
import sys
import threading
import time

import pytest
from proton import ConnectionException, Delivery, Message, SSLDomain, Terminus, symbol
from proton.handlers import MessagingHandler
from proton.reactor import Container, LinkOption
from proton.utils import BlockingConnection, LinkDetached, SendException

BIN = os.environ.get("KV_BIN", os.path.join(os.path.dirname(__file__), "../../build/release/bin"))
SUITE = os.path.join(BIN, "kv-av-suite")
WAIT = 20.0


def wait_for(condition, what, limit=WAIT):
    """Polls a condition that another process makes true."""
    end = time.monotonic() + limit
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.01)
    raise AssertionError("waited in vain for " + what)


class Suite:
    """One kv-av-suite of its own on a free port."""

    def __init__(self, folder, *options):
        self.dir = os.path.join(folder, "suite")
        self.plain = "--plain" in options
        self.options = options
        self.start()

    def start(self, port="0"):
        self.process = subprocess.Popen(
            [SUITE, "run", "--dir", self.dir, "--listen", "127.0.0.1:" + port, *self.options],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        listen = os.path.join(self.dir, "listen")
        wait_for(lambda: os.path.exists(listen) or self.process.poll() is not None, "the listener")
        assert self.process.poll() is None, self.process.stderr.read()
        self.port = open(listen).read().strip().split(":")[1]
        self.password = open(os.path.join(self.dir, "password")).read().strip()
        self.lines = []
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.append(json.loads(line))

    def stop(self, number=signal.SIGTERM):
        if self.process.poll() is None:
            self.process.send_signal(number)
        try:
            return self.process.wait(10)
        finally:
            self.process.kill()
            self.reader.join(5)
            self.process.stderr.close()

    def url(self, host="localhost"):
        return ("amqp://" if self.plain else "amqps://") + host + ":" + self.port

    def trust(self):
        domain = SSLDomain(SSLDomain.MODE_CLIENT)
        domain.set_trusted_ca_db(os.path.join(self.dir, "ca.pem"))
        domain.set_peer_authentication(SSLDomain.VERIFY_PEER_NAME)
        return domain

    def connect(self, **changes):
        settings = dict(user="kv-av", password=self.password, allowed_mechs="PLAIN", timeout=WAIT)
        if self.plain:
            settings["allow_insecure_mechs"] = True
        else:
            settings["ssl_domain"] = self.trust()
        settings.update(changes)
        return BlockingConnection(settings.pop("url", self.url()), **settings)

    def run(self, *arguments):
        return subprocess.run([SUITE, *arguments, "--dir", self.dir], capture_output=True,
                              text=True, timeout=60)


@pytest.fixture(scope="module")
def suite(tmp_path_factory):
    running = Suite(str(tmp_path_factory.mktemp("suite")))
    yield running
    assert running.stop() == 0


@pytest.fixture
def connection(suite):
    made = suite.connect()
    yield made
    made.close()


counter = 0


@pytest.fixture
def queue():
    global counter
    counter += 1
    return "queue-%d" % counter


def test_first_start_makes_private_files_and_announces_itself(tmp_path):
    running = Suite(str(tmp_path))
    try:
        assert os.stat(running.dir).st_mode & 0o777 == 0o700
        for name in ("server.key", "users.json", "password"):
            assert os.stat(os.path.join(running.dir, name)).st_mode & 0o777 == 0o600
        assert "$argon2id$" in open(os.path.join(running.dir, "users.json")).read()
        assert running.password not in open(os.path.join(running.dir, "users.json")).read()
        json.load(open(os.path.join(running.dir, "definitions.json")))
    finally:
        running.process.send_signal(signal.SIGTERM)
        screen = running.process.stderr.read().decode()
        assert running.stop() == 0
    for part in ("127.0.0.1:" + running.port, "--broker amqps://localhost:" + running.port,
                 "kv-av-scan --dir", "no production broker"):
        assert part in screen
    assert running.password not in screen
    assert not os.path.exists(os.path.join(running.dir, "listen"))


def test_second_start_keeps_certificates_and_password(tmp_path):
    running = Suite(str(tmp_path))
    first = (running.password, open(os.path.join(running.dir, "ca.pem")).read())
    assert running.stop() == 0
    running.start()
    try:
        assert (running.password, open(os.path.join(running.dir, "ca.pem")).read()) == first
        running.connect().close()
    finally:
        assert running.stop() == 0


def test_ends_on_interrupt(tmp_path):
    running = Suite(str(tmp_path))
    held = running.connect()
    assert running.stop(signal.SIGINT) == 0
    with pytest.raises(Exception):
        held.create_receiver("q")


def test_taken_port_is_told(suite, tmp_path):
    result = subprocess.run([SUITE, "run", "--dir", str(tmp_path / "other"), "--listen",
                             "127.0.0.1:" + suite.port], capture_output=True, text=True, timeout=30)
    assert result.returncode == 2
    assert "cannot listen on 127.0.0.1:" + suite.port in result.stderr


@pytest.mark.parametrize("user, password", [
    ("kv-av", "wrong"), ("nobody", "wrong"), ("kv-av", ""), ("", "x"), ("kv-av\0", "x")])
def test_wrong_credentials_are_refused(suite, user, password):
    with pytest.raises(ConnectionException) as refused:
        suite.connect(user=user, password=password)
    assert "unauthorized" in str(refused.value) or "uthentication" in str(refused.value)


def test_wrong_password_with_right_user_does_not_pass_later(suite):
    suite.connect().close()
    for _ in range(3):
        with pytest.raises(ConnectionException):
            suite.connect(password=suite.password + "x")
    suite.connect().close()


def test_anonymous_is_refused(suite):
    with pytest.raises(ConnectionException):
        suite.connect(user=None, password=None, allowed_mechs="ANONYMOUS")


def test_client_that_skips_sasl_is_refused(suite):
    with pytest.raises(ConnectionException):
        suite.connect(sasl_enabled=False, user=None, password=None)


def raw_tls(suite):
    context = ssl.create_default_context(cafile=os.path.join(suite.dir, "ca.pem"))
    plain = socket.create_connection(("127.0.0.1", int(suite.port)), timeout=WAIT)
    return context.wrap_socket(plain, server_hostname="localhost")


def read_to_end(stream):
    received = b""
    try:
        while True:
            piece = stream.recv(4096)
            if not piece:
                return received
            received += piece
    except OSError:
        return received


def test_amqp_without_sasl_gets_no_open(suite):
    # AMQP protocol header, then an open frame with container-id "x".
    opened = bytes.fromhex("0000001102000000005310c00401a10178")
    with raw_tls(suite) as stream:
        stream.sendall(b"AMQP\x00\x01\x00\x00" + opened)
        received = read_to_end(stream)
    # The broker ends the connection by itself; an open frame of its own would have been a welcome.
    assert b"\x00\x53\x10" not in received


def test_plain_tcp_is_refused_by_the_tls_listener(suite):
    with socket.create_connection(("127.0.0.1", int(suite.port)), timeout=WAIT) as stream:
        stream.sendall(b"AMQP\x03\x01\x00\x00")
        received = read_to_end(stream)
    assert b"PLAIN" not in received


def test_certificate_names_are_checked_by_clients(suite):
    for name in ("localhost", "127.0.0.1"):
        suite.connect(url=suite.url(name)).close()


@pytest.mark.parametrize("address", ["", None])
def test_sender_without_target_is_routed_by_to(connection, queue, address):
    receiver = connection.create_receiver(queue)
    options = []
    if address is None:
        class NullTarget(LinkOption):
            def apply(self, link):
                link.target.address = None
        options = [NullTarget()]
    sender = connection.create_sender(address, options=options)
    sender.send(Message(address=queue, body="hello"))
    assert receiver.receive(timeout=WAIT).body == "hello"
    receiver.accept()


def test_sender_with_target_ignores_to(connection, queue):
    receiver = connection.create_receiver(queue)
    connection.create_sender(queue).send(Message(address="elsewhere", body="hello"))
    assert receiver.receive(timeout=WAIT).body == "hello"
    receiver.accept()


def test_message_that_names_no_address_is_rejected_and_the_link_lives(connection, queue):
    sender = connection.create_sender("")
    with pytest.raises(SendException):
        sender.send(Message(body="where to?"))
    with pytest.raises(SendException):
        sender.send(Message(address="q" * 2000, body="too long"))
    sender.send(Message(address=queue, body="here"))


def test_connection_offers_the_anonymous_relay(connection):
    assert symbol("ANONYMOUS-RELAY") in connection.conn.remote_offered_capabilities


@pytest.mark.parametrize("body", [
    ["{}", "text"], ["{}", b"\x00\xff"], {"json": "{}", "data": b"x"}, b"\xff\x00" * 100, "text", None,
    [None], []])
def test_every_kind_of_body_goes_through(connection, queue, body):
    receiver = connection.create_receiver(queue)
    connection.create_sender("").send(Message(address=queue, body=body))
    assert receiver.receive(timeout=WAIT).body == body
    receiver.accept()


@pytest.mark.parametrize("encoded", [
    b"\x00\x53\x77\xa1\x04\xff\xfe\x00\x80",                  # a string that is no UTF-8
    b"\x00\x53\x77\xe0\x08\x02\xa1\x01\xff\x02\x00\x01",      # an array of such strings
    b"\x00\x53\x77\x82\x40\x09\x21\xfb\x54\x44\x2d\x18",      # a double
    b"\x00\x53\x75\xa0\x02\x00\x01\x00\x53\x75\xa0\x01\x02",  # two data sections
])
def test_encoded_bytes_are_not_touched(suite, queue, encoded):
    """The receiver sees the very bytes that the sender wrote, whatever they mean."""
    properties = b"\x00\x53\x73\xc0" + bytes([5 + len(queue)]) + b"\x03\x40\x40\xa1" + \
        bytes([len(queue)]) + queue.encode()
    sent = properties + encoded
    received = []

    class Exchange(MessagingHandler):
        def __init__(self):
            super().__init__(auto_accept=False, prefetch=1)

        def on_start(self, event):
            event.container.connected = event.container.connect(
                suite.url(), user="kv-av", password=suite.password, allowed_mechs="PLAIN",
                ssl_domain=suite.trust(), reconnect=False)
            event.container.create_receiver(event.container.connected, queue)
            self.sender = event.container.create_sender(event.container.connected, "")

        def on_sendable(self, event):
            if event.sender.credit and not getattr(self, "done", False):
                self.done = True
                delivery = event.sender.delivery("tag")
                event.sender.stream(sent)
                event.sender.advance()

        def on_delivery(self, event):
            link = event.link
            if link.is_receiver and event.delivery.readable and not event.delivery.partial:
                received.append(link.recv(event.delivery.pending))
                link.advance()
                event.delivery.update(Delivery.ACCEPTED)
                event.delivery.settle()
                event.connection.close()

        def on_message(self, event):
            pass

        def on_transport_error(self, event):
            received.append(event.transport.condition)

    Container(Exchange()).run()
    assert received == [sent]


@pytest.mark.parametrize("size", [1, 65535, 65536, 1 << 20, 64 << 20])
def test_bodies_of_every_size(connection, queue, size):
    receiver = connection.create_receiver(queue)
    body = os.urandom(min(size, 1 << 20)) * max(1, size >> 20)
    connection.create_sender("").send(Message(address=queue, body=body), timeout=60)
    assert receiver.receive(timeout=60).body == body
    receiver.accept()


def test_id_reply_to_and_properties_are_kept(connection, queue):
    receiver = connection.create_receiver(queue)
    sent = Message(address=queue, body="x", id="id-1", correlation_id="c-1", reply_to="back",
                   subject="s", properties={"a": 1, "b": "two"}, durable=True, priority=9)
    connection.create_sender("").send(sent)
    got = receiver.receive(timeout=WAIT)
    receiver.accept()
    for name in ("id", "correlation_id", "reply_to", "subject", "properties", "durable", "priority",
                 "address"):
        assert getattr(got, name) == getattr(sent, name), name


def test_competing_consumers_share_by_credit(suite, connection, queue):
    other = suite.connect()
    first = connection.create_receiver(queue, credit=0)
    first.flow(3)
    second = other.create_receiver(queue, credit=0)
    second.flow(5)
    sender = connection.create_sender(queue)
    for number in range(10):
        sender.send(Message(body=number))
    connection.wait(lambda: len(first.fetcher.incoming) == 3, timeout=WAIT, msg="the first three")
    other.wait(lambda: len(second.fetcher.incoming) == 5, timeout=WAIT, msg="the other five")
    numbers = [message.body for receiver in (first, second)
               for message, _ in receiver.fetcher.incoming]
    assert sorted(numbers) == list(range(8)), "each message goes to one consumer"
    second.flow(2)
    other.wait(lambda: len(second.fetcher.incoming) == 7, timeout=WAIT, msg="the last two")
    assert [message.body for message, _ in second.fetcher.incoming][-2:] == [8, 9]
    other.close()


def test_message_waits_for_credit(connection, queue):
    receiver = connection.create_receiver(queue, credit=0)
    connection.create_sender(queue).send(Message(body="x"))
    # What another queue carries meanwhile shows that the first message had time to come.
    witness = connection.create_receiver(queue + "-witness", credit=1)
    connection.create_sender(queue + "-witness").send(Message(body="y"))
    assert witness.receive(timeout=WAIT).body == "y"
    witness.accept()
    assert not receiver.fetcher.has_message
    receiver.flow(1)
    assert receiver.receive(timeout=WAIT).body == "x"
    receiver.accept()


def test_expired_message_is_not_delivered(connection, queue):
    sender = connection.create_sender(queue)
    sender.send(Message(body="short", ttl=0.05))
    sender.send(Message(body="long", ttl=60))
    sender.send(Message(body="for ever"))
    time.sleep(0.1)  # longer than the first one's time-to-live
    receiver = connection.create_receiver(queue, credit=3)
    first = receiver.receive(timeout=WAIT)
    receiver.accept()
    assert first.body == "long"
    assert 0 < first.ttl < 60, "what is left of it"
    last = receiver.receive(timeout=WAIT)
    receiver.accept()
    assert (last.body, last.ttl) == ("for ever", 0)


def test_released_message_comes_again_uncounted(connection, queue):
    receiver = connection.create_receiver(queue, credit=2)
    connection.create_sender(queue).send(Message(body="x"))
    assert receiver.receive(timeout=WAIT).delivery_count == 0
    receiver.release(delivered=False)
    again = receiver.receive(timeout=WAIT)
    receiver.accept()
    assert (again.body, again.delivery_count) == ("x", 0)


class Settling(MessagingHandler):
    """Receives from a queue and answers each delivery as told, until there is nothing left to do."""

    def __init__(self, suite, queue, answers):
        super().__init__(auto_accept=False, prefetch=0)
        self.suite, self.queue, self.answers, self.seen = suite, queue, list(answers), []

    def on_start(self, event):
        connection = event.container.connect(
            self.suite.url(), user="kv-av", password=self.suite.password, allowed_mechs="PLAIN",
            ssl_domain=self.suite.trust(), reconnect=False)
        event.container.create_receiver(connection, self.queue).flow(1)

    def on_message(self, event):
        self.seen.append((event.message.body, event.message.delivery_count))
        self.answers.pop(0)(event.delivery)
        if self.answers:
            event.receiver.flow(1)
        else:
            event.connection.close()


def modified(failed, undeliverable):
    def answer(delivery):
        delivery.local.failed = failed
        delivery.local.undeliverable = undeliverable
        delivery.update(Delivery.MODIFIED)
        delivery.settle()
    return answer


def accepted(delivery):
    delivery.update(Delivery.ACCEPTED)
    delivery.settle()


def rejected(delivery):
    delivery.update(Delivery.REJECTED)
    delivery.settle()


def settled_only(delivery):
    delivery.settle()


def settle_all(suite, queue, answers):
    handler = Settling(suite, queue, answers)
    Container(handler).run()
    return handler.seen


def test_modified_with_delivery_failed_raises_the_count(suite, connection, queue):
    connection.create_sender(queue).send(Message(body="x"))
    answers = [modified(True, False), modified(True, False), modified(False, False), accepted]
    assert settle_all(suite, queue, answers) == [("x", 0), ("x", 1), ("x", 2), ("x", 2)]


def test_message_that_a_consumer_cannot_take_goes_behind_the_others(suite, connection, queue):
    sender = connection.create_sender(queue)
    sender.send(Message(body="hard"))
    sender.send(Message(body="easy"))
    answers = [modified(True, True), accepted, accepted]
    assert settle_all(suite, queue, answers) == [("hard", 0), ("easy", 0), ("hard", 1)]


def test_rejected_message_is_gone(suite, connection, queue):
    sender = connection.create_sender(queue)
    sender.send(Message(body="bad"))
    sender.send(Message(body="good"))
    assert settle_all(suite, queue, [rejected, accepted]) == [("bad", 0), ("good", 0)]


def test_settled_without_outcome_counts_as_released(suite, connection, queue):
    connection.create_sender(queue).send(Message(body="x"))
    assert settle_all(suite, queue, [settled_only, accepted]) == [("x", 0), ("x", 0)]


def test_what_a_closed_consumer_had_not_settled_comes_again_counted(suite, connection, queue):
    gone = suite.connect()
    receiver = gone.create_receiver(queue, credit=0)
    receiver.flow(2)
    sender = connection.create_sender(queue)
    for body in ("a", "b", "c"):
        sender.send(Message(body=body))
    assert receiver.receive(timeout=WAIT).body == "a"
    gone.close()
    assert settle_all(suite, queue, [accepted] * 3) == [("a", 1), ("b", 1), ("c", 0)]


CONSUMER = """
import sys, time
from proton import SSLDomain
from proton.utils import BlockingConnection
url, password, ca, queue = sys.argv[1:]
domain = SSLDomain(SSLDomain.MODE_CLIENT)
domain.set_trusted_ca_db(ca)
connection = BlockingConnection(url, ssl_domain=domain, user="kv-av", password=password,
                                allowed_mechs="PLAIN", timeout=20)
receiver = connection.create_receiver(queue, credit=10)
print(receiver.receive(timeout=20).body, flush=True)
time.sleep(60)
"""


def test_what_a_killed_consumer_had_not_settled_comes_again_counted(suite, connection, queue):
    consumer = subprocess.Popen([sys.executable, "-c", CONSUMER, suite.url(), suite.password,
                                 os.path.join(suite.dir, "ca.pem"), queue], stdout=subprocess.PIPE)
    try:
        sender = connection.create_sender(queue)
        for body in ("a", "b"):
            sender.send(Message(body=body))
        assert consumer.stdout.readline() == b"a\n"
        consumer.kill()
        assert settle_all(suite, queue, [accepted] * 2) == [("a", 1), ("b", 1)]
    finally:
        consumer.kill()
        consumer.wait()
        consumer.stdout.close()


def test_drain_is_answered_at_once_and_keeps_the_link(connection, queue):
    sender = connection.create_sender(queue)
    sender.send(Message(body="one"))
    receiver = connection.create_receiver(queue, credit=0)
    receiver.link.drain(10)
    connection.wait(lambda: receiver.link.credit == 0 and not receiver.link.draining(),
                    timeout=WAIT, msg="the drain")
    assert receiver.receive(timeout=WAIT).body == "one"
    receiver.accept()
    sender.send(Message(body="two"))
    receiver.link.drain_mode = False
    receiver.flow(1)
    assert receiver.receive(timeout=WAIT).body == "two"
    receiver.accept()


def test_dynamic_source_is_an_address_until_its_link_closes(suite, connection):
    receiver = connection.create_receiver(None, dynamic=True, credit=1)
    address = receiver.link.remote_source.address
    assert address
    assert connection.create_receiver(None, dynamic=True).link.remote_source.address != address
    other = suite.connect()
    other.create_sender("").send(Message(address=address, body="reply"))
    assert receiver.receive(timeout=WAIT).body == "reply"
    receiver.accept()
    other.close()


def test_source_without_address_is_refused(connection):
    with pytest.raises(LinkDetached):
        connection.create_receiver("")


def test_settled_transfers_are_passed_on(suite, queue):
    """A consumer that wants its messages settled gets each once, and keeps none in the queue."""
    connection = suite.connect()

    class Settled(LinkOption):
        def apply(self, link):
            link.snd_settle_mode = 1

    receiver = connection.create_receiver(queue, credit=5, options=[Settled()])
    connection.create_sender(queue).send(Message(body="x"))
    assert receiver.receive(timeout=WAIT).body == "x"
    connection.close()
    again = suite.connect()
    rest = again.create_receiver(queue, credit=0)
    rest.link.drain(1)
    again.wait(lambda: not rest.link.draining(), timeout=WAIT, msg="the drain")
    assert not rest.fetcher.has_message
    again.close()


@pytest.mark.parametrize("option", [["--queue-bytes", "250000"], ["--queue-messages", "2"]])
def test_queue_that_is_full_refuses(tmp_path, queue, option):
    running = Suite(str(tmp_path), *option)
    try:
        connection = running.connect()
        sender = connection.create_sender(queue)
        body = b"x" * 100000
        sender.send(Message(body=body))
        sender.send(Message(body=body))
        with pytest.raises(SendException):
            sender.send(Message(body=body))
        connection.create_sender("").send(Message(address=queue + "-other", body=body))
        receiver = connection.create_receiver(queue, credit=0)
        receiver.flow(1)
        receiver.receive(timeout=WAIT)
        with pytest.raises(SendException):  # what is out with a consumer still counts
            sender.send(Message(body=body))
        receiver.accept()

        def fits():
            try:
                return sender.send(Message(body=body))
            except SendException:
                return None

        wait_for(fits, "the place of the accepted message")
        connection.close()
    finally:
        assert running.stop() == 0


def test_silent_client_is_given_up(tmp_path):
    """Somebody who connects and says nothing holds no connection for ever."""
    running = Suite(str(tmp_path))
    try:
        with socket.create_connection(("127.0.0.1", int(running.port)), timeout=30) as stream:
            started = time.monotonic()
            assert stream.recv(100) == b""
            assert time.monotonic() - started < 25
    finally:
        assert running.stop() == 0


def test_garbage_harms_nobody(suite, connection, queue):
    for garbage in (b"GET / HTTP/1.1\r\n\r\n", b"\x00" * 100, b"AMQP\x02\x01\x00\x00", os.urandom(5000)):
        with socket.create_connection(("127.0.0.1", int(suite.port)), timeout=WAIT) as stream:
            stream.sendall(garbage)
            stream.shutdown(socket.SHUT_WR)
            read_to_end(stream)
    connection.create_sender(queue).send(Message(body="still here"))


# --- services -----------------------------------------------------------------------------------


class Requester:
    def __init__(self, connection):
        self.sender = connection.create_sender("")
        self.receiver = connection.create_receiver(None, dynamic=True, credit=10)
        self.number = 0

    def __call__(self, address, request):
        self.number += 1
        body = [request if isinstance(request, str) else json.dumps(request)]
        self.sender.send(Message(address=address, body=body, id=self.number,
                                 reply_to=self.receiver.link.remote_source.address))
        reply = self.receiver.receive(timeout=WAIT)
        self.receiver.accept()
        assert reply.correlation_id == self.number
        return json.loads(reply.body[0])


@pytest.fixture
def ask(connection):
    return Requester(connection)


def test_control_service_answers(suite, ask):
    assert ask("kv-av-worker-control", {"Command": 3}) == {"ReturnCode": 0}
    register = {"Command": 200, "worker-name": "w-1", "service-name": "kv-av-activecontent",
                "Primary": 1, "Secret": "s" * 32}
    assert ask("kv-av-worker-control", register)["ReturnCode"] == 0
    assert ask("kv-av-worker-control", {"Command": 201, "worker-name": "w-1"})["ReturnCode"] == 0
    assert ask("kv-av-worker-control", {"Command": 202, "worker-name": "w-1"})["ReturnCode"] == 0
    assert ask("kv-av-worker-control", "no JSON")["ReturnCode"] == -1
    shown = wait_for(lambda: [line for line in suite.lines if line["sink"] == "control"
                              and line["message"].get("worker-name") == "w-1"][:3]
                     if len(suite.lines) >= 3 else None, "the lines")
    assert [line["message"]["Command"] for line in shown] == [200, 201, 202]
    assert "s" * 32 not in json.dumps(shown)


def test_definitions_are_read_anew_when_they_change(suite, ask):
    question = {"Command": 203, "realmID": "realm-1", "SID": "SID-1"}
    path = os.path.join(suite.dir, "definitions.json")
    before = open(path).read()
    assert ["HTML_SCRIPT", 1] in ask("kv-av-worker-control", question)["Active-content-definition"]
    try:
        with open(path, "w") as file:
            json.dump({"realm-1": {"SID-1": {"FLASH": 1}}}, file)
        assert ask("kv-av-worker-control", question)["Active-content-definition"] == [["FLASH", 1]]
        other = dict(question, SID="SID-2")
        assert ask("kv-av-worker-control", other) == {
            "ReturnCode": 0, "Active-content-definition": []}
        with open(path, "w") as file:
            file.write("{ broken")
        assert ask("kv-av-worker-control", question)["Active-content-definition"] == [["FLASH", 1]]
    finally:
        with open(path, "w") as file:
            file.write(before)


def test_sinks_print_one_line_each(suite, ask):
    assert ask("kv-av-log", {"LogVersion": 1, "EventID": "e-1"}) == {"ReturnCode": 0}
    assert ask("kv-av-events-dispatch", {"Command": 501, "EventID": "e-2"}) == {"ReturnCode": 0}
    for sink, event in (("log", "e-1"), ("event", "e-2")):
        wait_for(lambda: [line for line in suite.lines
                          if line["sink"] == sink and line["message"].get("EventID") == event], sink)


def test_without_control_the_queues_are_ordinary(tmp_path):
    running = Suite(str(tmp_path), "--no-control", "--plain")
    try:
        connection = running.connect()
        receiver = connection.create_receiver("kv-av-worker-control", credit=1)
        connection.create_sender("").send(Message(address="kv-av-worker-control", body="mine"))
        assert receiver.receive(timeout=WAIT).body == "mine"
        receiver.accept()
        connection.close()
    finally:
        assert running.stop() == 0


def test_plain_listener_still_wants_a_password(tmp_path):
    running = Suite(str(tmp_path), "--plain")
    try:
        running.connect().close()
        with pytest.raises(ConnectionException):
            running.connect(password="wrong")
        with pytest.raises(ConnectionException):
            running.connect(sasl_enabled=False, user=None, password=None)
    finally:
        assert running.stop() == 0


# --- commands -----------------------------------------------------------------------------------


class FakeWorker(threading.Thread):
    """Answers on a control address with the given code and keeps what it was asked."""

    def __init__(self, suite, name, code):
        super().__init__(daemon=True)
        self.connection = suite.connect()
        self.receiver = self.connection.create_receiver(name, credit=1)
        self.code, self.requests = code, []
        self.start()

    def run(self):
        request = self.receiver.receive(timeout=WAIT)
        self.receiver.accept()
        self.requests.append(json.loads(request.body[0]))
        self.connection.create_sender("").send(Message(
            address=request.reply_to, correlation_id=request.id,
            body=[json.dumps({"ReturnCode": self.code})]))
        self.connection.close()


def test_ping_command(suite, queue):
    assert suite.run("ping", "kv-av-worker-control").returncode == 0
    absent = suite.run("ping", queue, "--timeout", "300")
    assert absent.returncode == 2
    assert "no answer from " + queue in absent.stderr


@pytest.mark.parametrize("arguments, expected", [
    ([], {"Command": 10, "RealmID": "", "SID": ""}),
    (["--realm", "r1"], {"Command": 10, "RealmID": "r1", "SID": ""}),
    (["--realm", "r1", "--sid", "S"], {"Command": 10, "RealmID": "r1", "SID": "S"}),
    (["--all"], {"Command": 12, "RealmID": "", "SID": ""})])
def test_flush_command(suite, queue, arguments, expected):
    worker = FakeWorker(suite, queue, 0)
    assert suite.run("flush", queue, *arguments).returncode == 0
    worker.join(WAIT)
    assert worker.requests == [expected]


@pytest.mark.parametrize("code, status", [(0, 0), (-1000, 1)])
def test_shutdown_command(suite, queue, tmp_path, code, status):
    secret = tmp_path / "secret"
    secret.write_text("the secret\nanother line\n")
    worker = FakeWorker(suite, queue, code)
    result = suite.run("shutdown", queue, "--secret-file", str(secret))
    assert result.returncode == status
    assert json.loads(result.stdout) == {"ReturnCode": code}
    worker.join(WAIT)
    assert worker.requests == [{"Command": 9, "Secret": "the secret"}]


def test_shutdown_without_secret_file(suite, queue, tmp_path):
    assert suite.run("shutdown", queue).returncode != 0
    result = suite.run("shutdown", queue, "--secret-file", str(tmp_path / "absent"))
    assert result.returncode == 2 and "cannot read" in result.stderr


def test_workers_command(suite, ask, queue):
    register = {"Command": 200, "worker-name": queue, "service-name": "kv-av-activecontent",
                "Primary": 1, "Secret": "s" * 32}
    ask("kv-av-worker-control", register)
    result = suite.run("workers")
    assert result.returncode == 0
    rows = [json.loads(line) for line in result.stdout.splitlines()]
    assert [row["registrations"] for row in rows if row["worker-name"] == queue] == [1]
    assert "s" * 32 not in result.stdout


def test_commands_without_a_running_suite(tmp_path):
    result = subprocess.run([SUITE, "workers", "--dir", str(tmp_path)], capture_output=True,
                            text=True, timeout=30)
    assert result.returncode == 2
    assert "cannot read" in result.stderr
