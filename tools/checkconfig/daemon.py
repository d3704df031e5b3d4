"""The daemon's own code, built for this host: its reader, and its plays on the virtual device."""
import concurrent.futures
import json
import os
import pathlib
import re
import subprocess

from .reading import ROOT, Refused

WORKERS = os.cpu_count() or 1


class Daemon:
    """Reads and plays in a directory for its files."""

    def __init__(self, build, directory):
        self.build = pathlib.Path(build)
        self.directory = pathlib.Path(directory)
        self.files = {}  # by content
        for program in ("settings", "rehearse"):
            if not os.access(self.build / program, os.X_OK):
                raise Refused(f"{self.build / program} is not built: in {ROOT}, cmake --preset "
                              "release && cmake --build --preset release --target settings rehearse")

    def file_of(self, content):
        """A file with this content, of bytes or of a document."""
        data = content if isinstance(content, bytes) else json.dumps(content).encode()
        if data not in self.files:
            self.files[data] = self.directory / str(len(self.files))
            self.files[data].write_bytes(data)
        return self.files[data]

    def run(self, program, *arguments, text=None):
        done = subprocess.run([self.build / program, *arguments], input=text, encoding="utf-8",
                              errors="backslashreplace", capture_output=True, check=False)
        return done.stdout, " ".join(done.stderr.split()) if done.returncode != 0 else ""

    def read(self, config, properties):
        """What the daemon makes of them: its errors, "settings" and "idle"."""
        output, failure = self.run("settings", self.file_of(config), self.file_of(properties))
        return {"errors": [failure]} if failure else json.loads(output)

    def rehearse(self, config, properties, steps):
        """The events, as they are printed, and why the play could not go on."""
        first = f"properties {self.file_of(properties)};"
        return self.run("rehearse", self.file_of(config), first + steps)

    def play(self, plays):
        """For each play, a configuration, properties and steps: the events, time and text."""
        lines = [f"config {self.file_of(config)};properties {self.file_of(properties)};{steps}"
                 for config, properties, steps in plays]
        shares = [lines[worker::WORKERS] for worker in range(WORKERS)]
        with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
            results = [iter(events) for events in pool.map(self.play_lines, shares)]
        return [next(results[i % WORKERS]) for i in range(len(lines))]

    def play_lines(self, lines):
        output, failure = self.run("rehearse", text="".join(line + "\n" for line in lines))
        if failure:
            raise Refused(failure)
        plays = re.split("^end\n", output, flags=re.M)[:-1]
        return [[event_of(line) for line in events.splitlines()] for events in plays]


def event_of(line):
    seconds, text = line.split(" ", 1)
    return float(seconds), text
