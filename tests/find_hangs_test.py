"""scripts/find-hangs finds the same hangs in every kind of log, and none where there is none."""
import pathlib, subprocess, tempfile, zipfile

FIND = pathlib.Path(__file__).resolve().parent.parent / "scripts/find-hangs"
STUCK = ("started|thread: main tid=1234, count=60000, state=D|dumped:1200 storaged parent=1 stat=D|"
         "tid:1234 pid:1200 ppid:1 in D 120s|killing 1200|tid:1234 pid:1200 ppid:1 in D 120s")
QUIET = ("Binder:7_1 71 state=S wchan=x2 count=50000|dumped hung proc:70 parent=5 wchan=x2|"
         "Binder:7_1 71 state=S wchan=x2 count=50000|nothing to do according to policy|"
         "Self stuck! restarting...")
KERNEL = ("task:main            state:D stack:    0 pid: 1234 ppid:     1 flags:0x00000208|"
          "Call trace:| __switch_to+0x110/0x188|"
          "task:other           state:D stack:0     pid:99    tgid:98    ppid:1      flags:0x0|"
          " other+0x1/0x2|tid:1234 pid:1200 ppid:1 in D 120s|sysrq: Trigger a crash")
OLD_KERNEL = ("main            D    0  1234      2 0x00000028| f+0x110/0x188|"
              "pid:1200 ppid:4294967295 in Z 10s|RenderThread in pid:8 ppid:9 cannot start 10s|"
              "pid:1200 ppid:567 wchan: do_x120s|tid:5 pid:4 ppid:3 in unswitch S 10s|"
              "Booting Linux on physical CPU 0x0|tid:5 pid:4 ppid:3 in unswitch S 10s|"
              "tid:1234 pid:1200 ppid:1 in T 10s|reboot: Restarting system with command 'tovrel'")
TOMBSTONE = b"pid: 4, tid: 5, name: watchdog  >>> /bin/server <<<\n"
NOISE = bytes(range(256)) * 40 + b"\n[ 1.0] killing 5\nI/other( 1): tid:1 pid:2 ppid:3 in D 1s\n"

def log(form, text):
    """The lines, each behind a prefix that has its second, from 20 on."""
    return "".join(form % (20 + n) + line + "\n" for n, line in enumerate(text.split("|"))).encode()

TASK, KILLED = "storaged main 1234 1200 1", "2x, killing 1200 D"
KERNEL_TASK, FRAME = "main 1234 1200 1", "\n__switch_to+0x110/0x188"
BY_DATE = f"11-21 13:44:23 {TASK} 13:43:21 13:44:22 {KILLED}"
CRASH = f"125.5 {KERNEL_TASK} 5.5 120.5 1x, crash D{FRAME}"
LOGCAT = log("11-21 13:44:%d.123  root   312   312 I tovrel  : ", STUCK)
DMESG = log("[  1%d.5] ", KERNEL)
ROWS = {  # the files, and what is found in them; the first may be an archive of the others
    "brief": ([log("I/tovrel  (%4d): ", STUCK)], f"? {TASK} ? ? {KILLED}"),
    "time": ([log("11-21 13:44:%d.123 I/tovrel  (  312): ", STUCK)], BY_DATE),
    "threadtime": ([log("11-21 13:44:%d.123   312   312 I tovrel  : ", STUCK)], BY_DATE),
    "year": ([log("2026-11-21 13:44:%d.1 +0100   312   312 I tovrel: ", STUCK)], "2026-" + BY_DATE),
    "epoch": ([log("        17952686%d.123   312   312 I tovrel  : ", STUCK)],
              f"2026-11-21 13:43:43 {TASK} 13:42:41 13:43:42 {KILLED}"),
    "a host's, in the kernel's": ([log("[  9.5] vm: tovrel I 11-21 13:44:%d 312 312 ", QUIET)],
             "11-21 13:44:23 Binder:7_1 71 70 5 13:43:30 13:44:21 1x, nothing wchan x2\n"
             "11-21 13:44:24 tovrel - - - - - 1x, restart self stuck"),
    "ramoops": ([log("<6>[  1%d.5][ T312] ", KERNEL)], CRASH),
    "dmesg -T": ([log("[Sat Nov 21 13:44:%d 2026] ", KERNEL)],
                 f"2026-11-21 13:44:25 {KERNEL_TASK} 13:42:25 13:44:20 1x, crash D{FRAME}"),
    "kernel's and twice Android's": ([DMESG, LOGCAT, LOGCAT], BY_DATE + FRAME),
    "two boots": ([log("[  1%d.5] ", OLD_KERNEL), TOMBSTONE],
                  "122.5 - - 1200 - 112.5 - 1x Z\n123.5 RenderThread - 8 9 113.5 - 1x missing\n"
                  "124.5 - - 1200 567 4.5 - 1x wchan do_x\n"
                  "125.5 server watchdog 5 4 3 115.5 - 1x unswitch\n"
                  "127.5 server watchdog 5 4 3 117.5 - 1x unswitch\n"
                  "128.5 main 1234 1200 1 118.5 120.5 1x, reboot T\nf+0x110/0x188"),
    "archive": ([None, NOISE, DMESG], CRASH),
    "noise": ([NOISE, b"tid:1 pid:2 ppid:3 in D\n", b"D  " * 99999], None)}

def find(*arguments):
    run = subprocess.run([FIND, *arguments], capture_output=True, text=True)
    lines = (" ".join(line.split()) for line in run.stdout.splitlines())
    return run.returncode, "\n".join(lines), run.stderr

with tempfile.TemporaryDirectory() as directory:
    for name, (contents, found) in ROWS.items():
        files = [pathlib.Path(directory, str(number)) for number, _ in enumerate(contents)]
        for file, content in zip(files, contents): file.write_bytes(content or b"")
        if contents[0] is None:
            with zipfile.ZipFile(files[0], "w") as archive:
                for file in files[1:]: archive.write(file)
            del files[1:]
        status, text, errors = find(*files)
        assert (status, errors) == (0, ""), (name, errors)
        title, _, rows = text.partition("\n")
        assert rows == found if found else title.startswith("no hang found in "), (name, text)
    assert find("--json", *files) == (0, "[]", "")
    files[0].write_bytes(b"PK\3\4 of which the end is lost")
    for arguments in ["--bogus"], files, [directory], [directory + "/none"]:
        status, text, errors = find(*arguments)
        assert (status, text, errors.count("\n")) == (2, "", 1), (arguments, text, errors)
