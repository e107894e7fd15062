"""Embedded objects go on through other services: worker, broker and services as whole programs."""

import base64
import json
import subprocess
import time

import pytest

import segments
from kv_programs import SERVICE, SUITE, Client, Suite, Worker, eventually, scan_request

# Services of this file, and what each answers.
CHAIN = {
    "kv-t-first": 0,
    "kv-t-second": 0,
    "kv-av-t-fallback": {"rows": [{"MIME-type": "by/fallback"}]},
    "kv-t-bad": {"code": -202, "reason": "Bad thing"},
    "kv-t-policy": {"code": -200, "rows": []},
    "kv-t-worse": {"code": -201, "reason": "Other code"},
    "kv-t-busy": {"code": -100, "reason": "Too busy"},
    "kv-t-mute-busy": {"code": -101, "rows": []},
    "kv-t-failed": {"code": -1000, "error": "Engine is gone"},
    "kv-t-slow": {"delay-ms": 400},
    "kv-t-quick": {"delay-ms": 5},
    "kv-t-never": {"never": 1},
    "kv-t-merge-1": {"rows": [{"MIME-type": "one/one", "File-size": 0, "Extension": ""}]},
    "kv-t-merge-2": {"rows": [{"MIME-type": "two/two", "File-size": 7, "Extension": ".two",
                               "File-type": "Two", "MIME-encoding": "utf-8"},
                              {"File-name": "*/inner.txt", "Extension": ".in"},
                              {"File-name": "elsewhere.txt"}, {"File-name": ""}]},
    "kv-t-row": {"rows": [{"File-name": "*/inner.exe", "ReturnCode": -202,
                           "Virusname": "In the row"}]},
    "kv-t-odd-rows": {"rows": [1, None, "x", [], {}]},
    "kv-t-no-json": {"text": "this is no JSON"},
    "kv-t-empty": {"text": "{}"},
    "kv-t-array": {"text": "[]"},
    "kv-t-text-code": {"text": '{"ReturnCode": "clean"}'},
    "kv-t-odd-code": {"code": 5},
    "kv-t-cut": {"text": '{"ReturnCode": 0'},
}
BUDGET_MS = 1500


@pytest.fixture(scope="module")
def suite(tmp_path_factory):
    arguments = ["--queue-messages", "100000"]
    for name, spec in CHAIN.items():
        arguments += ["--service", "%s=%s" % (name, json.dumps(spec))]
    shared = Suite(tmp_path_factory.mktemp("suite") / "dir", *arguments,
                   definitions={"*": {"*": {"HTML_SCRIPT": 1}}})
    yield shared
    assert shared.end() == 0


@pytest.fixture(scope="module", params=["message", "segment"])
def transport(request):
    return request.param


@pytest.fixture(scope="module")
def worker(suite, transport, tmp_path_factory):
    shared = Worker(tmp_path_factory.mktemp("worker"), suite,
                    *(["--useSharedMemoryforRecursion"] if transport == "segment" else []))
    shared.wait_ready()
    yield shared
    assert shared.end() == 0
    assert segments.made_by([shared.pid]) == []


@pytest.fixture(scope="module")
def client(suite):
    shared = Client(suite)
    yield shared
    shared.close()


def page_request(services, length, **members):
    values = {"mime": "text/html", "file_type": "HTML document", "Extension": ".html",
              "name": "page.html", "length": length, "Services": services, "Hostname": "host",
              "Scan-Servers": "servers", "XML_MODE": "ON", "SVG_MODE": "ON",
              "EVENT_ID_DELIMITER": ":", "SCANTIMEOUT": 20000, **members}
    missing = [key for key, value in values.items() if value is None]
    request = scan_request(**{key: values[key] for key in values if key not in missing})
    return {key: value for key, value in request.items() if key not in missing}


def data_url(payload, mime="text/plain"):
    return '<img src="data:%s;base64,%s">' % (mime, base64.b64encode(payload).decode())


def scan(client, services, page=data_url(b"some text\n"), limit=30.0, **members):
    data = page.encode()
    reply = client.request(SERVICE, page_request(services, len(data), **members), data, limit)
    assert reply is not None
    return reply


def rows(reply):
    return {row["File-name"]: row for row in reply["Results"]}


def asked(suite, event):
    """What the services were asked under an event id, in order."""
    return [line for line in suite.lines("chain")
            if isinstance(line["request"], dict) and line["request"].get("EventID") == event]


def wait_asked(suite, event, count):
    eventually(lambda: len(asked(suite, event)) >= count)
    return asked(suite, event)


def test_services_are_asked_in_their_order(suite, worker, transport, client):
    event = "order-%d" % time.monotonic_ns()
    reply = scan(client, "kv-t-first;;kv-av-cloudscan;kv-t-second;KV-AV-ScanProxy;", event=event,
                 Recursion=3)
    assert reply["ReturnCode"] == 0, reply
    assert sorted(rows(reply)) == ["page.html", "page.html/data-url-1"]
    seen = wait_asked(suite, event, 2)
    assert [line["service"] for line in seen] == ["kv-t-first", "kv-t-second"]
    for line in seen:
        request = line["request"]
        assert request["ObjectName"] == "page.html/data-url-1"
        assert request["ObjectLen"] == 10
        assert request["Recursion"] == 4
        assert request["Command"] == 101
        assert "SCAN_EXTENSION_MAX_LEN" not in request
        by_segment = transport == "segment"
        assert line["data-bytes"] == (0 if by_segment else 10)
        assert (request["shmID"] != "0xffffffff") == by_segment


