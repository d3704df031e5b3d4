"""Tests tools/check-device: with mksh and toybox alone on a made device, and through adb."""
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

CHECK = pathlib.Path(__file__).resolve().parent.parent / "tools/check-device"
SCRIPT = "#!/bin/sh\n"
CONFIG = {
    "policy": "panic",
    "switches": {"use_shell": True},
    "monitor_process": {"list": [{"process": "a", "thread": ["b"]}, {"process": "c"}]},
    "monitor_binder": {"uid_map": [{"name": "a"}], "enable": True,
                       "monitor_uids": [1000], "wchans": ["futex"]},
    "black_white_list": {"enable": True, "list": ["a"]}}
# A device that lacks nothing. Debian's toybox has no getprop and another ps and zcat.
DEVICE = {
    "etc/passwd": "root:x:0:0::/:/bin/sh\nshell:x:2000:2000::/:/bin/sh\n",
    "bin/getprop": SCRIPT + "cat /properties/$1\n",
    "bin/dmesg": SCRIPT + "cat /log\n",
    "bin/zcat": SCRIPT + "cat $1\n",
    "vendor/bin/sh": SCRIPT,
    "vendor/bin/grep": SCRIPT,
    "vendor/bin/ps": SCRIPT + 'echo "USER  PID ${2:+TID} PPID  VSZ RSS WCHAN  ADDR S NAME"\n',
    "vendor/etc/tovrel.json": json.dumps({"Config": CONFIG}, indent=2),
    "properties/persist.vendor.hg.binder": "",
    "sys/fs/selinux/enforce": "1",
    "log": "[    0.000000] Linux version 5.15\n",
    "freezer/frozen/tasks": "",
    "dev/kmsg": "",
    "dev/null": "",
    "proc/1/stat": "1 (init) S 0\n",
    "proc/5/task/6/comm": "Binder:5_1\n",
    "proc/5/task/7/comm": "HwBinder:5_1\n",
    "proc/77/stat": "77 (tovrel) S 1\n",
    "proc/77/cmdline": "/vendor/bin/tovrel\0",
    "proc/77/comm": "tovrel\n",
    "proc/77/status": "Gid:\t3009\t3009\nGroups:\t\nCapEff:\t0000000000080020\n",
    "proc/77/attr/current": "u:r:tovrel:s0\0",
    "proc/config.gz": "CONFIG_KALLSYMS=y\nCONFIG_STACKTRACE=y\n",
    "proc/consoles": "ramoops-1  -W- (E  p a)\n",
    "proc/mounts": "proc /proc proc rw,gid=3009,hidepid=invisible 0 0\n"
                   "none /freezer cgroup rw,freezer 0 0\n",
    "proc/sys/kernel/panic": "5\n",
    "proc/sys/kernel/printk": "7\t4\t1\t7\n",
    "proc/sys/kernel/printk_devkmsg": "ratelimit\n",
    "proc/sys/hung_task_enh/global_detect_mode": "",
    "proc/sys/hung_task_enh/max_iowait_task_cnt": "",
    "proc/sys/hung_task_enh/max_iowait_timeout_cnt": "",
    "proc/sys/hung_task_enh/per_task_detect_mode": "",
    "proc/sysrq-trigger": ""}

