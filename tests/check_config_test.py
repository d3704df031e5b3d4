"""usage: check_config_test.py REHEARSE [TEST...]. Tests tools/check-config with the programs beside
REHEARSE."""
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
SAMPLE = json.loads((ROOT / "etc/tovrel.json").read_text(encoding="utf-8"))["Config"]
RANDOM_CONFIGURATIONS = int(os.environ.get("RANDOM_CONFIGURATIONS", "10"))
PREFIX = "persist.vendor.hg."
BINDER = {"enable": True, "monitor_uids": [9], "wchans": ["w"],
          "uid_map": [{"name": "u9", "value": 9}]}


def watch(*names):
    """The section for processes, "app:t1:t2" each."""
    entries = [name.split(":") for name in names]
    return {"enable": True, "list": [{"process": name, "thread": threads}
                                     for name, *threads in entries]}


def configuration(**sections):
    """A calm one, with other sections."""
    scan = {"timeout_second": 120, "interval_min_second": 5, "round": 6}
    calm = {"switches": {"main": True, "debug": True}, "policy": "kill", "scan": scan,
            "monitor_process": watch("app:app"), "monitor_binder": {}, "default_open_hw_list": {},
            "black_white_list": {}}
    return {"Config": {**calm, **sections}}


class Case(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.config = pathlib.Path(directory.name, "config.json")
        self.properties = pathlib.Path(directory.name, "properties")
        self.properties.write_text("")

    def check(self, *options, stdout=subprocess.PIPE):
        command = [ROOT / "tools/check-config", "--build", REHEARSE.parent, self.config, *options]
        return subprocess.run(command, stdout=stdout, stderr=subprocess.PIPE, text=True,
                              timeout=120, check=False)

    def told(self, document, properties=""):
        self.config.write_text(json.dumps(document))
        self.properties.write_text(properties)
        return json.loads(self.check(self.properties, "--json").stdout)


class Faults(Case):
    def test_valid_only_in_the_wrong_place(self):
        bad_names = ["a b", "-a", "a;b", "", "a\n", "a\x1b[2J"]
        table = {
            "policy": ["Panic", None],
            "scan": [{"timeout_second": 60}, {"interval_min_second": 5}],
            "scan.timeout_second": [9, 3601, 60.5, "60", 10 ** 4000],
            "scan.interval_min_second": [0, 11],
            "monitor_process.list.0.process": [*bad_names, "bin/a"],
            "monitor_process.list.0.thread.0": [*bad_names, "surfaceflinger_1"],
            "monitor_binder.uid_map.0.name": bad_names,
            "monitor_binder.wchans.0": ["0", "binder_thread_read", "w\n"]}
        for path, values in table.items():
            for value in values:
                with self.subTest(path=path, value=str(value)[:20]):
                    document = {"Config": json.loads(json.dumps(SAMPLE))}
                    *parents, last = [int(key) if key.isdigit() else key
                                      for key in ["Config", *path.split(".")]]
                    node = document
                    for key in parents:
                        node = node[key]
                    node[last] = value
                    self.config.write_text(json.dumps(document))
                    done = self.check("--schema-only")
                    self.assertEqual(done.returncode, 1, done)
                    words = "Config." + re.sub(r"\.(\d+)", r"[\1]", path)
                    self.assertIn(words, done.stderr)
                    self.assertTrue(done.stderr.replace("\n", "").isprintable())

    def test_bad_input_ends_with_a_line(self):
        valid = json.dumps(configuration())
        table = [  # content, status, words
            ("{}", 1, "'Config' is a required property"),
            (valid.replace("120", '120, "round": 6'), 1, "key 'round' stands twice"),
            (valid.replace("120", "9" * 5000), 1, "digits"),
            (valid.replace("120", "NaN"), 1, "NaN"),
            (valid.replace('"kill"', "[" * 900 + "]" * 900), 1, "policy|deep"),
            ("[" * 99999, 1, "deep"),
            (valid.replace('{"Config"', '{"$schema": "\\ud800", "Config"'), 1, "config file failed"),
            (json.dumps({"Config": {str(i): 1 for i in range(40000)}}), 1, "Additional"),
            (valid.replace('"kill"', json.dumps([{}, 1] * 99999)), 1, "policy"),
            (" " * 50_000_000, 2, "larger")]
        for content, status, words in table:
            with self.subTest(content=content[:60], words=words):
                self.config.write_text(content)
                done = self.check()
                self.assertEqual(done.returncode, status, done.stderr[:500])
                self.assertRegex(done.stderr, words)
                self.assertNotIn("Traceback", done.stderr)
                self.assertLess(len(done.stderr), 10000)

    def test_files_and_outputs_that_are_none(self):
        self.config.write_text(json.dumps(configuration()))
        fifo = self.config.with_name("fifo\x1b")
        os.mkfifo(fifo)
        for properties in (fifo, "/dev/zero", "/", "/no/file"):
            done = self.check(properties)
            self.assertEqual((done.returncode, done.stderr.count("\n")), (2, 1), done)
            self.assertTrue(done.stderr[:-1].isprintable())
        with open("/dev/full", "w", encoding="utf-8") as full:
            done = self.check("--schema-only", stdout=full)
            self.assertEqual((done.returncode, done.stderr.count("\n")), (2, 1), done)
        done = self.check("--build", "/no/build")
        self.assertEqual(done.returncode, 2)
        self.assertIn("cmake --build", done.stderr)


class Warnings(Case):
    def test_sample_has_none(self):
        told = self.told({"Config": SAMPLE})
        self.assertEqual((told["faults"], told["false_alarms"], told["warnings"]), ([], [], []))

    def test_each_names_its_key_and_ends_with_its_mend(self):
        off, shell = {"main": False}, {"main": True, "debug": True, "use_shell": True}
        slow = {"timeout_second": 120, "interval_min_second": 5, "round": 5}
        short = {"timeout_second": 10, "interval_min_second": 1, "round": 10}
        three = watch("a:a", "b:b", "c:c")
        table = [  # key, what brings it, properties, what ends it
            ("switches.main", {"switches": off}, "", {"switches": {"main": True, "debug": True}}),
            ("Config", {"monitor_process": {}}, "", {}),
            ("policy", {"switches": {"main": True}}, "", {"policy": "reboot"}),
            ("monitor_process.list", {"monitor_process": watch("a:a", "a:b")}, "", {}),
            ("monitor_process.list", {"monitor_process": watch("a", "b:b")}, "", {}),
            ("monitor_process.list", {"monitor_process": watch("a"), "monitor_binder": BINDER}, "",
             {"monitor_process": watch("a:a")}),
            ("monitor_process.list", {"monitor_process": {"enable": True, "list": [
                {"process": "a", "thread": ["Binder:1_2"]}]}}, "", {}),
            ("monitor_binder.monitor_uids", {"monitor_binder": {"wchans": ["w"]}}, "binder=1", {}),
            ("switches.use_shell", {"switches": shell, "monitor_process": watch("a:a", "ab:ab")},
             "", {"monitor_process": watch("a:a", "b:b")}),
            ("scan", {"scan": slow}, "", {"scan": {**slow, "round": 6}}),
            ("scan", {"scan": short, "monitor_process": three, "monitor_binder": BINDER}, "", {}),
            ("~timeout", {"monitor_binder": BINDER}, "timeout=240", {}),
            *[("~" + line.split("=")[0], {}, line, {}) for line in
              ("policy=nothing", "enable=TRUE", "timeout=60", "no_such=1", "enable=1\r")],
            ("~processes", {"monitor_process": {}, "monitor_binder": BINDER}, "processes=a", {})]
        for key, sections, line, mend in table:
            with self.subTest(key=key, line=line, sections=sections):
                told = self.told(configuration(**sections), line and PREFIX + line)
                keys = [warning["key"] for warning in told["warnings"]]
                full = key.replace("~", PREFIX) if key[0] in "~C" else f"Config.{key}"
                self.assertEqual(set(keys), {full}, told["warnings"])
                if mend is not None:
                    told = self.told(configuration(**{**sections, **mend} if mend else {}))
                    self.assertEqual(told["warnings"], [])

    def test_a_watchdog_that_sleeps_is_dumped_beside_an_absent_process(self):
        processes = watch("app:watchdog", "other:other")
        told = self.told(configuration(monitor_process=processes))
        self.assertEqual([alarm["task"] for alarm in told["false_alarms"]], ["watchdog"])
        seconds, = re.findall(r'"timeout_second" to (\d+)', told["false_alarms"][0]["text"])
        scan = {"timeout_second": int(seconds), "interval_min_second": 5, "round": 6}
        told = self.told(configuration(monitor_process=processes, scan=scan))
        self.assertEqual(told["false_alarms"], [])


class Daemon(Case):
    """What is told, against the daemon played without check-config."""

    TASKS = {  # steps of the task at rest, what makes it stuck, and its kind
        "foo": ("100 foo S ppid=30", "100 state=D runs=6",
                ("process as a whole", "main thread in D, no others")),
        "bar:bar:t1": ("200 bar S ppid=30; 200/201 t1 S", "200/201 state=D runs=6",
                       ("thread", "in D")),
        "dog:watchdog": ("300 dog S ppid=30; 300/301 watchdog R", "300/301 state=S runs=6",
                         ('thread "watchdog"', "asleep"))}
    BINDER_TASK = ("400 x S; 400/401 Binder:400_1 S uid=9 user=u9", "400/401 state=D runs=6",
                   ("known binder thread", "in D"))

    def random_case(self, rng):
        """A configuration, properties, steps at rest, and the task to get stuck."""
        names = rng.sample(list(self.TASKS), rng.randint(1, 3))
        tasks = [self.TASKS[name] for name in names]
        lines = [f"timeout={rng.choice([20, 200, 1000])}", f"policy={rng.choice(['kill', 'panic'])}"]
        scan = {"timeout_second": rng.randint(10, 300), "round": rng.randint(1, 12),
                "timeout_min_second": rng.choice([0, 60]),
                "interval_min_second": rng.randint(1, 10)}
        switches = {"main": True, "use_shell": rng.random() < 0.3}
        sections = {"scan": scan, "switches": switches, "monitor_process": watch(*names),
                    "policy": rng.choice(["kill", "reboot", "panic", "nothing"])}
        if rng.random() < 0.5:
            sections["monitor_binder"] = BINDER
            tasks.append(self.BINDER_TASK)
        lines = rng.sample(lines, rng.randint(0, 2))
        if rng.random() < 0.3 and "foo" in names:
            lines.append("processes=foo:foo")
            tasks[names.index("foo")] = (*self.TASKS["foo"][:2], ("thread", "in D"))
        return configuration(**sections), [PREFIX + line for line in lines], tasks, rng.choice(tasks)

    def test_settings_and_hangs_of_random_configurations(self):
        for seed in range(RANDOM_CONFIGURATIONS):
            with self.subTest(seed=seed):
                rng = random.Random(seed)
                document, lines, tasks, (_, stuck, kind) = self.random_case(rng)
                told = self.told(document, "\n".join(lines))
                settings = told["settings"]
                interval, timeout = settings["interval"] // 1000, settings["timeout"] // 1000
                begin = 4 * interval + rng.randint(0, interval)
                steps = [f"prop {line}" for line in lines] + [task[0] for task in tasks] + [
                    "30 zygote S", f"@{begin} {stuck}", "prop debug=1", "turns 100000",
                    f"until {begin + 4 * (timeout + interval)}",
                    "watch alarm|kill|kmsg|reboot|I nothing to do|I monitor|D  *(monitor|thread)"]
                events = subprocess.run([REHEARSE, self.config, ";".join(steps)], text=True,
                                        capture_output=True, check=True).stdout
                self.compare_settings(settings, events)
                row, = [row for row in told["hangs"] if not row["when"]
                        and (row["what"], row["how"]) == kind]
                self.compare_times(row, begin, events)

    def compare_settings(self, settings, events):
        turns = [float(seconds) for seconds in re.findall(r"^(\S+) alarm", events, re.M)]
        self.assertEqual(round(1000 * (turns[1] - turns[0])), settings["interval"])
        self.assertIn(f" alarm {settings['timeout'] // 500}\n", events)
        table = re.findall(r"D monitor process: (.*)|D   thread: (.*)", events)
        whole = [name for name, threads in settings["process_list"].items() if not threads]
        listed = [*settings["process_list"], *sum(settings["process_list"].values(), []), *whole]
        self.assertEqual(sorted(process or thread for process, thread in table), sorted(listed))

    def compare_times(self, row, begin, events):
        dump = re.findall(r"^(\S+) kill \d+ (?:3|35)$", events, re.M)
        act = re.findall(r"^(\S+) (?:kmsg|kill \d+ 9$|I nothing)", events, re.M)
        for name, times in (("dump", dump), ("act", act)):
            self.assertEqual(bool(times), bool(row[name]), (row, events))
            if times:
                earliest, latest = row[name]
                self.assertTrue(earliest <= round(float(times[0]) - begin, 3) <= latest, (row, events, begin))


if __name__ == "__main__":
    unittest.main()
