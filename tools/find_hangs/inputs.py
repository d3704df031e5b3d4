"""The texts in files and archives, as blocks of lines, in bounded memory."""
import bz2
import codecs
import gzip
import io
import lzma
import os
import re
import shutil
import struct
import tarfile
import tempfile
import typing
import zipfile
import zlib
from functools import partial

DEEPEST = 4  # archives within archives
CHUNK = 256 * 1024  # bytes read at once
LONGEST_REPORT = 1024
# A longer line is cut, but never within a report.
LINE_PART = re.compile(rb".{1,3072}(?:.{0,1022}\ds)?", re.S)
# An input may unpack to this and so many times its size; what is more is not read.
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


class Stream(io.RawIOBase):
    """A file of which the head was read before, from its begin again."""

    def __init__(self, head, file, count):
        self._head, self._file, self._count = head, file, count

    def readable(self):
        return True

    def readinto(self, buffer):
        # What precedes a fault is read.
        data = self._head[:len(buffer)] or self._file.read1(len(buffer))
        self._head = self._head[len(buffer):]
        self._count(len(data))
        buffer[:len(data)] = data
        return len(data)


class Input:
    """A file, or the standard input for "-". Faults are told to report(name, fault)."""

    def __init__(self, path, report):
        self._path, self._report = path, report
        self._left = MOST_UNPACKED

    def texts(self):
        is_file = self._path != "-"
        opener = partial(open, self._path if is_file else 0, "rb")
        name = self._path if is_file else "(standard input)"
        yield from self._unpack(opener, name, os.path.dirname(self._path), 0)

    def _count(self, depth, size):
        self._left += -size if depth else MOST_RATIO * size
        if self._left < 0:
            raise ValueError("unpacks to too much; the rest is not read")

    def _unpack(self, opener, name, family, depth):
        """The texts in a file that may be an archive, by its content."""
        try:
            file = opener()
            head = b""
            while more := file.read1(tarfile.BLOCKSIZE - len(head)):
                head += more
            stream = io.BufferedReader(Stream(head, file, partial(self._count, depth)), CHUNK)
            members = members_of(head, stream, name, family)
            if members is None:
                yield Text(name, family, self._blocks(stream, name))
            elif depth == DEEPEST:
                raise ValueError("archives are too deep in each other")
            else:
                for member, member_name, member_family in members:
                    yield from self._unpack(member, member_name, member_family, depth + 1)
        except UNREADABLE as fault:
            self._report(name, fault)

    def _blocks(self, stream, name):
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
            self._report(name, fault)
        if rest:
            yield rest


def members_of(head, stream, name, family):
    """What opens each member, its name and family; None if it is no archive."""
    for magic, unpacker in UNPACKERS.items():
        if head.startswith(magic):
            return [(partial(unpacker, stream), name, family)]
    if head.startswith((b"PK\3\4", b"PK\5\6")):
        return zip_members(stream, name)
    try:
        tarfile.TarInfo.frombuf(head, "utf-8", "replace")
    except tarfile.TarError:
        return None
    return tar_members(stream, name)


def zip_members(stream, name):
    with tempfile.TemporaryFile() as file:
        shutil.copyfileobj(stream, file)  # its directory is at the end
        with zipfile.ZipFile(file) as archive:
            for info in archive.infolist():
                if not info.is_dir():
                    yield partial(archive.open, info), f"{name}:{info.filename}", name


def tar_members(stream, name):
    with tarfile.open(fileobj=stream, mode="r|") as archive:
        for info in archive:
            archive.members = []  # which would grow with the archive
            if info.isreg():
                yield partial(archive.extractfile, info), f"{name}:{info.name}", name


def decoder_of(data):
    """The data without a UTF-8 mark, and what makes UTF-8 of it and of what follows."""
    if data.startswith((codecs.BOM_UTF16_LE, codecs.BOM_UTF16_BE)):
        decoder = codecs.getincrementaldecoder("utf-16")("replace")
        return data, lambda data: decoder.decode(data).encode("utf-8", "replace")
    return data.removeprefix(codecs.BOM_UTF8), lambda data: data


def cut_of(data):
    """Where a block ends: behind a line, or in a longer one where no report can be."""
    end = max(data.rfind(b"\n"), data.rfind(b"\r", 0, -1)) + 1
    if end or len(data) < CHUNK:
        return end
    return re.compile(rb"(.*\ds)?", re.S).match(data, len(data) - LONGEST_REPORT).end()


def parts_of(line):
    """Parts of it that are short enough, none of which ends within a report."""
    return LINE_PART.findall(line) or [line]
