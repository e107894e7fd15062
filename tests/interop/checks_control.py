"""The worker and the control service, other workers, and the sinks of its records."""

import json
import re
import uuid

from lab import (CONTROL, ELF, EVENTS, FAILED, LOG, OK, REFUSED, SERVICE, Worker, ends, no_errors,
                 same, scan)


def check_registration(lab):
    control = lab.control()
    worker = lab.worker("--primary")
    control.until(lambda: len(control.texts(CONTROL, 200)) >= 3, 60)
    pings = control.texts(CONTROL, 3)
    same(set(pings), {'{ "Command" : 3 }'})
    first, *more = control.texts(CONTROL, 200)
    form = '"worker-name": "%s", "service-name": "%s", "Primary": 1, "Secret": "(.{32})"}' % (
        re.escape(worker.name), SERVICE)
    secret = re.fullmatch(r'\{ "Command": 200 , ' + form, first).group(1)
    for text in more:
        same(re.fullmatch(r'\{ "Command": 200 ,' + form, text).group(1), secret)
    times = control.times(CONTROL, 200)
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert all(5 < gap < 9 for gap in gaps[1:]), gaps
    control.until(lambda: control.texts(LOG) and control.texts(EVENTS), 30)
    text = "Active content detection worker (Primary), PID %d ready with 8 threads" % worker.pid
    same(json.loads(control.texts(LOG)[0])["StatusLog"]["LogData"]["Message"], text)
    event = json.loads(control.texts(EVENTS)[0])
    same((event["Command"], event["Event"]), (501, {"Type": 3010, "Event-Message": text}))
    no_errors(worker)
    took = ends(worker)
    events = [json.loads(text)["Event"]["Type"] for text in control.texts(EVENTS)]
    same(events, [3010, 3030])
    same(worker.lines("] ERROR"), [])
    return "gaps %s s, end %.1f s" % (["%.2f" % gap for gap in gaps], took)


def check_ready_and_shutdown(lab):
    answers = {"good": OK, "bad": {"ReturnCode": -1000}}
    control = lab.control()
    targets = lab.peer({"target-" + name: (lambda _, reply=reply: reply)
                        for name, reply in answers.items()})
    worker = lab.worker("--signal_when_ready", "target-good", "--secret", "s3cret")
    text = targets.texts("target-good")[0]
    own = re.search('"Secret": "(.{32})"', control.texts(CONTROL, 200)[0]).group(1)
    same(text, '{ "Command" : 4 , "Secret":"s3cret", "Shutdown":"%s", "Shutdown-Secret":"%s"}'
         % (worker.name, own))
    same(control.request(worker.name, {"Command": 9, "Secret": "wrong"}), REFUSED)
    same(worker.process.poll(), None)
    same(control.request(worker.name, {"Command": 9, "Secret": "s3cret"}), OK)
    same(worker.wait(30), 0)
    second = lab.worker("--shutdown_when_ready", "target-good", "--secret", "s4")
    same(targets.texts("target-good")[1], '{ "Command" : 9 , "Secret":"s4"}')
    ends(second)
    for option in ("--signal_when_ready", "--shutdown_when_ready"):
        refused = lab.worker(option, "target-bad", "--secret", "x", ready=False)
        same(refused.wait(60), 255, option)
    absent = lab.worker("--signal_when_ready", "target-nobody", "--secret", "x", ready=False)
    same(absent.wait(90), 255, "nobody answers")


def check_control_jobs(lab):
    fetched = lab.control()
    worker = lab.worker("--secret", "right")
    job = lambda **members: fetched.request(worker.name, members)  # noqa: E731
    same(job(Command=3), OK)
    same(job(Command=4, Secret="right", Shutdown="t", **{"Shutdown-Secret": "s"}), REFUSED)
    for secret in ("wrong", "righ", "RIGHT"):
        same(job(Command=9, Secret=secret), REFUSED, secret)
    for members in ({"Command": 9}, {"Command": 9, "Secret": ""}, {"Command": 4}):
        same(job(**members), FAILED, members)
    same(fetched.request(worker.name, "{"), FAILED)
    same(fetched.request(worker.name, {"Command": 5}, limit=2), None)
    worker.wait_for("Unhandled Command Code 5 received")
    same(fetched.request(worker.name, {}, limit=2), None)

    def asks(realm):
        before = len(fetched.texts(CONTROL, 203))
        reply = fetched.request(SERVICE, scan(realmID=realm))
        same(reply["ReturnCode"], 0)
        return len(fetched.texts(CONTROL, 203)) - before

    same([asks("open"), asks("open"), asks("guarded"), asks("open")], [1, 0, 1, 0])
    same(fetched.texts(CONTROL, 203)[0], '{ "Command" : 203 , "realmID" : "open", "SID" : "SID" }')
    for members, expected in (({"Command": 10, "RealmID": "other"}, [0, 0]),
                              ({"Command": 10, "RealmID": "open"}, [1, 0]),
                              ({"Command": 10, "SID": "SID"}, [1, 1]),
                              ({"Command": 12}, [1, 1])):
        same(job(**members), OK)
        same([asks("open"), asks("guarded")], expected, members)
    no_errors(worker)
    ends(worker)


