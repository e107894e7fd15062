"""The broker goes and comes back."""

import json
import signal

from kv_programs import SERVICE, eventually, scan_request


def answers(client, address=SERVICE):
    reply = client.request(address, {"Command": 3})
    return reply == {"ReturnCode": 0}


def test_the_worker_outlives_a_killed_broker(make_suite, make_worker, make_client):
    suite = make_suite()
    worker = make_worker(suite).wait_ready()
    for number in (signal.SIGKILL, signal.SIGTERM):
        opened = len(worker.lines("Receiver opened for address '%s'" % SERVICE))
        suite.end(number)
        assert worker.process.poll() is None
        suite.start()
        worker.wait_for("Receiver opened for address '%s'" % SERVICE, opened + 1)
        client = make_client(suite)
        assert answers(client)
        reply = client.request(SERVICE, scan_request(length=1), b"x")
        assert reply["ReturnCode"] == 0
        assert eventually(lambda: answers(client, worker.name))
    assert worker.lines("Sender reconnected")
    assert worker.end() == 0


def test_a_worker_started_before_its_broker_registers_when_it_comes(make_suite, make_worker,
                                                                    make_client):
    suite = make_suite()
    suite.end()
    worker = make_worker(suite).wait_for("unexpected error")
    suite.start()
    worker.wait_ready()
    assert answers(make_client(suite))
    assert worker.end() == 0


def test_without_a_broker_the_worker_ends_in_time(make_suite, make_worker):
    suite = make_suite()
    worker = make_worker(suite).wait_ready()
    suite.end(signal.SIGKILL)
    worker.wait_for("unexpected error")
    assert worker.end() == 0


def test_requests_that_the_broker_still_has_are_answered(make_suite, make_worker, make_client):
    suite = make_suite()
    client = make_client(suite)
    ids = [client.send(SERVICE, [json.dumps(scan_request())]) for _ in range(30)]
    first = make_worker(suite, threads=2).wait_ready()
    first.kill()  # a power cut: what it had not answered comes again
    second = make_worker(suite).wait_ready()
    assert all(json.loads(client.wait(i))["ReturnCode"] == 0 for i in ids)
    assert second.end() == 0
