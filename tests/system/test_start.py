"""The start of the process: command line, version file, background, screen trace, trace file."""

import os
import re
import signal
import subprocess
import zipfile

import pytest

from kv_programs import SERVICE, WORKER, eventually, read_text

NOWHERE = ("--broker", "amqps://localhost:1", "--broker-user", "u", "--broker-password", "p")
VERSION = b"korvane Anti-Virus 4.0.3 Build 125\r\nkv-av-activecontent v.1.45\n "


def run(*arguments):
    return subprocess.run([WORKER, *arguments], capture_output=True, timeout=30, check=False,
                          stdin=subprocess.DEVNULL)


@pytest.mark.parametrize("arguments", [
    ("--lifespan", "5"), ("--lifespan=5",), ("-S",), ("-f",), ("--worker-threads",),
    ("--worker-threads", "99999999999999999999"), ("--broker", "amqps://")])
def test_a_command_line_that_cannot_be_read_leaves_nothing(tmp_path, arguments):
    done = run("--basedir", str(tmp_path), *NOWHERE, "--console-mode", *arguments)
    assert done.returncode == 255
    assert done.stderr.endswith(b"Failed to parse command line parameters\r\n")
    assert done.stdout == b""
    assert os.listdir(tmp_path) == []


def test_basedir_and_broker_are_required(tmp_path):
    done = run("--console-mode", *NOWHERE)
    assert done.returncode == 255 and b"basedir" in done.stderr
    done = run("--console-mode", "--basedir", str(tmp_path))
    assert done.returncode == 255 and b"broker" in done.stderr
    assert os.listdir(tmp_path) == []


def test_an_unknown_option_shows_on_the_screen_trace(tmp_path):
    done = run("--basedir", str(tmp_path), *NOWHERE, "--trace-to-screen", "--lifespan", "5")
    assert done.returncode == 255
    assert b'Unknown option "- ?"' in done.stderr


