"""Every form of a reply on the service address, through broker and worker."""

import json

import pytest

from kv_programs import SERVICE, scan_request

OK = {"ReturnCode": 0}


def test_ping_on_the_service_address(worker, client):
    assert client.request_text(SERVICE, '{ "Command" : 3 }') == '{"ReturnCode": 0}'


def test_service_initialisation_tells_driver_and_versions(worker, client):
    reply = client.request(SERVICE, {"Command": 1})
    assert reply["DriverName"] == "Active content detection"
    assert (reply["MajorVersion"], reply["MinorVersion"]) == (1, 45)
    assert (reply["NumberOfViruses"], reply["NumberOfVariants"]) == (0, 0)
    assert reply["ReturnCode"] == 0 and reply["Timestamp"] > 1_000_000_000


@pytest.mark.parametrize("text", ["", "{", "no json", '{"Command": 101', "[" * 5000])
def test_text_that_is_no_json_is_answered_minus_one(worker, client, text):
    expected = {"ReturnCode": -1} if text else \
        {"ReturnCode": -1000, "Error": "Failed to handle request"}
    assert json.loads(client.request_text(SERVICE, text)) == expected


@pytest.mark.parametrize("value", [{}, [], 7, None, "text", {"Command": 7}, {"Command": 99},
                                   {"Command": None}, {"command": 3}])
def test_missing_and_unknown_commands_are_answered_zero(worker, client, value):
    assert client.request(SERVICE, value) == OK


@pytest.mark.parametrize("command", [101, 102])
def test_a_clean_object_has_one_row(worker, client, command):
    data = b"nothing to see here"
    reply = client.request(SERVICE, scan_request(command=command, length=len(data), mime="text/plain",
                                                 file_type="ASCII text", Extension=".txt"), data)
    assert reply["ReturnCode"] == 0
    assert reply["FilesScanned"] == 1
    assert reply["Blocking-reason"] == ""
    row = reply["Results"][0]
    assert list(row) == ["ReturnCode", "File-name", "File-size", "MIME-type", "MIME-encoding",
                         "File-type", "Extension", "Object-type", "Virusname"]
    assert row["ReturnCode"] == 0
    assert row["Virusname"] == " "
    assert row["File-size"] == len(data)
    assert row["File-name"] == "upload.bin"


def test_active_content_is_blocked_with_its_reason(worker, client):
    data = b"\x7fELF" + bytes(60)
    request = scan_request(realmID="guarded", length=len(data), mime="application/x-executable",
                           file_type="ELF 64-bit LSB executable", Extension="")
    reply = client.request(SERVICE, request, data)
    assert reply["ReturnCode"] == -202
    assert reply["Blocking-reason"] != ""
    assert reply["Results"][0]["Virusname"] == reply["Blocking-reason"]
    # The same object where the switch is off.
    assert client.request(SERVICE, dict(request, realmID="other"), data)["ReturnCode"] == 0


@pytest.mark.parametrize("told, data", [(10, b"x" * 11), (12, b"x" * 11), (-1, b"x"), (0, b"x")])
def test_a_length_that_lies_is_not_scanned(worker, client, told, data):
    assert client.request(SERVICE, scan_request(length=told), data) == OK


def test_a_length_that_is_missing_counts_as_zero(worker, client):
    assert client.request(SERVICE, scan_request(length=None), b"x") == OK


@pytest.mark.parametrize("event", [None, ""])
def test_an_event_id_is_required(worker, client, event):
    assert client.request(SERVICE, scan_request(event=event)) == {"ReturnCode": -1}


@pytest.mark.parametrize("key", ["realmID", "SID"])
@pytest.mark.parametrize("value", [None, ""])
def test_realm_and_sid_are_required(worker, client, key, value):
    assert client.request(SERVICE, scan_request(**{key: value})) == {"ReturnCode": -1}


@pytest.mark.parametrize("key", ["ObjectName", "Services", "shmID", "HTMLDETECTION"])
@pytest.mark.parametrize("value", [None, ""])
def test_a_job_without_a_required_key_fails_as_a_whole(worker, client, key, value):
    reply = client.request(SERVICE, scan_request(**{key: value}))
    assert list(reply) == ["ReturnCode", "Error"]
    assert reply["ReturnCode"] == -1000
    assert reply["Error"] != ""


@pytest.mark.parametrize("body", [["{}", None], "text", b"bytes", 7, None, [], [7], [None],
                                  [["{}"]], ["{}", 7], {"data": "x"}, {"json": 7}])
def test_a_body_of_another_form_does_no_harm(worker, client, body):
    reply = client.wait(client.send(SERVICE, body))
    assert json.loads(reply) in (OK, {"ReturnCode": -1000, "Error": "Failed to handle request"})


def test_a_null_second_element_counts_as_absent(worker, client):
    reply = client.wait(client.send(SERVICE, ['{"Command": 3}', None]))
    assert json.loads(reply) == OK


def test_a_map_is_read_by_its_keys(worker, client):
    data = b"hello"
    request = scan_request(length=len(data))
    reply = client.wait(client.send(SERVICE, {"json": json.dumps(request), "data": data}))
    assert json.loads(reply)["FilesScanned"] == 1


def test_data_may_be_text(worker, client):
    reply = client.wait(client.send(SERVICE, [json.dumps(scan_request(length=5)), "hello"]))
    assert json.loads(reply)["FilesScanned"] == 1


def test_large_objects_arrive_whole(worker, client):
    data = bytes(4 << 20)
    reply = client.request(SERVICE, scan_request(length=len(data)), data)
    assert reply["Results"][0]["File-size"] == len(data)


def test_a_request_without_reply_to_is_taken_and_dropped(worker, client):
    client.send(SERVICE, ['{"Command": 3}'], reply_to=False)
    worker.wait_for("has no reply-to")
    assert client.request(SERVICE, {"Command": 3}) == OK


def test_many_requests_at_once_are_all_answered(worker, client):
    data = b"content"
    ids = [client.send(SERVICE, [json.dumps(scan_request(length=len(data))), data])
           for _ in range(90)]
    assert all(json.loads(client.wait(i))["ReturnCode"] == 0 for i in ids)


def test_the_time_of_each_request_is_logged(worker, client):
    before = len(worker.lines("Request handled in "))
    client.request(SERVICE, {"Command": 7})
    worker.wait_for("Request handled in ", before + 1)
    client.request(SERVICE, {"Command": 3})
    assert len(worker.lines("Request handled in ")) == before + 1
