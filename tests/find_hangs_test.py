"""tools/find-hangs finds the same hangs in every kind of log, and none where there is none."""
import pathlib, subprocess, tempfile, zipfile

FIND = pathlib.Path(__file__).resolve().parent.parent / "tools/find-hangs"
STUCK = ("started|thread: main tid=1234, count=60000, state=D|dumped:1200 storaged parent=1 stat=D|"
         "tid:1234 pid:1200 ppid:1 in D 120s|killing 1200|tid:1234 pid:1200 ppid:1 in D 120s")
BINDER = ("B:7_1 71 state=S wchan=x2 count=5000|dumped hung proc:70 parent=5 wchan=x2|"
          "B:7_2 72 state=S wchan=x2 count=5000|dumped hung proc:70 parent=5 wchan=x2|"
          "B:7_1 71 state=S wchan=x2 count=5000|pid:70 ppid:5 wchan: x210s|killing 70|"
          "B:7_2 72 state=S wchan=x2 count=5000|nothing to do according to policy")
KERNEL = ("task:main            state:D stack:    0 pid: 1234 ppid:     1 flags:0x00000208|"
          "Call trace:| __switch_to+0x110/0x188|CPU: 0|not_in_it+0x1/0x2|"
          "tid:1234 pid:1200 ppid:1 in D 120s|sysrq: Trigger a crash")
REPORTS = ("pid:1200 ppid:4294967295 in Z 10s|RenderThread in pid:8 ppid:9 cannot start 10s|"
           "pid:1200 ppid:567 wchan: do_x.06s|tid:5 pid:4 ppid:3 in unswitch S 10s|"
           "Booting Linux on physical CPU 0x0|tid:5 pid:4 ppid:3 in unswitch S 10s|"
           "reboot: Restarting system with command 'tovrel'")
TOMBSTONE = b"pid: 4, tid: 5, name: watchdog  >>> /bin/server <<<\n"
NOISE = bytes(range(256)) * 40 + b"\n[ 1.0] killing 5\nI/other( 1): tid:1 pid:2 ppid:3 in D 1s\n"

def log(form, text):
    """The lines, each behind a prefix that has its second, from 20 on."""
    return "".join(form % (20 + n) + line + "\n" for n, line in enumerate(text.split("|"))).encode()

ROW, KILLED, FRAME = "storaged main 1234 1200 1", "2x, killing 1200 D", "\n__switch_to+0x110/0x188"
BY_DATE = f"11-21 13:44:23 {ROW} 13:43:21 13:44:22 {KILLED}"
LOGCAT = log("11-21 13:44:%d.123  root   312   312 I tovrel  : ", STUCK)
DMESG = log("<6>[  1%d.5][ T312] ", KERNEL)
ROWS = {  # what is found in files
    f"? {ROW} ? ? {KILLED}": [log("I/tovrel  (%4d): ", STUCK)],
    BY_DATE: [log("11-21 13:44:%d.123 I/tovrel  (  312): ", STUCK)],
    "2026-" + BY_DATE: [log("2026-11-21 13:44:%d.1 +0100   312   312 I tovrel: ", STUCK)],
    f"2026-11-21 13:43:43 {ROW} 13:42:41 13:43:42 {KILLED}":
        [log("        17952686%d.123   312   312 I tovrel  : ", STUCK)],
    "11-21 13:44:25 B:7_1 71 70 5 13:44:15 13:44:21 1x, killing 70 wchan x2\n"
    "11-21 13:44:28 B:7_2 72 70 5 13:44:17 13:44:23 1x, nothing wchan x2":
        [log("[  9.5] vm: tovrel I 11-21 13:44:%d 312 312 ", BINDER)],
    BY_DATE + FRAME: [DMESG, LOGCAT, LOGCAT],
    f"11-21 13:44:23 {ROW} 13:43:21 13:44:22 1x D{FRAME}\n"
    f"11-21 13:45:23 {ROW} 13:44:21 13:45:22 2x, crash D{FRAME}":
        [DMESG, log("11-21 13:44:%d.1 1 1 I tovrel: ", "|".join(STUCK.split("|")[:4])),
         log("11-21 13:45:%d.1 1 1 I tovrel: ", STUCK.replace("killing 1200", "started"))],
    "120.5 - - 1200 - 110.5 - 1x Z\n121.5 RenderThread - 8 9 111.5 - 1x missing\n"
    "122.5 - - 1200 567 116.5 - 1x wchan do_x.0\n123.5 server watchdog 5 4 3 113.5 - 1x unswitch\n"
    "125.5 server watchdog 5 4 3 115.5 - 1x, reboot unswitch":
        [log("[  1%d.5] ", REPORTS), TOMBSTONE],
    f"125.5 main 1234 1200 1 5.5 120.5 1x, crash D{FRAME}": [NOISE, DMESG],
    "": [NOISE, b"tid:1 pid:2 ppid:3 in D\n", b"D  " * 99999]}

def find(*arguments):
    run = subprocess.run([FIND, *arguments], capture_output=True, text=True)
    lines = [" ".join(line.split()) for line in run.stdout.splitlines()]
    return run.returncode, "\n".join(lines[1:]), run.stderr.count("\n"), lines[:1]

with tempfile.TemporaryDirectory() as directory:
    archive = pathlib.Path(directory, "archive")
    for found, contents in ROWS.items():
        files = [pathlib.Path(directory, str(number)) for number, _ in enumerate(contents)]
        with zipfile.ZipFile(archive, "w") as members:
            for file, content in zip(files, contents):
                file.write_bytes(content)
                members.write(file)
        for paths in files, [archive]:
            *result, title = find(*paths)
            assert result == [0, found, 0], (found, result)
            assert bool(found) != title[0].startswith("no hang found in "), title
    assert find("--json", archive) == (0, "", 0, ["[]"])
    archive.write_bytes(archive.read_bytes()[:-30])
    for arguments in ["--bogus"], [archive], [directory], [directory + "/none"]:
        assert find(*arguments) == (2, "", 1, []), arguments
