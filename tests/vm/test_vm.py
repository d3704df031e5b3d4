#!/usr/bin/python3
"""Boots Debian's kernels in virtual machines, which play tests/vm/init and judge for themselves.
Looked at from here is only what no guest survives, the restart. Takes the names of machines from
scripts/test-vm, which has built what the guests need.
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
# What no guest can tell, and the kernel's last words by which it is seen.
RESTARTED = 'policy reboot restarts the machine with the reason "tovrel"'
LAST_WORDS = "reboot: Restarting system with command 'tovrel'"


def fetch_packages(debian, target):
    """Unpacks the newest kernel and the guest's programs, without installing them."""
    if target.exists():
        return
    newest = subprocess.check_output(
        ["apt-cache", "depends", f"linux-image-{debian}:{debian}"], text=True)
    kernel = re.search(r"Depends: (linux-image-[^\s:]+)", newest)[1]
    new = target.with_suffix(".new")
    shutil.rmtree(new, ignore_errors=True)  # of a fetch that was interrupted
    new.mkdir(parents=True)
    names = [f"{name}:{debian}" for name in [kernel, "busybox-static", "libcap-ng0", "util-linux"]]
    subprocess.run(["apt-get", "-qq", "download", *names], cwd=new, check=True)
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


def boot(machine, work, name, scenes):
    """Starts the emulator, which writes to the log of that name what the console shows."""
    kernel, = work.glob("packages/boot/vmlinuz-*")
    command = ["timeout", "--foreground", "240s", *f"{machine['emulator']} {EMULATED}".split(),
               "-kernel", kernel, "-initrd", work / "initrd",
               "-append", f"{machine['command_line']} panic=-1 scenes={','.join(scenes)}"]
    if name != "panic":  # whose second boot finds what the first one left
        command.append("-no-reboot")
    with open(work / f"{name}.log", "wb") as log:
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)


def find_verdicts(work):
    """A fact's verdict is "ok", or "FAILED" and what was seen."""
    console = "".join((work / name).read_text(errors="replace")
                      for name in ("facts.log", "panic.log"))
    verdicts = {fact: word + seen
                for word, fact, seen in re.findall(r"\] (ok|FAILED) ([^:\n]*):(.*)", console)}
    if LAST_WORDS in console:
        verdicts[RESTARTED] = "ok"
    return verdicts


def main():
    script = (ROOT / "tests/vm/init").read_text()
    facts = [*re.findall(r'^ *fact "(.*)"$', script, re.MULTILINE), RESTARTED]
    scenes = re.findall(r"^play_((?!panic)\w+)", script, re.MULTILINE)
    works = {name: ROOT / "build/vm" / name for name in sys.argv[1:]}
    boots = []
    for name, work in works.items():
        machine = MACHINES[name]
        fetch_packages(machine["debian"], work / "packages")
        make_image(ROOT / machine["build"] / "tests/vm/root", work)
        boots += [boot(machine, work, "facts", scenes), boot(machine, work, "panic", ["panic"])]
    for emulator in boots:
        emulator.wait()

    good = True
    for fact in facts:
        for name, work in works.items():
            verdict = find_verdicts(work).get(fact, "FAILED, not shown")
            print(f"{name} {verdict}", end="  ")
            good = good and verdict == "ok"
        print(fact)
    return 0 if good else 1


sys.exit(main())
