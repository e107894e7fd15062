"""Requests of clients, and embedded objects through other services."""

import base64
import json
import os
import time
import uuid

from proton import UNDESCRIBED, Array, Data

from lab import ELF, FAILED, OK, SERVICE, ends, no_errors, page, same, scan
import segments  # beside the system tests, found through lab


def check_requests(lab):
    control = lab.control()
    worker = lab.worker()
    reply = control.request(SERVICE, {"Command": 1})
    assert reply.pop("Timestamp") > 0
    same(reply, {"ReturnCode": 0, "MajorVersion": 1, "MinorVersion": 45, "NumberOfViruses": 0,
                 "NumberOfVariants": 0, "DriverName": "Active content detection"})
    same(control.request(SERVICE, {"Command": 3}), OK)
    same(control.wait_text(control.send(SERVICE, ['{"Command": 3}'])), '{"ReturnCode": 0}')
    found = json.dumps(scan(realmID="guarded", length=3, **ELF))
    array = Array(UNDESCRIBED, Data.STRING, found, "abc")
    for body in ([found, "abc"], [found, b"abc"], [found, "abc", 7], array,
                 {"json": found, "data": b"abc"}, {"json": found, "data": "abc", "more": 1}):
        answer = json.loads(control.wait_text(control.send(SERVICE, body)))
        same((answer["ReturnCode"], answer["FilesScanned"]), (-202, 1), repr(body)[:60])
        same(answer["Blocking-reason"], '"ELF 64-bit LSB executable" detected')
    clean = json.dumps(scan())
    for body in ([clean], [clean, None], [clean, b""], {"json": clean},
                 {"json": clean, "data": None}):
        same(json.loads(control.wait_text(control.send(SERVICE, body)))["ReturnCode"], 0, body)
    for value, code in (({"Command": 7}, 0), ({}, 0), ("{", -1), ("x" * 100000, -1),
                        ("[" * 10000, -1), (scan(length=10), 0), (scan(EventID=None), -1),
                        (scan(event=""), -1), (scan(realmID=None) | {}, -1)):
        data = b"eleven byte" if value == scan(length=10) else None
        reply = control.request(SERVICE, value, data)
        same(reply["ReturnCode"], code, repr(value)[:60])
    same(control.request(SERVICE, scan(length=10), b"eleven byte"), OK)
    same(control.request(SERVICE, scan(shmID=None)), {
        "ReturnCode": -1000, "Error": "Failed to get scan job details from MQ message"})
    for members in ({"id": "a text"}, {"id": 7}, {"id": uuid.uuid4()}):
        same(control.request(SERVICE, {"Command": 3}, **members), OK, members)
    no_errors(worker)
    ends(worker)


def check_rubbish_bodies(lab):
    control = lab.control()
    worker = lab.worker()
    rubbish = [[], [None], [""], [1, 2], [b"{}"], 7, "text", b"bytes", None, True, {},
               {"data": b"x"}, {"json": 7}, {"json": '{"Command": 3}', "data": 7},
               ['{"Command": 3}', 7], ['{"Command": 3}', [1]], [["{}"]], 1.5, uuid.uuid4(),
               Array(UNDESCRIBED, Data.INT, 1, 2)]
    for body in rubbish:
        answer = control.wait_text(control.send(SERVICE, body), 20)
        same(answer and json.loads(answer), FAILED, repr(body))
    for body, expected in ((b"data section", FAILED), (['{"Command": 3}'], OK)):
        answer = control.wait_text(control.send(SERVICE, body, inferred=True), 20)
        same(answer and json.loads(answer), expected, "section of " + repr(body))
    same(control.request(SERVICE, {"Command": 3}), OK)
    same(worker.lines("Sender reconnected"), [])
    ends(worker)


