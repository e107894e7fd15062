"""Objects that lie in a shared-memory segment instead of the message."""

import io
import json
import multiprocessing
import random
import struct
import time
import zipfile

import pytest

import segments
from kv_programs import SERVICE, Client, Suite, Worker, eventually, scan_request
from segments import Segment

def compound_file():
    """A small compound file: header, one sector of its allocation table, directory, one stream."""
    header = struct.pack("<8s16xHHHHH6x10I", b"\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1", 0x3e, 3, 0xfffe,
                         9, 6, 0, 1, 1, 0, 4096, 0xfffffffe, 0, 0xfffffffe, 0, 0)
    header += struct.pack("<109I", 0, *[0xffffffff] * 108)[:512 - len(header)]
    table = struct.pack("<128I", 0xfffffffd, 0xfffffffe, *range(3, 10), 0xfffffffe,
                        *[0xffffffff] * 118)

    def entry(name, kind, child, start, size):
        text = name.encode("utf-16-le")
        return struct.pack("<64sHBBIII36xIQ", text, len(text) + 2, kind, 1, 0xffffffff, 0xffffffff,
                           child, start, size)

    directory = entry("Root Entry", 5, 1, 0xfffffffe, 0) + entry("Macros", 1, 2, 0, 0) + \
        entry("WordDocument", 2, 0xffffffff, 2, 4096) + bytes(128)
    return header + table + directory + b"stream.." * 512


def package():
    """A package of Office with a few parts."""
    file = io.BytesIO()
    with zipfile.ZipFile(file, "w", zipfile.ZIP_DEFLATED) as archive:
        archive.writestr("[Content_Types].xml", "<Types>" + "<Override/>" * 50 + "</Types>")
        archive.writestr("word/document.xml", "<w:document>" + "<w:p>text</w:p>" * 2000)
        archive.writestr("word/media/image.png", random.Random(1).randbytes(20000))
    return file.getvalue()


# Content, what a request says of it, and the verdict.
OBJECTS = {
    "clean": (b"<html><body>text</body></html>", {"mime": "text/html"}, 0),
    "script": (b"<html><script>x()</script></html>", {"mime": "text/html"}, -202),
    "handler": (b"<p onclick='x()'>text</p>" * 1000, {"mime": "text/html"}, -202),
    "pdf": (b"%PDF-1.4\n1 0 obj\n<</Type/Catalog/OpenAction<</S/JavaScript/JS(x)>>>>\nendobj\n",
            {"mime": "application/pdf", "file_type": "PDF document", "Extension": ".pdf"}, -202),
    "csv": (b"id,name,city\n1,=cmd(),x\n2,b,y\n", {"mime": "text/csv", "Extension": ".csv"}, -202),
    "compound": (compound_file(), {
        "mime": "application/msword", "Extension": ".doc",
        "file_type": "Composite Document File V2 Document, Microsoft Word"}, -202),
    "package": (package(), {
        "mime": "application/vnd.openxmlformats-officedocument.wordprocessingml.document",
        "Extension": ".docx", "file_type": "Microsoft Word 2007+"}, 0),
    "one byte": (b"x", {}, 0),
    "megabytes": (b"<p>text</p>\n" * 400000, {"mime": "text/html"}, 0),
}
SWITCHES = {"HTML_SCRIPT": 1, "HTML_JAVASCRIPT": 1, "HTML_EVENTHANDLER": 1, "PDF_JAVASCRIPT": 1,
            "PDF_OPENACTION": 1, "PDF_AA": 1, "CSV_INJECTION": 1, "FLASH": 1, "EXECUTABLE": 1,
            "GIFAR": 1, "MSOFFICE_MACRO": 1, "MSOFFICE_OLE": 1}


@pytest.fixture(scope="module")
def suite(tmp_path_factory):
    shared = Suite(tmp_path_factory.mktemp("suite") / "dir", "--service", 'kv-t-never={"never":1}',
                   definitions={"*": {"*": SWITCHES}})
    yield shared
    assert shared.end() == 0


@pytest.fixture(scope="module")
def worker(suite, tmp_path_factory):
    """Under AddressSanitizer where the environment's KV_WORKER was built so."""
    shared = Worker(tmp_path_factory.mktemp("worker"), suite, "--useSharedMemoryforRecursion",
                    level=3)
    client = Client(suite)
    assert client.request(SERVICE, {"Command": 3}) == {"ReturnCode": 0}
    client.close()
    yield shared
    assert shared.end() == 0
    assert segments.made_by([shared.pid]) == []


@pytest.fixture(scope="module")
def client(suite):
    shared = Client(suite)
    yield shared
    shared.close()


