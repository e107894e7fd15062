"""SIGTERM in each phase of the worker's life."""

import json
import time

from kv_programs import CONTROL, SERVICE, scan_request


def leaves_its_loop(worker):
    """Ends the worker; its loop must be left before any request's time-out."""
    start = time.monotonic()
    worker.signal()
    worker.wait_for("Signal received. Exiting gracefully...")
    assert time.monotonic() - start < 2
    assert worker.wait() == 0


def ended_in_order(worker):
    text = worker.text()
    assert worker.lines("Ending worker with rc=0"), text[-3000:]
    assert "Ending worker with rc=0" in text.splitlines()[-1]
    assert text.index("Signal 15 handled") < text.index("Shutdown complete") \
        < text.index("Ending worker with rc=0")


def test_while_the_control_service_is_away_the_wait_goes_on(broker, make_control, make_worker):
    worker = make_worker(broker).wait_for("Waiting for service " + CONTROL)
    worker.signal()
    worker.wait_for("Signal 15 handled")
    assert worker.process.poll() is None
    time.sleep(1)
    assert worker.process.poll() is None
    control = make_control(broker)
    assert worker.wait() == 0
    assert control.texts(200) == []
    ended_in_order(worker)


def test_while_registering_it_ends_within_a_quarter_second(broker, make_control, make_worker):
    control = make_control(broker, lambda request: None if request["Command"] == 200
                           else {"ReturnCode": 0})
    worker = make_worker(broker)
    control.wait_for(200)
    leaves_its_loop(worker)
    assert worker.lines("Registered ") == []
    ended_in_order(worker)


def test_while_registering_again_with_the_control_service_gone(broker, make_control, make_worker):
    control = make_control(broker)
    worker = make_worker(broker, "--register-interval", "1").wait_ready()
    control.answer = lambda request: None
    control.wait_for(200, 2)
    leaves_its_loop(worker)
    ended_in_order(worker)
    # Given up in order: no failure that the shutdown event would tell of.
    assert worker.lines("Failed to re-register") == []


def test_while_idle_it_ends_at_once_and_without_an_error(suite, make_worker):
    worker = make_worker(suite).wait_ready()
    leaves_its_loop(worker)
    tail = worker.text()[worker.text().index("Signal 15 handled"):]
    assert "ERROR" not in tail and "FATAL" not in tail
    ended_in_order(worker)


def test_twice_is_as_good_as_once(suite, make_worker):
    worker = make_worker(suite).wait_ready()
    worker.signal()
    worker.signal()
    assert worker.wait() == 0
    ended_in_order(worker)


def test_requests_in_work_are_answered_and_the_rest_goes_to_another(broker, make_control,
                                                                    make_worker, make_client):
    slow = [True]

    def answer(request):
        if request["Command"] == 203:
            time.sleep(1 if slow else 0)  # the scans that wait for this definition are in work
            return {"ReturnCode": 0, "Active-content-definition": []}
        return {"ReturnCode": 0}

    control = make_control(broker, answer)
    client = make_client(broker)
    worker = make_worker(broker, threads=2).wait_ready()
    ids = [client.send(SERVICE, [json.dumps(scan_request())]) for _ in range(20)]
    control.wait_for(203)
    worker.signal()
    assert worker.wait() == 0
    ended_in_order(worker)
    answered = len(worker.lines("Request handled successfully"))
    assert 1 <= answered < 20
    slow.clear()
    second = make_worker(broker, threads=8).wait_ready()
    for request_id in ids:
        assert json.loads(client.wait(request_id))["ReturnCode"] == 0
    assert answered + len(second.lines("Request handled successfully")) == 20
    assert second.end() == 0
