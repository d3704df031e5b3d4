#!/usr/bin/python3
"""Boots Debian's kernels in virtual machines. They play tests/vm/init, which judges by itself; here
is looked at what survives no guest, how the machine restarts.

Prints the verdicts on all facts. Exit status 1 if one does not hold or was not shown. The consoles'
logs stay in build/vm, and so do the fetched packages: remove them to have the newest.
"""
import concurrent.futures
import pathlib
import re
import shutil
import subprocess
import sys
from typing import NamedTuple

ROOT = pathlib.Path(__file__).resolve().parents[2]
INIT = ROOT / "tests/vm/init"


class Machine(NamedTuple):
    preset: str
    debian: str        # Debian's name of the architecture
    libraries: str
    emulator: str
    command_line: str  # the console, and memory that the kernel leaves to ramoops


MACHINES = {
    "x86_64": Machine("release", "amd64", "/usr/lib/x86_64-linux-gnu", "qemu-system-x86_64",
                      "console=ttyS0 memmap=2M$0x18000000 kept_memory=0x18000000"),
    "arm64": Machine("arm64", "arm64", "/usr/lib/aarch64-linux-gnu",
                     "qemu-system-aarch64 -M virt -cpu cortex-a57",
                     "console=ttyAMA0 mem=448M kept_memory=0x5d000000"),
}
# The processor's own virtualisation is not asked for: where it is offered, it may hang.
EMULATED = "-accel tcg -smp 2 -m 512 -display none -nodefaults -serial stdio"
PACKAGES = ["busybox-static", "libcap-ng0", "util-linux"]
LIBRARIES = ["android/libbase.so.0", "android/liblog.so.0", "ld-linux-*", "libc.so.6",
             "libgcc_s.so.1", "libjsoncpp.so.*", "libm.so.6", "libstdc++.so.6"]
BOOT_LIMIT = 240  # s

RESTARTED = 'policy reboot: the report, then a restart with the reason "tovrel"'
RESTART = (r"\] tid:(\d+) pid:\1 ppid:1 in T 4s\r?\n"
           r".*\] reboot: Restarting system with command 'tovrel'")


def run(*command, **options):
    """Returns the output; ends with it if the command fails."""
    done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          **{"cwd": ROOT, **options})
    if done.returncode != 0:
        sys.exit(f"test-vm: {' '.join(map(str, command))} failed\n{done.stdout}")
    return done.stdout


def fetch_packages(machine, target):
    """Unpacks the newest kernel and the guest's programs, without installing them."""
    if target.exists():
        return
    newest = run("apt-cache", "depends", f"linux-image-{machine.debian}:{machine.debian}")
    kernel = re.search(r"Depends: (linux-image-[^\s:]+)", newest)[1]
    new = target.with_suffix(".new")
    shutil.rmtree(new, ignore_errors=True)
    new.mkdir(parents=True)
    names = [f"{package}:{machine.debian}" for package in [kernel, *PACKAGES]]
    run("apt-get", "-q", "-o", "APT::Sandbox::User=root", "download", *names, cwd=new)
    for archive in new.glob("*.deb"):
        run("dpkg-deb", "-x", archive, new)
        archive.unlink()
    new.rename(target)


def make_image(machine, packages, root):
    build = ROOT / "build" / machine.preset
    contents = {
        "": [INIT, ROOT / "etc/tovrel.rc"],
        "bin": [packages / "bin/busybox", packages / "usr/bin/setpriv", build / "stuck_task"],
        "etc": [],
        "lib": [build / "vm/libcutils.so", *packages.rglob("libcap-ng.so.0"),
                *packages.rglob("ramoops.ko"), *packages.rglob("reed_solomon.ko")],
        "vendor/bin": [build / "tovrel"],
        "vendor/etc": [],
    }
    for pattern in LIBRARIES:
        contents["lib"] += pathlib.Path(machine.libraries).glob(pattern)
    shutil.rmtree(root, ignore_errors=True)
    for directory, files in contents.items():
        (root / directory).mkdir(parents=True, exist_ok=True)
        for file in files:
            shutil.copy(file, root / directory)
    (root / "lib64").symlink_to("lib")
    names = "".join(f"{path.relative_to(root)}\n" for path in root.rglob("*"))
    run("cpio", "--quiet", "-o", "-H", "newc", "--owner", "0:0", "-O", root.with_name("initrd"),
        cwd=root, input=names)


def prepare(name):
    machine, work = MACHINES[name], ROOT / "build/vm" / name
    run("bash", "-c", 'source scripts/build.bash; build "$@"', "scripts/test-vm", machine.preset,
        "tovrel", "stuck_task", "vm_cutils")
    fetch_packages(machine, work / "packages")
    make_image(machine, work / "packages", work / "root")


def boot(name, scenes):
    """Returns what the console showed."""
    machine, work = MACHINES[name], ROOT / "build/vm" / name
    kernel, = work.glob("packages/boot/vmlinuz-*")
    command = [*machine.emulator.split(), *EMULATED.split(), "-kernel", kernel,
               "-initrd", work / "initrd", "-append",
               f"{machine.command_line} panic=-1 scenes={','.join(scenes)}"]
    if scenes != ["panic"]:  # whose second boot finds what the first one left
        command.append("-no-reboot")
    log = work / f"{scenes[-1]}.log"
    with open(log, "wb") as console:
        try:
            subprocess.run(command, stdin=subprocess.DEVNULL, stdout=console,
                           stderr=subprocess.STDOUT, timeout=BOOT_LIMIT)
        except subprocess.TimeoutExpired:
            pass  # what is missing on the console tells
    return log.read_text(errors="replace")


def verdict(fact, console):
    if fact == RESTARTED:
        return "ok" if re.search(RESTART, console, re.DOTALL) else "FAILED: not on the console"
    found = re.search(rf"\] (ok|FAILED) {re.escape(fact)}(:[^\r\n]*)?\r?\n", console)
    return found[1] + (found[2] or "") if found else "FAILED: not shown"


def main():
    names = sys.argv[1:] or list(MACHINES)
    if not set(names) <= set(MACHINES):
        sys.exit(f"test-vm: there are {' and '.join(MACHINES)}")
    run("scripts/install-packages", "build", "vm", *(["arm64"] if "arm64" in names else []))
    for name in names:
        prepare(name)

    scenes = re.findall(r"^play_(\w+)", INIT.read_text(), re.MULTILINE)
    scenes.remove("panic")
    boots = [(name, played) for played in (scenes, ["panic"]) for name in names]
    with concurrent.futures.ThreadPoolExecutor(len(boots)) as pool:  # mostly they sleep
        shown = list(pool.map(boot, *zip(*boots)))
    consoles = {name: "".join(shown[i::len(names)]) for i, name in enumerate(names)}

    failures = []
    for fact in [*re.findall(r'^ *fact "(.*)"$', INIT.read_text(), re.MULTILINE), RESTARTED]:
        verdicts = {name: verdict(fact, consoles[name]) for name in names}
        print(*(f"{name} {text.partition(':')[0]:6} " for name, text in verdicts.items()), fact)
        failures += [f"{name}: {fact}: {text}" for name, text in verdicts.items() if text != "ok"]
    print(*failures, sep="\n")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
