#!/usr/bin/python3
"""Boots Debian's kernels in virtual machines, which play tests/vm/init and judge for themselves.
Looked at from here is only what no guest survives, the restart.

usage: test_vm.py MACHINE...    started by scripts/test-vm, which builds what the guests need
"""
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

# A kernel's command line names the console, and memory that it leaves to ramoops.
MACHINES = {
    "x86_64": dict(
        build="build/release", debian="amd64", emulator="qemu-system-x86_64",
        command_line="console=ttyS0 memmap=2M$0x18000000 kept_memory=0x18000000"),
    "arm64": dict(
        build="build/arm64", debian="arm64", emulator="qemu-system-aarch64 -M virt -cpu cortex-a57",
        command_line="console=ttyAMA0 mem=448M kept_memory=0x5d000000"),
}
# The processor's own virtualisation is not asked for: where it is offered, it may hang.
EMULATED = "-accel tcg -smp 2 -m 512 -display none -nodefaults -serial stdio"
BOOT_LIMIT = "240"  # s
PACKAGES = ["busybox-static", "libcap-ng0", "util-linux"]

RESTARTED = 'policy reboot reports to the kernel log and restarts with the reason "tovrel"'
RESTART = (r"\] tid:(\d+) pid:\1 ppid:1 in T 4s\n"
           r".*\] reboot: Restarting system with command 'tovrel'")


def fetch_packages(debian, target):
    """Unpacks the newest kernel and the guest's programs, without installing them."""
    if target.exists():
        return
    newest = subprocess.check_output(
        ["apt-cache", "depends", f"linux-image-{debian}:{debian}"], text=True)
    kernel = re.search(r"Depends: (linux-image-[^\s:]+)", newest)[1]
    new = target.with_suffix(".new")
    shutil.rmtree(new, ignore_errors=True)
    new.mkdir(parents=True)
    names = [f"{package}:{debian}" for package in [kernel, *PACKAGES]]
    subprocess.run(["apt-get", "-qq", "-o", "APT::Sandbox::User=root", "download", *names],
                   cwd=new, check=True)
    for archive in new.glob("*.deb"):
        subprocess.run(["dpkg-deb", "-x", archive, new], check=True)
    new.rename(target)


def make_image(root, work):
    """Adds the packages' part to what the build laid out."""
    for name, directory in {"bin/busybox": "bin", "bin/setpriv": "bin", "libcap-ng.so.0": "lib",
                            "reed_solomon.ko": "lib", "ramoops.ko": "lib"}.items():
        shutil.copy(next(work.glob(f"packages/**/{name}")), root / directory)
    subprocess.run(f"find | cpio --quiet -o -H newc --owner 0:0 >{work}/initrd", shell=True,
                   cwd=root, check=True)


def boot(machine, work, scenes):
    """Starts the emulator, which writes what the console shows to a log named after a scene."""
    kernel, = work.glob("packages/boot/vmlinuz-*")
    command = ["timeout", "--foreground", BOOT_LIMIT, *f"{machine['emulator']} {EMULATED}".split(),
               "-kernel", kernel, "-initrd", work / "initrd",
               "-append", f"{machine['command_line']} panic=-1 scenes={','.join(scenes)}"]
    if scenes != ["panic"]:  # whose second boot finds what the first one left
        command.append("-no-reboot")
    with open(work / f"{scenes[0]}.log", "wb") as log:
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)


def find_verdicts(work):
    """The word on each fact, and what was seen."""
    console = "".join(log.read_text(errors="replace") for log in work.glob("*.log"))
    verdicts = {fact: (word, seen) for word, fact, seen
                in re.findall(r"\] (ok|FAILED) ([^:\n]*):(.*)", console)}
    if re.search(RESTART, console, re.DOTALL):
        verdicts[RESTARTED] = "ok", ""
    return verdicts


def main():
    script = (ROOT / "tests/vm/init").read_text()
    facts = [*re.findall(r'^ *fact "(.*)"$', script, re.MULTILINE), RESTARTED]
    scenes = re.findall(r"^play_(\w+)", script, re.MULTILINE)
    scenes.remove("panic")
    works = {name: ROOT / "build/vm" / name for name in sys.argv[1:]}
    boots = []
    for name, work in works.items():
        machine = MACHINES[name]
        fetch_packages(machine["debian"], work / "packages")
        make_image(ROOT / machine["build"] / "tests/vm/root", work)
        boots += [boot(machine, work, played) for played in (scenes, ["panic"])]
    for emulator in boots:
        emulator.wait()

    shown = {name: find_verdicts(work) for name, work in works.items()}
    failures = []
    for fact in facts:
        for name, verdicts in shown.items():
            word, seen = verdicts.get(fact, ("FAILED", " not shown"))
            print(name, word.ljust(6), end="  ")
            if word != "ok":
                failures.append(f"{name}: {fact}:{seen}")
        print(fact)
    print(*failures, sep="\n")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