def check_bad_reply_to(lab):
    """Neither a lost connection for the others nor a request that comes round for ever."""
    control = lab.control()
    worker = lab.worker()
    bad = ["x/y", "", None, "z" * 300, "a b/c#*", "never-was-" + uuid.uuid4().hex, "/", "$x/y"]
    for round_number in range(2):
        ids = []
        for reply_to in bad:
            ids.append(control.send(SERVICE, [json.dumps(scan())], reply_to=reply_to))
            good = [control.send(SERVICE, [json.dumps(scan())]) for _ in range(20)]
            for message_id in good:
                assert control.wait_text(message_id), (round_number, reply_to)
        time.sleep(2)
        for message_id, reply_to in zip(ids, bad):
            seen = worker.lines("Processing request for service '%s' with msg.id: '%s'"
                                % (SERVICE, message_id))
            same(len(seen), 1, "handled, reply-to %r" % reply_to)
    same(worker.lines("Sender reconnected"), [])
    refused = worker.lines("The broker answered")
    same(len(worker.lines("has no reply-to")), 4)
    ends(worker)
    return "%d replies refused by the broker" % len(refused)


def check_big_objects(lab):
    control = lab.control()
    worker = lab.worker()
    took = []
    for size in (1 << 20, 20 << 20):
        data = os.urandom(1 << 20) * (size >> 20)
        started = time.monotonic()
        reply = control.request(SERVICE, scan(length=size), data, limit=120)
        same((reply["ReturnCode"], reply["Results"][0]["File-size"]), (0, size))
        took.append("%d MB %.2f s" % (size >> 20, time.monotonic() - started))
    started = time.monotonic()
    data = os.urandom(1 << 20)
    ids = [control.send(SERVICE, [json.dumps(scan(length=len(data))), data]) for _ in range(20)]
    for message_id in ids:
        same(json.loads(control.wait_text(message_id, 120))["ReturnCode"], 0)
    took.append("20 of 1 MB at a time %.2f s" % (time.monotonic() - started))
    started = time.monotonic()
    ids = [control.send(SERVICE, [json.dumps(scan(length=1, **ELF, realmID="guarded")), b"x"])
           for _ in range(500)]
    for message_id in ids:
        same(json.loads(control.wait_text(message_id, 120))["ReturnCode"], -202)
        same(len(control.replies[message_id]), 1)
    took.append("500 small ones at a time %.2f s" % (time.monotonic() - started))
    in_flight = [control.send(SERVICE, [json.dumps(scan())]) for _ in range(50)]
    for _ in range(1000):
        assert control.wait_text(in_flight.pop(0))
        in_flight.append(control.send(SERVICE, [json.dumps(scan())]))
    for message_id in in_flight:
        assert control.wait_text(message_id)
    no_errors(worker)
    ends(worker)
    return ", ".join(took)


def check_segments(lab):
    control = lab.control()
    worker = lab.worker()
    for shared in (b"<p><script>x</script>", b"<p>clean</p>"):
        segment = segments.Segment(shared).detach()
        reply = control.request(SERVICE, page("none", len(shared), shmID=segment.hexadecimal))
        same(reply["ReturnCode"], -202 if b"script" in shared else 0)
        assert segment.id not in segments.existing()
    segment = segments.Segment(b"short").detach()
    reply = control.request(SERVICE, page("none", 1 << 20, shmID=segment.hexadecimal))
    same(reply["ReturnCode"], -1000, "a segment that is shorter than the object")
    same(control.request(SERVICE, page("none", 5, shmID="0x7ffffff0")),
         {"ReturnCode": -1000, "Error": "Failed to attach shared memory segment"})
    same(segments.made_by([worker.pid, os.getpid()]), [])
    ends(worker)


def embedded(payload):
    return '<img src="data:text/plain;base64,%s">' % base64.b64encode(payload).decode()


def s_clean(message):
    request = json.loads(message.body[0])
    row = {"ReturnCode": 0, "File-name": request["ObjectName"], "MIME-type": "text/plain",
           "File-size": request["ObjectLen"], "MIME-encoding": "us-ascii", "File-type": "ASCII",
           "Extension": ".txt", "Virusname": " ", "Object-type": 1}
    return {"ReturnCode": 0, "FilesScanned": 1, "Results": [row]}