def start_in_background(folder, *arguments):
    # The worker keeps what it was started with, so that a pipe would not end with the caller.
    started = subprocess.run(
        [WORKER, "--basedir", str(folder), *NOWHERE, "--tracelevel", "5", "--tracefile",
         str(folder / "trace"), *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL, timeout=30, check=False)
    assert started.returncode == 0
    text = eventually(lambda: "Waiting for service" in read_text(folder / "trace")
                      and read_text(folder / "trace"))
    return int(re.search(r"PID: +(\d+)", text).group(1))


def test_without_console_mode_the_caller_gets_zero_at_once(tmp_path):
    pid = start_in_background(tmp_path)
    try:
        assert read_text("/proc/%d/stat" % pid).split()[2] in "SR"
        # It keeps its process group and its working directory.
        assert os.getpgid(pid) == os.getpgid(0)
        assert os.readlink("/proc/%d/cwd" % pid) == os.getcwd()
    finally:
        os.kill(pid, signal.SIGKILL)


def test_the_version_file_is_exact_and_written_at_every_start(tmp_path):
    file = tmp_path / SERVICE / ".running_version"
    for _ in range(2):
        os.kill(start_in_background(tmp_path), signal.SIGKILL)
        assert file.read_bytes() == VERSION
        file.write_bytes(b"x" * 500)
        os.unlink(tmp_path / "trace")
    assert os.stat(tmp_path / SERVICE).st_mode & 0o777 == 0o750


def test_a_base_directory_that_is_missing_ends_the_start(tmp_path):
    done = run("--basedir", str(tmp_path / "missing"), *NOWHERE, "--console-mode")
    assert done.returncode == 255
    assert b"Failed to write version file" in done.stderr


def test_inherited_descriptors_are_closed(tmp_path):
    read_end, write_end = os.pipe()
    os.set_inheritable(write_end, True)
    process = subprocess.Popen([WORKER, "--basedir", str(tmp_path), *NOWHERE, "--console-mode"],
                               close_fds=False, stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        assert eventually(lambda: (tmp_path / SERVICE / ".running_version").exists())
        os.close(write_end)
        assert os.read(read_end, 1) == b""  # the worker holds no end of the pipe any more
    finally:
        os.close(read_end)
        process.kill()
        process.wait()


def test_sigpipe_is_ignored_and_sigterm_handled(tmp_path):
    pid = start_in_background(tmp_path)
    try:
        status = read_text("/proc/%d/status" % pid)
        ignored = int(re.search(r"SigIgn:\s+([0-9a-f]+)", status).group(1), 16)
        caught = int(re.search(r"SigCgt:\s+([0-9a-f]+)", status).group(1), 16)
        assert ignored & (1 << (signal.SIGPIPE - 1))
        assert caught & (1 << (signal.SIGTERM - 1))
        assert not caught & (1 << (signal.SIGINT - 1))
    finally:
        os.kill(pid, signal.SIGKILL)


@pytest.mark.parametrize("with_file", [True, False])
def test_the_screen_trace_works_with_and_without_a_file(suite, make_worker, with_file):
    worker = make_worker(suite, "--trace-to-screen", level=4, trace=with_file)
    assert eventually(lambda: "Created 1 handler threads" in read_text(worker.errors))
    assert worker.end() == 0
    screen = read_text(worker.errors)
    line = re.compile(r"^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3,4}\] \x1b\[32mINFO  PID: +%d TID: "
                      r"+\d+ .*:main\(\): Shutdown complete \x1b\[90m\(\S+:\d+\)\x1b\[0m $"
                      % worker.pid, re.MULTILINE)
    assert line.search(screen), screen[-2000:]
    assert bool(worker.lines("Shutdown complete")) == with_file


def test_without_a_trace_nothing_is_written(suite, make_worker):
    worker = make_worker(suite, level=0, trace=False)
    assert eventually(lambda: any(worker.name in str(m) for m in suite.lines("control")))
    assert worker.end() == 0
    assert read_text(worker.errors) == ""
    assert sorted(os.listdir(worker.base)) == [SERVICE, "run", "stderr"]


def test_the_trace_begins_with_the_start_and_the_command_line(suite, make_worker):
    worker = make_worker(suite, level=6).wait_ready()
    assert worker.end() == 0
    lines = [line for line in worker.text().splitlines() if ":main(): " in line]
    stars = "*" * 84
    for text, line in zip((stars, " %s starting" % WORKER, " Version 4.0.3 Build 125", stars), lines):
        assert re.fullmatch(r"\[[0-9 :.-]+\] INFO  PID: +%d TID: +\d+ %s:main\(\): %s \(\S+:\d+\)"
                            % (worker.pid, re.escape(WORKER), re.escape(text)), line), line
    for number, argument in enumerate(worker.arguments, 1):
        assert "TRACE" in lines[3 + number]
        assert "CL [%d]: '%s'" % (number, argument) in lines[3 + number]
    last = worker.text().splitlines()[-1]
    assert "Ending worker with rc=0" in last


def test_a_full_trace_file_is_archived(suite, make_worker):
    worker = make_worker(suite, "--tracefile-maxsize", "1", level=6)
    worker.wait_ready()
    with open(worker.trace, "ab") as trace:
        trace.write(b"x" * 1_000_000)
    archive = eventually(lambda: [name for name in os.listdir(worker.base)
                                  if re.fullmatch(r"trace\.log_\d{4}-\d\d-\d\d__\d\d-\d\d-\d\d\.zip",
                                                  name)])
    assert archive
    assert worker.end() == 0
    with zipfile.ZipFile(os.path.join(worker.base, archive[0])) as packed:
        entry = packed.infolist()[0]
        assert entry.filename.lstrip("/") == worker.trace.lstrip("/")
        assert entry.external_attr >> 16 & 0o777 == 0o644
        assert packed.read(entry).endswith(b"x" * 1_000_000) or b"x" * 1000 in packed.read(entry)
    assert worker.lines("Ending worker with rc=0")


def test_wrong_ca_host_and_password_are_logged_and_retried(suite, make_worker, make_suite, tmp_path):
    other = make_suite("--no-control")
    for options in ({"ca": other.ca}, {"password": "wrong"}):
        worker = make_worker(suite, **options).wait_for("unexpected error", 2)
        assert worker.process.poll() is None
        assert worker.lines("Starting worker thread") == []
