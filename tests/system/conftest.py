"""Fixtures of the system tests: everything started here is ended here, whatever a test does."""

import glob
import os

import pytest

from kv_programs import Client, ControlService, Suite, Worker

DEFINITIONS = {"*": {"*": {}},
               "guarded": {"*": {"EXECUTABLE": 1, "FLASH": 1, "HTML_SCRIPT": 1}}}


@pytest.fixture(autouse=True)
def no_trace_lock_left(tmp_path):
    """The lock of a trace file outlives the processes that share it; here nobody needs it."""
    yield
    for lock in glob.glob("/dev/shm/sem.kv_log_" + str(tmp_path).replace("/", "_") + "*"):
        os.unlink(lock)


@pytest.fixture
def make_suite(tmp_path):
    suites = []

    def make(*arguments, **options):
        suites.append(Suite(tmp_path / ("suite%d" % len(suites)), *arguments, **options))
        return suites[-1]

    yield make
    for suite in suites:
        suite.end()


@pytest.fixture(scope="module")
def suite(tmp_path_factory):
    """One suite with its control service, for all tests of a file."""
    shared = Suite(tmp_path_factory.mktemp("suite") / "dir", definitions=DEFINITIONS)
    yield shared
    shared.end()


@pytest.fixture(scope="module")
def broker(tmp_path_factory):
    """One broker without a control service, for all tests of a file."""
    shared = Suite(tmp_path_factory.mktemp("broker") / "dir", "--no-control")
    yield shared
    shared.end()


@pytest.fixture
def make_worker(tmp_path):
    workers = []

    def make(own_suite, *arguments, **options):
        workers.append(Worker(tmp_path / ("base%d" % len(workers)), own_suite, *arguments,
                              **options))
        return workers[-1]

    yield make
    for worker in workers:
        worker.kill()


@pytest.fixture(scope="module")
def worker(suite, tmp_path_factory):
    """One worker that serves, for all tests of a file; its end must be clean."""
    shared = Worker(tmp_path_factory.mktemp("worker"), suite)
    shared.wait_ready()
    yield shared
    assert shared.end() == 0


@pytest.fixture
def make_client():
    clients = []

    def make(own_suite):
        clients.append(Client(own_suite))
        return clients[-1]

    yield make
    for client in clients:
        client.close()


@pytest.fixture(scope="module")
def client(suite):
    """One client of the shared suite."""
    shared = Client(suite)
    yield shared
    shared.close()


@pytest.fixture
def make_control():
    services = []

    def make(own_suite, answer=None, **options):
        services.append(ControlService(own_suite, answer, **options))
        return services[-1]

    yield make
    for service in services:
        service.end()