def check_missing_definition(lab):
    replies = [None, "none", [["EXECUTABLE", 1]]]
    control = lab.control(lambda _: replies.pop(0))
    worker = lab.worker()
    for _ in range(2):
        same(control.request(SERVICE, scan()), {
            "ReturnCode": -1000, "Error": "Failed to get active content definitions for open/SID"})
    same(control.request(SERVICE, scan(length=1, **ELF), b"x")["ReturnCode"], -202)
    same(replies, [])
    ends(worker)


def check_services_slow_to_answer(lab):
    """A control service that answers after a second, and one that answers rubbish first."""
    replies = ["no JSON", [], [7], "[]"]
    calls = []

    def control(message):
        request = json.loads(message.body[0])
        calls.append(request["Command"])
        if request["Command"] == 3 or not replies:
            return {"ReturnCode": 0, "Active-content-definition": []}
        return replies.pop(0)

    peer = lab.peer({CONTROL: control, LOG: lambda _: OK, EVENTS: lambda _: OK})
    worker = lab.worker()
    same(peer.request(SERVICE, scan())["ReturnCode"], 0)
    ends(worker)
    return "commands %s" % calls


def check_odd_replies(lab):
    """Replies that nobody asked for, twice the same or of foreign forms: none harms others."""
    peers = []

    def control(message):
        peer, to = peers[0], message.reply_to
        for members in ({}, {"correlation_id": uuid.uuid4()}, {"correlation_id": "text"},
                        {"correlation_id": 7}, {"correlation_id": b"bytes"}):
            peer.send(to, ['{"ReturnCode": 0}'], reply_to=None, **members)
        peer.send(to, {"a": "map"}, reply_to=None, correlation_id=uuid.uuid4())
        peer.send(to, 7, reply_to=None)
        reply = [json.dumps({"ReturnCode": 0, "Active-content-definition": []})]
        for _ in range(2):
            peer.send(to, reply, reply_to=None, correlation_id=message.id)

    peers.append(lab.peer())
    lab.peer({CONTROL: control, LOG: lambda _: OK, EVENTS: lambda _: OK})
    worker = lab.worker()
    for turn in range(5):
        ids = [peers[0].send(SERVICE, [json.dumps(scan(realmID="r%d-%d" % (turn, i)))])
               for i in range(20)]
        for message_id in ids:
            same(json.loads(peers[0].wait_text(message_id, 90))["ReturnCode"], 0)
    same(peers[0].request(SERVICE, {"Command": 3}, reply_to=SERVICE, limit=1), None)
    same(peers[0].request(worker.name, {"Command": 3}, reply_to=worker.name, limit=1), None)
    message_id = peers[0].send(SERVICE, ['{"Command": 3}'], id=None)
    assert peers[0].until(lambda: message_id in peers[0].replies, 20), "no id, no reply"
    same(peers[0].request(SERVICE, {"Command": 3}), OK)
    no_errors(worker)
    ends(worker)
    return "timed out: %d" % len(worker.lines("Timeout"))


def check_records_after_an_outage(lab):
    control = lab.peer({CONTROL: lambda _: OK})
    worker = lab.worker()
    worker.wait_for("Failed to send log/event entry", limit=90)
    sinks = lab.peer({LOG: lambda _: OK, EVENTS: lambda _: OK})
    sinks.until(lambda: sinks.texts(LOG) and sinks.texts(EVENTS), 60)
    same(len(set(sinks.texts(EVENTS))), 1)
    same(json.loads(sinks.texts(EVENTS)[0])["Event"]["Type"], 3010)
    sinks.end()
    ends(worker, 60)
    same(len(control.texts(CONTROL, 200)) > 0, True)
    late = lab.peer({LOG: lambda _: OK, EVENTS: lambda _: OK})
    folder = worker.base
    again = Worker(folder, lab, threads=2)
    lab.workers.append(again)
    late.until(lambda: len({json.loads(text)["EventID"] for text in late.texts(EVENTS)}) >= 2, 90)
    kinds = [json.loads(text)["Event"]["Type"] for text in late.texts(EVENTS)]
    assert kinds[0] == 3030 and 3010 in kinds, kinds
    again.wait_for("Receiver opened for address '%s'" % again.name)
    ends(again, 60)
    return "copies of the first event while it was alive: %d" % len(sinks.texts(EVENTS))
