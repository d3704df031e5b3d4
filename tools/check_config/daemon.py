"""The daemon's own code, built for this host: its reader, and its plays on the virtual device."""
import copy
import itertools
import json
import os
import pathlib
import re
import subprocess

from .printing import say
from .reading import Refused

MAX_SAMPLES = 600  # in a time-out

# With debug on the daemon names a task before each act. It does nothing but write log lines.
WATCH = ("prop debug=1;turns 1000000;"
         "watch alarm|kill|kmsg|I nothing to do|I thread: |I [^ ]+ [0-9]+ state=. wchan=")


class Daemon:
    """The programs, and a directory for the files that they read."""

    def __init__(self, build, directory):
        self.build, self.directory = pathlib.Path(build), pathlib.Path(directory)
        self.files = {}  # by content
        self.numbers = itertools.count()
        for program in ("settings", "rehearse"):
            if not os.access(self.build / program, os.X_OK):
                raise Refused(f"{self.build / program} is not built; at the top of the tree: "
                              "cmake --preset release && "
                              "cmake --build --preset release --target settings rehearse")

    def file_of(self, content):
        if content not in self.files:
            file = self.directory / str(next(self.numbers))
            file.write_bytes(content)
            self.files[content] = file
        return self.files[content]

    def run(self, program, *arguments, text=None):
        """What it prints, and why it failed."""
        done = subprocess.run([self.build / program, *arguments], input=text, encoding="utf-8",
                              errors="backslashreplace", capture_output=True, check=False)
        return done.stdout, " ".join(done.stderr.split()) if done.returncode != 0 else ""

    def read(self, config, properties):
        """What the daemon makes of two files' content: "errors", "settings" and "idle"."""
        output, failure = self.run("settings", self.file_of(config), self.file_of(properties))
        return {"errors": [failure]} if failure else json.loads(output)

    def rehearse(self, config, properties, steps):
        """Prints the events of the user's steps."""
        first = f"properties {self.file_of(properties)};"
        events, failure = self.run("rehearse", self.file_of(config), first + steps)
        for event in events.split("\n")[:-1]:
            say(event)
        if failure:
            raise Refused(failure)


class World:
    """A valid configuration and properties, as the daemon reads them, to be played."""

    def __init__(self, daemon, document, properties):
        self.daemon, self.document, self.properties = daemon, document, properties
        reading = daemon.read(json.dumps(document).encode(), properties)
        self.settings, self.idle = reading["settings"], reading["idle"]
        self.interval, self.timeout = [self.settings[key] / 1000 for key in ("interval", "timeout")]

    @property
    def processes(self):
        """The threads by process; none while the detector is off."""
        return self.settings["process_list"] if self.settings["process_enable"] else {}

    @property
    def effect(self):
        return self.idle, {**self.settings, "process_list": self.processes}

    @property
    def is_small(self):
        """Whether it can be played in less than a minute."""
        tasks = sum(len(threads) or 1 for threads in self.processes.values())
        return tasks * self.timeout / self.interval <= MAX_SAMPLES

    def changed(self, section, **changes):
        """The same with another pace, or the like."""
        document = copy.deepcopy(self.document)
        document["Config"][section].update(changes)
        return World(self.daemon, document, self.properties)

    def play(self, plays):
        """For each play, the threads by process and the steps: events, times and texts."""
        lines = []
        for processes, steps in plays:
            document = copy.deepcopy(self.document)
            entries = [{"process": name, "thread": names} for name, names in processes.items()]
            document["Config"]["monitor_process"] = {"enable": bool(entries), "list": entries}
            files = (f"config {self.daemon.file_of(json.dumps(document).encode())}",
                     f"properties {self.daemon.file_of(self.properties)}", "prop processes=")
            lines.append(";".join([*files, *steps, WATCH]) + "\n")
        output, failure = self.daemon.run("rehearse", text="".join(lines))
        if failure:
            raise Refused(failure)
        return [[event_of(line) for line in events.splitlines()]
                for events in re.split("^end\n", output, flags=re.M)[:-1]]


def event_of(line):
    seconds, text = line.split(" ", 1)
    return float(seconds), text
