"""usage: check_config_test.py REHEARSE [TEST...]. Tests tools/check-config with the programs beside
REHEARSE; RANDOM_CONFIGURATIONS in the environment is how many are compared."""
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import unittest

REHEARSE = pathlib.Path(sys.argv.pop(1)).resolve()
ROOT = pathlib.Path(__file__).resolve().parent.parent
SAMPLE = json.loads((ROOT / "etc/tovrel.json").read_text(encoding="utf-8"))
COUNT = int(os.environ.get("RANDOM_CONFIGURATIONS", "10"))
PREFIX = "persist.vendor.hg."
BINDER = {"enable": True, "monitor_uids": [9], "wchans": ["w"],
          "uid_map": [{"name": "u9", "value": 9}]}
PACE = {"timeout_second": 120, "interval_min_second": 5, "round": 6}
SHELL = {"main": True, "debug": True, "use_shell": True}


def watch(*processes):
    """The section for processes, "app:t1:t2" each."""
    names = [process.split(":") for process in processes]
    return {"enable": True, "list": [{"process": name, "thread": threads}
                                     for name, *threads in names]}


def configuration(**sections):
    """One without surprises, but for these sections."""
    return {"Config": {"switches": {"main": True, "debug": True}, "policy": "kill", "scan": PACE,
                       "monitor_process": watch("app:app"), "monitor_binder": {},
                       "default_open_hw_list": {}, "black_white_list": {}, **sections}}


