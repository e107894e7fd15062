"""Workers and brokers that end, freeze or refuse."""

import json
import signal
import subprocess
import tempfile
import time

from lab import CONTROL, OK, SERVICE, answered, cpu, ends, eventually, load, no_errors, same, scan


def check_requests_before_the_worker(lab):
    """What waits in the queue is served; what has expired is not."""
    control = lab.control()
    ids = load(control, 100)
    stale = control.send(SERVICE, [json.dumps(scan())], ttl=1)
    time.sleep(1.5)
    worker = lab.worker()
    same(answered(control, ids), 0, "answered twice")
    same(control.wait_text(stale, 2), None)
    no_errors(worker)
    ends(worker)


def check_two_workers(lab):
    control = lab.control()
    workers = [lab.worker(threads=2), lab.worker(threads=2)]
    twice = answered(control, load(control, 1000))
    same(twice, 0, "answered twice")
    shares = [len(worker.lines("Handling scan request")) for worker in workers]
    assert min(shares) > 0, shares
    same(sum(shares), 1000)
    for worker in workers:
        no_errors(worker)
        ends(worker)
    return "shares %s" % shares


def check_sigterm_under_load(lab):
    """Another worker takes over: nothing is lost, nothing is answered twice."""
    control = lab.control()
    first = lab.worker(threads=2)
    second = lab.worker(threads=2)
    ids = load(control, 600)
    control.until(lambda: sum(i in control.replies for i in ids) > 50)
    took = ends(first, 30)
    twice = answered(control, ids)
    same(first.lines("unexpected error"), [])
    no_errors(second)
    ends(second)
    same(twice, 0, "answered twice")
    return "ended in %.1f s, shares %s" % (took, [len(worker.lines("Handling scan request"))
                                                  for worker in (first, second)])


def check_killed_worker(lab):
    control = lab.control()
    first = lab.worker(threads=2)
    second = lab.worker(threads=2)
    ids = load(control, 600)
    control.until(lambda: sum(i in control.replies for i in ids) > 20)
    first.kill()
    twice = answered(control, ids)
    ends(second)
    return "answered twice: %d" % twice


def check_broker_restart(lab):
    """What the broker loses is lost; the worker comes back by itself."""
    lab.own_broker()
    control = lab.control()
    worker = lab.worker()
    took = []
    for number in (signal.SIGKILL, signal.SIGTERM):
        opened = control.opened
        data = b"x" * (1 << 20)
        ids = [control.send(SERVICE, [json.dumps(scan(length=len(data))), data])
               for _ in range(60)]
        control.until(lambda: any(i in control.replies for i in ids))
        lab.end_broker(number)
        lab.start_broker()
        started = time.monotonic()
        control.until(lambda: control.opened > opened, 60)
        reply = None
        while reply is None and time.monotonic() - started < 120:
            reply = control.request(SERVICE, {"Command": 3}, limit=3)
        same(reply, OK)
        took.append("%.1f s" % (time.monotonic() - started))
        same(answered(control, load(control, 100)), 0, "answered twice")
        same(control.request(worker.name, {"Command": 3}), OK)
    registered = len(control.texts(CONTROL, 200))
    control.until(lambda: len(control.texts(CONTROL, 200)) > registered, 60)
    assert len(control.texts(CONTROL, 200)) > registered, "registers no more"
    ends(worker)
    return "served again after " + ", ".join(took)


def check_frozen_broker(lab):
    """Shorter than a reply lives (5 s), so that none expires meanwhile."""
    lab.own_broker()
    control = lab.control()
    worker = lab.worker()
    ids = load(control, 100)
    control.until(lambda: any(i in control.replies for i in ids))
    lab.process.send_signal(signal.SIGSTOP)
    before = cpu(worker)
    time.sleep(3)
    used = cpu(worker) - before
    lab.process.send_signal(signal.SIGCONT)
    twice = answered(control, ids)
    assert used < 2, "busy while the broker is frozen: %.1f s" % used
    same(control.request(SERVICE, {"Command": 3}), OK)
    lab.process.send_signal(signal.SIGSTOP)
    took = ends(worker, 60)
    lab.process.send_signal(signal.SIGCONT)
    return "answered twice %d, CPU while frozen %.2f s, ended frozen in %.1f s" % (
        twice, used, took)


def check_long_freeze(lab):
    """Longer than the idle time-out of 60 s: the connection is given up and made again."""
    lab.own_broker()
    control = lab.control()
    worker = lab.worker()
    lab.process.send_signal(signal.SIGSTOP)
    before = cpu(worker)
    found = eventually(lambda: worker.lines("unexpected error"), 90)
    time.sleep(12)
    used = cpu(worker) - before
    lab.process.send_signal(signal.SIGCONT)
    assert found, "the frozen broker was not noticed"
    reply = None
    deadline = time.monotonic() + 90
    while reply is None and time.monotonic() < deadline:
        reply = control.request(SERVICE, {"Command": 3}, limit=3)
    same(reply, OK)
    same(answered(control, load(control, 100)), 0, "answered twice")
    ends(worker)
    return "CPU while frozen %.2f s; %s" % (used, found[0].split("unexpected")[1])


def check_wrong_password(lab):
    lab.own_broker()
    lab.end_broker()
    lab.start_broker("another-one")
    worker = lab.worker(ready=False)
    worker.wait_for("unexpected error", 3, limit=60)
    before = cpu(worker)
    time.sleep(5)
    used = cpu(worker) - before
    attempts = len(worker.lines("unexpected error"))
    same([line for line in worker.lines(lab.password) if "broker-password" not in line
          and "CL [" not in line], [], "the password in the trace")
    lab.end_broker()
    lab.start_broker()
    control = lab.control()
    worker.wait_for("Receiver opened for address '%s'" % worker.name, limit=120)
    same(control.request(SERVICE, scan())["ReturnCode"], 0)
    ends(worker)
    return "%d attempts, CPU %.2f s in 5 s" % (attempts, used)


def check_wrong_ca(lab):
    control = lab.control()
    with tempfile.NamedTemporaryFile(suffix=".pem") as other:
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj",
                        "/CN=other", "-keyout", "/dev/null", "-out", other.name], check=True,
                       capture_output=True)
        worker = lab.worker(ca=other.name, ready=False)
        worker.wait_for("certificate verify failed", limit=60)
        time.sleep(3)
        same(control.texts(CONTROL), [])
        same(worker.process.poll(), None)
    return "%d attempts" % len(worker.lines("certificate verify failed"))
