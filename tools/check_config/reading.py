"""What stands in the files: their bytes, and the faults that the schema tells."""
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
PREFIX = "persist.vendor.hg."
MAX_BYTES = 1 << 18  # some hundred configurations
MAX_FAULTS = 20
PATIENCE = 3  # s for the schema: some lists of thousands take hours


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
    """Lines NAME=VALUE as they stand, and those that getprop prints, "[name]: [value]", as such."""
    return re.sub(rb"^\[([^]\n]*)\]: \[(.*)\]\r?$", rb"\1=\2", read_file(path), flags=re.M)


def refuse_repeated_keys(pairs):
    """The daemon's JSON library takes the last of them without a word."""
    document = {}
    for key, value in pairs:
        if key in document:
            raise ValueError(f"key {key!r} stands twice in one object")
        document[key] = value
    return document


def refuse_constant(word):
    raise ValueError(f"{word} is no number")


def lose_patience(*_):
    raise Refused(f"the schema takes more than {PATIENCE} s: too many entries")


def schema_faults(document, part=""):
    """Of a document, or of what stands in one at `part` of the schema."""
    if jsonschema is None:
        raise Refused("needs the package python3-jsonschema")
    schema = json.loads((ROOT / "etc/tovrel.schema.json").read_text(encoding="utf-8"))
    if part:
        schema = {"$ref": part, "definitions": schema["definitions"]}
    signal.signal(signal.SIGVTALRM, lose_patience)
    signal.setitimer(signal.ITIMER_VIRTUAL, PATIENCE)
    faults = itertools.islice(jsonschema.Draft7Validator(schema).iter_errors(document), MAX_FAULTS)
    texts = [f"{fault.json_path.removeprefix('$.')}: {shortened(fault.message)}"
             for fault in faults]
    signal.setitimer(signal.ITIMER_VIRTUAL, 0)
    return texts


def check(content):
    """The faults of a configuration, and the document."""
    try:
        document = json.loads(content.decode("utf-8"), object_pairs_hook=refuse_repeated_keys,
                              parse_constant=refuse_constant)
        return schema_faults(document), document
    except RecursionError:
        return ["nested too deeply"], None
    except ValueError as error:
        return [shortened(str(error))], None


def shortened(text):
    return text if len(text) < 200 else f"{text[:80]} ... {text[-80:]}"


def name_faults(process_list):
    """Of the processes that are watched in the end: a property may have added some."""
    processes = [{"process": name, "thread": threads} for name, threads in process_list.items()]
    return [f"{PREFIX}processes: {fault.partition(': ')[2]}"
            for fault in schema_faults(processes, "#/definitions/monitor_process/properties/list")]
