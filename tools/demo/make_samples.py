#!/usr/bin/python3
"""Makes harmless sample files for a demonstration, each of a kind that carries active content, and
clean ones of the same kinds. Usage: make_samples.py FOLDER"""

import os
import shutil
import struct
import sys
import zipfile
import zlib

SECTOR = 512
END, FREE, FAT = 0xFFFFFFFE, 0xFFFFFFFF, 0xFFFFFFFD


def pdf(*objects):
    """A PDF file of the given objects, with its cross-reference table."""
    out, offsets = b"%PDF-1.7\n", []
    for number, body in enumerate(objects, 1):
        offsets.append(len(out))
        out += b"%d 0 obj\n%s\nendobj\n" % (number, body)
    table = b"".join(b"%010d 00000 n \n" % offset for offset in offsets)
    return out + b"xref\n0 %d\n0000000000 65535 f \n%strailer\n<< /Size %d /Root 1 0 R >>\n" % (
        len(objects) + 1, table, len(objects) + 1) + b"startxref\n%d\n%%%%EOF\n" % len(out)


def png():
    """One white pixel."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    header = struct.pack(">IIBBBBB", 1, 1, 8, 0, 0, 0, 0)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + \
        chunk(b"IDAT", zlib.compress(b"\x00\xff")) + chunk(b"IEND", b"")


def directory_entry(name, kind, child, class_id, start, size):
    encoded = (name + "\0").encode("utf-16-le")
    return encoded.ljust(64, b"\0") + struct.pack(
        "<HBBIII16sIQQIQ", len(encoded), kind, 1, FREE, FREE, child, class_id, 0, 0, 0, start, size)


def installer():
    """A compound file with the class of an installer database and a summary of one property."""
    class_id = bytes.fromhex("84100c0000000000c000000000000046")
    summary_format = bytes.fromhex("e0859ff2f94f6810ab9108002b27b3d9")
    title = b"Sample installer\0".ljust(20, b"\0")
    section = struct.pack("<IIII", 16 + 8 + len(title), 1, 2, 16) + \
        struct.pack("<II", 30, len(title)) + title
    summary = struct.pack("<HHI16sI", 0xFFFE, 0, 0x00020006, b"\0" * 16, 1) + summary_format + \
        struct.pack("<I", 48) + section
    summary = summary.ljust(4096, b"\0")
    streams = len(summary) // SECTOR
    chain = [FAT, END] + [2 + index + 1 for index in range(streams - 1)] + [END]
    table = chain + [FREE] * (SECTOR // 4 - len(chain))
    directory = directory_entry("Root Entry", 5, 1, class_id, END, 0) + \
        directory_entry("\x05SummaryInformation", 2, FREE, b"\0" * 16, 2, len(summary))
    header = bytes.fromhex("d0cf11e0a1b11ae1") + b"\0" * 16 + struct.pack(
        "<HHHHHHIIIIIIIIII", 0x3E, 3, 0xFFFE, 9, 6, 0, 0, 0, 1, 1, 0, 4096, END, 0, END, 0)
    header += struct.pack("<I", 0) + b"\xff" * (108 * 4)
    return header + struct.pack("<128I", *table) + directory.ljust(SECTOR, b"\0") + summary


def main(folder):
    def write(name, content):
        with open(os.path.join(folder, name), "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())

    os.makedirs(folder, exist_ok=True)
    shutil.copyfile("/bin/true", os.path.join(folder, "program.elf"))
    write("start.bat", "@echo off\r\necho hello\r\n")
    with zipfile.ZipFile(os.path.join(folder, "library.jar"), "w") as jar:
        jar.writestr("META-INF/MANIFEST.MF", "Manifest-Version: 1.0\r\n")
        jar.writestr("Sample.class", b"\xca\xfe\xba\xbe\0\0\0\x34")
    write("setup.msi", installer())
    write("script.html", "<!DOCTYPE html><html><body><script>alert('hello')</script></body></html>\n")
    write("handler.svg", '<?xml version="1.0"?><svg xmlns="http://www.w3.org/2000/svg" '
          'onload="alert(1)"><rect width="1" height="1"/></svg>\n')
    pages = b"<< /Type /Pages /Kids [] /Count 0 >>"
    write("script.pdf", pdf(b"<< /Type /Catalog /Pages 2 0 R /OpenAction << /S /JavaScript "
                            b"/JS (app.alert\\(1\\)) >> >>", pages))
    write("formula.csv", "name,amount\nmilk,=HYPERLINK(\"http://example.org\";\"click\")\n"
          "bread,2\nbutter,3\n")
    write("clean.txt", "Nothing but words.\n")
    write("clean.html", "<!DOCTYPE html><html><body><p>Nothing but words.</p></body></html>\n")
    write("clean.pdf", pdf(b"<< /Type /Catalog /Pages 2 0 R >>", pages))
    write("clean.csv", "name,amount\nmilk,1\nbread,2\n")
    write("clean.png", png())


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
