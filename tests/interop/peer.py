"""A peer of the worker on any AMQP 1.0 broker: it plays services, and asks as a client."""

import json
import threading
import time
import uuid

from proton import ConnectionException, Message, SSLDomain
from proton.handlers import MessagingHandler
from proton.reactor import ApplicationEvent, Container, EventInjector


class Broker:
    """How to reach the broker, and whose passwords it takes."""

    def __init__(self, url, user, password, ca):
        self.url = url
        self.user = user
        self.password = password
        self.ca = ca

    def options(self):
        domain = SSLDomain(SSLDomain.MODE_CLIENT)
        domain.set_trusted_ca_db(self.ca)
        domain.set_peer_authentication(SSLDomain.VERIFY_PEER_NAME)
        return {"url": self.url, "user": self.user, "password": self.password,
                "ssl_domain": domain, "allowed_mechs": "PLAIN", "reconnect": False}


class Peer(MessagingHandler):
    """One connection with a thread of its own. It is made again whenever it is lost.

    services: address to a function of the request, which returns the reply's text, a value to be
    sent as JSON, a list as the whole body, or None for no reply."""

    def __init__(self, broker, services=None):
        super().__init__(prefetch=100)
        self.broker = broker
        self.services = dict(services or {})
        self.reply_to = "kv-replies-interop-" + uuid.uuid4().hex
        self.changed = threading.Condition()
        self.replies = {}      # correlation id to all replies that came
        self.outcomes = {}     # message id to what the broker said
        self.received = []     # (seconds, address, message)
        self.outbox = []
        self.pending = {}
        self.sender = None
        self.opened = 0
        self.ending = False
        self.injector = EventInjector()
        self.container = Container(self)
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()
        self.until(lambda: self.opened > 0, 60)

    def run(self):
        self.container.selectable(self.injector)
        self.container.run()

    # ---- on the container's thread ----

    def on_start(self, event):
        self.connect()

    def connect(self):
        if not self.ending:
            self.connection = self.container.connect(**self.broker.options())

    def on_connection_opened(self, event):
        connection = event.connection
        for address in (*self.services, self.reply_to):
            self.container.create_receiver(connection, address)
        self.sender = self.container.create_sender(connection, None)
        with self.changed:
            self.opened += 1
            self.changed.notify_all()

    def on_sendable(self, event):
        self.flush()

    def on_send(self, event):
        self.outbox.append(event.subject)
        self.flush()

    def flush(self):
        while self.outbox and self.sender is not None and self.sender.credit > 0:
            message = self.outbox.pop(0)
            delivery = self.sender.send(message)
            self.pending[delivery] = message.id

    def outcome(self, event, text):
        with self.changed:
            self.outcomes[self.pending.pop(event.delivery, None)] = text
            self.changed.notify_all()

    def on_accepted(self, event):
        self.outcome(event, "accepted")

    def on_rejected(self, event):
        self.outcome(event, "rejected")

    def on_released(self, event):
        self.outcome(event, "released")

    def on_message(self, event):
        message, address = event.message, event.receiver.source.address
        with self.changed:
            if address in self.services:
                self.received.append((time.monotonic(), address, message))
            else:
                self.replies.setdefault(message.correlation_id, []).append(message)
            self.changed.notify_all()
        if address in self.services:
            self.serve(address, message)

    def serve(self, address, message):
        answer = self.services[address](message)
        if answer is None or not message.reply_to:
            return
        if not isinstance(answer, (list, str)):
            answer = json.dumps(answer)
        body = answer if isinstance(answer, list) else [answer]
        self.outbox.append(Message(id=uuid.uuid4(), address=message.reply_to, ttl=20,
                                   correlation_id=message.id, body=body))
        self.flush()

    def on_transport_closed(self, event):
        self.sender = None
        self.pending.clear()
        if self.ending:
            self.injector.close()
            self.container.stop()
        else:
            self.container.schedule(0.3, Again(self))

    def on_transport_error(self, event):
        pass

    def on_connection_error(self, event):
        pass

    def on_stop(self, event):
        self.ending = True
        self.connection.close()

    # ---- any thread ----

    def until(self, condition, limit=60.0):
        """Waits for a condition that a message can change; its last value."""
        deadline = time.monotonic() + limit
        with self.changed:
            while not condition():
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                self.changed.wait(min(left, 0.25))
            return condition()

    def send(self, address, body, reply_to=True, **members):
        """Sends without waiting; the message's id."""
        inferred = members.pop("inferred", False)
        members.setdefault("id", uuid.uuid4())
        message = Message(address=address, body=body, inferred=inferred, **members)
        if reply_to is True:
            message.reply_to = self.reply_to
        elif reply_to is not None:
            message.reply_to = reply_to
        self.injector.trigger(ApplicationEvent("send", subject=message))
        return message.id

    def wait_text(self, message_id, limit=60.0):
        """The text of a request's reply, None when none came in time."""
        self.until(lambda: message_id in self.replies, limit)
        found = self.replies.get(message_id)
        return found[0].body[0] if found else None

    def request(self, address, value, data=None, limit=60.0, **members):
        text = value if isinstance(value, str) else json.dumps(value)
        body = [text] if data is None else [text, data]
        reply = self.wait_text(self.send(address, body, **members), limit)
        return None if reply is None else json.loads(reply)

    def texts(self, address, command=None):
        """Texts that a service was asked, in order."""
        with self.changed:
            texts = [message.body[0] for _, name, message in self.received if name == address]
        return [text for text in texts
                if command is None or json.loads(text).get("Command") == command]

    def times(self, address, command):
        with self.changed:
            return [when for when, name, message in self.received if name == address
                    and json.loads(message.body[0]).get("Command") == command]

    def end(self):
        self.injector.trigger(ApplicationEvent("stop"))
        self.thread.join(10)


class Again:
    """The timer of the next attempt."""

    def __init__(self, peer):
        self.peer = peer

    def on_timer_task(self, event):
        try:
            self.peer.connect()
        except (ConnectionException, OSError):
            event.container.schedule(0.3, self)