# What breaks that device, and how the lines begin that differ then.
SETTINGS = "vendor/etc/tovrel.json"
FAULTS = [
    (f"rm {SETTINGS}", "unknown what is used", "missing configuration"),
    (f"mv {SETTINGS} file; ln -s /file {SETTINGS}", "missing configuration"),
    (f"chmod 600 {SETTINGS}; chown 1000 {SETTINGS}", "missing configuration"),
    ("rm -r proc/77", "missing daemon process", "unknown capability KILL", "unknown group 3009",
     "unknown SELinux domain", "unknown capability SYS_PTRACE"),
    ("sed -i s/80020/80000/ proc/77/status", "missing capability KILL"),
    ("sed -i s/80020/00020/ proc/77/status", "missing capability SYS_PTRACE"),
    ("sed -i 's/80020/00020/; s/3009/0/g' proc/77/status", "missing group 3009",
     "missing capability SYS_PTRACE"),
    ("sed -i s/3009/0/g proc/77/status",),  # who may trace others sees them
    ("echo u:r:su:s0 >proc/77/attr/current", "missing SELinux domain"),
    ("echo 'avc:  denied { kill } scontext=u:r:tovrel:s0' >>log", "missing SELinux log"),
    ("echo '[ 9999.000000] later' >log", "unknown SELinux log"),
    ("rm proc/config.gz", "unknown CONFIG_KALLSYMS", "unknown CONFIG_STACKTRACE"),
    ("ln -sfn /none proc/self", "missing run counts"),
    ("chown 1000 proc/sysrq-trigger", "missing writable /proc/sysrq-trigger"),
    ("rm -r freezer/frozen", "missing group frozen"),
    ("sed -i 's/,hidepid.*/ 0 0/; /freezer/d' proc/mounts", "not used group 3009",
     "not used group frozen"),
    ("chmod u-w dev/kmsg", "missing writable /dev/kmsg"),
    ("echo off >proc/sys/kernel/printk_devkmsg", "missing printk.devkmsg"),
    ("echo ttyS0 >proc/consoles", "missing console log in pstore"),
    ("echo 4 4 1 7 >proc/sys/kernel/printk", "missing console log level"),
    ("echo 0 >proc/sys/kernel/panic", "missing panic time-out"),
    ("rm proc/sys/hung_task_enh/global_detect_mode", "missing writable files of"),
    ("echo binder:5_1 >proc/5/task/7/comm", "missing binder threads"),
    ("rm proc/5/task/6/comm", "unknown binder threads"),
    ("rm vendor/bin/sh", "missing /vendor/bin/sh"),
    ("rm vendor/bin/grep", "missing /vendor/bin/grep"),
    ("echo >vendor/bin/ps", "missing columns of ps -e", "missing columns of ps -T"),
    # What is switched off is not used.
    (f"sed -i 's/panic/reboot/' {SETTINGS}", "not used panic time-out"),
    ("echo reboot >properties/persist.vendor.hg.policy", "not used panic time-out"),
    (f"sed -i 's/panic/kill/' {SETTINGS}", "not used writable /dev/kmsg",
     "not used printk.devkmsg", "not used console log", "not used panic time-out"),
    (f"sed -i '/use_shell/s/true/false/' {SETTINGS}", "not used /vendor/bin/", "not used columns"),
    (f"sed -i '/enable/s/true/false/' {SETTINGS}", "not used writable files of",
     "not used binder threads", "not used capability SYS_PTRACE"),
    (f"sed -i '/enable/s/true/false/' {SETTINGS}; echo true >properties/persist.vendor.hg.binder",
     "not used writable files of"),
    (f"sed -i /futex/d {SETTINGS}", "not used capability SYS_PTRACE"),
]


def make_device(root):
    for name, text in DEVICE.items():
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_text(text)
        (root / name).chmod(0o755 if text.startswith(SCRIPT) else 0o644)
    for program in "mksh", "toybox":
        path = shutil.which(program)
        for file in [path, *re.findall(r"/\S+", subprocess.check_output(["ldd", path], text=True))]:
            (root / file[1:]).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(file, root / file[1:])
    (root / "bin/sh").symlink_to(shutil.which("mksh"))
    for command in subprocess.check_output(["toybox"], text=True).split():
        if not os.path.lexists(root / "bin" / command):
            (root / "bin" / command).symlink_to(shutil.which("toybox"))
    # The kernel's own, for what the script sees of its own shell.
    (root / "real").mkdir()
    (root / "proc/self").symlink_to("/real/self")


def check(command, **options):
    """The exit status, the lines with single blanks, and what is said of errors."""
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, **options)
    return done.returncode, re.sub(" +", " ", done.stdout).splitlines(), done.stderr


def check_on(root, user):
    """As "adb shell sh" starts it."""
    enter = (f"mount --bind /proc {root}/real && mount --bind /dev/null {root}/dev/null && "
             f"exec chroot --userspec={user}:{user} {root} env -i PATH=/bin sh -s -- --local")
    with open(CHECK) as script:
        status, lines, _ = check(["unshare", "--mount", "sh", "-c", enter], stdin=script)
    return status, lines


