"""What the end-to-end measurements share: programs for the length of a with block, a broker, a worker."""
import glob
import json
import os
import signal
import socket
import subprocess
import sys
import threading
import time

# Ended from outside a measurement still ends its programs.
signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SERVICE = "kv-av-activecontent"
CONTROL = "kv-av-worker-control"
REGISTRATION = 200
TICKS = os.sysconf("SC_CLK_TCK")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def make_certificate(folder):
    certificate, key = os.path.join(folder, "cert.pem"), os.path.join(folder, "key.pem")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                    "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-keyout", key, "-out",
                    certificate], check=True, stderr=subprocess.DEVNULL)
    return certificate, key


class Program:
    """A child process for the length of a with block; its output is read line by line as it comes."""

    def __init__(self, command):
        self.name = os.path.basename(command[0])
        self.started = time.monotonic()
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True)
        self.lines = []  # (monotonic time, text)
        self.changed = threading.Condition()
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            with self.changed:
                self.lines.append((time.monotonic(), line.rstrip("\n")))
                self.changed.notify_all()

    def wait_for(self, wanted, since=0, limit=30):
        """The time of the first line, of those behind the first few, that the predicate wants."""
        with self.changed:
            hit = self.changed.wait_for(
                lambda: next((line for line in self.lines[since:] if wanted(line[1])), None), limit)
        if hit is None:
            raise RuntimeError(f"{self.name} says nothing of what is waited for (status {self.process.poll()})")
        return hit[0]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def cpu_seconds(self):
        with open(f"/proc/{self.process.pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / TICKS

    def resident_kib(self):
        with open(f"/proc/{self.process.pid}/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))


def ready(program):
    program.wait_for(lambda line: line == "ready")
    return program


class Lab:
    """The measuring programs of one build and one transport; the broker runs for the with block."""

    def __init__(self, preset, scratch, tls):
        self.folder = os.path.join(ROOT, "build", preset, "bin")
        self.scratch = scratch
        self.port = str(free_port())
        self.pair = make_certificate(scratch) if tls else ()
        self.trust = list(self.pair[:1])

    def program(self, name):
        return os.path.join(self.folder, name)

    def __enter__(self):
        self.broker = ready(Program([self.program("kv_bench_broker"), self.port, *self.pair]))
        return self

    def __exit__(self, *_):
        self.broker.__exit__()
        for lock in glob.glob("/dev/shm/*kv_log_" + self.scratch.replace("/", "_") + "*"):
            os.unlink(lock)  # of the workers' trace files

    def echo(self, mode, queue):
        return ready(Program([self.program("kv_bench_echo"), self.port, queue, mode, *self.trust]))

    def transport(self, queue):
        return ready(Program([self.program("kv_bench_service"), self.port, queue, *self.trust]))

    def worker(self, name, *arguments, threads=50):
        """A worker in a base folder of its own."""
        scheme = "amqps" if self.pair else "amqp"
        trust = ["--broker-cert", self.trust[0]] if self.pair else []
        base = os.path.join(self.scratch, name)
        os.makedirs(base, exist_ok=True)
        return Program([self.program(SERVICE), "--basedir", base,
                        "--broker", f"{scheme}://localhost:{self.port}", "--broker-user", "bench",
                        "--broker-password", "bench", *trust, "--worker-threads", str(threads),
                        "--console-mode", *arguments])

    def registered_worker(self, control, name, *arguments):
        """The worker once it has asked to be registered; the seconds that this took it."""
        since = len(control.lines)
        worker = self.worker(name, *arguments)
        try:
            asked = control.wait_for(lambda line: json.loads(line).get("Command") == REGISTRATION, since)
        except RuntimeError:
            worker.__exit__()
            raise
        return worker, asked - worker.started

    def load(self, queue, request, size, in_flight, seconds):
        """One run of the asking side: its figures."""
        client = subprocess.run([self.program("kv_bench_client"), self.port, queue, request, str(size),
                                 str(in_flight), str(seconds), *self.trust], capture_output=True, text=True,
                                timeout=60 + 10 * seconds, check=False)
        if client.returncode != 0:
            raise RuntimeError(f"no answer from {queue}: {client.stdout}{client.stderr}")
        return json.loads(client.stdout)

    def measure(self, service, queue, request, size, in_flight, seconds):
        """The same with the service's CPU time per message."""
        before = service.cpu_seconds()
        result = self.load(queue, request, size, in_flight, seconds)
        result["cpu_us"] = 1e6 * (service.cpu_seconds() - before) / result["all"]
        return result
