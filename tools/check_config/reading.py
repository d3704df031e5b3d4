"""What stands in the files: their bytes, and the faults that the schema tells."""
import itertools
import json
import os
import pathlib
import re
import stat

import jsonschema

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PREFIX = "persist.vendor.hg."
MAX_BYTES = 1 << 18  # some hundred configurations, or the properties of some devices
MAX_FAULTS, MAX_FAULT = 20, 200  # and its characters


class Refused(Exception):
    """Ends the command with one line."""


def read_file(path):
    with open(path, "rb", opener=open_at_once) as file:
        if not stat.S_ISREG(os.fstat(file.fileno()).st_mode):
            raise Refused(f"{path}: not a regular file")
        content = file.read(MAX_BYTES + 1)
    if len(content) > MAX_BYTES:
        raise Refused(f"{path}: larger than {MAX_BYTES} bytes")
    return content


def open_at_once(path, flags):
    """A FIFO's writer is not waited for."""
    return os.open(path, flags | os.O_NONBLOCK)


def read_properties(path):
    """Lines NAME=VALUE as they stand, and those that getprop prints, "[name]: [value]", as such."""
    content = read_file(path)
    return re.sub(rb"^\[([^]\n]*)\]: \[(.*)\]\r?$", rb"\1=\2", content, flags=re.M)


def refuse_repeated_keys(pairs):
    """The daemon's JSON library takes the last of them without a word."""
    document = {}
    for key, value in pairs:
        if key in document:
            raise ValueError(f"key {key!r} stands twice in one object")
        document[key] = value
    return document


def read_config(path):
    """Its content, and the faults in it."""
    content = read_file(path)
    try:
        document = json.loads(content.decode(), object_pairs_hook=refuse_repeated_keys)
        return content, faults_of(document)
    except (RecursionError, ValueError) as error:
        return content, [f"{error!s:.{MAX_FAULT}}"]


def faults_of(document):
    """The first ones that the schema tells."""
    schema = json.loads((ROOT / "etc/tovrel.schema.json").read_text(encoding="utf-8"))
    faults = jsonschema.Draft7Validator(schema).iter_errors(document)
    return [f"{fault.json_path.removeprefix('$.')}: {fault.message:.{MAX_FAULT}}"
            for fault in itertools.islice(faults, MAX_FAULTS)]
