"""The texts in files and archives, as blocks of lines, in bounded memory."""
import bz2
import codecs
import gzip
import io
import lzma
import os
import re
import struct
import tarfile
import tempfile
import typing
import zipfile
import zlib
from functools import partial

DEEPEST = 4  # archives within archives
CHUNK = 256 * 1024  # bytes read at once
LONGEST_LINE = 4096  # bytes; a longer one is cut, but never within a report
LONGEST_REPORT = 1024
# An input may unpack to this, or to so many times its size; what is more is not read.
MOST_UNPACKED, MOST_RATIO = 2 << 30, 100
UNREADABLE = (OSError, EOFError, ValueError, ArithmeticError, RuntimeError, struct.error,
              zipfile.BadZipFile, tarfile.TarError, lzma.LZMAError, zlib.error)
UNPACKERS = {b"\x1f\x8b": gzip.open, b"BZh": bz2.open, b"\xfd7zXZ\0": lzma.open}


class Text(typing.NamedTuple):
    name: str  # of the file, and behind a colon of each member
    family: str  # the archive, or the directory, whose texts are of one device
    blocks: typing.Iterator

    @property
    def is_member(self):
        return self.name.startswith(f"{self.family}:")


class Budget:
    """Counts what is unpacked from one input."""

    def __init__(self, size):
        self._left = max(MOST_UNPACKED, MOST_RATIO * size)

    def spend(self, size):
        self._left -= size
        if self._left < 0:
            raise ValueError("unpacks to too much; the rest is not read")


class Stream(io.RawIOBase):
    """A file that was read from before, from its begin again; what it holds is spent."""

    def __init__(self, head, file, budget):
        self._head, self._file, self._budget = head, file, budget

    def readable(self):
        return True

    def readinto(self, buffer):
        data = self._head[:len(buffer)] or self._file.read(len(buffer))
        self._head = self._head[len(buffer):]
        if self._budget:
            self._budget.spend(len(data))
        buffer[:len(data)] = data
        return len(data)


def texts(path, report):
    """The texts in a file, or in standard input for "-". Faults are told to report(name, fault)."""
    name = "(standard input)" if path == "-" else path
    try:
        size = os.stat(0 if path == "-" else path).st_size
    except OSError as fault:
        report(name, fault)
    else:
        opener = partial(open, 0 if path == "-" else path, "rb", buffering=0)
        yield from unpack(opener, name, os.path.dirname(path), Budget(size), 0, report)


def unpack(opener, name, family, budget, depth, report):
    """The texts in a file that may be an archive, by its content."""
    try:
        file = opener()
        head = file.read(tarfile.BLOCKSIZE)
        while 0 < len(head) < tarfile.BLOCKSIZE and (more := file.read(tarfile.BLOCKSIZE)):
            head += more
        stream = io.BufferedReader(Stream(head, file, budget if depth else None), CHUNK)
        members = members_of(head, stream, name, family)
        if members is None:
            yield Text(name, family, blocks(stream, name, report))
        elif depth == DEEPEST:
            raise ValueError("archives are too deep in each other")
        else:
            for member, member_name, member_family in members:
                yield from unpack(member, member_name, member_family, budget, depth + 1, report)
    except UNREADABLE as fault:
        report(name, fault)


def members_of(head, stream, name, family):
    """What opens each member, its name and family; None if it is no archive."""
    for magic, unpacker in UNPACKERS.items():
        if head.startswith(magic):
            return [(partial(unpacker, stream), name, family)]
    if head.startswith((b"PK\3\4", b"PK\5\6")):
        return zip_members(stream, name)
    try:
        tarfile.TarInfo.frombuf(head[:tarfile.BLOCKSIZE], "utf-8", "replace")
    except tarfile.TarError:
        return None
    return tar_members(stream, name)


def zip_members(stream, name):
    with tempfile.TemporaryFile() as file:
        # The directory is at the end.
        while data := stream.read(CHUNK):
            file.write(data)
        with zipfile.ZipFile(file) as archive:
            for info in archive.infolist():
                if not info.filename.endswith("/"):
                    yield partial(archive.open, info), f"{name}:{info.filename}", name


def tar_members(stream, name):
    with tarfile.open(fileobj=stream, mode="r|") as archive:
        for info in archive:
            archive.members = []  # which would grow with the archive
            if info.isreg():
                yield partial(archive.extractfile, info), f"{name}:{info.name}", name


def blocks(stream, name, report):
    """Blocks of whole lines, as UTF-8 without NULs. A longer line than a block is cut."""
    decode, rest = None, b""
    try:
        while data := stream.read(CHUNK):
            if decode is None:
                data, decode = decoder_of(data)
            rest += decode(data).translate(None, b"\0")
            cut = cut_of(rest)
            yield rest[:cut]
            rest = rest[cut:]
    except UNREADABLE as fault:
        report(name, fault)
    if rest:
        yield rest


def decoder_of(data):
    """The data without a UTF-8 mark, and what makes UTF-8 of it and of what follows."""
    if data.startswith((codecs.BOM_UTF16_LE, codecs.BOM_UTF16_BE)):
        decoder = codecs.getincrementaldecoder("utf-16")("replace")
        return data, lambda data: decoder.decode(data).encode("utf-8", "replace")
    return data.removeprefix(codecs.BOM_UTF8), lambda data: data


def cut_of(data):
    """Where a block ends: behind a line, or in a longer one where no report can be."""
    end = max(data.rfind(b"\n"), data.rfind(b"\r", 0, -1)) + 1
    return end if end or len(data) < CHUNK else cut_of_line(data)


def cut_of_line(line):
    """Behind the last report that may end in it; one that does not is in its end."""
    tail = len(line) - LONGEST_REPORT
    return max((match.end() for match in re.finditer(rb"\ds", line[tail:])), default=0) + tail


def parts_of(line):
    while len(line) > LONGEST_LINE:
        cut = cut_of_line(line[:LONGEST_LINE])
        yield line[:cut]
        line = line[cut:]
    yield line
