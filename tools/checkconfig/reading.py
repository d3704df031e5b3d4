"""What stands in the files: bytes, faults, and the daemon's own reading of them."""
import itertools
import json
import os
import pathlib
import re
import signal
import stat

try:
    import jsonschema  # a Debian package
except ImportError:
    jsonschema = None

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
SCHEMA = json.loads((ROOT / "etc/tovrel.schema.json").read_text(encoding="utf-8"))
PREFIX = "persist.vendor.hg."
MAX_BYTES = 1 << 20
MAX_FAULTS = 20
MAX_CPU_SECONDS = 5  # for the schema; some lists of thousands take hours


class Refused(Exception):
    """Ends the command with one line."""


def read_file(path):
    descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    with os.fdopen(descriptor, "rb") as file:
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            raise Refused(f"{path}: not a regular file")
        content = file.read(MAX_BYTES + 1)
    if len(content) > MAX_BYTES:
        raise Refused(f"{path}: larger than {MAX_BYTES} bytes")
    return content


def read_properties(path):
    """The lines of a file of properties, those as getprop prints them ("[name]: [value]") turned
    into NAME=VALUE."""
    content = read_file(path)
    if b"\0" in content:
        raise Refused(f"{path}: not a text file")
    return re.sub(rb"^\[([^]\n]*)\]: \[(.*)\]\r?$", rb"\1=\2", content, flags=re.M)


def refuse_repeated_keys(pairs):
    """The daemon's JSON library takes the last of them without a word."""
    document = dict(pairs)
    if len(document) < len(pairs):
        keys = set()
        repeated = next(key for key, _ in pairs if key in keys or keys.add(key))
        raise ValueError(f"key {repeated!r} stands twice in one object")
    return document


def refuse_constant(word):
    raise ValueError(f"{word} is no number")


def end_of_patience(*_):
    raise Refused(f"the schema takes more than {MAX_CPU_SECONDS} s: too many entries")


def schema_faults(document, schema=None):
    if jsonschema is None:
        raise Refused("needs the package python3-jsonschema")
    validator = jsonschema.Draft7Validator(schema or SCHEMA)
    signal.signal(signal.SIGVTALRM, end_of_patience)
    signal.setitimer(signal.ITIMER_VIRTUAL, MAX_CPU_SECONDS)
    faults = [f"{fault.json_path.removeprefix('$.')}: {fault.message}"
              for fault in itertools.islice(validator.iter_errors(document), MAX_FAULTS)]
    signal.setitimer(signal.ITIMER_VIRTUAL, 0)
    return faults


def check(content):
    """The faults of a configuration, and the document."""
    try:
        document = json.loads(content.decode("utf-8"), object_pairs_hook=refuse_repeated_keys,
                              parse_constant=refuse_constant)
        return schema_faults(document), document
    except RecursionError:
        return ["nested too deeply"], None
    except ValueError as error:
        return [str(error)], None


def name_faults(settings):
    """Of the names that a property has added: those of the file have been checked."""
    processes = [{"process": name, "thread": threads}
                 for name, threads in settings["process_list"].items()]
    schema = {"$ref": "#/definitions/monitor_process/properties/list",
              "definitions": SCHEMA["definitions"]}
    return [f"{PREFIX}processes: {fault.partition(': ')[2]}"
            for fault in schema_faults(processes, schema)]
