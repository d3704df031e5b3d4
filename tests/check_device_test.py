"""Tests tools/check-device: with mksh and toybox alone on a made device, and through adb."""
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
CHECK = ROOT / "tools/check-device"
ALL_ON = ((ROOT / "etc/tovrel.json").read_text().replace("false", "true")
          .replace('"nothing"', '"panic"').replace('"wchans": []', '"wchans": ["futex"]'))
SCRIPT = "#!/bin/sh\n"
# A device that lacks nothing. Debian's toybox has no getprop and another ps.
DEVICE = {
    "etc/passwd": "root:x:0:0::/:/bin/sh\nshell:x:2000:2000::/:/bin/sh\n",
    "bin/getprop": SCRIPT + "cat /properties/$1\n",
    "bin/dmesg": SCRIPT + "cat /log\n",
    "vendor/bin/sh": SCRIPT,
    "vendor/bin/grep": SCRIPT,
    "vendor/bin/ps": SCRIPT + "echo 'USER  PID TID PPID  VSZ RSS WCHAN  ADDR S NAME'\n",
    "vendor/etc/tovrel.json": ALL_ON,
    "properties/persist.vendor.hg.binder": "",
    "sys/fs/selinux/enforce": "1",
    "log": "[    0.000000] Linux version 5.15\n",
    "proc/5/task/6/comm": "Binder:5_1\n",
    "proc/5/task/7/comm": "HwBinder:5_1\n",
    "proc/77/cmdline": "/vendor/bin/tovrel\0",
    "proc/77/status": "Gid:\t3009\t3009\nGroups:\t\nCapEff:\t0000000000080020\n",
    "proc/77/attr/current": "u:r:tovrel:s0\0",
    "proc/consoles": "ramoops-1  -W- (E  p a)\n",
    "proc/kallsyms": "",
    "proc/mounts": "proc /proc proc rw,gid=3009,hidepid=invisible 0 0\n",
    "proc/self/schedstat": "52301 1200 7\n",
    "proc/self/stack": "",
    "proc/sys/kernel/panic": "5\n",
    "proc/sys/kernel/printk": "7\t4\t1\t7\n",
    "proc/sys/kernel/printk_devkmsg": "ratelimit\n",
    "proc/sys/hung_task_enh/global_detect_mode": "",
    "proc/sys/hung_task_enh/max_iowait_task_cnt": "",
    "proc/sys/hung_task_enh/max_iowait_timeout_cnt": "",
    "proc/sys/hung_task_enh/per_task_detect_mode": "",
    "proc/sysrq-trigger": ""}
# Of toybox the commands that check-device needs. /dev/null takes what they say of errors.
ADD_PROGRAMS = """
    cp --parents $(ldd $(which mksh toybox) | grep -o '/[^ :]*' | sort -u) .
    for name in cat grep id ls pidof printf sed tail; do ln -s $(which toybox) bin/$name; done
    ln -s $(which mksh) bin/sh
    install -D -m 666 /dev/null dev/null
    config=vendor/etc/tovrel.json
    property=properties/persist.vendor.hg
    """

# What changes that device, and how the lines begin that differ then. The capabilities 80020 are
# KILL and SYS_PTRACE, 80022 has DAC_OVERRIDE, too.
CHANGES = [
    ("rm $config", "unknown what is used", "missing configuration"),
    ("mv $config file; ln -s /file $config", "missing configuration"),
    ("chmod 600 $config; chown 1000 $config", "missing configuration"),
    ("chmod 600 $config; chown 1000 $config; sed -i s/80020/80022/ proc/77/status",),
    ("rm -r proc/77", "missing daemon process", "unknown capability KILL", "unknown group 3009",
     "unknown SELinux domain", "unknown capability SYS_PTRACE"),
    ("sed -i s/80020/80000/ proc/77/status", "missing capability KILL"),
    ("sed -i 's/80020/00020/; s/3009/0/g' proc/77/status", "missing group 3009",
     "missing capability SYS_PTRACE"),
    ("sed -i s/3009/0/g proc/77/status",),  # who may trace others sees them
    ("sed -i s/,hidepid.*// proc/mounts", "not used group 3009"),
    ("echo u:r:su:s0 >proc/77/attr/current", "missing SELinux domain"),
    ("echo 'avc:  denied { kill } scontext=u:r:tovrel:s0' >>log", "missing SELinux log"),
    ("echo '[ 9999.000000] later' >log", "unknown SELinux log"),
    ("rm -r proc/kallsyms proc/self", "missing CONFIG_KALLSYMS", "missing CONFIG_STACKTRACE",
     "missing run counts"),
    ("echo 0 0 0 >proc/self/schedstat", "missing run counts"),
    ("chown 1000 proc/sysrq-trigger", "missing writable /proc/sysrq-trigger"),
    ("echo off >proc/sys/kernel/printk_devkmsg", "missing printk.devkmsg"),
    ("echo ttyS0 >proc/consoles", "missing console log in pstore"),
    ("echo 4 4 1 7 >proc/sys/kernel/printk", "missing console log level"),
    ("echo 0 >proc/sys/kernel/panic", "missing panic time-out"),
    ("rm proc/sys/hung_task_enh/global_detect_mode", "missing writable files of"),
    ("echo binder:5_1 >proc/5/task/7/comm", "missing binder threads"),
    ("rm proc/5/task/6/comm", "unknown binder threads"),
    ("rm vendor/bin/sh vendor/bin/grep; echo >vendor/bin/ps", "missing /vendor/bin/sh",
     "missing /vendor/bin/grep", "missing /vendor/bin/ps"),
    # What is switched off is not used.
    ("tr -d '\\n' <$config >line; sed s/panic/reboot/ line >$config", "not used panic time-out"),
    ("echo kill >$property.policy", "not used printk", "not used console", "not used panic"),
    ("echo nothing >$property.policy",),  # the daemon does not take it
    ("sed -i /use_shell/s/true/false/ $config", "not used /vendor/bin/"),
    ("sed -i /enable/s/true/false/ $config", "not used writable files of",
     "not used binder threads", "not used capability SYS_PTRACE"),
    ("sed -i /enable/s/true/false/ $config; echo 1 >$property.binder", "not used writable files"),
    ("sed -i s/.futex.// $config", "not used capability SYS_PTRACE"),
]