def chain():
    return {"kv-t-clean": s_clean, "kv-av-mimescan": s_clean,
            "kv-t-bad": lambda _: {"ReturnCode": -200, "Blocking-reason": "Bad thing",
                                   "FilesScanned": 0, "Results": []},
            "kv-t-busy": lambda _: {"ReturnCode": -100, "Blocking-reason": "Busy"},
            "kv-t-mute": lambda _: None, "kv-t-text": lambda _: "no JSON",
            "kv-t-list": lambda _: [], "kv-t-number": lambda _: [7],
            "kv-t-array": lambda _: "[1]", "kv-t-rows": lambda _: {
                "ReturnCode": 0, "FilesScanned": 3, "Results": [1, None, {}, "x"]}}


def check_recursion(lab, *arguments):
    control = lab.control()
    services = lab.peer(chain())
    worker = lab.worker(*arguments)
    shared = bool(arguments)

    def verdict(chain_text, text, **members):
        data = text.encode()
        return control.request(SERVICE, page(chain_text, len(data), **members), data, limit=60)

    reply = verdict("kv-av-mimescan;;kv-av-cloudscan;kv-t-clean", embedded(b"hello"))
    same(reply["ReturnCode"], 0, reply)
    same([row["File-name"] for row in reply["Results"]][-1:] and
         sorted(row["File-name"] for row in reply["Results"]),
         ["page.html", "page.html/data-url-1"])
    for name in ("kv-av-mimescan", "kv-t-clean"):
        request = json.loads(services.texts(name)[0])
        same((request["ObjectName"], request["ObjectLen"], request["Recursion"],
              request["shmID"] != "0xffffffff"), ("page.html/data-url-1", 5, 1, shared))
    sent = [message.body for _, name, message in services.received if name == "kv-t-clean"][0]
    same(sent[1:], [] if shared else ["hello"])
    same(json.loads(services.texts("kv-t-clean")[0])["MIME-type"], "text/plain")
    for text, name in (("<p srcdoc='one'>" + embedded(b"two"), "page.html/srcdoc-1"),
                       ("<iframe srcdoc=\"&lt;p&gt;x\">", "page.html/srcdoc-1")):
        reply = verdict("kv-t-clean", text)
        same(reply["ReturnCode"], 0, reply)
        assert name in [row["File-name"] for row in reply["Results"]], reply
    same(verdict("kv-t-bad", embedded(b"x"))["ReturnCode"], -200)
    same(verdict("kv-t-busy", embedded(b"x"))["ReturnCode"], -100)
    same(verdict("kv-t-busy+;kv-t-clean", embedded(b"x"))["ReturnCode"], 0)
    for name in ("kv-t-text", "kv-t-list", "kv-t-number", "kv-t-array", "kv-t-nobody",
                 "x/y", "q" * 300):
        reply = verdict(name, embedded(b"x"), SCANTIMEOUT=3000)
        same(reply["ReturnCode"], -1000, (name, reply))
        assert reply["Error"], reply
    same(verdict("kv-t-rows", embedded(b"x"))["ReturnCode"], 0)
    started = time.monotonic()
    reply = verdict("kv-t-mute", embedded(b"x"), SCANTIMEOUT=2000)
    took = time.monotonic() - started
    same(reply["ReturnCode"], -1000, reply)
    assert 1.5 < took < 10, took
    same(verdict("kv-t-clean", embedded(b"x"), SCANEXTRACT_DEPTH=1, Recursion=1)["ReturnCode"],
         -200)
    ids = []
    for _ in range(50):
        data = embedded(b"many").encode()
        ids.append(control.send(SERVICE, [json.dumps(page("kv-t-clean", len(data))), data]))
    for message_id in ids:
        same(json.loads(control.wait_text(message_id))["ReturnCode"], 0)
    same(segments.made_by([worker.pid]), [])
    same(control.request(SERVICE, {"Command": 3}), OK)
    lost = len(worker.lines("Sender reconnected"))
    ends(worker)
    return "silent service: %.1f s of 2 s; connections lost: %d" % (took, lost)


def check_recursion_by_segment(lab):
    return check_recursion(lab, "--useSharedMemoryforRecursion")