@pytest.fixture
def make_segment():
    made = []

    def make(data, size=None):
        made.append(Segment(data, size))
        return made[-1]

    yield make
    for segment in made:
        segment.close()


def by_segment(client, segment, length, **members):
    return client.request(SERVICE, scan_request(shmID=segment.hexadecimal, length=length,
                                                **members))


@pytest.mark.parametrize("kind", OBJECTS)
def test_a_segment_gives_the_verdict_of_a_message(worker, client, make_segment, kind):
    data, members, code = OBJECTS[kind]
    by_message = client.request(SERVICE, scan_request(length=len(data), **members), data)
    assert by_message["ReturnCode"] == code, by_message
    segment = make_segment(data).detach()
    assert by_segment(client, segment, len(data), **members) == by_message
    assert segment.id not in segments.existing(), "its first user is its last"


def test_a_segment_may_be_larger_than_the_object(worker, client, make_segment):
    data = b"<p>text</p><script>x()</script>"
    segment = make_segment(data, 100000)
    assert by_segment(client, segment, 11, mime="text/html")["ReturnCode"] == 0
    assert by_segment(client, segment, len(data), mime="text/html")["ReturnCode"] == -202


@pytest.mark.parametrize("length", [5, 4096, 4097, 2 ** 31, 2 ** 63 - 1])
def test_a_length_beyond_the_segment_is_refused(worker, client, make_segment, length):
    segment = make_segment(b"four", 4).detach()
    assert by_segment(client, segment, length) == {
        "ReturnCode": -1000, "Error": "Failed to attach shared memory segment"}
    assert segment.id not in segments.existing()


@pytest.mark.parametrize("name", ["0x7fffffff", "7ffffff0", "-5"])
def test_a_segment_that_is_not_there(worker, client, name):
    reply = client.request(SERVICE, scan_request(shmID=name, length=4))
    assert reply == {"ReturnCode": -1000, "Error": "Failed to attach shared memory segment"}


def test_a_segment_of_a_scan_that_times_out_goes(worker, client, make_segment):
    data = b'<img src="data:text/plain,child">'
    segment = make_segment(data).detach()
    started = time.monotonic()
    reply = by_segment(client, segment, len(data), mime="text/html", Services="kv-t-never",
                       SCANTIMEOUT=700, Hostname="h", XML_MODE="ON", SVG_MODE="ON",
                       EVENT_ID_DELIMITER=":", **{"Scan-Servers": "s"})
    assert reply["ReturnCode"] == -1000 and time.monotonic() - started < 10
    assert segment.id not in segments.existing()
    assert eventually(lambda: segments.made_by([worker.pid]) == [])


def flip(number, size, seed, stop):
    """Changes bytes of a segment, as another process of the machine may at any time."""
    chance = random.Random(seed)
    address = segments.LIBC.shmat(number, None, 0)
    content = (segments.ctypes.c_ubyte * size).from_address(address)
    words = [b"<script>", b"<!--", b"-->", b"srcdoc='", b"data:;base64,", b"&#x3c;", b"\"", b"<",
             b"endobj", b"/JavaScript", b"PK\x01\x02", b"\xff\xff\xff\xff"]
    while not stop.is_set():
        for _ in range(200):
            word = chance.choice(words)
            place = chance.randrange(size - len(word))
            content[place:place + len(word)] = list(word)
            place = chance.randrange(size)
            content[place] = chance.randrange(256)


@pytest.mark.parametrize("kind", ["handler", "pdf", "csv", "compound", "package"])
def test_bytes_that_change_under_the_scan(worker, client, make_segment, kind):
    data, members, _ = OBJECTS[kind]
    if kind not in ("compound", "package"):  # these are whole files
        data = (data * (65536 // len(data) + 1))[:65536]
    segment = make_segment(data)  # stays attached, so that it outlives the worker's uses
    stop = multiprocessing.get_context("fork").Event()
    seed = time.time_ns() % 1000000
    writer = multiprocessing.get_context("fork").Process(
        target=flip, args=(segment.id, len(data), seed, stop))
    writer.start()
    codes = set()
    try:
        until = time.monotonic() + 2
        while time.monotonic() < until:
            # No service is named that could be asked, so a child ends the scan by itself.
            reply = by_segment(client, segment, len(data), Services="kv-av-cloudscan", **members)
            assert reply is not None, "seed %d" % seed
            codes.add(reply["ReturnCode"])
    finally:
        stop.set()
        writer.join()
    assert codes <= {0, -1, -100, -101, -200, -202, -1000}, (seed, json.dumps(sorted(codes)))
    assert worker.process.poll() is None
    assert client.request(SERVICE, {"Command": 3}) == {"ReturnCode": 0}
