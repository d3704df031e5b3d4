"""tools/find-hangs finds who hung in every kind of log, and mixes nothing."""
import gzip
import io
import json
import pathlib
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree
import zipfile

FIND = pathlib.Path(__file__).resolve().parent.parent / "tools/find-hangs"
FORMS = pathlib.Path(__file__).resolve().parent / "logs/forms.txt"
REPORT = "tid:1234 pid:1200 ppid:1 in D 120s"
REPORTS = {  # condition, wait channel, thread, tid and ppid
    REPORT: ("D", None, None, 1234, 1),
    "pid:1201 ppid:4294967295 in Z 120s": ("Z", None, None, None, None),
    "tid:5 pid:1202 ppid:1 in unswitch S 120s": ("unswitch", None, None, 5, 1),
    "pid:1203 ppid:1 wchan: kernel_wait3120s": ("wchan", "kernel_wait3", None, None, 1)}
MISSING = {"RenderThread in pid:1204 ppid:1 cannot start 120s":
           ("missing", None, "RenderThread", None, 1)}
DUMP = """\
[  500.0][T9] task:main     state:D stack:    0 pid: 1234 ppid:     1 flags:0x00000208
[  500.0][T9] Call trace:
[  500.0][T8]  of_another+0x1/0x2
[  500.0][T9]  in_this_boot+0x110/0x188
[  500.0][T9] CPU: 0
[  500.0][T9]  of_none+0x1/0x2
"""
OLD_DUMP = """\
[  500.0]   task                        PC stack   pid father
[  500.0] Signal Catcher  D c0b3d38c     0  1234      1 0x00000009
[  500.0] [<c0b3d38c>] (__schedule+0x3e0/0x5ec) from [<c0b3bbc8>] (schedule+0x50/0xa8)
"""
KERNEL = f"[  560.1] {REPORT}\n"
DAEMON = f"""\
11-21 13:44:20.0 312 312 I tovrel: thread: main tid=1234, count=60000, state=D
11-21 13:44:23.0 312 312 I tovrel: dumped:1200 storaged parent=1 stat=D
11-21 13:45:20.0 312 312 I tovrel: {REPORT}
11-21 13:45:20.0 312 312 I tovrel: killing 1200
"""
LAST_BOOT = f"""\
[  800.0] task:other    state:D stack:    0 pid: 1234 ppid:     1 flags:0x00000208
[  800.0]  in_last_boot+0x110/0x188
[  860.0] {REPORT}
[  863.0] sysrq: Trigger a crash
"""
TOMBSTONE = """\
Timestamp: 2025-11-21 13:44:20.123+0100
pid: 1200, tid: 1234, name: reused  >>> /bin/reused <<<
"""