class Test(unittest.TestCase):
    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="check_device."))
        self.addCleanup(shutil.rmtree, self.directory)


def can_make_device():
    """Only root can, and not within a chroot, where mounts cannot be kept apart."""
    unshare = subprocess.run(["unshare", "--mount", "true"], capture_output=True)
    return os.geteuid() == 0 and unshare.returncode == 0


@unittest.skipUnless(can_make_device(), "no device can be made here")
class OnDevice(Test):
    def setUp(self):
        super().setUp()
        make_device(self.directory / "good")
        self.status, self.lines = check_on(self.directory / "good", user=0)

    def assert_differs(self, command, expected, user=0):
        """The lines that differ once the command has changed the device begin as expected."""
        root = self.directory / "broken"
        shutil.rmtree(root, ignore_errors=True)
        shutil.copytree(self.directory / "good", root, symlinks=True)
        subprocess.run(["sh", "-ec", command], cwd=root, check=True)
        status, lines = check_on(root, user)
        beginnings = {next(filter(line.startswith, expected), line)
                      for line in lines[:-1] if line not in self.lines}
        self.assertEqual(beginnings, set(expected))
        self.assertEqual(status, any(line.startswith("missing") for line in expected))

    def test_good_device(self):
        self.assertEqual(self.status, 0)
        self.assertEqual({line.split()[0] for line in self.lines[:-1]}, {"ok"})

    def test_faults(self):
        for command, *expected in FAULTS:
            with self.subTest(command):
                self.assert_differs(command, expected)

    def test_plain_user(self):
        """What this one cannot see may yet be there."""
        self.assert_differs(
            "rm -r proc/1 proc/77 bin/dmesg; chmod 700 proc/5; chmod 600 proc/consoles "
            "proc/config.gz proc/sys/kernel/printk", [
                "unknown what root alone may see", "unknown daemon process",
                "unknown capability KILL", "unknown group 3009", "unknown SELinux domain",
                "unknown SELinux log",
                "unknown CONFIG_", "unknown console log in", "unknown console log level",
                "unknown binder threads", "unknown capability SYS_PTRACE"], user=2000)


class ThroughAdb(Test):
    def setUp(self):
        super().setUp()
        # Neither the server nor the devices of whoever runs this.
        self.environment = {**os.environ, "PATH": f"{self.directory}:{os.environ['PATH']}",
                            "ADB_SERVER_SOCKET": f"localfilesystem:{self.directory}/socket"}

    def play_adb(self, text):
        (self.directory / "adb").write_text(SCRIPT + text)
        (self.directory / "adb").chmod(0o755)

    def check(self, *arguments):
        return check([CHECK, *arguments], env=self.environment)

    @unittest.skipUnless(shutil.which("adb"), "needs the package adb")
    def test_no_device(self):
        self.addCleanup(subprocess.run, ["adb", "kill-server"], env=self.environment)
        for arguments in [], ["-s", "nowhere"]:
            status, lines, error = self.check(*arguments)
            self.assertEqual((status, lines), (2, []))
            self.assertRegex(error, "^check-device: no device .*-s SERIAL.*: error: .*\n$")

    def test_lost_device(self):
        self.play_adb("[ $1 = shell ] && echo 'missing  console log' || echo device")
        status, lines, error = self.check()
        self.assertEqual((status, lines), (2, ["missing console log"]))
        self.assertIn("dropped off", error)

    def test_old_device(self):
        """Its lines end with CR LF, and the exit status is lost."""
        self.play_adb("""[ "$1" = shell ] && shift && "$@" | sed 's/$/\\r/' || echo device""")
        status, lines, _ = self.check()
        self.assertEqual(status, 1)
        self.assertRegex(lines[-1], r"^check-device: [1-9]\d* missing")

    def test_bad_usage(self):
        for arguments in ["-x"], ["-s"], ["--local", "-x"]:
            self.assertEqual(self.check(*arguments)[0], 2)


if __name__ == "__main__":
    unittest.main()
