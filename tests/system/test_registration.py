"""Registration, its cadence, and the messages between two instances, as the control service sees
them."""

import json
import re
import time

from kv_programs import CONTROL, SERVICE, eventually


def test_the_worker_pings_registers_and_registers_again(broker, make_control, make_worker):
    control = make_control(broker)
    worker = make_worker(broker, "--register-interval", "1")
    texts = control.wait_for(200, 4)
    assert control.received[0][1] == '{ "Command" : 3 }'
    secret = json.loads(texts[0])["Secret"]
    assert re.fullmatch("[0-9a-zA-Z]{32}", secret)
    start = '"worker-name": "%s", "service-name": "kv-av-activecontent", "Primary": 0, ' \
            '"Secret": "%s"}' % (worker.name, secret)
    assert texts[0] == '{ "Command": 200 , ' + start
    assert texts[1:4] == ['{ "Command": 200 ,' + start] * 3
    # Strictly more than one whole second: between one and two and a bit.
    times = control.times(200)
    for earlier, later in zip(times[1:], times[2:]):
        assert 0.9 <= later - earlier <= 3.5
    assert worker.end() == 0


def test_the_default_interval_gives_six_seconds(broker, make_control, make_worker):
    control = make_control(broker)
    worker = make_worker(broker, "--primary")
    control.wait_for(200, 3)
    first, second, third = control.times(200)[:3]
    assert 5 <= second - first <= 7.5
    assert 5 <= third - second <= 7.5
    assert all(json.loads(text)["Primary"] == 1 for text in control.texts(200))
    assert worker.end() == 0


def test_any_reply_counts_as_success(broker, make_control, make_worker):
    control = make_control(broker, lambda request: {"ReturnCode": -1000} if request["Command"] == 200
                           else {"anything": 1})
    worker = make_worker(broker).wait_ready()
    assert len(control.texts(200)) == 1
    assert worker.lines("Failed to register") == []
    assert worker.end() == 0


def test_registration_goes_on_until_it_is_answered(broker, make_control, make_worker):
    replies = []

    def answer(request):
        if request["Command"] == 200:
            replies.append(request)
            return {"ReturnCode": 0} if len(replies) > 5 else "this is no JSON"
        return {"ReturnCode": 0}

    make_control(broker, answer)
    worker = make_worker(broker).wait_ready()
    failures = worker.lines("Failed to register worker with control - retrying")
    assert len(failures) == 5 and all("ERROR" in line for line in failures)
    assert worker.end() == 0


def test_ready_and_shutdown_are_sent_before_the_control_address_opens(broker, make_control,
                                                                      make_worker):
    make_control(broker)
    launcher = make_control(broker, address="launcher-1")
    temporary = make_control(broker, address="temporary-1")
    worker = make_worker(broker, "--signal_when_ready", "launcher-1", "--shutdown_when_ready",
                         "temporary-1", "--secret", "given").wait_ready()
    ready = launcher.wait_for(4)[0]
    own = json.loads(ready)["Shutdown-Secret"]
    assert ready == '{ "Command" : 4 , "Secret":"given", "Shutdown":"%s", "Shutdown-Secret":"%s"}' \
        % (worker.name, own)
    assert temporary.wait_for(9) == ['{ "Command" : 9 , "Secret":"given"}']
    assert worker.lines("Signaling ready to launcher-1 with given")
    assert worker.lines("Sending shutdown request to temporary-1 with given")
    assert worker.end() == 0


def test_a_refused_handover_ends_the_worker(broker, make_control, make_worker):
    make_control(broker)
    make_control(broker, lambda request: {"ReturnCode": -1000}, address="refusing")
    for option, line in (("--signal_when_ready", "Failed to send READY message"),
                         ("--shutdown_when_ready", "Failed to send SHUTDOWN message")):
        worker = make_worker(broker, option, "refusing", "--secret", "s")
        assert worker.wait() == 255
        assert worker.lines(line)
        assert worker.lines("Ending worker with rc=-1")


def test_load_is_sampled_and_told(broker, make_control, make_worker):
    control = make_control(broker)
    worker = make_worker(broker, "--autoscale", "--autoscale-monitoring-period", "2")
    notice = control.wait_for(202)[0]
    assert notice == '{ "Command" : 202 , "worker-name" : "%s", "service-name" : "%s", ' \
        '"Primary" : 0 }' % (worker.name, SERVICE)
    worker.wait_for("Load Low-Water mark met. Average load is less than 10 percent over the past "
                    "2 seconds")
    assert worker.end() == 0


def test_a_primary_worker_tells_no_low_load(broker, make_control, make_worker):
    control = make_control(broker)
    worker = make_worker(broker, "--autoscale", "--autoscale-monitoring-period", "2", "--primary",
                         "--register-interval", "1").wait_ready()
    control.wait_for(200, 4)
    assert control.texts(202) == []
    assert worker.end() == 0


def test_the_wait_for_the_control_service_ends_with_its_answer(broker, make_control, make_worker):
    worker = make_worker(broker).wait_for("Waiting for service " + CONTROL)
    time.sleep(1)
    assert worker.lines("Starting worker thread") == []
    make_control(broker)
    worker.wait_ready()
    assert eventually(lambda: worker.lines("Starting worker thread 0 and parameters at 0x"))
    assert worker.end() == 0
