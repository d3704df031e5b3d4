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
UP_TO_REPORT = re.compile(r"(.*\ds)?", re.S)  # to the last one that may end there
# An input may unpack to this, or to so many times its size; what is more is not read.
MOST_UNPACKED, MOST_RATIO = 2 << 30, 100
UNREADABLE = (OSError, EOFError, ValueError, ArithmeticError, RuntimeError, struct.error,
              zipfile.BadZipFile, tarfile.TarError, lzma.LZMAError, zlib.error)
UNPACKERS = {b"\x1f\x8b": gzip.open, b"BZh": bz2.open, b"\xfd7zXZ\0": lzma.open}


class Text(typing.NamedTuple):
    name: str  # of the file, and behind a colon of each member
    family: str  # the archive, or the directory, whose texts are of one device
    blocks: typing.Iterator


class Counted(io.RawIOBase):
    """A file, of which is counted what is read."""

    def __init__(self, file, count):
        self._file, self._count = file, count

    def readable(self):
        return True

    def readinto(self, buffer):
        data = self._file.read1(len(buffer))  # what precedes a fault is read
        self._count(len(data))
        buffer[:len(data)] = data
        return len(data)


class Input:
    """A file, or the standard input for "-". Faults are told to report(name, fault)."""

    def __init__(self, path, report):
        self._path, self._report = path, report
        self._read = self._unpacked = 0  # bytes

    def texts(self):
        file, name = (0, "(standard input)") if self._path == "-" else (self._path, self._path)
        return self._unpack(partial(open, file, "rb"), name, os.path.dirname(self._path), 0)

    def _unpack(self, opener, name, family, depth):
        """The texts in a file that may be an archive, by its content."""
        try:
            file = Counted(opener(), partial(self._count, depth))
            stream = io.BufferedReader(file, CHUNK)
            members = members_of(stream, name, family)
            if members is None:
                yield Text(name, family, self._blocks(stream, name))
            elif depth == DEEPEST:
                raise ValueError("archives are too deep in each other")
            else:
                for member, member_name, member_family in members:
                    yield from self._unpack(member, member_name, member_family, depth + 1)
        except UNREADABLE as fault:
            self._report(name, fault)

    def _count(self, depth, size):
        if depth:
            self._unpacked += size
        else:
            self._read += size
        if self._unpacked > max(MOST_UNPACKED, MOST_RATIO * self._read):
            raise ValueError("unpacks to too much; the rest is not read")

    def _blocks(self, stream, name):
        """Blocks of whole lines without NULs. A longer one is cut, but never within a report."""
        is_utf16 = stream.peek().startswith((codecs.BOM_UTF16_LE, codecs.BOM_UTF16_BE))
        decoder = codecs.getincrementaldecoder("utf-16" if is_utf16 else "utf-8-sig")("replace")
        decoder = io.IncrementalNewlineDecoder(decoder, translate=True)
        rest = ""
        try:
            while data := stream.read1(CHUNK):
                text = rest + decoder.decode(data).replace("\0", "")
                end = text.rfind("\n") + 1
                if not end and len(text) > CHUNK:
                    end = UP_TO_REPORT.match(text, len(text) - LONGEST_REPORT).end()
                yield text[:end]
                rest = text[end:]
        except UNREADABLE as fault:
            self._report(name, fault)
        if rest:
            yield rest + "\n"


def members_of(stream, name, family):
    """What opens each member, its name and family; None if it is no archive."""
    head = stream.peek()[:tarfile.BLOCKSIZE]
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
    while stream.read(CHUNK):
        pass  # its end tells whether it is whole