def packed(**members):
    file = io.BytesIO()
    with zipfile.ZipFile(file, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, content in members.items():
            archive.writestr(name, content)
    return file.getvalue()


class FindHangs(unittest.TestCase):
    def run_with(self, *options, **files):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        for name, content in files.items():
            content = content if isinstance(content, bytes) else content.encode()
            (self.directory / name).write_bytes(content)
        return subprocess.run([FIND, *options, *files], capture_output=True, text=True,
                              cwd=self.directory)

    def find(self, *parts, **files):
        """The named parts of each hang, when nothing is amiss."""
        result = self.run_with("--json", **files)
        self.assertEqual((result.returncode, result.stderr.count("\n")), (0, 1), result.stderr)
        hangs = map(json.loads, result.stdout.splitlines())
        return [tuple(hang[part] for part in parts) for hang in hangs]

    def test_forms(self):
        rows = [row.split(" | ", 2) for row in FORMS.read_text().splitlines() if " | " in row]
        for name, time, form in rows:
            with self.subTest(name.strip()):
                reports = REPORTS if "@" in form else {**REPORTS, **MISSING}
                lines = []
                for report in reports:
                    line = form.replace("^", "\33").replace("#", "\n")
                    if "@" in form:
                        tag, report = report.split(":", 1)
                        line = line.replace("@", tag)
                    lines.append(line.replace("%", report) + "\n")
                found = self.find("condition", "wchan", "thread", "tid", "ppid", "timeout",
                                  "reported_text", log="".join(lines))
                time = time.strip()
                expected = [(*parts, 120, [None if time == "?" else time])
                            for parts in reports.values() if time != "none"]
                self.assertEqual(found, expected)

    def test_daemon_tells_names_and_stages(self):
        found = self.find("process", "thread", "since_text", "dumped_text", "act", log=DAEMON)
        self.assertEqual(found, [("storaged", "main", "11-21 13:43:20", "11-21 13:44:23",
                                  "killing 1200")])

    def test_stacks(self):
        for dump, name, stack in ((DUMP, "main", ["in_this_boot+0x110/0x188"]),
                                  (OLD_DUMP, "Signal Catcher", ["__schedule+0x3e0/0x5ec"]),
                                  (DUMP.replace("500.0", "300.0"), None, [])):
            with self.subTest(dump):
                self.assertEqual(self.find("thread", "stack", log=dump + KERNEL), [(name, stack)])

    def test_two_boots_in_a_bug_report(self):
        report = ("== dumpstate: 2026-11-21 13:50:12\n"
                  f"------ KERNEL LOG (dmesg) ------\n{DUMP}{KERNEL}"
                  f"------ SYSTEM LOG (logcat) ------\n{DAEMON}"
                  f"------ LAST KMSG ------\n{LAST_BOOT}")
        found = self.find("boot", "process", "thread", "act", "stack", "likely", log=packed(
            main=report, console_ramoops=gzip.compress(LAST_BOOT.encode()), tombstone=TOMBSTONE))
        self.assertEqual(found, [
            (1, "storaged", "main", "killing 1200", ["in_this_boot+0x110/0x188"], []),
            (2, None, "other", "crash", ["in_last_boot+0x110/0x188"], [])])

    def test_boots_in_one_log(self):
        found = self.find("boot", "thread", log=DUMP + "[  900.0] x\n[    1.0] y\n" + KERNEL)
        self.assertEqual(found, [(1, None)])
        found = self.find("boot", log=KERNEL + "Linux version 5.10\n" + KERNEL)
        self.assertEqual(found, [(1,), (2,)])

    def test_two_logs_of_one_boot(self):
        found = self.find("process", "stack", "likely", dmesg=DUMP + KERNEL, logcat=DAEMON)
        self.assertEqual(found, [("storaged", ["in_this_boot+0x110/0x188"], ["stack"])])

    def test_same_log_twice(self):
        for log in KERNEL, DAEMON, REPORT:
            found = self.find("file", "reported_text", one=log, other=log)
            self.assertEqual([(file, len(times)) for file, times in found], [("one", 1)])

    def test_report_in_all_buffers(self):
        line = f"11-21 13:45:20.0     0     0 W tid     : {REPORT[4:]}\n"
        found = self.find("process", "reported_text", log=DAEMON + line)
        self.assertEqual(found, [("storaged", ["11-21 13:45:20"])])

    def test_task_that_moved_between(self):
        reports = "".join(f"[  {uptime}.0] {REPORT}\n" for uptime in (100, 101, 160, 900))
        found = self.find("reported", log=reports)
        self.assertEqual(found, [([100, 101, 160],), ([900],)])

    def test_same_thread_missing_twice(self):
        one, = MISSING
        log = f"{one}\n{one.replace('1204', '1205')}\n"
        self.assertEqual(self.find("pid", log=log), [(1204,), (1205,)])

    def test_process_that_is_found(self):
        log = f"I/tovrel(1): process storaged pid changed to 1200.\nI/tovrel(1): {REPORT}\n"
        self.assertEqual(self.find("process", log=log), [("storaged",)])

    def test_inputs(self):
        deep = packed(b=packed(c=packed(d=gzip.compress(KERNEL.encode()))))
        for name, content in {
                "archives": deep, "UTF-16": KERNEL.encode("utf-16"), "UTF-8": "\ufeff" + KERNEL,
                "CR": KERNEL.replace("\n", "\r") * 2, "NUL": KERNEL.replace("in", "i\0n"),
                "long line": " " * 262120 + KERNEL[:-1] + " " * 300000}.items():
            with self.subTest(name):
                self.assertEqual(self.find("tid", "since", log=content), [(1234, 440.1)])

    def test_broken_beside_good(self):
        broken = packed(a=KERNEL)[:-30]
        short = gzip.compress(LAST_BOOT.encode())[:-9]
        result = self.run_with(broken=broken, deep=packed(a=packed(b=broken)), short=short,
                               good=KERNEL)
        self.assertEqual((result.returncode, result.stderr.count("find-hangs: ")), (2, 3))
        self.assertIn("2 hangs in 2 boots", result.stdout)

    def test_cut_report_is_counted(self):
        result = self.run_with(log=KERNEL[:-3] + "\n" + KERNEL[:-3])
        self.assertIn("2 lines look like reports but cannot be read, first in log:1", result.stderr)

    def test_hostile_names(self):
        dump = DUMP.replace("main", "-$$L_\33\a<&$x_$")
        result = self.run_with("--plot", "out.svg", log=dump + KERNEL)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertIn(r"-$$L_\x1b\x07<&$x_$", result.stdout)
        picture = xml.etree.ElementTree.parse(self.directory / "out.svg")
        self.assertIn(r"-$$L_\x1b\x07<&$x_$ D", "".join(picture.getroot().itertext()))


unittest.main()