def test_srcdoc_and_data_urls_are_numbered_together(worker, client):
    reply = scan(client, "kv-t-first", "<p srcdoc='one'>" + data_url(b"two"))
    assert reply["ReturnCode"] == 0, reply
    assert sorted(rows(reply)) == ["page.html", "page.html/data-url-2", "page.html/srcdoc-1"]


@pytest.mark.parametrize("services, code, reason", [
    ("kv-t-bad", -202, "Bad thing"),
    ("kv-t-policy", -200, "Policy Violation"),
    ("kv-t-worse", -201, "Other code"),
    ("kv-t-busy", -100, "Too busy"),
    ("kv-t-mute-busy", -100, "Scan could not be completed"),
    ("kv-t-busy+t-fallback", 0, ""),
    ("kv-t-busy+", 0, ""),
    ("kv-t-mute-busy+;kv-t-bad", -202, "Bad thing"),
    ("kv-t-bad+t-fallback", -202, "Bad thing"),
])
def test_codes_of_services(suite, worker, client, services, code, reason):
    event = "codes-%s-%d" % (services, time.monotonic_ns())
    after = ";kv-t-second" if code == 0 else ";kv-t-never"
    reply = scan(client, services + after, event=event)
    assert reply["ReturnCode"] == code, reply
    assert reply["Blocking-reason"] == reason
    if code == 0:
        assert wait_asked(suite, event, 2)[-1]["service"] == "kv-t-second"
    if "+t-fallback" in services and code == 0:
        assert rows(reply)["page.html/data-url-1"]["MIME-type"] == "by/fallback"


@pytest.mark.parametrize("service, error", [
    ("kv-t-failed", "Engine is gone"),
    ("kv-t-odd-code", "Invalid reply code 5 received from service kv-t-odd-code"),
    ("kv-t-no-json", None), ("kv-t-empty", None), ("kv-t-array", None), ("kv-t-text-code", None),
    ("kv-t-cut", None),
])
def test_rubbish_is_never_clean(worker, client, service, error):
    reply = scan(client, service)
    assert reply["ReturnCode"] == -1000, reply
    assert reply["Error"]
    if error is not None:
        assert reply["Error"] == error


def test_odd_rows_are_survived(worker, client):
    reply = scan(client, "kv-t-odd-rows")
    assert reply["ReturnCode"] == 0
    assert "page.html/data-url-1" in rows(reply)


def test_mimescan_fields_are_carried_on(suite, worker, client):
    event = "mime-%d" % time.monotonic_ns()
    reply = scan(client, "kv-t-first;kv-av-mimescan;kv-t-second", event=event,
                 page=data_url(b"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n"))
    assert reply["ReturnCode"] == 0, reply
    first, mimescan, second = [line["request"] for line in wait_asked(suite, event, 3)]
    assert "MIME-type" not in first and "MIME-type" not in mimescan
    assert second["MIME-type"] == "application/pdf"
    assert second["MIME-encoding"]
    assert second["File-type"].startswith("PDF document")
    assert second["Extension"] == ".pdf"
    assert second["Object-type"] == 0
    row = rows(reply)["page.html/data-url-1"]
    assert row["MIME-type"] == "application/pdf" and row["Extension"] == ".pdf"


def test_rows_are_merged_field_by_field(worker, client):
    found = rows(scan(client, "kv-t-merge-1;kv-t-merge-2"))
    child = found["page.html/data-url-1"]
    assert child["MIME-type"] == "one/one"
    assert child["File-size"] == 7
    assert (child["Extension"], child["File-type"], child["MIME-encoding"]) == \
        (".two", "Two", "utf-8")
    assert found["page.html/data-url-1/inner.txt"]["Extension"] == ".in"
    assert "page.html/data-url-1/elsewhere.txt" in found
    assert "page.html/data-url-1/" in found


def test_a_blocking_row_blocks_its_parents(worker, client):
    reply = scan(client, "kv-t-row")
    assert reply["ReturnCode"] == -202, reply
    assert reply["Blocking-reason"] == "In the row"
    assert rows(reply)["page.html"]["Virusname"] == "In the row"


def test_depth_is_limited_without_a_request(suite, worker, client):
    event = "depth-%d" % time.monotonic_ns()
    reply = scan(client, "kv-t-first", event=event, Recursion=5, SCANEXTRACT_DEPTH=5)
    assert reply["ReturnCode"] == -200
    assert reply["Blocking-reason"] == "Maximum extraction depth reached"
    reply = scan(client, "kv-t-first", event=event, Recursion=4, SCANEXTRACT_DEPTH=5)
    assert reply["ReturnCode"] == 0
    assert len(wait_asked(suite, event, 1)) == 1