def check(command, **options):
    """The exit status, the lines with single blanks, and what is said of errors."""
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, **options)
    return done.returncode, re.sub(" +", " ", done.stdout).splitlines(), done.stderr


def check_on_device(change, user=0):
    """As "adb shell sh" starts it."""
    with tempfile.TemporaryDirectory() as directory:
        root = pathlib.Path(directory, "device")
        for name, text in DEVICE.items():
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(text)
            (root / name).chmod(0o755 if text.startswith(SCRIPT) else 0o644)
        subprocess.run(["sh", "-ec", ADD_PROGRAMS + change], cwd=root, check=True)
        shell = ["chroot", f"--userspec={user}:{user}", root, "sh", "-s", "--", "--local"]
        return check(shell, input=CHECK.read_text(), env={"PATH": "/usr/sbin:/bin"})


@unittest.skipUnless(os.geteuid() == 0, "only root can make a device")
class OnDevice(unittest.TestCase):
    def test_changes(self):
        status, good, _ = check_on_device("")
        self.assertEqual(status, 0)
        self.assertEqual({line.split()[0] for line in good[:-1]}, {"ok"})
        for change, *expected in CHANGES:
            with self.subTest(change):
                status, lines, _ = check_on_device(change)
                beginnings = {next(filter(line.startswith, expected), line)
                              for line in lines[:-1] if line not in good}
                self.assertEqual(beginnings, set(expected))
                self.assertEqual(status, "missing" in " ".join(expected))

    def test_plain_user(self):
        """What this one cannot see may yet be there."""
        status, lines, _ = check_on_device("chmod -R go= proc; rm -r vendor bin/dmesg", user=2000)
        self.assertEqual(status, 0)
        self.assertEqual({line.split()[0] for line in lines[:-1]}, {"unknown", "not"})


class ThroughAdb(unittest.TestCase):
    def setUp(self):
        self.directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        # Neither the server nor the devices of whoever runs this.
        self.environment = {**os.environ, "PATH": f"{self.directory}:{os.environ['PATH']}",
                            "ADB_SERVER_SOCKET": f"localfilesystem:{self.directory}/socket"}

    def check(self, *arguments):
        return check([CHECK, *arguments], env=self.environment)

    @unittest.skipUnless(shutil.which("adb"), "needs the package adb")
    def test_without_device(self):
        self.addCleanup(subprocess.run, ["adb", "kill-server"], env=self.environment)
        for arguments, said in [([], "choose one with -s SERIAL"),
                                (["-s", "nowhere"], "choose one with -s SERIAL"),
                                (["-s"], "usage:"),
                                (["--local", "-x"], "usage:")]:
            with self.subTest(arguments):
                status, lines, error = self.check(*arguments)
                self.assertEqual((status, lines), (2, []))
                self.assertIn(said, error)

    def test_last_line(self):
        """Some adb end lines with CR LF and lose the exit status."""
        for line, expected in [("missing console log", 2),
                               ("check-device: 10 missing\r", 1),
                               ("check-device: 0 missing\r", 0)]:
            (self.directory / "adb").write_text(f"{SCRIPT}echo '{line}'\n")
            (self.directory / "adb").chmod(0o755)
            with self.subTest(line):
                self.assertEqual(self.check()[:2], (expected, line.splitlines()))


if __name__ == "__main__":
    unittest.main()
