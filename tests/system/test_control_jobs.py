"""Control jobs on the worker's own address, and the suite's commands for them."""

import json

import pytest

from kv_programs import SERVICE, Worker, eventually, scan_request

OK = {"ReturnCode": 0}
REFUSED = {"ReturnCode": -1000}


@pytest.fixture(scope="module")
def commands(suite):
    """The suite's commands towards a worker."""
    if suite.command("workers").returncode != 0:
        pytest.skip("this kv-av-suite has no commands towards a worker")
    return suite.command


@pytest.fixture(scope="module")
def guarded(suite, tmp_path_factory):
    """A worker that was given a secret."""
    worker = Worker(tmp_path_factory.mktemp("guarded"), suite, "--secret", "right")
    worker.wait_ready()
    yield worker
    worker.kill()


def test_ping_on_the_control_address(guarded, client):
    assert client.request(guarded.name, {"Command": 3}) == OK


def test_the_suites_ping_reaches_both_addresses(guarded, commands):
    for address in (guarded.name, SERVICE):
        assert commands("ping", address).returncode == 0


@pytest.mark.parametrize("secret", ["wrong", "righ", "right2", "RIGHT", "(null)"])
def test_shutdown_with_another_secret_is_refused(guarded, client, secret):
    assert client.request(guarded.name, {"Command": 9, "Secret": secret}) == REFUSED
    guarded.wait_for('secret mismatch (Local: "right" remote: "%s") - not shutting down' % secret)
    assert guarded.process.poll() is None


@pytest.mark.parametrize("job", [{"Command": 9}, {"Command": 9, "Secret": ""}, {"Command": 4}])
def test_a_secret_is_required(guarded, client, job):
    assert client.request(guarded.name, job)["ReturnCode"] == -1000
    assert guarded.process.poll() is None


def test_ready_without_an_activation_is_refused(guarded, client):
    job = {"Command": 4, "Secret": "right", "Shutdown": "t", "Shutdown-Secret": "s"}
    assert client.request(guarded.name, job) == REFUSED
    assert guarded.lines("SERVICE_READY message received")


def test_an_unknown_command_is_not_answered(guarded, client):
    assert client.request(guarded.name, {"Command": 5}, limit=1) is None
    guarded.wait_for("Unhandled Command Code 5 received")


def test_text_that_is_no_json_is_answered_as_failed(guarded, client):
    assert json.loads(client.request_text(guarded.name, "{")) == \
        {"ReturnCode": -1000, "Error": "Failed to handle request"}


def test_a_worker_without_a_secret_refuses_every_shutdown(worker, client):
    for secret in ("", "x", "(null)"):
        assert client.request(worker.name, {"Command": 9, "Secret": secret})["ReturnCode"] == -1000
    assert worker.process.poll() is None


def test_definitions_are_fetched_once_and_again_after_a_flush(broker, make_control, make_worker,
                                                              make_client):
    control = make_control(broker, lambda request: {
        "ReturnCode": 0, "Active-content-definition": [["EXECUTABLE", 1]]})
    worker = make_worker(broker).wait_ready()
    client = make_client(broker)

    def scan(realm):
        reply = client.request(SERVICE, scan_request(realmID=realm, length=4, mime="x/y",
                                                     file_type="ELF executable"), b"\x7fELF")
        assert reply["ReturnCode"] == -202
        return len(control.texts(203))

    assert [scan("r1"), scan("r1"), scan("r2"), scan("r1")] == [1, 1, 2, 2]
    assert control.texts(203)[0] == '{ "Command" : 203 , "realmID" : "r1", "SID" : "SID" }'
    for job, fetched in (({"Command": 10, "RealmID": "other"}, 0),
                         ({"Command": 10, "RealmID": "r1", "SID": "SID"}, 1),
                         ({"Command": 10, "RealmID": "r1"}, 1), ({"Command": 10, "SID": "SID"}, 2),
                         ({"Command": 10}, 2), ({"Command": 12, "RealmID": "other"}, 2)):
        before = len(control.texts(203))
        assert client.request(worker.name, job) == OK
        scan("r1")
        assert scan("r2") - before == fetched, job
    assert worker.end() == 0


def test_a_missing_definition_fails_the_scan_and_is_asked_for_again(broker, make_control,
                                                                    make_worker, make_client):
    replies = [{"ReturnCode": -1}, {"ReturnCode": 0, "Active-content-definition": "none"},
               {"ReturnCode": 0, "Active-content-definition": []}]

    def answer(request):
        return replies.pop(0) if request["Command"] == 203 else {"ReturnCode": 0}

    control = make_control(broker, answer)
    worker = make_worker(broker).wait_ready()
    client = make_client(broker)
    for _ in range(2):
        reply = client.request(SERVICE, scan_request())
        assert reply == {"ReturnCode": -1000,
                         "Error": "Failed to get active content definitions for realm/SID"}
    assert client.request(SERVICE, scan_request())["ReturnCode"] == 0
    assert len(control.texts(203)) == 3
    assert worker.end() == 0


def test_the_suites_flush_command_reaches_the_worker(worker, commands, client):
    assert commands("flush", worker.name, "--all").returncode == 0
    worker.wait_for("Flushed active content definitions")


def test_the_right_secret_ends_the_worker_and_is_answered(suite, client, make_worker):
    worker = make_worker(suite, "--secret", "right").wait_ready()
    assert client.request(worker.name, {"Command": 9, "Secret": "right"}) == OK
    assert worker.wait() == 0
    assert worker.lines("SERVICE_SHUTDOWN request received")
    assert worker.lines("Ending worker with rc=0")


def test_the_suites_shutdown_command_ends_the_worker(suite, commands, make_worker, tmp_path):
    worker = make_worker(suite, "--secret", "right").wait_ready()
    secret = tmp_path / "secret"
    secret.write_text("wrong\n")
    assert commands("shutdown", worker.name, "--secret-file", str(secret)).returncode != 0
    secret.write_text("right\n")
    assert commands("shutdown", worker.name, "--secret-file", str(secret)).returncode == 0
    assert worker.wait() == 0


def test_the_suite_knows_its_workers(worker, commands):
    names = [json.loads(line) for line in commands("workers").stdout.splitlines()]
    assert eventually(lambda: any(worker.name in json.dumps(name) for name in names))