def test_a_request_that_cannot_be_built_fails(worker, client):
    reply = scan(client, "kv-t-first", Hostname=None)
    assert reply == {"ReturnCode": -1000, "Error": "Failed to read Hostname from JSON"}
    reply = scan(client, "kv-t-first", SVG_MODE="")
    assert reply["Error"] == "Key SVG_MODE found, but value is empty"


@pytest.mark.parametrize("services", [
    "kv-t-slow;kv-t-slow;kv-t-slow;kv-t-slow;kv-t-slow;kv-t-slow;kv-t-slow;kv-t-slow",
    "kv-t-never", "kv-t-nobody-serves-this"])
def test_one_budget_for_all_services(worker, client, services):
    started = time.monotonic()
    reply = scan(client, services, SCANTIMEOUT=BUDGET_MS)
    spent = time.monotonic() - started
    assert reply["ReturnCode"] == -1000, reply
    assert reply["Error"]
    assert BUDGET_MS / 1000 - 0.2 <= spent < BUDGET_MS / 1000 + 5, spent
    assert eventually(lambda: segments.made_by([worker.pid]) == [])


class Serving:
    """A service in a process of its own, to be killed."""

    def __init__(self, suite, spec):
        self.process = subprocess.Popen(
            [SUITE, "serve", "--dir", suite.folder, "--service", spec],
            stdout=subprocess.PIPE, text=True)

    def wait_asked(self):
        line = self.process.stdout.readline()
        assert line.startswith('{"sink":"chain"'), line

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


def test_a_service_that_dies_is_replaced_within_the_budget(suite, worker, client):
    data = data_url(b"text").encode()
    queue = "kv-t-dying-%d" % time.monotonic_ns()
    dying = Serving(suite, queue + '={"delay-ms": 60000}')
    asking = client.send(SERVICE, [json.dumps(page_request(queue, len(data))), data])
    dying.wait_asked()
    dying.kill()
    second = Serving(suite, queue + "=0")
    reply = json.loads(client.wait(asking, 25))
    second.kill()
    assert reply["ReturnCode"] == 0, reply


def test_a_service_that_dies_alone_is_a_time_out(suite, worker, client):
    data = data_url(b"text").encode()
    queue = "kv-t-dying-%d" % time.monotonic_ns()
    dying = Serving(suite, queue + '={"delay-ms": 60000}')
    asking = client.send(
        SERVICE, [json.dumps(page_request(queue, len(data), SCANTIMEOUT=BUDGET_MS)), data])
    dying.wait_asked()
    dying.kill()
    assert json.loads(client.wait(asking, 25))["ReturnCode"] == -1000
    assert eventually(lambda: segments.made_by([worker.pid]) == [])


def test_a_page_of_a_thousand_data_urls(worker, client):
    page = "".join(data_url(b"child %d" % number) for number in range(1000))
    started = time.monotonic()
    reply = scan(client, "kv-t-quick", page, limit=100.0, SCANTIMEOUT=90000)
    spent = time.monotonic() - started
    print("1,000 data URLs of 5 ms each: %.1f s" % spent)
    assert reply["ReturnCode"] == 0, reply.get("Error")
    assert reply["FilesScanned"] == 1001
    assert {"page.html/data-url-%d" % number for number in range(1, 1001)} < set(rows(reply))
    assert spent >= 5.0


def test_a_thousand_data_urls_end_with_their_budget(worker, client):
    page = "".join(data_url(b"child %d" % number) for number in range(1000))
    started = time.monotonic()
    reply = scan(client, "kv-t-quick", page, limit=100.0, SCANTIMEOUT=BUDGET_MS)
    spent = time.monotonic() - started
    assert reply["ReturnCode"] == -1000
    assert BUDGET_MS / 1000 - 0.2 <= spent < BUDGET_MS / 1000 + 5, spent


def test_children_for_the_worker_itself_are_scanned_by_it(worker, client):
    inner = data_url(b"<p><script>x()</script></p>", "text/html").encode()
    page = data_url(b"<html><body><p>text</p>" + inner + b"</body></html>", "text/html")
    reply = scan(client, "kv-av-mimescan;" + SERVICE, page)
    assert reply["ReturnCode"] == -202, reply
    assert any(name.startswith("page.html/data-url-1/data-url-1") for name in rows(reply)), reply


def test_as_many_nested_requests_as_threads_end_by_time_out_at_worst(client, worker):
    """Four threads, each with a child for the same four: nobody is left to answer."""
    data = data_url(b"child").encode()
    request = json.dumps(page_request(SERVICE, len(data), SCANTIMEOUT=BUDGET_MS))
    started = time.monotonic()
    asking = [client.send(SERVICE, [request, data]) for _ in range(8)]
    codes = [json.loads(client.wait(number, 40))["ReturnCode"] for number in asking]
    assert set(codes) <= {0, -1000}, codes
    assert time.monotonic() - started < 30
    assert client.request(SERVICE, {"Command": 3}) == {"ReturnCode": 0}
    assert eventually(lambda: segments.made_by([worker.pid]) == [])
