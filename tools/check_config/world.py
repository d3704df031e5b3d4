"""The daemon's own code, built for this host: it reads a configuration, and is played with it on
the virtual device."""
import copy
import json
import os
import re
import subprocess
import tempfile
from typing import NamedTuple

from .reading import PREFIX, Refused

# With debug on the daemon names a task before each act. It does nothing but write log lines.
WATCH = ("prop debug=1;turns 1000000;"
         "watch alarm|kill|kmsg|I nothing to do|I thread: |I [^ ]+ [0-9]+ state=. wchan=")
NAMED = re.compile(r"I (?:thread: )?(.+?) (?:tid=)?(\d+),? .*state=.")
DUMP = re.compile(r"kill \S+ (3|35)$")


class Response(NamedTuple):
    seconds: float
    is_act: bool  # or a dump
    name: str
    tid: str


class World:
    """A configuration and properties, as the daemon reads them."""

    def __init__(self, build, directory, content, properties):
        self.build, self.directory = build, directory
        self.document, self.properties = json.loads(content), properties
        config_file, property_file = self.file_of(content), self.file_of(properties)
        self.files = f"config {config_file};properties {property_file}"
        reading = json.loads(self.run("settings", config_file, property_file))
        self.errors, self.settings, self.idle = map(reading.get, ("errors", "settings", "idle"))
        self.interval, self.timeout = [self.settings[key] / 1000 for key in ("interval", "timeout")]
        self.binder = self.settings["binder_monitor"] or {
            "enable": False, "monitor_uids": [], "uid_map": {}, "wchans": []}
        self.iowait = (self.settings["black_white_list"] or {"list": []})["list"]
        self.processes = self.settings["process_list"] if self.settings["process_enable"] else {}

    def file_of(self, content):
        with tempfile.NamedTemporaryFile(dir=self.directory, delete=False) as file:
            file.write(content)
        return file.name

    def run(self, program, *arguments, text=None):
        """What it prints."""
        path = f"{self.build}/{program}"
        if not os.path.exists(path):
            raise Refused(f"{path} is not built: cmake --preset release; "
                          "cmake --build --preset release --target settings rehearse")
        done = subprocess.run([path, *arguments], input=text, encoding="utf-8",
                              errors="backslashreplace", capture_output=True, check=False)
        if done.returncode != 0:
            raise Refused(" ".join(done.stderr.split()))
        return done.stdout

    def changed(self, line="", **sections):
        """The same with a line more of properties and other values in sections of the file."""
        document = copy.deepcopy(self.document)
        for section, values in sections.items():
            document["Config"][section].update(values)
        return World(self.build, self.directory, json.dumps(document).encode(),
                     self.properties + f"\n{line}\n".encode())

    def listing(self, processes):
        """The same with these processes, all of them in the file."""
        entries = [{"process": name, "thread": threads} for name, threads in processes.items()]
        return self.changed(f"{PREFIX}processes=",
                            monitor_process={"enable": bool(entries), "list": entries})

    def script(self, steps, seconds):
        """A play of this world, until then."""
        return ";".join([self.files, WATCH, f"until {int(seconds)}", *steps]) + "\n"

    def play(self, *scripts):
        """For each: when a turn of the scan loop begins, and the responses."""
        output = self.run("rehearse", text="".join(scripts))
        *plays, _ = re.split("^end\n", output, flags=re.M)
        return [turns_and_responses(events) for events in plays]


def turns_and_responses(events):
    turns, responses, task = [], [], None
    for line in events.split("\n")[:-1]:
        seconds, event = line.split(" ", 1)
        if named := NAMED.match(event):
            task = named.groups()
        elif event.startswith("alarm"):
            turns.append(float(seconds))
        elif task:
            responses.append(Response(float(seconds), not DUMP.match(event), *task))
    return turns, responses