class Case(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.config = pathlib.Path(directory.name, "config.json")
        self.properties = pathlib.Path(directory.name, "properties")

    def check(self, *options, **how):
        command = [ROOT / "tools/check-config", "--build", REHEARSE.parent, self.config, *options]
        how = {"stdout": subprocess.PIPE, **how}
        return subprocess.run(command, stderr=subprocess.PIPE, text=True, check=False, **how)

    def told(self, document, *properties):
        self.config.write_text(json.dumps(document))
        self.properties.write_bytes("\n".join(PREFIX + line for line in properties).encode())
        done = self.check(self.properties, "--json")
        self.assertIn(done.returncode, (0, 1), done.stderr)
        return json.loads(done.stdout)


class BadInput(Case):
    def refuses(self, status, words, *options, **how):
        done = self.check(*options, timeout=10, **how)
        self.assertEqual((done.returncode, done.stderr.count("\n")), (status, 1))
        self.assertRegex(done.stderr, words)
        self.assertTrue(done.stderr[:-1].isprintable())

    def test_bad_content_ends_with_a_line(self):
        valid = json.dumps(configuration())
        table = [  # content, status, words
            (valid.replace('"kill"', '"Kill"'), 1, "Config.policy: 'Kill'"),
            (valid.replace('"round"', '"rounds"'), 1, "Config.scan: .*'rounds'"),
            (valid.replace('"app"', r'"a\n"', 1), 1, "Config.monitor_process.list.0..process"),
            (valid.replace('"app"', r'"a\u001b[2J"', 1), 1, "Config.monitor_process.list"),
            (valid.replace("120", '120, "round": 6'), 1, "key 'round' stands twice"),
            (valid.replace("120", "9" * 5000), 1, "digits"),
            (valid.replace('"kill"', "[" * 900 + "]" * 900), 1, "policy|recursion"),
            (valid.replace("{", '{"$schema": "\\ud800", ', 1), 1, "config file failed"),
            ("[" * 9999, 1, "recursion"),
            (" " * 50_000_000, 2, "larger")]
        for content, status, words in table:
            with self.subTest(words=words, content=content[:60]):
                self.config.write_text(content)
                self.refuses(status, words)

    def test_no_file_no_output_no_build(self):
        self.config.write_text(json.dumps(configuration()))
        fifo = self.config.with_name("fifo\x1b")
        os.mkfifo(fifo)
        self.refuses(2, "not a regular file", fifo)
        self.refuses(2, "not a regular file", "/dev/zero")
        self.refuses(2, "/no/file", "/no/file")
        self.refuses(2, "/no/build/settings is not built", "--build", "/no/build")
        self.assertEqual(self.check("--schema-only", "--build", "/no/build").returncode, 0)
        with open("/dev/full", "w", encoding="utf-8") as full:
            self.refuses(2, "No space", stdout=full)


class Surprises(Case):
    def test_the_sample_has_none(self):
        told = self.told(SAMPLE)
        self.assertEqual((told["faults"], told["false_alarms"], told["warnings"]), ([], [], []))

    def test_each_is_told_by_its_key_alone(self):
        table = [  # key, sections, properties
            ("Config", {"monitor_process": {}}),
            ("Config.switches.main", {"switches": {"main": False}}),
            ("Config.policy", {"switches": {"main": True}}),
            ("Config.monitor_process.list", {"monitor_process": watch("a:a", "a:b")}),
            ("Config.monitor_process.list", {"monitor_process": watch("a", "b:b")}),
            ("Config.monitor_process.list", {"monitor_process": watch("a"),
                                             "monitor_binder": BINDER}),
            ("Config.scan", {"monitor_process": watch("app:t1:t2"), "scan": {**PACE, "round": 2}}),
            ("Config.switches.use_shell", {"switches": SHELL,
                                           "monitor_process": watch("a:a", "ab:ab")}),
            ("Config.switches.use_shell", {"switches": SHELL, "monitor_binder": BINDER}),
            ("persist.vendor.hg.policy", {}, "policy=nothing"),
            ("persist.vendor.hg.enable", {}, "enable=1\r"),
            ("persist.vendor.hg.processes", {"monitor_process": {}, "monitor_binder": BINDER},
             "processes=a")]
        for key, sections, *properties in table:
            with self.subTest(key=key, sections=sections):
                told = self.told(configuration(**sections), *properties)
                self.assertEqual({warning["key"] for warning in told["warnings"]}, {key})

    def test_another_pace_ends_what_it_is_told_to_end(self):
        short = {"timeout_second": 10, "interval_min_second": 1, "round": 4}
        asleep = {"monitor_process": watch("app:watchdog", "other:other")}
        for kind, sections in [
                ("false_alarms", asleep),  # beside other, which may be absent
                ("false_alarms", {"monitor_process": watch("app"), "monitor_binder": BINDER,
                                  "scan": {**short, "round": 2}}),
                ("warnings", {"scan": short, "monitor_binder": BINDER})]:
            with self.subTest(sections=sections):
                document = configuration(**sections)
                text = self.told(document)[kind][0]["text"]
                changes = re.findall(r'"(\w+)" to (\d+)', text)
                document["Config"]["scan"].update({key: int(value) for key, value in changes})
                told = self.told(document)
                self.assertFalse(told["false_alarms"])
                self.assertNotIn("Config.scan", [warning["key"] for warning in told["warnings"]])


class Daemon(Case):
    """What is told, against the daemon played without check-config."""

    TASKS = {  # what is listed, the task at rest, what makes it stuck, how that is told
        "foo": ("100 foo S ppid=30", "100 state=D runs=6", "main thread in D, no others"),
        "bar:bar:t1": ("200 bar S ppid=30; 200/201 t1 S", "200/201 state=D runs=6", "in D"),
        "dog:watchdog": ("300 dog S ppid=30; 300/301 watchdog R", "300/301 state=S runs=6",
                         "asleep")}

    def test_random_configurations(self):
        for seed in range(COUNT):
            rng = random.Random(seed)
            names = rng.sample(list(self.TASKS), rng.randint(1, 3))
            scan = {"timeout_second": rng.randint(10, 300), "round": rng.randint(1, 12),
                    "timeout_min_second": rng.choice([0, 60]),
                    "interval_min_second": rng.randint(1, 10)}
            document = configuration(
                scan=scan, switches={"main": True, "use_shell": rng.random() < 0.3},
                policy=rng.choice(["kill", "reboot", "panic", "nothing"]),
                monitor_process=watch(*names), monitor_binder=rng.choice([{}, BINDER]))
            properties = rng.sample([f"timeout={rng.randint(10, 500)}", "policy=panic",
                                     "binder=1", "processes=baz:t2"], rng.randint(0, 2))
            with self.subTest(seed=seed, document=document, properties=properties):
                self.compare(document, properties, rng.choice(names), rng.random())

    def compare(self, document, properties, name, phase):
        told = self.told(document, *properties)
        settings = told["settings"]
        interval, timeout = settings["interval"] / 1000, settings["timeout"] // 1000
        begin = int((4 + phase) * interval)
        _, stuck, how = self.TASKS[name]
        steps = [f"prop {line}" for line in properties]
        steps += [task for task, _, _ in self.TASKS.values()]
        steps += ["400 baz S; 400/401 t2 S; 30 zygote S", f"@{begin} {stuck}", "prop debug=1",
                  f"until {begin + 4 * int(timeout + interval)}", "turns 9999",
                  "watch alarm|kill|kmsg|I nothing to do|D "]
        events = subprocess.check_output([REHEARSE, self.config, ";".join(steps)], text=True)

        turns = re.findall(r"^(\S+) alarm (\d+)", events, re.M)
        self.assertAlmostEqual(float(turns[1][0]), interval)
        self.assertEqual(int(turns[0][1]), settings["timeout"] // 500)
        listed = re.findall(r"D monitor process: (.*)", events)
        self.assertEqual(set(listed), set(settings["process_list"]))
        row = next(row for row in told["hangs"] if row["how"] == how)
        stages = {"dump": r"^(\S+) kill \d+ (?:3|35)$",
                  "act": r"^(\S+) (?:kmsg|kill \d+ 9$|I nothing)"}
        for stage, pattern in stages.items():
            times = [round(float(time) - begin, 3) for time in re.findall(pattern, events, re.M)]
            earliest, latest = row[stage] or (None, None)
            self.assertEqual(bool(times), bool(row[stage]))
            self.assertTrue(not times or earliest <= times[0] <= latest, (stage, times, row))
        if row["dump"]:  # which nothing holds up
            self.assertAlmostEqual(row["dump"][1] - row["dump"][0], interval, places=2)


if __name__ == "__main__":
    unittest.main()
